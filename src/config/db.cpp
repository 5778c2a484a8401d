// SPDX-License-Identifier: Apache-2.0
// The configuration database: the connection, the start-up load of the three
// tables and the row-change events that arrive over the bus.
#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "common/text.h"
#include "config/checks.h"
#include "swmgr/swconf.h"
#include "swmgr/platform/sqlite_helpers.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

extern "C" {
sqlite3 *pDB = nullptr;
}

namespace {

// The busy handler's user data; the helper library expects writable text.
char busyHandlerTag[] = "swMgr";

struct TableDeleter {
    void operator()(char **t) const { sqlite3_free_table(t); }
};
using TableResult = std::unique_ptr<char *, TableDeleter>;

struct SqlDeleter {
    void operator()(char *s) const { sqlite3_free(s); }
};
using SqlText = std::unique_ptr<char, SqlDeleter>;

// The library stays off the C++ run-time's allocator: buffers come from the
// C library and go back to it.
struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
template <typename T>
using HeapArray = std::unique_ptr<T[], FreeDeleter>;
template <typename T>
HeapArray<T> heapArray(std::size_t n) {
    return HeapArray<T>(static_cast<T *>(std::calloc(n, sizeof(T))));  // callers never ask for none
}

using RowInsertFn = int (*)(char **, int, int);

// Where the row in hand came from, for the error line of a refused row:
// set by the loader and the change-event handler around each handler call.
char rowOrigin[96];

class RowOrigin {
public:
    template <typename... Args>
    explicit RowOrigin(const char *fmt, Args... args) {
        std::snprintf(rowOrigin, sizeof rowOrigin, fmt, args...);
    }
    ~RowOrigin() { rowOrigin[0] = '\0'; }
    RowOrigin(const RowOrigin &) = delete;
    RowOrigin &operator=(const RowOrigin &) = delete;
};

// A handler called on its own (not by the loader or an event) names only
// the table.
const char *originOf(char (&buf)[96], const char *table) {
    if (rowOrigin[0] != '\0') return rowOrigin;
    std::snprintf(buf, sizeof buf, "table %s", table);
    return buf;
}

// The row's "id" column where the table has one (the usual integer key),
// else its position in the load.
const char *rowIdText(char **result, int nCols, int row) {
    for (int c = 0; c < nCols; ++c)
        if (result[c] != nullptr && std::strcmp(result[c], "id") == 0)
            return result[static_cast<long>(nCols) * (row + 1) + c];
    return nullptr;
}

int loadTable(const char *fname, const char *table, const char *sql, const char *listMsg,
              const char *rowMsg, RowInsertFn insert) {
    int nCols, nRows;  // set whenever a result comes back
    TableResult result(swMgrTableGet(sql, &nCols, &nRows));
    if (!result) {
        SWMGR_LOG_AS("", SW_LOG_ERR, fname, "%s", listMsg);
        return SW_EINVAL;
    }
    for (int row = 0; row < nRows; ++row) {
        const char *id = rowIdText(result.get(), nCols, row);
        int r;
        if (id != nullptr) {
            RowOrigin origin("table %s row id %.16s", table, id);
            r = insert(result.get(), nCols, row);
        } else {
            RowOrigin origin("table %s row %d", table, row + 1);
            r = insert(result.get(), nCols, row);
        }
        if (r < 0) {
            SWMGR_LOG_AS("", SW_LOG_ERR, fname, "%s", rowMsg);
            return r;
        }
    }
    return 0;
}

// A table name from the bus goes into SQL text; anything but a plain
// identifier cannot name one of our tables and is not run.
bool isIdentifier(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

int globalCfgTable(sqlite3 *, int opCode, int, int, char **result, int nCols, int, char **) {
    return opCode == DB_OP_INSERT ? swGlobalCfgDBInsertHandler(result, nCols, 0) : -1;
}

int portCfgTable(sqlite3 *, int opCode, int, int, char **result, int nCols, int, char **) {
    return opCode == DB_OP_INSERT ? swPortCfgDBInsertHandler(result, nCols, 0) : -1;
}

int vlanCfgTable(sqlite3 *, int opCode, int, int, char **result, int nCols, int, char **oldRow) {
    switch (opCode) {
        case DB_OP_INSERT: return swVlanCfgDBInsertHandler(result, nCols, 0);
        case DB_OP_UPDATE: return swVlanCfgDBUpdateHandler(result, oldRow, nCols, 0);
        case DB_OP_DELETE: return swVlanCfgDBDeleteHandler(oldRow, nCols, 0);
        default: return -1;
    }
}

constexpr DbTableHandler kTableHandlers[] = {
    {"swGlobalCfg", globalCfgTable},
    {"swPortConfig", portCfgTable},
    {"vlanEncapIf", vlanCfgTable},
    {nullptr, nullptr},
};

}  // namespace

extern "C" int swMgrDBInit(char *filename) {
    sqlite3 *db = nullptr;
    if (filename == nullptr || sqlite3_open(filename, &db) != SQLITE_OK) {
        sqlite3_close(db);  // sqlite3_open hands back a handle even when it fails
        SWMGR_LOG("", SW_LOG_ERR, "Couldn't open database %s \n", filename != nullptr ? filename : "");
        return -1;
    }
    pDB = db;
    sqlite3_busy_handler(pDB, sqliteBusyHandler, busyHandlerTag);
    return 0;
}

extern "C" int swMgrDBDeinit(void) {
    if (pDB != nullptr) {
        sqlite3_close(pDB);
        // Cleared so that a second shutdown cannot close a freed handle.
        pDB = nullptr;
    }
    return 0;
}

extern "C" char **swMgrTableGet(const char *sql, int *nCols, int *nRows) {
    return sqlite3QueryResGet(pDB, 0, sql, nCols, nRows);
}

extern "C" int switchCfgLoad(void) {
    return loadTable("switchCfgLoad", "swGlobalCfg", "SELECT * from swGlobalCfg",
                     "failed to get list of switches from the database\n",
                     "failed to load switch profile\n", swGlobalCfgDBInsertHandler);
}

extern "C" int switchPortCfgLoad(void) {
    // Reports a failed row with the switch loader's text, as it always has.
    return loadTable("switchPortCfgLoad", "swPortConfig", "SELECT * from swPortConfig",
                     "failed to get list of switch ports from the database\n",
                     "failed to load switch profile\n", swPortCfgDBInsertHandler);
}

extern "C" int switchVlanCfgLoad(void) {
    return loadTable("switchVlanCfgLoad", "vlanEncapIf", "SELECT * from vlanEncapIf",
                     "failed to get list of vlans from the database\n",
                     "Failed to load the switch VLAN configuration\n", swVlanCfgDBInsertHandler);
}

extern "C" int swGlobalCfgDBInsertHandler(char **result, int nCols, int row) {
    SwitchConf conf{};
    int r = swGlobalCfgFromQueryResultRead(&conf, result, nCols, row);
    if (r < 0) return r;
    char buf[96];
    r = swmgr::switchConfChecked(conf, originOf(buf, "swGlobalCfg"), __func__);
    if (r < 0) return r;
    r = switchConfAdd(&conf);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to create new switch profile \n");
        return r;
    }
    return 0;
}

extern "C" int swPortCfgDBInsertHandler(char **result, int nCols, int row) {
    SwitchPortConf conf{};
    int r = swPortCfgFromQueryResultRead(&conf, result, nCols, row);
    if (r < 0) return r;
    char buf[96];
    r = swmgr::portConfChecked(conf, originOf(buf, "swPortConfig"), __func__);
    if (r < 0) return r;
    r = switchPortConfAdd(&conf);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to create new switch port profile \n");
        return r;
    }
    return 0;
}

extern "C" int swVlanCfgDBInsertHandler(char **result, int nCols, int row) {
    SwitchVlanConf conf{};
    int r = swVlanCfgFromQueryResultRead(&conf, result, nCols, row);
    if (r < 0) return r;
    char buf[96];
    r = swmgr::vlanConfChecked(conf, originOf(buf, "vlanEncapIf"), __func__);
    if (r < 0) return r;
    r = switchVlanConfAdd(&conf);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to create new switch vlan profile \n");
        return r;
    }
    return 0;
}

extern "C" int swVlanCfgDBUpdateHandler(char **result, char **oldRow, int nCols, int row) {
    SwitchVlanConf newConf{};
    SwitchVlanConf oldConf{};
    // A missing row reads as one whose every column is absent.
    int r = swVlanCfgFromQueryResultRead(&newConf, result, nCols, row);
    if (r < 0) return r;
    r = swVlanCfgFromQueryResultRead(&oldConf, oldRow, nCols, row);
    if (r < 0) return r;
    // Only the new values are used beyond the lookup of the VLAN.
    char buf[96];
    r = swmgr::vlanConfChecked(newConf, originOf(buf, "vlanEncapIf"), __func__);
    if (r < 0) return r;
    r = switchVlanConfUpdate(&newConf, &oldConf);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to update switch vlan profile \n");
        return r;
    }
    return 0;
}

extern "C" int swVlanCfgDBDeleteHandler(char **oldRow, int nCols, int row) {
    SwitchVlanConf conf{};
    int r = swVlanCfgFromQueryResultRead(&conf, oldRow, nCols, row);  // none: every column absent
    if (r < 0) return r;
    // The old values come with the event, and their parent interface name
    // goes into the command that removes the sub-interface.
    char buf[96];
    r = swmgr::vlanConfChecked(conf, originOf(buf, "vlanEncapIf"), __func__);
    if (r < 0) return r;
    r = switchVlanConfDelete(&conf);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to delete switch vlan profile \n");
        return r;
    }
    return 0;
}

extern "C" int swMgrDBUpdateHandler(DbUpdateEvent *event, unsigned int eventLen, char *oldValues,
                                    unsigned int oldLen) {
    if (event == nullptr || eventLen != DB_UPDATE_EVENT_LEN) {
        SWMGR_LOG("", SW_LOG_ERR, "incomplete DB update information \n");
        return -1;
    }
    // The name field need not be terminated on the wire.
    char table[sizeof event->tableName + 1] = {};
    std::memcpy(table, event->tableName, sizeof event->tableName);
    const int opCode = event->opCode;
    const int rowId = event->rowId;
    SWMGR_LOG("", SW_LOG_TRACE, "DBUpdate event: Table: %s opCode:%d rowId:%d\n", table, opCode, rowId);

    // The old values are split into strings over a private copy, so that a
    // block whose last string lacks its terminator is never read past.
    const bool haveBlock = oldValues != nullptr && oldLen != 0;
    HeapArray<char> block;
    // One string per byte at most.
    HeapArray<char *> strings;
    std::size_t nStrings = 0;
    if (haveBlock) {
        block = heapArray<char>(std::size_t{oldLen} + 1);
        strings = heapArray<char *>(oldLen);
        if (!block || !strings) {
            SWMGR_LOG("", SW_LOG_ERR, "DBUpdate event: Table: %s opCode:%d rowId:%d status=%d\n",
                      table, opCode, rowId, SW_ENOMEM);
            return SW_ENOMEM;
        }
        std::memcpy(block.get(), oldValues, oldLen);
    }
    unsigned consumed = 0;
    while (consumed < oldLen && haveBlock) {
        strings[nStrings++] = block.get() + consumed;
        // The copy ends in a terminator of its own (it is one byte longer).
        consumed += static_cast<unsigned>(std::strlen(block.get() + consumed)) + 1;
    }

    auto handle = [&]() -> int {
        int nCols, nRows;  // set on every path that goes on
        TableResult result;
        if (opCode != DB_OP_DELETE) {
            if (!isIdentifier(table)) return -1;
            SqlText sql(sqlite3_mprintf("SELECT * from %s WHERE rowid=%d", table, rowId));
            if (sql) result.reset(sqlite3QueryResGet(pDB, 0, sql.get(), &nCols, &nRows));
            if (!result) return -1;
        } else {
            if (nStrings % 2 != 0) {
                SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrDBUpdateHandler",
                             "old values result does not contain 2 rows.j=%d nCols=%d outLen=%d\n",
                             static_cast<int>(consumed), static_cast<int>(nStrings),
                             static_cast<int>(oldLen));
                return -1;
            }
            nCols = static_cast<int>(nStrings / 2);
            nRows = 1;
        }

        // Column names, then values; a short block leaves the missing values
        // null rather than pointing past it.
        HeapArray<char *> oldRow;
        const std::size_t oldRowLen = haveBlock ? 2 * static_cast<size_t>(nCols) : 0;
        if (oldRowLen != 0) {
            oldRow = heapArray<char *>(oldRowLen);
            if (!oldRow) return SW_ENOMEM;
            for (size_t i = 0; i < oldRowLen && i < nStrings; ++i) oldRow[i] = strings[i];
        }
        if ((nRows == 0 || nCols == 0) && opCode != DB_OP_DELETE) return -1;

        SWMGR_LOG_AS("", SW_LOG_INFO, "swMgrDBUpdateHandler",
                     "DBUpdate event: Table: %s opCode:%d rowId:%d processing \n", table, opCode, rowId);
        for (const DbTableHandler *h = kTableHandlers; h->tableName != nullptr; ++h) {
            if (std::strcmp(h->tableName, table) != 0) continue;
            RowOrigin origin("table %s row id %d", h->tableName, rowId);
            return h->handler(pDB, opCode, rowId, event->reserved1, result.get(), nCols, nRows,
                              oldRow.get());
        }
        return 0;  // not a table of ours
    };
    const int status = handle();

    SWMGR_LOG("", SW_LOG_INFO, "DBUpdate event: Table: %s opCode:%d rowId:%d status=%d\n", table,
              opCode, rowId, status);
    return status;
}
