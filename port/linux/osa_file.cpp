// SPDX-License-Identifier: Apache-2.0
// Files over stdio, optionally below a root directory so that a test or the
// simulator never touches the real /var.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mbus_wire.h"
#include "osa_port.h"

namespace {
std::string &fileRoot() {
    static std::string root;
    return root;
}

bool writes(const char *mode) {
    return mode == nullptr || std::strpbrk(mode, "wa+") != nullptr;
}

std::string mapPath(const char *path, bool forWriting) {
    const std::string &root = fileRoot();
    if (root.empty() || path == nullptr || path[0] != '/') return path != nullptr ? path : "";
    std::string rooted = root + path;
    if (forWriting) return rooted;
    struct stat st {};
    return ::stat(rooted.c_str(), &st) == 0 ? rooted : std::string(path);
}
}  // namespace

extern "C" void osaPortFileRootSet(const char *root) {
    fileRoot() = root != nullptr ? root : "";
    while (!fileRoot().empty() && fileRoot().back() == '/') fileRoot().pop_back();
}

extern "C" const char *osaPortFileRootGet(void) {
    return fileRoot().empty() ? nullptr : fileRoot().c_str();
}

extern "C" int osaPortFilePathMap(const char *path, const char *mode, char *out, int cap) {
    if (path == nullptr || out == nullptr || cap <= 0) return -1;
    std::string p = mapPath(path, writes(mode));
    std::snprintf(out, static_cast<size_t>(cap), "%s", p.c_str());
    return p.size() < static_cast<size_t>(cap) ? 0 : -1;
}

extern "C" FILE *osaFileOpen(const char *path, const char *mode) {
    if (path == nullptr || mode == nullptr) return nullptr;
    return std::fopen(mapPath(path, writes(mode)).c_str(), mode);
}

extern "C" int osaFilePrintf(FILE *file, const char *format, ...) {
    if (file == nullptr || format == nullptr) return -1;
    va_list ap;
    va_start(ap, format);
    int r;
    if (file == stderr) {
        // Formatted first: while a request is served the text waits for its
        // reply. A diagnostic line fits the buffer; only a longer text is
        // allocated (on failure the C library leaves `heap` as it was).
        char line[1280];
        char *heap = nullptr;
        va_list again;
        va_copy(again, ap);
        r = std::vsnprintf(line, sizeof line, format, ap);
        if (r >= static_cast<int>(sizeof line)) r = ::vasprintf(&heap, format, again);
        va_end(again);
        const char *text = heap != nullptr ? heap : line;
        if (r >= 0 && !mbuswire::holdConsole({text, static_cast<size_t>(r)}))
            std::fwrite(text, 1, static_cast<size_t>(r), stderr);
        std::free(heap);
    } else {
        r = std::vfprintf(file, format, ap);
    }
    va_end(ap);
    return r;
}

extern "C" int osaFileClose(FILE *file) {
    if (file == nullptr) return -1;
    return std::fclose(file);
}

extern "C" int osaUnlink(const char *path) {
    if (path == nullptr) return -1;
    return ::unlink(mapPath(path, true).c_str());
}
