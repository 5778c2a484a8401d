/* SPDX-License-Identifier: Apache-2.0 */
/* BCM switch driver: a switch chip reached through ioctl requests on the
 * kernel's switch device. */
#ifndef SWMGR_DRIVERS_BCM_BCM_H
#define SWMGR_DRIVERS_BCM_BCM_H

#include <stdint.h>

#include "swmgr/api.h"
#include "swmgr/portvlan.h"
#include "swmgr/switch.h"

SWMGR_EXTERN_C_BEGIN

/* Size of the caller's statistics buffer: the port number in the first two
 * bytes, then what the kernel driver fills in. */
#define BCM_PORT_STATS_LEN 50

/* Argument of bcmCosQueueMapConfigure, in 32-bit words; the third word is
 * not read. */
typedef struct BcmCosQueueMapArg {
    int32_t portNumber; /* -1 for every port */
    int32_t cos;
    int32_t unused;
    int32_t queue;
} BcmCosQueueMapArg;

#define BCM_COS_QUEUE_MAP_ARG_LEN 16

/* Descriptor of the open switch device; one chip per process. */
SWMGR_API extern int fd;

/* Binding and command entry */
SWMGR_API int bcmSwitchRegister(Switch *sw);
SWMGR_API int bcmSwitchUnRegister(Switch *sw);
SWMGR_API int bcmSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                              int *replyLen);

/* Read-only operations and console dumps */
SWMGR_API int bcmCPUPortNumberGet(SwitchVlan *vlan);
SWMGR_API int bcmLinkStatusGet(int port, uint32_t *status);
SWMGR_API int bcmPortStatsGet(int port, void *stats);
SWMGR_API int bcmIsPortInVlanFwdMap(int port, int vlanId);
SWMGR_API int bcmIsPortInVlanUntagMap(int port, int vlanId);
SWMGR_API int bcmTagsShow(void);
SWMGR_API int bcmVlanShow(void *unused, int vlanId);

/* VLAN programming */
SWMGR_API int bcmVlanEnable(int32_t enable);
SWMGR_API int bcmVlanMembershipClear(int vlanId);
SWMGR_API int bcmVlanMembershipConfigure(int vlanId, uint32_t fwdMap, uint32_t untagMap,
                                         int cpuPort);
SWMGR_API int bcmVlanMembershipSet(Switch *sw, SwitchVlan *vlan);
SWMGR_API int bcmVlanMembershipUpdate(Switch *sw, SwitchVlan *vlan);
SWMGR_API int bcmSwitchPortPVIDSet(int port, int vid);
SWMGR_API int bcmNon8021qFramesStateChange(int port, int state);
SWMGR_API int bcmSwitchPortConfigure(Switch *sw, SwitchPort *port);

/* Port-based VLANs and snooping */
SWMGR_API int bcmDefPortVlanConfig(int port);
SWMGR_API int bcmPortVlanConfig(void *unused, SwitchVlan *vlan);
SWMGR_API int bcmPortVlanDeConfig(void *unused, SwitchVlan *vlan);
SWMGR_API int bcmPortVlanReset(int port);
SWMGR_API int bcmIGMPSnoopSet(Switch *sw);
SWMGR_API int bcmMLDSnoopSet(Switch *sw);

/* QoS. Each argument is the record of 32-bit words the operation reads:
 * a u32 enable (QoS, pause frames), SwitchRateLimitArg, SwitchTrustModeArg,
 * SwitchQueueSchedArg, BcmCosQueueMapArg. */
SWMGR_API int bcmQoSConfigure(Switch *sw, void *arg);
SWMGR_API int bcmPauseFrameConfigure(Switch *sw, void *arg);
SWMGR_API int bcmRateLimitConfigure(Switch *sw, void *arg);
SWMGR_API int bcmTrustModeConfigure(Switch *sw, void *arg);
SWMGR_API int bcmQueueSchedConfigure(Switch *sw, void *arg);
SWMGR_API int bcmCosQueueMapConfigure(Switch *sw, void *arg);

SWMGR_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(BcmCosQueueMapArg) == BCM_COS_QUEUE_MAP_ARG_LEN);
static_assert(__builtin_offsetof(BcmCosQueueMapArg, cos) == 4);
static_assert(__builtin_offsetof(BcmCosQueueMapArg, queue) == 12);
#endif

#endif
