/* SPDX-License-Identifier: Apache-2.0 */
/* Switch framework: the switch record and registry, the command code space,
 * the driver configuration function and the driver table, the switch
 * lifecycle. */
#ifndef SWMGR_SWITCH_SWITCH_H
#define SWMGR_SWITCH_SWITCH_H

#include <stdint.h>

#include "swmgr/api.h"
#include "swmgr/platform/osa.h"

SWMGR_EXTERN_C_BEGIN

struct Switch;
struct SwitchConf;

/* Command codes shared by bus requests and driver commands. */
enum {
    SW_CMD_DB_EVENT = 4,
    SW_CMD_IFDEV_EVENT = 5,
    SW_CMD_VLAN_ENABLE = 33,
    SW_CMD_VLAN_MEMBERSHIP_UPDATE = 34,
    SW_CMD_VLAN_MEMBERSHIP_APPLY = 35,
    SW_CMD_VLAN_ADD = 36,
    SW_CMD_VLAN_DELETE = 38,
    SW_CMD_PORT_CONFIG_SET = 41,
    SW_CMD_QOS_CONFIG = 47,
    SW_CMD_QUEUE_SCHED = 48,
    SW_CMD_PAUSE_FRAMES = 49,
    SW_CMD_PORT_RATE_LIMIT = 50,
    SW_CMD_PORT_TRUST_MODE = 51,
    SW_CMD_IGMP_SNOOPING = 56,
    SW_CMD_MLD_SNOOPING = 57,
    SW_CMD_PORT_VLAN_CONFIG = 58,
    SW_CMD_PORT_VLAN_REMOVE = 59
};

/* Argument lengths as the 32-bit target sends them. They are the contract
 * with the drivers, so they are never taken from sizeof of a record that
 * holds pointers. */
enum {
    SW_BUS_NAME_LEN = 64,          /* switch name at the start of a bus command */
    SW_BUS_ARG_LEN = 1300,         /* argument area of a bus command */
    SW_VLAN_ENABLE_ARG_LEN = 1300, /* command 33 */
    SW_VLAN_REC_LEN = 1312,        /* SwitchVlan: commands 34, 35, 58, 59 */
    SW_PORT_REC_LEN = 140,         /* SwitchPort: command 41 */
    SW_U32_ARG_LEN = 4,            /* commands 47, 49 */
    SW_U8_ARG_LEN = 1,             /* commands 56, 57 */
    SW_QUEUE_SCHED_ARG_LEN = 28,   /* command 48 */
    SW_RATE_LIMIT_ARG_LEN = 12,    /* command 50 */
    SW_TRUST_MODE_ARG_LEN = 8      /* command 51 */
};

/* Error results. */
enum { SW_EINVAL = -22, SW_ENOMEM = -12 };

/* Diagnostic levels. */
enum { SW_LOG_ERR = 8, SW_LOG_INFO = 64, SW_LOG_RESULT = 128, SW_LOG_DEV = 256, SW_LOG_TRACE = -1 };

/* A driver's command entry: arg/argLen is the command's argument record,
 * reply/replyLen an auxiliary buffer handed down from a bus request. */
typedef int (*SwitchConfigFunc)(struct Switch *sw, int cmd, void *arg, int argLen, void *reply,
                                int *replyLen);

/* Passes one command from a switch on to one of its lower-level switches. */
typedef int (*SwitchTransferFunc)(struct Switch *sw, struct Switch *lower, int cmd, void *arg,
                                  int argLen, void *reply, int *replyLen);

#define SW_NAME_LEN 512
#define SW_DEVICE_LEN 512
#define SW_STR_LEN 512

typedef struct Switch {
    OsaListNode link; /* switchTbl membership; must come first */
    uint32_t switchId;
    char switchName[SW_NAME_LEN];
    char switchDevice[SW_DEVICE_LEN];
    int32_t qosEnable;
    int32_t vlanEnable;
    int32_t pauseFrameEnable;
    int32_t igmpSnoopingEnable;
    int32_t mldSnoopingEnable;
    int32_t numPorts;
    int32_t switchLevel;
    int32_t lowerLvlForward;
    SwitchConfigFunc switchConfigFunc;
    SwitchTransferFunc driverPriv; /* owned by the driver */
    OsaList lowerLvlSwitchList;   /* SwitchLowerRef nodes */
    OsaList portList;             /* SwitchPort records */
    OsaList vlanList;             /* SwitchVlan records */
} Switch;

/* Reference from an upper switch to a lower-level switch that it reaches. */
typedef struct SwitchLowerRef {
    OsaListNode link;
    Switch *sw;
} SwitchLowerRef;

/* Driver table entry. */
typedef struct SwitchDriverEntry {
    char name[SW_NAME_LEN];
    int (*registerFn)(Switch *sw);
    int (*unregisterFn)(Switch *sw);
} SwitchDriverEntry;

#define SW_DRIVER_TBL_SIZE 3

/* Registry */
SWMGR_API extern OsaList switchTbl;
SWMGR_API extern int32_t switchMaxLevel;
SWMGR_API extern uint32_t switchCount;
SWMGR_API extern char switchStr[SW_STR_LEN];

SWMGR_API Switch *switchByNameGet(const char *name);
SWMGR_API Switch *switchAtTopLevelGet(void);
SWMGR_API Switch *switchLowerLvlSwitchByNameGet(Switch *sw, const char *name);
SWMGR_API int switchLowerLvlSwitchListAppend(Switch *sw, Switch *lower);
SWMGR_API char *switchStrGet(Switch *sw);

/* Driver table and dispatch */
SWMGR_API extern SwitchDriverEntry switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE];
SWMGR_API int switchConfigFuncRegister(Switch *sw);
SWMGR_API int switchConfigFuncUnRegister(Switch *sw);
SWMGR_API int switchConfig(void *request, int cmd, void *reply, int *replyLen);

/* Lifecycle */
SWMGR_API int switchLibInit(void);
SWMGR_API int switchLibDeinit(void);
SWMGR_API Switch *switchCreate(struct SwitchConf *conf);
SWMGR_API int switchConfAdd(struct SwitchConf *conf);
SWMGR_API int switchInitialCfgApply(Switch *sw);
SWMGR_API int switchCfgApply(Switch *sw);
SWMGR_API int switchCfgDisable(Switch *sw);
SWMGR_API int switchDeinit(const char *name);
SWMGR_API int switchDestroy(Switch *sw);

SWMGR_EXTERN_C_END

#ifdef __cplusplus
static_assert(__builtin_offsetof(Switch, link) == 0, "the list hands back the record itself");
static_assert(__builtin_offsetof(SwitchLowerRef, link) == 0, "node starts with its linkage");
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(SwitchLowerRef) == 12, "three-word reference node");
#endif
#endif

#endif
