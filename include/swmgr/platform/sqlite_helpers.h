/* SPDX-License-Identifier: Apache-2.0 */
/* The platform's SQLite helpers. */
#ifndef SWMGR_PLATFORM_SQLITE_HELPERS_H
#define SWMGR_PLATFORM_SQLITE_HELPERS_H

#include <sqlite3.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `sql` and returns its rows in the sqlite3_get_table layout (column
 * names first), to be freed with sqlite3_free_table; NULL on any error. */
char **sqlite3QueryResGet(sqlite3 *db, int flags, const char *sql, int *nCols, int *nRows);

/* sqlite3_busy_handler callback: retries for a bounded time. */
int sqliteBusyHandler(void *userData, int count);

#ifdef __cplusplus
}
#endif

#endif
