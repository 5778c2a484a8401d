/* SPDX-License-Identifier: Apache-2.0 */
/* Manager service: host entry points, service globals, the bus command
 * handler, diagnostics, zone lookup and uptime records. */
#ifndef SWMGR_SERVICE_SWMGR_H
#define SWMGR_SERVICE_SWMGR_H

#include <stdint.h>

#include "swmgr/api.h"
#include "swmgr/platform/mbus.h"

SWMGR_EXTERN_C_BEGIN

SWMGR_API extern int swMgrInitialized;
SWMGR_API extern MbusCtx *pSwMgrMbusCtx;
SWMGR_API extern int swMgrDevDebug;
SWMGR_API extern int swMgrForeground;

SWMGR_API int swMgrInit(const char *dbPath);
SWMGR_API int swMgrRun(void);
SWMGR_API int swMgrDeinit(void);

SWMGR_API int swMgrIoctlHandler(MbusCtx *ctx, const MbusMsgHeader *header, int cmd, void *data,
                                int dataLen, void *aux, int *auxLen);

SWMGR_API int swMgrDebug(const char *prefix, int level, const char *func, int line,
                         const char *format, ...) __attribute__((format(printf, 5, 6)));
SWMGR_API int swMgrZoneTypeGet(const char *ifName, uint32_t *zone);

SWMGR_API int timeEventGet(uint32_t *seconds, const char *path);
SWMGR_API int timeEventRecord(const char *path);

/* Interface event record (data of command 5), exactly 1132 bytes. */
typedef struct SwIfDevEvent {
    char ifName[132];
    uint32_t event;
    uint8_t rest[996];
} SwIfDevEvent;

#define SW_IFDEV_EVENT_LEN 1132

/* Bandwidth record (auxiliary data of command 5); only two words are read. */
typedef struct SwIfBandwidth {
    uint8_t unused0[32];
    uint32_t totalBandwidth;
    uint8_t unused1[4];
    uint32_t upstreamPercent;
} SwIfBandwidth;

#define SW_IF_BANDWIDTH_LEN 44

/* Log record header sent with every message to the log service. */
typedef struct SwLogRecordHeader {
    uint32_t module;
    uint32_t level;
    char tag[32];
} SwLogRecordHeader;

#define SW_LOG_HEADER_LEN 40
#define SW_LOG_TEXT_LEN 1024

SWMGR_EXTERN_C_END

/* Every message has two forms: the plain level without function and line,
 * or, in developer mode, level 256 with the function's name and line.
 * swMgrDebug drops negative levels unread, so outside developer mode such a
 * line evaluates none of its arguments: trace lines sit in per-port and
 * per-VLAN loops, and their description texts would otherwise be
 * formatted only to be thrown away. */
#define SWMGR_LOG_AS(prefix, level, fname, ...)                                          \
    (swMgrDevDebug ? swMgrDebug((prefix), 256, (fname), __LINE__, __VA_ARGS__)           \
     : (level) < 0 ? 0                                                                   \
                   : swMgrDebug((prefix), (level), NULL, 0, __VA_ARGS__))
#define SWMGR_LOG(prefix, level, ...) SWMGR_LOG_AS(prefix, level, __func__, __VA_ARGS__)

#ifdef __cplusplus
static_assert(sizeof(SwIfDevEvent) == SW_IFDEV_EVENT_LEN);
static_assert(__builtin_offsetof(SwIfDevEvent, event) == 132);
static_assert(sizeof(SwIfBandwidth) == SW_IF_BANDWIDTH_LEN);
static_assert(__builtin_offsetof(SwIfBandwidth, totalBandwidth) == 32);
static_assert(__builtin_offsetof(SwIfBandwidth, upstreamPercent) == 40);
static_assert(sizeof(SwLogRecordHeader) == SW_LOG_HEADER_LEN);
#endif

#endif
