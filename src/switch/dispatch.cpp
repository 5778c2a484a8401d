// SPDX-License-Identifier: Apache-2.0
// The driver table and the routing of numbered commands to a switch's driver.
#include <cstring>

#include "drivers/bcm/bcm.h"
#include "drivers/pse/pse.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

extern "C" {
// Searched in order; the empty last entry never matches a real switch name.
SwitchDriverEntry switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE] = {
    {"BCM", bcmSwitchRegister, bcmSwitchUnRegister},
    {"PSE", pseSwitchRegister, pseSwitchUnRegister},
    {"", nullptr, nullptr},
};
}

namespace {
SwitchDriverEntry *driverFor(const Switch *sw) {
    for (auto &entry : switchConfigFuncRegisterTbl) {
        if (entry.name[0] == '\0') continue;
        if (std::strncmp(entry.name, sw->switchName, SW_NAME_LEN) == 0) return &entry;
    }
    return nullptr;
}
}  // namespace

extern "C" int switchConfigFuncRegister(Switch *sw) {
    if (sw == nullptr) return SW_EINVAL;
    SwitchDriverEntry *entry = driverFor(sw);
    if (entry == nullptr || entry->registerFn == nullptr) return -1;
    return entry->registerFn(sw);
}

extern "C" int switchConfigFuncUnRegister(Switch *sw) {
    if (sw == nullptr) return SW_EINVAL;
    SwitchDriverEntry *entry = driverFor(sw);
    if (entry != nullptr && entry->unregisterFn != nullptr) entry->unregisterFn(sw);
    return 0;
}

extern "C" int switchConfig(void *request, int cmd, void *reply, int *replyLen) {
    if (request == nullptr) return -1;
    // The name field is 64 bytes on the wire and need not be terminated.
    char name[SW_BUS_NAME_LEN + 1] = {};
    std::memcpy(name, request, SW_BUS_NAME_LEN);
    Switch *sw = switchByNameGet(name);
    if (sw == nullptr || sw->switchConfigFunc == nullptr) return -1;

    // Every routed command carries the whole 1300-byte argument area.
    int r = sw->switchConfigFunc(sw, cmd, static_cast<char *>(request) + SW_BUS_NAME_LEN,
                                 SW_BUS_ARG_LEN, reply, replyLen);
    if (r < 0) SWMGR_LOG("", SW_LOG_ERR, "Failed to process cmd %d on %s \n", cmd, sw->switchName);
    return r;
}
