/* SPDX-License-Identifier: Apache-2.0 */
/* A host program built against an installed swmgr: starts the service on
 * the example database with a stand-in switch chip and every command line
 * taken instead of run, and prints what it did to the host's interfaces.
 * Usage: consumer WORKDIR < SCHEMA.sql */
#include <swmgr/osa_port.h>
#include <swmgr/swmgr.h>
#include <sqlite3.h>
#include <stdio.h>
#include <string.h>
#include <swmgr/switch.h>

static unsigned chipRequests;

static int chipIoctl(void *ctx, unsigned int request, void *arg) {
    (void)ctx, (void)request, (void)arg;
    ++chipRequests;
    return 0;
}

/* Host interface commands are printed; the engine's tools just succeed. */
static int takeCommand(void *ctx, const char *command, int *status) {
    (void)ctx;
    if (strncmp(command, "vconfig ", 8) == 0 || strncmp(command, "ifconfig ", 9) == 0) printf("%s\n", command);
    *status = 0;
    return 1;
}

int main(int argc, char **argv) {
    static char schema[1 << 16];
    char db[512], bus[512], root[512];
    if (argc != 2 || fread(schema, 1, sizeof schema - 1, stdin) == 0) return 2;
    snprintf(db, sizeof db, "%s/router.db", argv[1]);
    snprintf(bus, sizeof bus, "%s/bus", argv[1]);
    snprintf(root, sizeof root, "%s/root", argv[1]);
    sqlite3 *h = NULL;
    if (sqlite3_open(db, &h) != SQLITE_OK || sqlite3_exec(h, schema, NULL, NULL, NULL) != SQLITE_OK) {
        fprintf(stderr, "consumer: cannot create %s\n", db);
        return 1;
    }
    sqlite3_close(h);

    const OsaDeviceModel chip = {NULL, chipIoctl, NULL, NULL};
    mbusPortBusDirSet(bus);
    osaPortFileRootSet(root);
    osaPortCmdFallbackSet(takeCommand, NULL);
    osaPortSystemHookSet(takeCommand, NULL);
    osaPortDeviceAttach("/dev/bcmsw", &chip);
    swMgrForeground = 1;

    int r = swMgrInit(db);
    printf("swMgrInit: %d; switches: %u; top level: %s; chip requests: %s\n", r, (unsigned)switchCount,
           switchAtTopLevelGet() != NULL ? switchAtTopLevelGet()->switchName : "none",
           chipRequests > 0 ? "some" : "none");
    swMgrDeinit();
    return r == 0 ? 0 : 1;
}
