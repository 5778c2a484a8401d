// SPDX-License-Identifier: Apache-2.0
// plan: what applying a configuration does to the hardware, step by step,
// without touching any. The switch manager runs in-process on simulated
// hardware; every command line, device request (decoded) and file written
// is listed in order, then the resulting state. With --from it starts on
// the old database and applies the difference as the change events the
// database would send, listing only what the change does.
#include <sqlite3.h>

#include <cstdio>

#include "swmgr/swconf.h"
#include "config_rows.h"
#include "ctl.h"
#include "offline.h"
#include "swmgr/swmgr.h"
#include "swmgr_tools.h"

namespace swctl {
namespace {

using ojson = nlohmann::ordered_json;

struct Event {
    const Table *table;
    int op;
    int64_t row;
    const Row *oldRow;  // update, delete
    const Row *newRow;  // insert, update
};

// Deletes, updates and inserts, table by table in the order of loading.
bool diffRows(const Config &from, const Config &to, std::vector<Event> &out, std::string &err) {
    const Table *olds[] = {&from.switches, &from.ports, &from.vlans};
    const Table *news[] = {&to.switches, &to.ports, &to.vlans};
    for (int i = 0; i < 3; ++i) {
        const Table &o = *olds[i], &n = *news[i];
        if (o.exists != n.exists || o.columns != n.columns) {
            err = "table " + o.name + " differs in its columns; a plan shows row changes only";
            return false;
        }
        for (const auto &r : o.rows)
            if (n.find(r.id) == nullptr) out.push_back({&n, DB_OP_DELETE, r.id, &r, nullptr});
        for (const auto &r : n.rows)
            if (const Row *old = o.find(r.id); old != nullptr && old->values != r.values)
                out.push_back({&n, DB_OP_UPDATE, r.id, old, &r});
        for (const auto &r : n.rows)
            if (o.find(r.id) == nullptr) out.push_back({&n, DB_OP_INSERT, r.id, nullptr, &r});
    }
    return true;
}

bool execBound(sqlite3 *db, const std::string &sql, const std::vector<Value> &values, int64_t rowId, std::string &err) {
    sqlite3_stmt *st = nullptr;
    bool ok = sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == SQLITE_OK;
    int i = 1;
    for (; ok && i <= static_cast<int>(values.size()); ++i)
        if (values[i - 1])
            sqlite3_bind_text(st, i, values[i - 1]->c_str(), -1, SQLITE_TRANSIENT);
        else
            sqlite3_bind_null(st, i);
    if (ok && rowId != 0) sqlite3_bind_int64(st, i, rowId);
    ok = ok && sqlite3_step(st) == SQLITE_DONE;
    if (!ok) err = sqlite3_errmsg(db);
    sqlite3_finalize(st);
    return ok;
}

// Makes the working copy's row what the new database has.
bool applyRow(sqlite3 *db, const Event &e, std::string &err) {
    const Table &t = *e.table;
    char *name = sqlite3_mprintf("\"%w\"", t.name.c_str());
    std::string table = name;
    sqlite3_free(name);
    if (e.op == DB_OP_DELETE) return execBound(db, "DELETE FROM " + table + " WHERE rowid = ?", {}, e.row, err);
    std::string cols, marks, sets;
    for (const auto &c : t.columns) {
        char *q = sqlite3_mprintf("\"%w\"", c.c_str());
        cols += (cols.empty() ? "" : ", ") + std::string(q);
        marks += marks.empty() ? "?" : ", ?";
        sets += (sets.empty() ? "" : ", ") + std::string(q) + " = ?";
        sqlite3_free(q);
    }
    if (e.op == DB_OP_UPDATE)
        return execBound(db, "UPDATE " + table + " SET " + sets + " WHERE rowid = ?", e.newRow->values, e.row, err);
    if (!execBound(db, "INSERT INTO " + table + " (" + cols + ") VALUES (" + marks + ")", e.newRow->values, 0, err))
        return false;
    // The new row keeps the id it has in the new database.
    int64_t got = sqlite3_last_insert_rowid(db);
    return got == e.row ||
           execBound(db, "UPDATE " + table + " SET rowid = ? WHERE rowid = " + std::to_string(got), {std::to_string(e.row)}, 0, err);
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        out.push_back(text.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos));
        pos = nl == std::string::npos ? text.size() : nl + 1;
    }
    return out;
}

// Lines that went ("- ") and came ("+ "), in the order of the texts.
std::vector<std::string> lineDiff(const std::string &before, const std::string &after) {
    auto a = lines(before), b = lines(after);
    std::vector<std::vector<int>> lcs(a.size() + 1, std::vector<int>(b.size() + 1, 0));
    for (size_t i = a.size(); i-- > 0;)
        for (size_t j = b.size(); j-- > 0;)
            lcs[i][j] = a[i] == b[j] ? lcs[i + 1][j + 1] + 1 : std::max(lcs[i + 1][j], lcs[i][j + 1]);
    std::vector<std::string> out;
    size_t i = 0, j = 0;
    while (i < a.size() || j < b.size()) {
        if (i < a.size() && j < b.size() && a[i] == b[j]) {
            ++i, ++j;
        } else if (i < a.size() && (j == b.size() || lcs[i + 1][j] >= lcs[i][j + 1])) {
            out.push_back("- " + a[i++]);
        } else {
            out.push_back("+ " + b[j++]);
        }
    }
    return out;
}

void printSteps(const std::vector<ojson> &steps) {
    for (const auto &s : steps) std::printf("  %s\n", stepText(s).c_str());
}

// A row the service would not survive cannot be planned, only checked.
bool survivable(const Config &cfg, const std::string &path, std::string &err) {
    std::set<std::pair<std::string, int64_t>> refused;
    for (const auto &f : staticFindings(cfg, refused))
        if (f.fatal) {
            err = path + ": " + f.table + " row " + std::to_string(f.row) + " " + f.reason +
                  "; the service would recurse without end (see swmgrctl check)";
            return false;
        }
    return true;
}

int runPlan(const std::string &dbPath, const std::string &fromPath) {
    Config target, start;
    std::string err;
    if (!readConfig(dbPath, target, err) || !survivable(target, dbPath, err)) return fail(err, kFailed);
    if (!fromPath.empty() && (!readConfig(fromPath, start, err) || !survivable(start, fromPath, err)))
        return fail(err, kFailed);
    std::vector<Event> events;
    if (!fromPath.empty() && !diffRows(start, target, events, err)) return fail(err, kFailed);

    Offline off(true);
    if (!off.start(fromPath.empty() ? dbPath : fromPath, err)) return fail(err, kFailed);
    swMgrDevDebug = 0;
    const int initResult = swMgrInit(off.db().c_str());
    auto startSteps = off.takeSteps();
    ojson doc;
    if (fromPath.empty()) {
        doc["startup"] = {{"database", dbPath}, {"result", initResult}, {"steps", startSteps}};
        doc["state"] = off.sim().json();
        if (opt.json) {
            std::printf("%s\n", doc.dump(2).c_str());
        } else {
            std::printf("== start-up on %s: result %d\n", dbPath.c_str(), initResult);
            printSteps(startSteps);
            std::printf("== resulting hardware\n%s", off.sim().text().c_str());
        }
        swMgrDeinit();
        return initResult < 0 ? kFailed : kOk;
    }

    const json beforeJson = off.sim().json();
    const std::string beforeText = off.sim().text();
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(off.db().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return fail("cannot write the working copy of " + fromPath, kFailed);
    }
    int worst = kOk;
    doc["changes"] = ojson::array();
    for (const auto &e : events) {
        if (!applyRow(db, e, err)) {
            sqlite3_close(db);
            swMgrDeinit();
            return fail("cannot apply " + e.table->name + " row " + std::to_string(e.row) + ": " + err, kFailed);
        }
        std::vector<std::string> names, values;
        if (e.oldRow != nullptr) {
            names = e.table->columns;
            for (const auto &v : e.oldRow->values) values.push_back(v.value_or(""));
        }
        Reply r = sendDbEvent(e.table->name, e.row, e.op, names, values);
        if (r.result < 0) worst = kFailed;
        doc["changes"].push_back({{"table", e.table->name},
                                  {"row", e.row},
                                  {"op", opName(e.op)},
                                  {"result", r.result},
                                  {"steps", off.takeSteps()}});
    }
    sqlite3_close(db);
    const std::string afterText = off.sim().text();
    doc["stateDiff"] = json::diff(beforeJson, off.sim().json());
    if (opt.json) {
        std::printf("%s\n", doc.dump(2).c_str());
    } else {
        if (events.empty()) std::printf("no row differs between %s and %s\n", fromPath.c_str(), dbPath.c_str());
        for (const auto &c : doc["changes"]) {
            std::printf("== %s row %s %s: result %d (%s)\n", c["table"].get<std::string>().c_str(), c["row"].dump().c_str(),
                        c["op"].get<std::string>().c_str(), c["result"].get<int>(),
                        swtool::resultName(c["result"].get<int>()).c_str());
            printSteps(c["steps"].get<std::vector<ojson>>());
        }
        std::printf("== hardware state difference\n");
        for (const auto &l : lineDiff(beforeText, afterText)) std::printf("%s\n", l.c_str());
    }
    swMgrDeinit();
    return worst;
}

}  // namespace

void addPlanVerb(CLI::App &app, Verbs &verbs) {
    struct Args {
        std::string db, from;
    };
    auto a = std::make_shared<Args>();
    auto *plan = app.add_subcommand("plan", "show what applying a configuration does (command lines, ioctls, files, "
                                            "resulting hardware) on simulated hardware; --from: only the change");
    plan->add_option("--db", a->db, "the configuration to apply")->required();
    plan->add_option("--from", a->from, "the configuration the device runs now");
    addJsonFlag(plan);
    verbs.push_back({plan, [a] { return runPlan(a->db, a->from); }});
}

}  // namespace swctl
