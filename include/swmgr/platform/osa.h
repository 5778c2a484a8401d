/* SPDX-License-Identifier: Apache-2.0 */
/* OS-adaptation interface: lists, devices, files and shell commands.
 * The system only calls these; the device's own library (or port/linux on a
 * host) provides them. */
#ifndef SWMGR_PLATFORM_OSA_H
#define SWMGR_PLATFORM_OSA_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A record that lives in a list starts with this node, so the list hands
 * back the record itself. */
typedef struct OsaListNode {
    struct OsaListNode *next;
    struct OsaListNode *prev;
} OsaListNode;

typedef struct OsaList {
    OsaListNode *first;
    OsaListNode *last;
} OsaList;

int osaListInit(OsaList *list);
/* First node (that is, the record) or NULL when the list is empty. */
void *osaListFirst(OsaList *list);
/* Node after `node`, or NULL at the end. */
void *osaListNext(void *node);
int osaListNodeAppend(OsaList *list, void *node);
int osaListNodeRemove(OsaList *list, void *node);

/* Devices: a descriptor as open(2) gives it, requests as ioctl(2) takes them.
 * For requests without data the integer argument travels in `arg`. */
int osaOpen(const char *path, int flags, int mode);
int osaIoctl(int fd, unsigned int request, void *arg);
int osaClose(int fd);

/* Files over stdio streams; osaFilePrintf also takes stderr and stdout. */
FILE *osaFileOpen(const char *path, const char *mode);
int osaFilePrintf(FILE *file, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
int osaFileClose(FILE *file);
int osaUnlink(const char *path);

/* Runs one shell command line and returns its exit status. The output
 * buffer is optional; the system always passes NULL and 0. */
int osaCmdExec(const char *command, char *output, int outputLen);

#ifdef __cplusplus
}
#endif

#endif
