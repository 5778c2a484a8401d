// SPDX-License-Identifier: Apache-2.0
// Devices over open/ioctl/close, with device models served in-process.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <map>
#include <string>

#include "hook_list.h"
#include "osa_port.h"

namespace {
std::map<std::string, OsaDeviceModel> &models() {
    static std::map<std::string, OsaDeviceModel> m;
    return m;
}
std::map<int, OsaDeviceModel> &openModels() {
    static std::map<int, OsaDeviceModel> m;
    return m;
}
swport::HookList<OsaIoctlHook> &ioctlHooks() {
    static swport::HookList<OsaIoctlHook> h;
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

extern "C" int osaPortIoctlHookAdd(OsaIoctlHook hook, void *ctx) { return ioctlHooks().add(hook, ctx); }

extern "C" int osaPortIoctlHookRemove(OsaIoctlHook hook, void *ctx) { return ioctlHooks().remove(hook, ctx); }

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
    int result = 0;
    if (ioctlHooks().anyTakes([&](OsaIoctlHook hook, void *ctx) { return hook(ctx, d, request, arg, &result) != 0; }))
        return result;
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
