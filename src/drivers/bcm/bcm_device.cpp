// Attaching the BCM driver to a switch record and its command entry.
#include <cstring>

#include "drivers/bcm/bcm.h"
#include "platform/osa.h"
#include "service/swmgr.h"

extern "C" {
int fd = 0;
}

namespace {
bool isBcm(const Switch *sw) {
    return sw != nullptr && std::strncmp(sw->switchName, "BCM", sizeof sw->switchName) == 0;
}
constexpr int kOpenReadWrite = 2;
}  // namespace

extern "C" int bcmSwitchRegister(Switch *sw) {
    if (!isBcm(sw)) return SW_EINVAL;
    // Installed before the open and left in place when it fails: later
    // commands still reach the driver and fail on the bad descriptor.
    sw->switchConfigFunc = bcmSwitchConfig;
    fd = osaOpen(sw->switchDevice, kOpenReadWrite, 0);
    if (fd < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to open the device %s \n", sw->switchDevice);
        return SW_EINVAL;
    }
    return 0;
}

extern "C" int bcmSwitchUnRegister(Switch *sw) {
    if (!isBcm(sw)) return SW_EINVAL;
    sw->switchConfigFunc = nullptr;
    // Descriptor 0 is the "never opened" value and is not ours to close.
    if (fd >= 1) osaClose(fd);
    return 0;
}

extern "C" int bcmSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                               int *replyLen) {
    (void)arg;
    (void)argLen;
    (void)reply;
    (void)replyLen;
    SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Invalid command (%d)\n", cmd);
    SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "(%d) processing returned %d \n", cmd, 0);
    return 0;
}
