// SPDX-License-Identifier: Apache-2.0
// Query helper and busy handler over the SQLite library. A query waits on a
// database that someone else holds for one bounded time in all, whether
// the waiting happens in the busy handler or in the helper's own retries:
// the service has one thread, and while it waits nothing else is answered.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "mbus_wire.h"
#include "swmgr/platform/sqlite_helpers.h"

namespace {
using Clock = std::chrono::steady_clock;
constexpr auto kRetry = std::chrono::milliseconds(10);

int busyLimitMs = SQLITE_PORT_BUSY_MS;
// The end of the wait of the query in hand; the busy handler starts its
// own when it is called outside the helper (count 0 is a new wait).
Clock::time_point waitEnd;
bool inQuery = false;

// Sleeps one retry step, at most until `end`. False when `end` has passed.
bool waitStep(Clock::time_point end) {
    auto now = Clock::now();
    if (now >= end) return false;
    auto step = std::min<Clock::duration>(kRetry, end - now);
    ::usleep(static_cast<useconds_t>(std::chrono::duration_cast<std::chrono::microseconds>(step).count()));
    return true;
}
}  // namespace

extern "C" char **sqlite3QueryResGet(sqlite3 *db, int flags, const char *sql, int *nCols,
                                     int *nRows) {
    (void)flags;
    if (db == nullptr || sql == nullptr || nCols == nullptr || nRows == nullptr) return nullptr;
    waitEnd = Clock::now() + std::chrono::milliseconds(busyLimitMs);
    inQuery = true;
    for (;;) {
        char **result = nullptr;
        char *err = nullptr;
        int rows, cols;  // read only when the query succeeds
        int rc = sqlite3_get_table(db, sql, &result, &rows, &cols, &err);
        sqlite3_free(err);
        if (rc == SQLITE_OK) {
            inQuery = false;
            waitEnd = {};
            *nRows = rows;
            *nCols = cols;
            return result;
        }
        sqlite3_free_table(result);
        if ((rc != SQLITE_BUSY && rc != SQLITE_LOCKED) || !waitStep(waitEnd)) {
            inQuery = false;
            waitEnd = {};
            if (rc == SQLITE_BUSY || rc == SQLITE_LOCKED)
                mbuswire::diag("sqlite", "sqlite: database still locked after %d ms, query given up: %.200s\n",
                               busyLimitMs, sql);
            return nullptr;
        }
    }
}

extern "C" int sqliteBusyHandler(void *userData, int count) {
    (void)userData;
    if (!inQuery && count == 0) waitEnd = Clock::now() + std::chrono::milliseconds(busyLimitMs);
    return waitStep(waitEnd) ? 1 : 0;
}

extern "C" int sqlitePortBusyTimeoutSet(int ms) {
    if (ms < 0) return -1;
    busyLimitMs = ms;
    return 0;
}
