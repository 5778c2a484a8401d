// Attaching the PSE driver to a switch record and its command entry.
#include <cstring>

#include "drivers/pse/pse.h"
#include "service/swmgr.h"

namespace {
bool isPse(const Switch *sw) {
    return sw != nullptr && std::strncmp(sw->switchName, "PSE", sizeof sw->switchName) == 0;
}
}  // namespace

extern "C" int pseSwitchRegister(Switch *sw) {
    if (!isPse(sw)) return SW_EINVAL;
    // The engine is driven by its tools: nothing to open at attach time.
    sw->switchConfigFunc = pseSwitchConfig;
    sw->driverPriv = pseConfTransfer;
    return 0;
}

extern "C" int pseSwitchUnRegister(Switch *sw) {
    if (!isPse(sw)) return SW_EINVAL;
    sw->switchConfigFunc = nullptr;
    sw->driverPriv = nullptr;
    return 0;
}

extern "C" int pseSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                               int *replyLen) {
    (void)sw;
    (void)arg;
    (void)argLen;
    (void)reply;
    (void)replyLen;
    SWMGR_LOG("", SW_LOG_INFO, "handler not defined for command (%d)\n", cmd);
    return 0;
}

extern "C" int pseConfTransfer(Switch *sw, Switch *lower, int cmd, void *arg, int argLen,
                               void *reply, int *replyLen) {
    (void)sw;
    if (lower == nullptr || lower->switchConfigFunc == nullptr) return -1;
    return lower->switchConfigFunc(lower, cmd, arg, argLen, reply, replyLen);
}
