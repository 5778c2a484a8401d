/* SPDX-License-Identifier: Apache-2.0 */
/* Configuration store: records decoded from the three configuration tables,
 * the decoders, the start-up loaders and the change-event handler. */
#ifndef SWMGR_CONFIG_SWCONF_H
#define SWMGR_CONFIG_SWCONF_H

#include <sqlite3.h>
#include <stdint.h>

#include "swmgr/api.h"

SWMGR_EXTERN_C_BEGIN

/* One swGlobalCfg row. */
typedef struct SwitchConf {
    char switchName[64];
    char switchDevice[132];
    int32_t vlanEnable;
    int32_t qosEnable;
    int32_t numPorts;
    int32_t pauseFrameEnable;
    int32_t igmpSnoopingEnable;
    int32_t mldSnoopingEnable;
    int32_t switchLevel;
} SwitchConf;

/* The port's QoS block, copied whole from the row into the port record. */
typedef struct SwitchPortQos {
    int32_t rateLimit;
    int32_t schedMode;
    int32_t numQueues;
    int32_t queue1Weight;
    int32_t queue2Weight;
    int32_t queue3Weight;
    int32_t queue4Weight;
} SwitchPortQos;

/* One swPortConfig row. */
typedef struct SwitchPortConf {
    char switchName[64];
    int32_t portNumber;
    int32_t PVID;
    int32_t portType;
    int32_t reserved;
    int32_t mirroring;
    int32_t trustMode;
    char interfaceName[64];
    char phyDevice[64];
    SwitchPortQos qos;
} SwitchPortConf;

/* One vlanEncapIf row; also the body of the bus VLAN add/delete commands,
 * hence a fixed little-endian layout of 1300 bytes. */
typedef struct SwitchVlanConf {
    int32_t vlanId;
    char vlanName[128];
    char interfaceName[64];
    char LogicalIfName[64];
    char ingressMap[512];
    char egressMap[512];
    uint32_t fwdMap;
    uint32_t untagMap;
    int32_t vlanIndex;
    int32_t inSwitchOnly;
} SwitchVlanConf;

#define SW_VLAN_CONF_LEN 1300

/* A row-change notification, exactly 80 bytes on the wire. */
typedef struct DbUpdateEvent {
    char tableName[64];
    int32_t rowId;
    int32_t reserved1;
    int32_t opCode;
    int32_t reserved2;
} DbUpdateEvent;

#define DB_UPDATE_EVENT_LEN 80

enum { DB_OP_INSERT = 18, DB_OP_UPDATE = 23, DB_OP_DELETE = 9 };

typedef int (*DbTableHandlerFunc)(sqlite3 *db, int opCode, int rowId, int reserved, char **result,
                                  int nCols, int nRows, char **oldRow);

typedef struct DbTableHandler {
    const char *tableName;
    DbTableHandlerFunc handler;
} DbTableHandler;

/* Decoders (sqlite3_get_table layout: column names first, row r at
 * nCols * (r + 1)). */
SWMGR_API int swGlobalCfgFromQueryResultRead(SwitchConf *conf, char **result, int nCols, int row);
SWMGR_API int swPortCfgFromQueryResultRead(SwitchPortConf *conf, char **result, int nCols, int row);
SWMGR_API int swVlanCfgFromQueryResultRead(SwitchVlanConf *conf, char **result, int nCols, int row);
SWMGR_API uint32_t str2num(char *text);

/* Database connection, loaders and change events */
SWMGR_API extern sqlite3 *pDB;
SWMGR_API int swMgrDBInit(char *filename);
SWMGR_API int swMgrDBDeinit(void);
SWMGR_API char **swMgrTableGet(const char *sql, int *nCols, int *nRows);
SWMGR_API int switchCfgLoad(void);
SWMGR_API int switchPortCfgLoad(void);
SWMGR_API int switchVlanCfgLoad(void);
SWMGR_API int swMgrDBUpdateHandler(DbUpdateEvent *event, unsigned int eventLen, char *oldValues,
                                   unsigned int oldLen);
SWMGR_API int swGlobalCfgDBInsertHandler(char **result, int nCols, int row);
SWMGR_API int swPortCfgDBInsertHandler(char **result, int nCols, int row);
SWMGR_API int swVlanCfgDBInsertHandler(char **result, int nCols, int row);
SWMGR_API int swVlanCfgDBUpdateHandler(char **result, char **oldRow, int nCols, int row);
SWMGR_API int swVlanCfgDBDeleteHandler(char **oldRow, int nCols, int row);

SWMGR_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(SwitchVlanConf) == SW_VLAN_CONF_LEN, "bus VLAN record is 1300 bytes");
static_assert(__builtin_offsetof(SwitchVlanConf, vlanName) == 4);
static_assert(__builtin_offsetof(SwitchVlanConf, interfaceName) == 132);
static_assert(__builtin_offsetof(SwitchVlanConf, LogicalIfName) == 196);
static_assert(__builtin_offsetof(SwitchVlanConf, ingressMap) == 260);
static_assert(__builtin_offsetof(SwitchVlanConf, egressMap) == 772);
static_assert(__builtin_offsetof(SwitchVlanConf, fwdMap) == 1284);
static_assert(__builtin_offsetof(SwitchVlanConf, untagMap) == 1288);
static_assert(__builtin_offsetof(SwitchVlanConf, vlanIndex) == 1292);
static_assert(__builtin_offsetof(SwitchVlanConf, inSwitchOnly) == 1296);
static_assert(sizeof(DbUpdateEvent) == DB_UPDATE_EVENT_LEN, "change event is 80 bytes");
static_assert(__builtin_offsetof(DbUpdateEvent, rowId) == 64);
static_assert(__builtin_offsetof(DbUpdateEvent, opCode) == 72);
static_assert(sizeof(SwitchPortQos) == 28, "QoS block is seven words");
#endif

#endif
