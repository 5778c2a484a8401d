/* SPDX-License-Identifier: Apache-2.0 */
/* Seams of the Linux host port. Tests and the simulator attach device
 * models and take over commands, files and bus traffic through these; the
 * system itself never calls them. */
#ifndef SWMGR_PORT_LINUX_OSA_PORT_H
#define SWMGR_PORT_LINUX_OSA_PORT_H

#include <stdint.h>

#include "swmgr/platform/mbus.h"
#include "swmgr/platform/osa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Devices ---------------------------------------------------------
 * A model attached to a path is served in-process: osaOpen on that path
 * returns a real, otherwise unused descriptor whose requests the model
 * answers. */
typedef struct OsaDeviceModel {
    void *ctx;
    int (*ioctl)(void *ctx, unsigned int request, void *arg);
    void (*close)(void *ctx); /* optional: called when a descriptor closes */
    /* optional: sees each osaOpen's flags and mode first; a negative
     * result refuses the open (osaOpen fails with that errno) */
    int (*open)(void *ctx, int flags, int mode);
} OsaDeviceModel;

int osaPortDeviceAttach(const char *path, const OsaDeviceModel *model);
int osaPortDeviceDetach(const char *path);

/* Sees every osaIoctl before the model or the kernel. Returns 1 when it
 * answered the request (result in *result, which starts at 0), 0 to let
 * it through. */
typedef int (*OsaIoctlHook)(void *ctx, int fd, unsigned int request, void *arg, int *result);
int osaPortIoctlHookAdd(OsaIoctlHook hook, void *ctx);
int osaPortIoctlHookRemove(OsaIoctlHook hook, void *ctx);

/* Size of a request's argument as its code encodes it (0 for requests that
 * carry an integer instead of a pointer). */
unsigned int osaPortIoctlArgSize(unsigned int request);

/* --- Shell commands --------------------------------------------------
 * Hooks see each command line in the order they were added. Returns 1 when
 * the hook took the command (its exit status in *status, which starts at 0),
 * 0 to pass it on; a command no hook takes runs with /bin/sh -c. */
typedef int (*OsaCmdHook)(void *ctx, const char *command, int *status);
int osaPortCmdHookAdd(OsaCmdHook hook, void *ctx);
int osaPortCmdHookRemove(OsaCmdHook hook, void *ctx);
/* Takes every command that no hook took, in place of /bin/sh -c (so a test
 * never runs the real tools). NULL restores the shell. */
void osaPortCmdFallbackSet(OsaCmdHook hook, void *ctx);

/* Takes every command passed to the C library's system() (the engine's
 * register pipelines run that way); the hook returns 1 when it took the
 * command, with *status as system()'s result. NULL restores system(). */
void osaPortSystemHookSet(OsaCmdHook hook, void *ctx);
/* The hook in place (NULL when none), so a model can put itself in front
 * of it and pass on what it does not take. */
void osaPortSystemHookGet(OsaCmdHook *hook, void **ctx);

/* --- Files -----------------------------------------------------------
 * With a root set, absolute paths are taken below it: writes and unlinks
 * always, reads when the file exists there (else from the real path, so
 * /proc stays readable unless a test provides its own). NULL clears it. */
void osaPortFileRootSet(const char *root);
const char *osaPortFileRootGet(void);
/* The path osaFileOpen would use for `path` in `mode` (into out, cap). */
int osaPortFilePathMap(const char *path, const char *mode, char *out, int cap);

/* --- Message bus -----------------------------------------------------
 * Sees every mbusIoctl. Returns 1 when it took the message (its result in
 * *result), 0 to let the bus route it. */
typedef int (*MbusSendHook)(void *ctx, int module, int cmd, const void *data, int dataLen,
                            void *aux, int *auxLen, int *result);
int mbusPortSendHookAdd(MbusSendHook hook, void *ctx);
int mbusPortSendHookRemove(MbusSendHook hook, void *ctx);

/* Queues a request for the registered module; mbusListen dispatches it.
 * Call it on the thread that listens (the bus takes no locks). */
int mbusPortPost(int srcModule, int cmd, const void *data, int dataLen, const void *aux, int auxLen);
/* Makes the next mbusRegister calls fail (non-zero) or succeed (0). */
void mbusPortFailRegister(int fail);
/* Callback of the registered module, or NULL. */
MbusRequestCb mbusPortCallbackGet(void);

/* --- Message bus between processes -----------------------------------
 * Each registered module listens on a Unix socket "mod-<module>.sock" in
 * one directory: the one set here, else $SWMGR_BUS_DIR, else
 * MBUS_PORT_DEFAULT_DIR. The directory is created 0750 and only peers
 * running as root or as this process's own user are served. A request to
 * a module of this process is served in-process, without a socket.
 * Messages are a header, the data and the aux bytes, at most
 * MBUS_PORT_MSG_MAX bytes in all. */
#define MBUS_PORT_DEFAULT_DIR "/run/swmgr-bus"
#define MBUS_PORT_DIR_ENV "SWMGR_BUS_DIR"
#define MBUS_PORT_MSG_MAX 65536
#define MBUS_PORT_TIMEOUT_MS 5000 /* reply wait when mbusIoctl is given 0 */

/* Transport results of mbusIoctl (the receiver's own results pass as
 * they are). */
enum {
    MBUS_PORT_ERR_NOMODULE = -2, /* no listener for the module */
    MBUS_PORT_ERR_IO = -5,       /* connection lost before the reply */
    MBUS_PORT_ERR_BADCTX = -9,   /* the sender's context was unregistered */
    MBUS_PORT_ERR_REFUSED = -13, /* the peer's user may not use the bus */
    MBUS_PORT_ERR_BADMSG = -74,  /* malformed message (refused by either end) */
    MBUS_PORT_ERR_TOOBIG = -90,  /* message above MBUS_PORT_MSG_MAX */
    MBUS_PORT_ERR_TIMEOUT = -110 /* no reply within the time-out */
};

/* NULL returns to the environment or the default. Takes effect for later
 * registrations and requests. */
int mbusPortBusDirSet(const char *dir);
/* The directory in use (valid until the next mbusPortBusDirSet). */
const char *mbusPortBusDirGet(void);
/* Socket path of `module` into out (cap bytes); -1 when it does not fit. */
int mbusPortSocketPath(int module, char *out, int cap);
/* Requests to `ctx` are dispatched by mbusListen(host), on host's thread,
 * as well as by mbusListen(ctx); NULL host undoes it. A process with two
 * modules can so serve both from one single-threaded loop. */
int mbusPortListenAlong(MbusCtx *ctx, MbusCtx *host);
/* Why the calling thread's last mbusRegister or mbusIoctl failed ("" when
 * nothing failed). */
const char *mbusPortLastError(void);

/* --- The listening loop ----------------------------------------------
 * mbusListen is one poll over the listening sockets, every accepted
 * connection and the watched descriptors, on the calling thread. A peer's
 * user is checked when it connects (root or this process's own user; any
 * other is closed at once). Each module keeps at most this many
 * connections (default MBUS_PORT_CONN_LIMIT); past it, the one idle the
 * longest is closed. */
#define MBUS_PORT_CONN_LIMIT 256
int mbusPortConnLimitSet(int limit);
/* While watched, a readable `fd` makes mbusListen call `ready` on its own
 * thread, between requests, and then return (a daemon's stop signals come
 * in this way, through a signalfd). One callback per descriptor. */
typedef void (*MbusWatchCb)(void *ctx, int fd);
int mbusPortWatch(int fd, MbusWatchCb ready, void *ctx);
int mbusPortUnwatch(int fd);

/* After a round that served something, mbusListen keeps looking for the
 * next message for up to `us` microseconds before it sleeps, and yields the
 * CPU between two looks (0, the default: it sleeps at once). Requests come
 * in bursts, and where an idle CPU is slow to wake (a virtual machine, a
 * deep sleep state) a sleep between two of them costs more than serving
 * one. -1 above MBUS_PORT_BUSY_POLL_MAX_US. */
#define MBUS_PORT_BUSY_POLL_MAX_US 10000
int mbusPortBusyPollSet(unsigned int us);

/* Connections closed at accept, since the process started, because their
 * user may not use the bus. */
uint64_t mbusPortConnRefused(void);

/* --- Log records -----------------------------------------------------
 * Records to the log service (module MBUS_MODULE_LOG, MBUS_LOG_CMD) never
 * wait: they go over one kept connection, sent only when it has room.
 * With the service absent a record goes to standard error; when it is not
 * reading, the record is dropped and counted, and the count is reported
 * in a record of its own once one gets through. The target may instead be
 * standard error, or the system log (a datagram socket, `syslogPath` or
 * "/dev/log" when NULL, with the same rule for a reader that is behind). */
enum { MBUS_PORT_LOG_BUS = 0, MBUS_PORT_LOG_STDERR = 1, MBUS_PORT_LOG_SYSLOG = 2 };
int mbusPortLogTargetSet(int target, const char *syslogPath);
/* Records dropped so far because their reader was not keeping up. */
uint64_t mbusPortLogDropped(void);

/* --- Database --------------------------------------------------------
 * The most a query waits, in all, on a database someone else holds (busy
 * handler and retries together); then it fails with a log record saying
 * so. Default SQLITE_PORT_BUSY_MS. */
#define SQLITE_PORT_BUSY_MS 2000
int sqlitePortBusyTimeoutSet(int ms);

#ifdef __cplusplus
}
#endif

#endif
