/* PSE switch driver: the SoC's packet switch engine, programmed through the
 * engine's command-line tools; carries commands down to lower-level
 * switches. */
#ifndef SWMGR_DRIVERS_PSE_PSE_H
#define SWMGR_DRIVERS_PSE_PSE_H

#include "common/api.h"
#include "switch/switch.h"

SWMGR_EXTERN_C_BEGIN

SWMGR_API int pseSwitchRegister(Switch *sw);
SWMGR_API int pseSwitchUnRegister(Switch *sw);
SWMGR_API int pseSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                              int *replyLen);
SWMGR_API int pseConfTransfer(Switch *sw, Switch *lower, int cmd, void *arg, int argLen,
                              void *reply, int *replyLen);

SWMGR_EXTERN_C_END

#endif
