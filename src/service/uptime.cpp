// SPDX-License-Identifier: Apache-2.0
// Uptime stamps: the system's uptime in whole seconds, kept in small text
// files so that other programs can tell since when something exists.
#include <cctype>
#include <cstdio>

#include "common/number.h"

#include "swmgr/platform/osa.h"
#include "swmgr/swmgr.h"

namespace {
constexpr const char *kUptimeSource = "/proc/uptime";

// Closes the stream on every way out.
struct FileCloser {
    FILE *file;
    ~FileCloser() {
        if (file != nullptr) osaFileClose(file);
    }
};
}  // namespace

extern "C" int timeEventGet(uint32_t *seconds, const char *path) {
    if (seconds == nullptr || path == nullptr) return -1;
    *seconds = 0;
    FileCloser in{osaFileOpen(path, "r")};
    if (in.file == nullptr) return -1;
    // The number stops at the decimal point, so "/proc/uptime" yields whole
    // seconds. A file without a number, or with one that a u32 cannot hold
    // (a sign included), leaves the zero in place.
    char text[32] = {};
    if (std::fgets(text, sizeof text, in.file) == nullptr) return 0;
    const char *p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    if (!std::isdigit(static_cast<unsigned char>(*p))) return 0;
    if (const std::optional<int64_t> value = swmgr::parseLeadingInt(p, 0, UINT32_MAX))
        *seconds = static_cast<uint32_t>(*value);
    return 0;
}

extern "C" int timeEventRecord(const char *path) {
    if (path == nullptr) return -1;
    uint32_t seconds;  // set whenever the read succeeds
    if (timeEventGet(&seconds, kUptimeSource) != 0) return -1;
    FileCloser out{osaFileOpen(path, "w+")};
    if (out.file == nullptr) return -1;
    osaFilePrintf(out.file, "%u\n", static_cast<unsigned>(seconds));
    return 0;
}
