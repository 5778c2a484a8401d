// SPDX-License-Identifier: Apache-2.0
#include "config_rows.h"

namespace swctl {
namespace {

bool readTable(sqlite3 *db, const char *name, Table &t, std::string &err) {
    t = Table{};
    t.name = name;
    sqlite3_stmt *st = nullptr;
    char *sql = sqlite3_mprintf("SELECT rowid, * FROM \"%w\"", name);
    int rc = sqlite3_prepare_v2(db, sql, -1, &st, nullptr);
    sqlite3_free(sql);
    if (rc != SQLITE_OK) {
        std::string why = sqlite3_errmsg(db);
        sqlite3_finalize(st);
        if (why.rfind("no such table", 0) == 0) return true;  // reported as a finding
        err = why;
        return false;
    }
    t.exists = true;
    const int n = sqlite3_column_count(st);
    for (int c = 1; c < n; ++c) t.columns.emplace_back(sqlite3_column_name(st, c));
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        Row r;
        r.id = sqlite3_column_int64(st, 0);
        for (int c = 1; c < n; ++c) {
            const unsigned char *v = sqlite3_column_text(st, c);
            r.values.push_back(v != nullptr ? Value(reinterpret_cast<const char *>(v)) : std::nullopt);
        }
        t.rows.push_back(std::move(r));
    }
    if (rc != SQLITE_DONE) err = sqlite3_errmsg(db);
    sqlite3_finalize(st);
    return rc == SQLITE_DONE;
}

}  // namespace

Value Table::get(const Row &row, const std::string &column) const {
    for (size_t c = 0; c < columns.size() && c < row.values.size(); ++c)
        if (columns[c] == column) return row.values[c];
    return std::nullopt;
}

const Row *Table::find(int64_t id) const {
    for (const auto &r : rows)
        if (r.id == id) return &r;
    return nullptr;
}

bool readConfig(sqlite3 *db, Config &out, std::string &err) {
    return readTable(db, kTableNames[0], out.switches, err) && readTable(db, kTableNames[1], out.ports, err) &&
           readTable(db, kTableNames[2], out.vlans, err);
}

bool readConfig(const std::string &path, Config &out, std::string &err) {
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        err = "cannot open " + path + ": " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return false;
    }
    bool ok = readConfig(db, out, err);
    if (!ok) err = path + ": " + err;
    sqlite3_close(db);
    return ok;
}

}  // namespace swctl
