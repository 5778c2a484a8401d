// SPDX-License-Identifier: Apache-2.0
// sql and dbevent: change the configuration database and tell the daemon
// which rows changed, as the database itself would.
#define SQLITE_ENABLE_PREUPDATE_HOOK 1
#include <sqlite3.h>

#include <cstring>
#include <map>

#include "common/text.h"
#include "swmgr/swconf.h"
#include "ctl.h"
#include "swmgr/platform/mbus.h"
#include "swmgr/switch.h"

namespace swctl {
namespace {

struct Change {
    int op;
    std::string table;
    int64_t rowId;
    std::vector<std::string> oldValues;  // update and delete
};

void preupdate(void *ctx, sqlite3 *db, int op, const char *dbName, const char *table, sqlite3_int64 oldKey,
               sqlite3_int64 newKey) {
    if (std::strcmp(dbName, "main") != 0) return;
    Change c{op, table, op == SQLITE_DELETE ? oldKey : newKey, {}};
    if (op != SQLITE_INSERT) {
        for (int i = 0; i < sqlite3_preupdate_count(db); ++i) {
            sqlite3_value *v = nullptr;
            const unsigned char *text = nullptr;
            if (sqlite3_preupdate_old(db, i, &v) == SQLITE_OK && v != nullptr) text = sqlite3_value_text(v);
            c.oldValues.emplace_back(text != nullptr ? reinterpret_cast<const char *>(text) : "");
        }
    }
    static_cast<std::vector<Change> *>(ctx)->push_back(std::move(c));
}

std::vector<std::string> columnNames(sqlite3 *db, const std::string &table) {
    std::vector<std::string> names;
    char *sql = sqlite3_mprintf("SELECT * FROM \"%w\" LIMIT 0", table.c_str());
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) == SQLITE_OK)
        for (int i = 0; i < sqlite3_column_count(st); ++i) names.emplace_back(sqlite3_column_name(st, i));
    sqlite3_finalize(st);
    sqlite3_free(sql);
    return names;
}

int reportDbEvent(const std::string &table, int64_t rowId, int op, const std::vector<std::string> &names,
                  const std::vector<std::string> &values) {
    Reply r = sendDbEvent(table, rowId, op, names, values);
    return report(table + " row " + std::to_string(rowId) + " " + opName(op), r);
}

int runSql(const std::string &dbPath, const std::string &statement) {
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        std::string why = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        return fail("cannot open database " + dbPath + ": " + why, kFailed);
    }
    sqlite3_busy_timeout(db, 5000);
    std::vector<Change> changes;
    sqlite3_preupdate_hook(db, preupdate, &changes);
    char *err = nullptr;
    if (sqlite3_exec(db, statement.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
        std::string why = err != nullptr ? err : sqlite3_errmsg(db);
        sqlite3_free(err);
        sqlite3_close(db);
        return fail("SQL error: " + why, kFailed);
    }
    sqlite3_preupdate_hook(db, nullptr, nullptr);
    std::map<std::string, std::vector<std::string>> names;
    for (const auto &c : changes)
        if (c.op != SQLITE_INSERT && !names.count(c.table)) names[c.table] = columnNames(db, c.table);
    sqlite3_close(db);

    if (changes.empty()) {
        if (opt.json)
            printJson(json::array());
        else
            std::printf("no row changed; nothing to tell the daemon\n");
    }
    int worst = kOk;
    for (const auto &c : changes) {
        static const std::vector<std::string> none;
        const auto &cols = c.op == SQLITE_INSERT ? none : names[c.table];
        worst = std::max(worst, reportDbEvent(c.table, c.rowId, c.op, cols, c.oldValues));
    }
    return worst;
}

}  // namespace

const char *opName(int op) {
    switch (op) {
        case DB_OP_INSERT: return "insert";
        case DB_OP_UPDATE: return "update";
        case DB_OP_DELETE: return "delete";
        default: return "operation";
    }
}

Reply sendDbEvent(const std::string &table, int64_t rowId, int op, const std::vector<std::string> &names,
                  const std::vector<std::string> &values) {
    DbUpdateEvent ev{};
    swmgr::copyText(ev.tableName, table.c_str());
    ev.rowId = static_cast<int32_t>(rowId);
    ev.opCode = op;
    Bytes data(DB_UPDATE_EVENT_LEN);
    std::memcpy(data.data(), &ev, sizeof ev);
    Bytes old;
    for (const auto *list : {&names, &values})
        for (const auto &s : *list) old.insert(old.end(), s.c_str(), s.c_str() + s.size() + 1);
    return request(MBUS_MODULE_SWMGR, SW_CMD_DB_EVENT, data, old.empty() ? nullptr : &old);
}

void addDbVerbs(CLI::App &app, Verbs &verbs) {
    struct Args {
        std::string dbPath, statement, table, op;
        int64_t rowId = 0;
        std::vector<std::string> old;
    };
    auto a = std::make_shared<Args>();
    auto *sql = app.add_subcommand("sql", "run an SQL statement on the configuration database and send the daemon "
                                          "a change event for every row it changed");
    sql->add_option("--db", a->dbPath, "configuration database")->required();
    sql->add_option("statement", a->statement, "the SQL, e.g. \"INSERT INTO vlanEncapIf ...\"")->required();
    addJsonFlag(sql);
    verbs.push_back({sql, [a] { return runSql(a->dbPath, a->statement); }});

    auto *ev = app.add_subcommand("dbevent", "send a change event for a row changed by other means (e.g. the "
                                             "sqlite3 program)");
    ev->add_option("table", a->table, "table name")->required();
    ev->add_option("rowid", a->rowId, "row id")->required();
    ev->add_option("op", a->op, "insert, update, delete, or the operation's number")
        ->required()
        ->check(CLI::IsMember({"insert", "update", "delete"}) | CLI::Number);
    ev->add_option("--old", a->old, "old value of a column as NAME=VALUE (update, delete); repeat per column");
    addJsonFlag(ev);
    verbs.push_back({ev, [a] {
                         std::vector<std::string> names, values;
                         for (const auto &kv : a->old) {
                             auto eq = kv.find('=');
                             names.push_back(kv.substr(0, eq));
                             values.push_back(eq == std::string::npos ? "" : kv.substr(eq + 1));
                         }
                         int op = a->op == "insert"   ? DB_OP_INSERT
                                  : a->op == "update" ? DB_OP_UPDATE
                                  : a->op == "delete" ? DB_OP_DELETE
                                                      : std::atoi(a->op.c_str());
                         return reportDbEvent(a->table, a->rowId, op, names, values);
                     }});
}

}  // namespace swctl
