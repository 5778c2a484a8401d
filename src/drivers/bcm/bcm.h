/* BCM switch driver: a switch chip reached through ioctl requests on the
 * kernel's switch device. */
#ifndef SWMGR_DRIVERS_BCM_BCM_H
#define SWMGR_DRIVERS_BCM_BCM_H

#include "common/api.h"
#include "switch/switch.h"

SWMGR_EXTERN_C_BEGIN

/* Descriptor of the open switch device; one chip per process. */
SWMGR_API extern int fd;

SWMGR_API int bcmSwitchRegister(Switch *sw);
SWMGR_API int bcmSwitchUnRegister(Switch *sw);
SWMGR_API int bcmSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                              int *replyLen);

SWMGR_EXTERN_C_END

#endif
