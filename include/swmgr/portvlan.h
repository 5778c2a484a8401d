/* SPDX-License-Identifier: Apache-2.0 */
/* Ports, port mapping, VLANs and host VLAN interfaces. */
#ifndef SWMGR_PORTVLAN_PORTVLAN_H
#define SWMGR_PORTVLAN_PORTVLAN_H

#include <stdint.h>

#include "swmgr/api.h"
#include "swmgr/swconf.h"
#include "swmgr/switch.h"

SWMGR_EXTERN_C_BEGIN

typedef struct SwitchPort {
    OsaListNode link; /* portList membership */
    uint32_t seqNo;
    int32_t portNumber;
    Switch *sw;
    int32_t PVID;
    int32_t non8021qFramesStatus;
    int32_t portType;
    char interfaceName[64];
    int32_t trustMode;
    int32_t mirroring;
    OsaList mappedPorts; /* SwitchPortMapEntry */
    SwitchPortQos qos;
} SwitchPort;

/* A lower-level port that an upper-level port stands for. */
typedef struct SwitchPortMapEntry {
    OsaListNode link;
    SwitchPort *port;
} SwitchPortMapEntry;

typedef struct SwitchVlan {
    OsaListNode link; /* vlanList membership */
    int32_t vlanId;
    int32_t vlanIndex;
    char vlanName[128];
    char interfaceName[64];
    char LogicalIfName[64];
    char ingressMap[512];
    char egressMap[512];
    uint32_t fwdMap;
    uint32_t untagMap;
    int32_t inSwitchOnly;
    Switch *sw;
} SwitchVlan;

/* Trust-mode argument of command 51. */
typedef struct SwitchTrustModeArg {
    int32_t portNumber;
    int32_t trustMode;
} SwitchTrustModeArg;

/* Rate-limit argument of command 50. */
typedef struct SwitchRateLimitArg {
    uint32_t portNumber;
    uint8_t action;
    uint8_t pad[3];
    uint32_t rate;
} SwitchRateLimitArg;

/* Queue-scheduling argument of command 48. */
typedef struct SwitchQueueSchedArg {
    int32_t portNumber;
    int32_t numQueues;
    int32_t schedMode;
    int32_t queue1Weight;
    int32_t queue2Weight;
    int32_t queue3Weight;
    int32_t queue4Weight;
} SwitchQueueSchedArg;

SWMGR_API extern char swPortStr[SW_STR_LEN];
SWMGR_API extern char swVlanStr[SW_STR_LEN];

/* Ports */
SWMGR_API SwitchPort *switchPortByNumberGet(Switch *sw, int portNumber);
SWMGR_API SwitchPort *switchPortByNumberAndSwitchNameGet(const char *switchName, int portNumber);
SWMGR_API SwitchPort *switchPortCreate(SwitchPortConf *conf);
SWMGR_API int switchPortConfAdd(SwitchPortConf *conf);
SWMGR_API int switchPortCfgApply(Switch *sw, SwitchPort *port);
SWMGR_API int switchPortTrustModeConfigure(SwitchPort *port);
SWMGR_API int switchPortVlanInfoConfigure(Switch *sw, SwitchPort *port);
SWMGR_API int switchPortMapInit(SwitchPort *port, char *text);
SWMGR_API int switchPortMappedListAppend(SwitchPort *port, SwitchPort *lower);
SWMGR_API int switchPortDeinit(SwitchPortConf *conf);
SWMGR_API int switchPortDestroy(SwitchPort *port);
SWMGR_API char *swPortStrGet(SwitchPort *port);

/* VLANs */
SWMGR_API int switchVlanConfigure(void *context, int code, SwitchVlanConf *conf);
SWMGR_API int switchVlanConfAdd(SwitchVlanConf *conf);
SWMGR_API int switchVlanConfUpdate(SwitchVlanConf *newConf, SwitchVlanConf *oldConf);
SWMGR_API int switchVlanConfDelete(SwitchVlanConf *conf);
SWMGR_API int switchVlanByConfCreate(Switch *sw, SwitchVlanConf *conf);
SWMGR_API int switchVlanConfParamsAssign(SwitchVlan *vlan, SwitchVlanConf *conf);
SWMGR_API int switchVlanCreate(Switch *sw, SwitchVlan *proto);
SWMGR_API int switchVlanUpdate(SwitchVlan *vlan, SwitchVlan *newVals);
SWMGR_API int switchVlanDelete(SwitchVlan *vlan);
SWMGR_API int switchVlanDisable(SwitchVlan *vlan);
SWMGR_API int switchAllVlansDisable(Switch *sw);
SWMGR_API int switchVlanCfgApply(Switch *sw, SwitchVlan *vlan);
SWMGR_API int switchVlanMembershipUpdate(SwitchVlan *vlan);
SWMGR_API int switchPortVlanConfigure(SwitchVlan *vlan, int op);
SWMGR_API SwitchVlan *switchVlanByIdGet(Switch *sw, int vlanId);
SWMGR_API SwitchVlan *switchVlanByNameGet(Switch *sw, const char *name);
SWMGR_API int switchNextVlanIndexGet(void);
SWMGR_API int switchVlanIndexIncr(void);
SWMGR_API char *swVlanStrGet(SwitchVlan *vlan);

/* Host VLAN interfaces */
SWMGR_API int switchVlanEncapCreate(char *ifName, int vlanId);
SWMGR_API int switchVlanEncapDestroy(char *ifName, int vlanId);

SWMGR_EXTERN_C_END

#ifdef __cplusplus
static_assert(__builtin_offsetof(SwitchPort, link) == 0);
static_assert(__builtin_offsetof(SwitchVlan, link) == 0);
static_assert(__builtin_offsetof(SwitchPortMapEntry, link) == 0);
static_assert(__builtin_offsetof(SwitchPort, non8021qFramesStatus) ==
              __builtin_offsetof(SwitchPort, PVID) + 4, "the BCM driver's word follows PVID");
static_assert(sizeof(SwitchTrustModeArg) == SW_TRUST_MODE_ARG_LEN);
static_assert(sizeof(SwitchRateLimitArg) == SW_RATE_LIMIT_ARG_LEN);
static_assert(__builtin_offsetof(SwitchRateLimitArg, rate) == 8);
static_assert(sizeof(SwitchQueueSchedArg) == SW_QUEUE_SCHED_ARG_LEN);
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(SwitchPort) == SW_PORT_REC_LEN, "port record is 140 bytes on the target");
static_assert(sizeof(SwitchVlan) == SW_VLAN_REC_LEN, "VLAN record is 1312 bytes on the target");
static_assert(__builtin_offsetof(SwitchPort, interfaceName) == 32);
static_assert(__builtin_offsetof(SwitchPort, mappedPorts) == 104);
static_assert(__builtin_offsetof(SwitchVlan, fwdMap) == 1296);
static_assert(__builtin_offsetof(SwitchVlan, sw) == 1308);
#endif
#endif

#endif
