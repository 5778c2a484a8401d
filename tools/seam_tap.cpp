// SPDX-License-Identifier: Apache-2.0
#include "seam_tap.h"

#include <cstdlib>
#include <cstring>

namespace swtool {
namespace {
constexpr unsigned kIfNameLen = 16;
}  // namespace

SeamTap::~SeamTap() {
    if (commands_) {
        osaPortCmdHookRemove(onCommand, this);
        osaPortIoctlHookRemove(onIoctl, this);
    }
    if (system_) {
        // Only undo what is still ours: whoever came later restores their own.
        OsaCmdHook now = nullptr;
        void *nowCtx = nullptr;
        osaPortSystemHookGet(&now, &nowCtx);
        if (now == onSystem && nowCtx == this) osaPortSystemHookSet(nextSystem_, nextSystemCtx_);
    }
}

void SeamTap::watchCommands() {
    if (commands_) return;
    osaPortCmdHookAdd(onCommand, this);
    osaPortIoctlHookAdd(onIoctl, this);
    commands_ = true;
}

void SeamTap::watchSystem() {
    if (system_) return;
    osaPortSystemHookGet(&nextSystem_, &nextSystemCtx_);
    osaPortSystemHookSet(onSystem, this);
    system_ = true;
}

// Each hook runs the line once more through the seam, with itself stepping
// aside, so whatever stands behind it decides the status.
int SeamTap::onCommand(void *ctx, const char *command, int *status) {
    auto *self = static_cast<SeamTap *>(ctx);
    if (self->inside_) return 0;
    self->inside_ = true;
    *status = osaCmdExec(command, nullptr, 0);
    self->inside_ = false;
    TapEvent ev{TapEvent::kCommand, command, 0, {}, 0, *status};
    self->sink_(ev);
    return 1;
}

int SeamTap::onSystem(void *ctx, const char *command, int *status) {
    auto *self = static_cast<SeamTap *>(ctx);
    if (self->inside_) return 0;
    self->inside_ = true;
    if (self->nextSystem_ == nullptr || !self->nextSystem_(self->nextSystemCtx_, command, status))
        *status = std::system(command);
    self->inside_ = false;
    TapEvent ev{TapEvent::kSystem, command, 0, {}, 0, *status};
    self->sink_(ev);
    return 1;
}

int SeamTap::onIoctl(void *ctx, int fd, unsigned request, void *arg, int *result) {
    auto *self = static_cast<SeamTap *>(ctx);
    if (self->inside_) return 0;
    TapEvent ev{TapEvent::kIoctl, {}, request, {}, 0, 0};
    // The interface requests of the socket layer predate size-encoded codes;
    // their record starts with the interface's name.
    const unsigned size = request == kSiocgifhwaddr ? kIfNameLen : osaPortIoctlArgSize(request);
    if (size > 0 && arg != nullptr)
        ev.arg.assign(static_cast<const uint8_t *>(arg), static_cast<const uint8_t *>(arg) + size);
    else
        ev.value = reinterpret_cast<uintptr_t>(arg);
    self->inside_ = true;
    *result = osaIoctl(fd, request, arg);
    self->inside_ = false;
    ev.status = *result;
    self->sink_(ev);
    return 1;
}

}  // namespace swtool
