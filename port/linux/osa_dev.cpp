// SPDX-License-Identifier: Apache-2.0
// Devices over open/ioctl/close, with device models served in-process.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "osa_port.h"

namespace {
struct IoctlHookEntry {
    OsaIoctlHook hook;
    void *ctx;
};
std::map<std::string, OsaDeviceModel> &models() {
    static std::map<std::string, OsaDeviceModel> m;
    return m;
}
std::map<int, OsaDeviceModel> &openModels() {
    static std::map<int, OsaDeviceModel> m;
    return m;
}
std::vector<IoctlHookEntry> &ioctlHooks() {
    static std::vector<IoctlHookEntry> h;
    return h;
}
}  // namespace

extern "C" int osaPortDeviceAttach(const char *path, const OsaDeviceModel *model) {
    if (path == nullptr || model == nullptr || model->ioctl == nullptr) return -1;
    models()[path] = *model;
    return 0;
}

extern "C" int osaPortDeviceDetach(const char *path) {
    if (path == nullptr) return -1;
    return models().erase(path) == 1 ? 0 : -1;
}

extern "C" int osaPortIoctlHookAdd(OsaIoctlHook hook, void *ctx) {
    if (hook == nullptr) return -1;
    ioctlHooks().push_back({hook, ctx});
    return 0;
}

extern "C" int osaPortIoctlHookRemove(OsaIoctlHook hook, void *ctx) {
    auto &h = ioctlHooks();
    auto it = std::find_if(h.begin(), h.end(),
                           [&](const IoctlHookEntry &e) { return e.hook == hook && e.ctx == ctx; });
    if (it == h.end()) return -1;
    h.erase(it);
    return 0;
}

extern "C" unsigned int osaPortIoctlArgSize(unsigned int request) {
    return (request >> 16) & 0x1fffu;
}

extern "C" int osaOpen(const char *path, int flags, int mode) {
    if (path == nullptr) return -1;
    auto it = models().find(path);
    if (it == models().end()) return ::open(path, flags, static_cast<mode_t>(mode));
    if (it->second.open != nullptr) {
        const int r = it->second.open(it->second.ctx, flags, mode);
        if (r < 0) {
            errno = -r;
            return -1;
        }
    }
    // A real descriptor keeps the number unique among the process's others.
    int d = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (d < 0) return -1;
    openModels()[d] = it->second;
    return d;
}

extern "C" int osaIoctl(int d, unsigned int request, void *arg) {
    // Copy: a hook may add or remove hooks while it runs.
    auto hooks = ioctlHooks();
    for (const auto &h : hooks) {
        int result = 0;
        if (h.hook(h.ctx, d, request, arg, &result)) return result;
    }
    auto it = openModels().find(d);
    if (it != openModels().end()) return it->second.ioctl(it->second.ctx, request, arg);
    return ::ioctl(d, request, arg);
}

extern "C" int osaClose(int d) {
    auto it = openModels().find(d);
    if (it != openModels().end()) {
        OsaDeviceModel model = it->second;
        openModels().erase(it);
        if (model.close != nullptr) model.close(model.ctx);
    }
    return ::close(d);
}
