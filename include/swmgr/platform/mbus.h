/* SPDX-License-Identifier: Apache-2.0 */
/* Message bus interface: module registration, the listening loop, requests
 * to other modules (the log service among them). */
#ifndef SWMGR_PLATFORM_MBUS_H
#define SWMGR_PLATFORM_MBUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MbusCtx MbusCtx;

/* Header of every bus message. The handler reads two words of it: the
 * sender's module at byte 4 and the request flag at byte 16. */
typedef struct MbusMsgHeader {
    uint32_t magic;
    uint32_t srcModule;
    uint32_t dstModule;
    uint32_t cmd;
    uint32_t isRequest; /* non-zero: a request; 0: a reply */
    uint32_t dataLen;
    uint32_t auxLen;
    int32_t result;
} MbusMsgHeader;

#define MBUS_MSG_HEADER_LEN 32
#define MBUS_MSG_MAGIC 0x4d425553u /* "MBUS" */

/* Well-known modules and commands. */
#define MBUS_MODULE_LOG 20
#define MBUS_LOG_CMD 32
#define MBUS_MODULE_SWMGR 103

/* mbusIoctl flags */
#define MBUS_FLAG_NOREPLY 2

typedef int (*MbusRequestCb)(MbusCtx *ctx, const MbusMsgHeader *header, int cmd,
                             void *data, int dataLen, void *aux, int *auxLen);

int mbusInit(const char *arg);
MbusCtx *mbusRegister(int module, int kind, MbusRequestCb callback, void *userData);
int mbusListen(MbusCtx *ctx, unsigned int timeoutUs);
/* Sends `data` and `aux` to command `cmd` of `module`. Without
 * MBUS_FLAG_NOREPLY it waits for the reply (timeoutMs 0: the bus default);
 * the result is the receiver's, and the receiver's aux reply is copied back
 * into `aux` (at most *auxLen bytes; *auxLen is updated). */
int mbusIoctl(MbusCtx *ctx, int module, int cmd, void *data, int dataLen,
              void *aux, int *auxLen, int flags, int timeoutMs, int reserved);
int mbusUnRegister(MbusCtx *ctx);
int mbusDeInit(void);

#ifdef __cplusplus
}
static_assert(sizeof(MbusMsgHeader) == MBUS_MSG_HEADER_LEN, "bus header layout");
static_assert(__builtin_offsetof(MbusMsgHeader, srcModule) == 4, "sender word at byte 4");
static_assert(__builtin_offsetof(MbusMsgHeader, isRequest) == 16, "request word at byte 16");
#endif

#endif
