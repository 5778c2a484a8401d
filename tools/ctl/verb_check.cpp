// SPDX-License-Identifier: Apache-2.0
// check: every row of a configuration database that the service would
// refuse, cut, ignore or trip over, found offline. The rows are checked on
// their own first; those that pass are then loaded by the switch manager
// itself, in-process, on simulated hardware, and what it refuses is
// reported with the reason it logs.
#include <cstdio>

#include "swmgr/swconf.h"
#include "config_rows.h"
#include "ctl.h"
#include "offline.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace swctl {
namespace {

// One row in the query-result layout the service's handlers take.
struct RowResult {
    std::vector<std::string> text;
    std::vector<char *> cells;
    RowResult(const Table &t, const Row &r) {
        text = t.columns;
        for (const auto &v : r.values) text.push_back(v.value_or(""));
        for (size_t i = 0; i < text.size(); ++i)
            cells.push_back(i >= t.columns.size() && !r.values[i - t.columns.size()] ? nullptr : text[i].data());
    }
};

// The first error the service logged, as the reason it refused something.
std::string firstError(const std::vector<LogLine> &log, int result) {
    for (const auto &l : log) {
        if (l.level != SW_LOG_ERR || l.text.rfind("cmd (", 0) == 0) continue;
        std::string t = l.text;
        while (!t.empty() && (t.back() == '\n' || t.back() == ' ')) t.pop_back();
        return "the service refuses it (" + std::to_string(result) + "): " + t;
    }
    return "the service refuses it (" + std::to_string(result) + ")";
}

using Handler = int (*)(char **, int, int);

void loadTable(Offline &off, const Table &t, Handler handler, const std::set<std::pair<std::string, int64_t>> &refused,
               std::vector<Finding> &out, bool &stopped) {
    for (const auto &r : t.rows) {
        if (refused.count({t.name, r.id})) continue;
        RowResult rr(t, r);
        off.takeLog();
        int result = handler(rr.cells.data(), static_cast<int>(t.columns.size()), 0);
        if (result >= 0) continue;
        std::string reason = firstError(off.takeLog(), result);
        if (!stopped) reason += "; start-up stops loading here (no later row of this table or the next ones)";
        stopped = true;
        out.push_back({t.name, r.id, "", true, reason});
    }
}

void runService(Offline &off, const Config &cfg, const std::set<std::pair<std::string, int64_t>> &refused,
                std::vector<Finding> &out) {
    swMgrDevDebug = 0;
    switchLibInit();
    // Start-up stops at the first refused row; later ones are still tried
    // here so that each gets its own finding.
    bool stopped = false;
    loadTable(off, cfg.switches, swGlobalCfgDBInsertHandler, refused, out, stopped);
    loadTable(off, cfg.ports, swPortCfgDBInsertHandler, refused, out, stopped);
    loadTable(off, cfg.vlans, swVlanCfgDBInsertHandler, refused, out, stopped);
    Switch *top = switchAtTopLevelGet();
    if (top == nullptr) return;
    off.takeLog();
    int r = switchCfgApply(top);
    if (r >= 0) return;
    int64_t row = 0;
    for (const auto &s : cfg.switches.rows)
        if (row == 0 && cfg.switches.get(s, "switchName").value_or("") == top->switchName) row = s.id;
    out.push_back({cfg.switches.name, row, "", true, "applying the top-level switch fails: " + firstError(off.takeLog(), r)});
}

int runCheck(const std::string &path, bool strict) {
    Config cfg;
    std::string err;
    if (!readConfig(path, cfg, err)) return fail(err, kFailed);
    std::set<std::pair<std::string, int64_t>> refused;
    std::vector<Finding> findings = staticFindings(cfg, refused);
    Offline off(false);
    if (!off.start(path, err)) return fail(err, kFailed);
    runService(off, cfg, refused, findings);

    int errors = 0, warnings = 0;
    for (const auto &f : findings) ++(f.error ? errors : warnings);
    if (opt.json) {
        json list = json::array();
        for (const auto &f : findings)
            list.push_back({{"table", f.table},
                            {"row", f.row != 0 ? json(f.row) : json(nullptr)},
                            {"column", f.column},
                            {"severity", f.error ? "error" : "warning"},
                            {"reason", f.reason}});
        printJson({{"database", path}, {"findings", list}, {"errors", errors}, {"warnings", warnings}});
    } else {
        for (const auto &f : findings)
            std::printf("%s%s%s: %s: %s\n", f.table.c_str(), f.row != 0 ? (" row " + std::to_string(f.row)).c_str() : "",
                        f.column.empty() ? "" : (" " + f.column).c_str(), f.error ? "error" : "warning", f.reason.c_str());
        if (findings.empty())
            std::printf("%s: clean (%zu switches, %zu ports, %zu VLANs)\n", path.c_str(), cfg.switches.rows.size(),
                        cfg.ports.rows.size(), cfg.vlans.rows.size());
        else
            std::printf("%s: %d error%s, %d warning%s\n", path.c_str(), errors, errors == 1 ? "" : "s", warnings,
                        warnings == 1 ? "" : "s");
    }
    return errors > 0 || (strict && warnings > 0) ? kFailed : kOk;
}

}  // namespace

void addCheckVerb(CLI::App &app, Verbs &verbs) {
    struct Args {
        std::string db;
        bool strict = false;
    };
    auto a = std::make_shared<Args>();
    auto *check = app.add_subcommand("check", "check a configuration database offline: every row the service would "
                                              "refuse, cut, ignore or trip over (exit 1 on an error)");
    check->add_option("--db", a->db, "configuration database")->required();
    check->add_flag("--strict", a->strict, "warnings count as errors");
    addJsonFlag(check);
    verbs.push_back({check, [a] { return runCheck(a->db, a->strict); }});
}

}  // namespace swctl
