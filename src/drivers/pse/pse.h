/* SPDX-License-Identifier: Apache-2.0 */
/* PSE switch driver: the SoC's packet switch engine, programmed through the
 * engine's command-line tools; carries commands down to lower-level
 * switches. */
#ifndef SWMGR_DRIVERS_PSE_PSE_H
#define SWMGR_DRIVERS_PSE_PSE_H

#include <stdint.h>

#include "swmgr/api.h"
#include "swmgr/portvlan.h"
#include "swmgr/switch.h"

SWMGR_EXTERN_C_BEGIN

/* Room for an interface's MAC address text: "xx:xx:xx:xx:xx:xx\n" and NUL. */
#define PSE_MAC_TEXT_LEN 19
/* The MAC text buffer of a VLAN apply. */
#define PSE_MAC_BUF_LEN 32
/* An engine command line (and a pause-frame pipeline) with its NUL. */
#define PSE_CMD_LEN 512

/* Registration, dispatch and lower-level forwarding */
SWMGR_API int pseSwitchRegister(Switch *sw);
SWMGR_API int pseSwitchUnRegister(Switch *sw);
SWMGR_API int pseSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                              int *replyLen);
SWMGR_API int pseLowerSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                                   int *replyLen);
SWMGR_API int pseConfTransfer(Switch *sw, Switch *lower, int cmd, void *arg, int argLen,
                              void *reply, int *replyLen);
/* Writes the interface's MAC address text into out (PSE_MAC_TEXT_LEN bytes
 * at least); 0 whatever the interface, -22 without an output buffer. */
SWMGR_API int switchMacAddressByIfNameGet(const char *ifName, char *out);

/* VLAN membership and the CPU's ARL entries */
SWMGR_API int pseVlanMembershipSet(Switch *sw, SwitchVlan *vlan);
SWMGR_API int pseVlanMembershipConfigure(int vlanIndex, int isWan, int vlanId, uint32_t etagMap,
                                         uint32_t mbMap, const char *macAddr);
SWMGR_API int pseCpuARLTableEntryAdd(int vlanId, const char *macAddr);
SWMGR_API int pseCpuARLTableEntryDelete(int vlanId, const char *macAddr);

/* QoS */
SWMGR_API int pseQoSConfigure(Switch *sw, const uint32_t *enable);
SWMGR_API int pseQueueSchedConfigure(Switch *sw, const SwitchQueueSchedArg *sched);
SWMGR_API int psePauseFrameConfigure(Switch *sw, const uint32_t *enable);
SWMGR_API int pseRateLimitConfigure(Switch *sw, const SwitchRateLimitArg *limit);
SWMGR_API int pseTrustModeConfigure(Switch *sw, const SwitchTrustModeArg *trust);

SWMGR_EXTERN_C_END

#endif
