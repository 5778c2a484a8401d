// Query helper and busy handler over the SQLite library.
#include <sqlite3.h>
#include <unistd.h>

#include "platform/sqlite_helpers.h"

namespace {
constexpr int kRetryMs = 10;
constexpr int kMaxRetries = 200;  // about two seconds of waiting on a writer
}  // namespace

extern "C" char **sqlite3QueryResGet(sqlite3 *db, int flags, const char *sql, int *nCols,
                                     int *nRows) {
    (void)flags;
    if (db == nullptr || sql == nullptr || nCols == nullptr || nRows == nullptr) return nullptr;
    for (int attempt = 0;; ++attempt) {
        char **result = nullptr;
        char *err = nullptr;
        int rows = 0;
        int cols = 0;
        int rc = sqlite3_get_table(db, sql, &result, &rows, &cols, &err);
        sqlite3_free(err);
        if (rc == SQLITE_OK) {
            *nRows = rows;
            *nCols = cols;
            return result;
        }
        sqlite3_free_table(result);
        if ((rc != SQLITE_BUSY && rc != SQLITE_LOCKED) || attempt >= kMaxRetries) return nullptr;
        ::usleep(kRetryMs * 1000);
    }
}

extern "C" int sqliteBusyHandler(void *userData, int count) {
    (void)userData;
    if (count >= kMaxRetries) return 0;
    ::usleep(kRetryMs * 1000);
    return 1;
}
