/* Seams of the Linux host port. Tests and the simulator attach device
 * models and take over commands, files and bus traffic through these; the
 * system itself never calls them. */
#ifndef SWMGR_PORT_LINUX_OSA_PORT_H
#define SWMGR_PORT_LINUX_OSA_PORT_H

#include "platform/mbus.h"
#include "platform/osa.h"

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
} OsaDeviceModel;

int osaPortDeviceAttach(const char *path, const OsaDeviceModel *model);
int osaPortDeviceDetach(const char *path);

/* Sees every osaIoctl before the model or the kernel. Returns 1 when it
 * answered the request (result in *result), 0 to let it through. */
typedef int (*OsaIoctlHook)(void *ctx, int fd, unsigned int request, void *arg, int *result);
int osaPortIoctlHookAdd(OsaIoctlHook hook, void *ctx);
int osaPortIoctlHookRemove(OsaIoctlHook hook, void *ctx);

/* Size of a request's argument as its code encodes it (0 for requests that
 * carry an integer instead of a pointer). */
unsigned int osaPortIoctlArgSize(unsigned int request);

/* --- Shell commands --------------------------------------------------
 * Hooks see each command line in the order they were added. Returns 1 when
 * the hook took the command (its exit status in *status), 0 to pass it on;
 * a command no hook takes runs with /bin/sh -c. */
typedef int (*OsaCmdHook)(void *ctx, const char *command, int *status);
int osaPortCmdHookAdd(OsaCmdHook hook, void *ctx);
int osaPortCmdHookRemove(OsaCmdHook hook, void *ctx);
/* Takes every command that no hook took, in place of /bin/sh -c (so a test
 * never runs the real tools). NULL restores the shell. */
int osaPortCmdFallbackSet(OsaCmdHook hook, void *ctx);

/* Takes every command passed to the C library's system() (the engine's
 * register pipelines run that way); the hook returns 1 when it took the
 * command, with *status as system()'s result. NULL restores system(). */
int osaPortSystemHookSet(OsaCmdHook hook, void *ctx);

/* --- Files -----------------------------------------------------------
 * With a root set, absolute paths are taken below it: writes and unlinks
 * always, reads when the file exists there (else from the real path, so
 * /proc stays readable unless a test provides its own). NULL clears it. */
int osaPortFileRootSet(const char *root);
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
 * Safe to call from another thread. */
int mbusPortPost(int srcModule, int cmd, const void *data, int dataLen, const void *aux, int auxLen);
/* Makes the next mbusRegister calls fail (non-zero) or succeed (0). */
void mbusPortFailRegister(int fail);
/* Callback of the registered module, or NULL. */
MbusRequestCb mbusPortCallbackGet(void);

#ifdef __cplusplus
}
#endif

#endif
