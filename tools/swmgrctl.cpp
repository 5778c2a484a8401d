// SPDX-License-Identifier: Apache-2.0
// swmgrctl: talks to swmgrd over the message bus. Changes the configuration
// database and tells the daemon, adds and deletes VLANs, reports interface
// events, sends driver commands, shows the simulated hardware and follows
// the log.
#define SQLITE_ENABLE_PREUPDATE_HOOK 1
#include <signal.h>
#include <sqlite3.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/names.h"
#include "common/text.h"
#include "swmgr/swconf.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"
#include "state_dot.h"
#include "cli.h"
#include "swmgr_tools.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Options {
    std::string busDir;
    int timeoutMs = MBUS_PORT_TIMEOUT_MS;
    bool showTime = false;
};
Options opt;

// Exit codes: 0 the daemon accepted, 1 it refused (negative result) or the
// request could not be made, 2 the bus could not deliver, 64 the command
// line was wrong (the parser's errors and the values it cannot check).
enum { kOk = swtool::kExitOk, kRefused = swtool::kExitFailed, kNoBus = swtool::kExitNoBus, kUsage = swtool::kExitUsage };

struct Reply {
    int result = 0;
    bool delivered = false;
    Bytes aux;
};

Reply request(int module, int cmd, Bytes &data, Bytes *aux) {
    Reply r;
    int auxLen = aux != nullptr ? static_cast<int>(aux->size()) : 0;
    auto t0 = std::chrono::steady_clock::now();
    r.result = mbusIoctl(nullptr, module, cmd, data.empty() ? nullptr : data.data(), static_cast<int>(data.size()),
                         aux != nullptr && !aux->empty() ? aux->data() : nullptr, aux != nullptr ? &auxLen : nullptr,
                         0, opt.timeoutMs, 0);
    auto t1 = std::chrono::steady_clock::now();
    r.delivered = *mbusPortLastError() == '\0';
    if (aux != nullptr && auxLen >= 0 && static_cast<size_t>(auxLen) <= aux->size()) aux->resize(static_cast<size_t>(auxLen));
    if (opt.showTime)
        std::printf("time: %.3f ms\n", std::chrono::duration<double, std::milli>(t1 - t0).count());
    return r;
}

// Prints what became of one request; returns the exit code for it.
int report(const std::string &what, const Reply &r) {
    if (!r.delivered) {
        std::fprintf(stderr, "swmgrctl: %s: %s (%d)\n", what.c_str(), mbusPortLastError(), r.result);
        return kNoBus;
    }
    std::printf("%s: result %d (%s)\n", what.c_str(), r.result, swtool::resultName(r.result).c_str());
    return r.result < 0 ? kRefused : kOk;
}

template <typename T>
void put(Bytes &buf, size_t offset, const T &value) {
    if (buf.size() < offset + sizeof value) buf.resize(offset + sizeof value);
    std::memcpy(buf.data() + offset, &value, sizeof value);
}

std::optional<Bytes> parseHex(const std::vector<std::string> &words, std::string &err) {
    Bytes out;
    for (std::string w : words) {
        if (w.rfind("0x", 0) == 0 || w.rfind("0X", 0) == 0) w = w.substr(2);
        if (w.size() % 2 != 0) {
            err = "hex bytes come in pairs of digits: " + w;
            return std::nullopt;
        }
        for (size_t i = 0; i < w.size(); i += 2) {
            char pair[3] = {w[i], w[i + 1], 0};
            char *end = nullptr;
            unsigned long v = std::strtoul(pair, &end, 16);
            if (end != pair + 2) {
                err = "not a hex byte: " + std::string(pair);
                return std::nullopt;
            }
            out.push_back(static_cast<uint8_t>(v));
        }
    }
    return out;
}

// "0,1,4" -> bits 0, 1 and 4.
std::optional<uint32_t> parsePorts(const std::string &text, std::string &err) {
    uint32_t map = 0;
    size_t pos = 0;
    while (pos <= text.size() && !text.empty()) {
        size_t comma = text.find(',', pos);
        std::string item = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        char *end = nullptr;
        long n = std::strtol(item.c_str(), &end, 10);
        if (item.empty() || *end != '\0' || n < 0 || n > 31) {
            err = "ports are numbers 0 to 31 separated by commas: " + text;
            return std::nullopt;
        }
        map |= 1u << n;
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    return map;
}

// ------------------------------------------------------------------- sql

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

const char *opName(int op) {
    switch (op) {
        case DB_OP_INSERT: return "insert";
        case DB_OP_UPDATE: return "update";
        case DB_OP_DELETE: return "delete";
        default: return "operation";
    }
}

// The 80-byte change event, with the row's old values (column names, then
// values, each NUL-terminated) as aux when there are any.
int sendDbEvent(const std::string &table, int64_t rowId, int op, const std::vector<std::string> &names,
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
    Reply r = request(MBUS_MODULE_SWMGR, SW_CMD_DB_EVENT, data, old.empty() ? nullptr : &old);
    return report(table + " row " + std::to_string(rowId) + " " + opName(op), r);
}

int runSql(const std::string &dbPath, const std::string &statement) {
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "swmgrctl: cannot open database %s: %s\n", dbPath.c_str(),
                     db != nullptr ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return kRefused;
    }
    sqlite3_busy_timeout(db, 5000);
    std::vector<Change> changes;
    sqlite3_preupdate_hook(db, preupdate, &changes);
    char *err = nullptr;
    if (sqlite3_exec(db, statement.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
        std::fprintf(stderr, "swmgrctl: SQL error: %s\n", err != nullptr ? err : sqlite3_errmsg(db));
        sqlite3_free(err);
        sqlite3_close(db);
        return kRefused;
    }
    sqlite3_preupdate_hook(db, nullptr, nullptr);
    std::map<std::string, std::vector<std::string>> names;
    for (const auto &c : changes)
        if (c.op != SQLITE_INSERT && !names.count(c.table)) names[c.table] = columnNames(db, c.table);
    sqlite3_close(db);

    if (changes.empty()) std::printf("no row changed; nothing to tell the daemon\n");
    int worst = kOk;
    for (const auto &c : changes) {
        static const std::vector<std::string> none;
        const auto &cols = c.op == SQLITE_INSERT ? none : names[c.table];
        worst = std::max(worst, sendDbEvent(c.table, c.rowId, c.op, cols, c.oldValues));
    }
    return worst;
}

int parseOp(const std::string &text) {
    if (text == "insert") return DB_OP_INSERT;
    if (text == "update") return DB_OP_UPDATE;
    if (text == "delete") return DB_OP_DELETE;
    return std::atoi(text.c_str());
}

// ------------------------------------------------------------------ vlan

struct VlanArgs {
    int id = 0;
    std::string name, ifName = "eth0", logical, ports, untagged, ingress, egress;
    bool inSwitchOnly = false;
};

int sendVlan(int code, const VlanArgs &a) {
    // The daemon refuses such names too; saying so here names the option.
    for (const auto &[option, name, optional] :
         {std::tuple{"--if", &a.ifName, false}, std::tuple{"--logical", &a.logical, true}}) {
        if (optional && name->empty()) continue;
        const swmgr::NameVerdict v = swmgr::checkName(name->c_str(), name->size() + 1);
        if (v.ok()) continue;
        char why[128];
        std::fprintf(stderr, "swmgrctl: %s: %s\n", option, swmgr::nameFaultText(why, v));
        return kRefused;
    }
    std::string err;
    auto fwd = parsePorts(a.ports, err);
    auto untag = fwd ? parsePorts(a.untagged, err) : std::nullopt;
    if (!fwd || !untag) {
        std::fprintf(stderr, "swmgrctl: %s\n", err.c_str());
        return kUsage;
    }
    SwitchVlanConf conf{};
    conf.vlanId = a.id;
    swmgr::copyText(conf.vlanName, a.name.c_str());
    swmgr::copyText(conf.interfaceName, a.ifName.c_str());
    swmgr::copyText(conf.LogicalIfName, a.logical.c_str());
    swmgr::copyText(conf.ingressMap, a.ingress.c_str());
    swmgr::copyText(conf.egressMap, a.egress.c_str());
    conf.fwdMap = *fwd;
    conf.untagMap = *untag;
    conf.inSwitchOnly = a.inSwitchOnly ? 1 : 0;
    Bytes data(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN);
    std::memcpy(data.data() + SW_BUS_NAME_LEN, &conf, SW_VLAN_CONF_LEN);
    Reply r = request(MBUS_MODULE_SWMGR, code, data, nullptr);
    return report(std::string(code == SW_CMD_VLAN_ADD ? "vlan add " : "vlan del ") + std::to_string(a.id), r);
}

// --------------------------------------------------------------- ifevent

int sendIfEvent(const std::string &ifName, int event, std::optional<uint32_t> bandwidth,
                std::optional<uint32_t> upstream) {
    SwIfDevEvent ev{};
    swmgr::copyText(ev.ifName, ifName.c_str());
    ev.event = static_cast<uint32_t>(event);
    Bytes data(SW_IFDEV_EVENT_LEN);
    std::memcpy(data.data(), &ev, sizeof ev);
    Bytes aux;
    if (bandwidth || upstream) {
        SwIfBandwidth bw{};
        bw.totalBandwidth = bandwidth.value_or(0);
        bw.upstreamPercent = upstream.value_or(0);
        aux.resize(SW_IF_BANDWIDTH_LEN);
        std::memcpy(aux.data(), &bw, sizeof bw);
    }
    Reply r = request(MBUS_MODULE_SWMGR, SW_CMD_IFDEV_EVENT, data, aux.empty() ? nullptr : &aux);
    return report("ifevent " + ifName + " " + std::to_string(event), r);
}

// ------------------------------------------------------------------- cmd

struct CmdArgs {
    std::string sw, code;
    std::vector<std::string> hex;
    std::optional<int> port, queues, mode, trust, enable;
    std::optional<uint32_t> rate;
    std::vector<int> weights;
    bool off = false;
};

const std::map<std::string, int> kCodeNames = {
    {"vlan-enable", SW_CMD_VLAN_ENABLE}, {"qos", SW_CMD_QOS_CONFIG},         {"queue-sched", SW_CMD_QUEUE_SCHED},
    {"pause", SW_CMD_PAUSE_FRAMES},      {"rate-limit", SW_CMD_PORT_RATE_LIMIT}, {"trust", SW_CMD_PORT_TRUST_MODE},
};

// The argument record of a named command from its options.
std::optional<Bytes> namedArgument(int code, const CmdArgs &a, std::string &err) {
    auto need = [&](const std::optional<int> &v, const char *what) {
        if (!v) err = std::string("command ") + std::to_string(code) + " needs " + what;
        return v.value_or(0);
    };
    Bytes arg;
    switch (code) {
        case SW_CMD_QUEUE_SCHED: {
            SwitchQueueSchedArg q{};
            q.portNumber = a.port.value_or(-1);
            q.numQueues = need(a.queues, "--queues");
            q.schedMode = need(a.mode, "--mode");
            if (a.weights.size() != 4) err = "--weights takes four numbers, e.g. 1,2,4,8";
            int32_t *w[] = {&q.queue1Weight, &q.queue2Weight, &q.queue3Weight, &q.queue4Weight};
            for (size_t i = 0; i < 4 && i < a.weights.size(); ++i) *w[i] = a.weights[i];
            put(arg, 0, q);
            break;
        }
        case SW_CMD_PORT_RATE_LIMIT: {
            SwitchRateLimitArg r{};
            r.portNumber = static_cast<uint32_t>(need(a.port, "--port"));
            if (!a.rate && !a.off) err = "command 50 needs --rate KBPS or --off";
            r.rate = a.off ? 0 : a.rate.value_or(0);
            r.action = !a.off && r.rate != 0 ? 1 : 0;
            put(arg, 0, r);
            break;
        }
        case SW_CMD_PORT_TRUST_MODE: {
            SwitchTrustModeArg t{need(a.port, "--port"), need(a.trust, "--trust")};
            put(arg, 0, t);
            break;
        }
        case SW_CMD_QOS_CONFIG:
        case SW_CMD_PAUSE_FRAMES:
        case SW_CMD_VLAN_ENABLE: put(arg, 0, static_cast<uint32_t>(need(a.enable, "--enable"))); break;
        default: err = "no named options for command " + std::to_string(code) + "; give the argument as hex bytes";
    }
    if (!err.empty()) return std::nullopt;
    return arg;
}

int sendCmd(const CmdArgs &a) {
    auto named = kCodeNames.find(a.code);
    char *end = nullptr;
    long code = named != kCodeNames.end() ? named->second : std::strtol(a.code.c_str(), &end, 0);
    if (named == kCodeNames.end() && (end == a.code.c_str() || *end != '\0')) {
        std::fprintf(stderr, "swmgrctl: unknown command code: %s\n", a.code.c_str());
        return kUsage;
    }
    const bool hasNamed = a.port || a.queues || a.mode || a.trust || a.enable || a.rate || a.off || !a.weights.empty();
    std::string err;
    std::optional<Bytes> arg;
    if (!a.hex.empty() && hasNamed)
        err = "give the argument either as hex bytes or with named options, not both";
    else if (!a.hex.empty())
        arg = parseHex(a.hex, err);
    else if (hasNamed)
        arg = namedArgument(static_cast<int>(code), a, err);
    else
        arg = Bytes{};
    if (!arg || arg->size() > SW_BUS_ARG_LEN) {
        std::fprintf(stderr, "swmgrctl: %s\n", err.empty() ? "argument longer than 1300 bytes" : err.c_str());
        return kUsage;
    }
    if (a.sw.size() >= SW_BUS_NAME_LEN) {
        std::fprintf(stderr, "swmgrctl: switch name longer than %d characters\n", SW_BUS_NAME_LEN - 1);
        return kUsage;
    }
    Bytes data(SW_BUS_NAME_LEN + SW_BUS_ARG_LEN);
    std::memcpy(data.data(), a.sw.c_str(), a.sw.size());
    std::copy(arg->begin(), arg->end(), data.begin() + SW_BUS_NAME_LEN);
    Reply r = request(MBUS_MODULE_SWMGR, static_cast<int>(code), data, nullptr);
    return report("cmd " + a.sw + " " + std::to_string(code), r);
}

// ----------------------------------------------------------------- state

int showState(bool json, bool dot) {
    Bytes data;
    Bytes aux(swtool::kStateReplyMax);
    json = json || dot;
    Reply r = request(swtool::kSimModule, json ? swtool::kSimStateJson : swtool::kSimStateText, data, &aux);
    if (!r.delivered) {
        std::fprintf(stderr, "swmgrctl: state: %s (is swmgrd running with --sim?)\n", mbusPortLastError());
        return kNoBus;
    }
    if (r.result < 0) return report("state", r);
    std::string text(aux.begin(), aux.end());
    text.resize(strnlen(text.c_str(), text.size()));
    if (json) {
        auto j = nlohmann::json::parse(text, nullptr, false);
        if (j.is_discarded()) {
            std::fprintf(stderr, "swmgrctl: state: the daemon's reply is not JSON\n");
            return kRefused;
        }
        std::fputs(dot ? swtool::topologyDot(j).c_str() : (j.dump(2) + "\n").c_str(), stdout);
    } else {
        std::fputs(text.c_str(), stdout);
    }
    return kOk;
}

// ------------------------------------------------------------------- log

volatile sig_atomic_t stopLog = 0;
int logLeft = -1;

const char *levelName(uint32_t level) {
    switch (level) {
        case SW_LOG_ERR: return "error";
        case SW_LOG_INFO: return "info";
        case SW_LOG_RESULT: return "result";
        case SW_LOG_DEV: return "debug";
        default: return "level";
    }
}

int onLogRecord(MbusCtx *, const MbusMsgHeader *, int cmd, void *data, int dataLen, void *aux, int *auxLen) {
    if (cmd != MBUS_LOG_CMD || data == nullptr || dataLen < SW_LOG_HEADER_LEN) return -22;
    SwLogRecordHeader h;
    std::memcpy(&h, data, sizeof h);
    std::string text;
    if (aux != nullptr && auxLen != nullptr && *auxLen > 0)
        text.assign(static_cast<const char *>(aux), strnlen(static_cast<const char *>(aux), static_cast<size_t>(*auxLen)));
    if (text.empty() || text.back() != '\n') text += '\n';
    std::string who = h.module == MBUS_MODULE_SWMGR ? "swmgr" : "module " + std::to_string(h.module);
    h.tag[sizeof h.tag - 1] = '\0';
    if (h.tag[0] != '\0') who += std::string("/") + h.tag;
    const char *name = levelName(h.level);
    if (std::strcmp(name, "level") == 0)
        std::printf("%s level %u: %s", who.c_str(), h.level, text.c_str());
    else
        std::printf("%s %s: %s", who.c_str(), name, text.c_str());
    std::fflush(stdout);
    if (logLeft > 0) --logLeft;
    return 0;
}

int followLog(int count) {
    logLeft = count > 0 ? count : -1;
    struct sigaction sa {};
    sa.sa_handler = [](int) { stopLog = 1; };
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    MbusCtx *ctx = mbusRegister(MBUS_MODULE_LOG, 2, onLogRecord, nullptr);
    if (ctx == nullptr) {
        std::fprintf(stderr, "swmgrctl: cannot follow the log: %s\n", mbusPortLastError());
        return kNoBus;
    }
    std::fprintf(stderr, "swmgrctl: following the log on %s (Ctrl-C to stop)\n", mbusPortBusDirGet());
    while (!stopLog && logLeft != 0) mbusListen(ctx, 200000);
    mbusUnRegister(ctx);
    return kOk;
}

// ------------------------------------------------------------------- raw

int sendRaw(int module, int code, const std::vector<std::string> &hex, int auxLen) {
    std::string err;
    auto data = parseHex(hex, err);
    if (!data) {
        std::fprintf(stderr, "swmgrctl: %s\n", err.c_str());
        return kUsage;
    }
    Bytes aux(static_cast<size_t>(std::max(auxLen, 0)));
    Reply r = request(module, code, *data, aux.empty() ? nullptr : &aux);
    return report("raw " + std::to_string(module) + " " + std::to_string(code) + " (" + std::to_string(data->size()) +
                      " bytes)",
                  r);
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"swmgrctl - talk to swmgrd over the message bus.\n"
                 "Each request prints the daemon's result.",
                 "swmgrctl"};
    app.footer("Exit status: 0 the request was accepted, 1 it was refused or could not be made,\n"
               "2 the daemon could not be reached (the bus could not deliver), 64 usage error.\n");
    app.fallthrough();
    app.require_subcommand(1);
    app.add_option("--bus-dir", opt.busDir,
                   "directory of the bus sockets (default: $" MBUS_PORT_DIR_ENV " or " MBUS_PORT_DEFAULT_DIR ")");
    app.add_option("--timeout", opt.timeoutMs, "how long to wait for a reply, in milliseconds")
        ->check(CLI::Range(1, 600000));
    app.add_flag("--time", opt.showTime, "print how long each request took");
    int code = kOk;
    // What each subcommand does, run once the whole line is parsed.
    std::vector<std::pair<CLI::App *, std::function<void()>>> actions;

    std::string dbPath, statement;
    auto *sql = app.add_subcommand("sql", "run an SQL statement on the configuration database and send the daemon "
                                          "a change event for every row it changed");
    sql->add_option("--db", dbPath, "configuration database")->required();
    sql->add_option("statement", statement, "the SQL, e.g. \"INSERT INTO vlanEncapIf ...\"")->required();
    actions.emplace_back(sql, [&] { code = runSql(dbPath, statement); });

    std::string evTable, evOp;
    int64_t evRow = 0;
    std::vector<std::string> evOld;
    auto *dbevent = app.add_subcommand("dbevent", "send a change event for a row changed by other means (e.g. the "
                                                  "sqlite3 program)");
    dbevent->add_option("table", evTable, "table name")->required();
    dbevent->add_option("rowid", evRow, "row id")->required();
    dbevent->add_option("op", evOp, "insert, update, delete, or the operation's number")->required();
    dbevent->add_option("--old", evOld, "old value of a column as NAME=VALUE (update, delete); repeat per column");
    actions.emplace_back(dbevent, [&] {
        std::vector<std::string> names, values;
        for (const auto &kv : evOld) {
            auto eq = kv.find('=');
            names.push_back(kv.substr(0, eq));
            values.push_back(eq == std::string::npos ? "" : kv.substr(eq + 1));
        }
        code = sendDbEvent(evTable, evRow, parseOp(evOp), names, values);
    });

    VlanArgs vlan;
    auto *vlanCmd = app.add_subcommand("vlan", "add or delete a VLAN on the top-level switch (codes 36 and 38)");
    std::string vlanAction;
    vlanCmd->add_option("action", vlanAction, "add or del")->required()->check(CLI::IsMember({"add", "del"}));
    vlanCmd->add_option("--id", vlan.id, "VLAN id")->required()->check(CLI::Range(1, 4094));
    vlanCmd->add_option("--name", vlan.name, "VLAN name");
    vlanCmd->add_option("--if", vlan.ifName, "parent interface of the host sub-interface")->capture_default_str();
    vlanCmd->add_option("--logical", vlan.logical, "logical interface name, e.g. br-guest");
    vlanCmd->add_option("--ports", vlan.ports, "member ports of the top-level switch, e.g. 0,1");
    vlanCmd->add_option("--untagged", vlan.untagged, "ports that send the VLAN untagged");
    vlanCmd->add_option("--ingress", vlan.ingress, "ingress priority map text");
    vlanCmd->add_option("--egress", vlan.egress, "egress priority map text");
    vlanCmd->add_flag("--in-switch-only", vlan.inSwitchOnly, "VLAN stays inside the switch (port-based VLAN)");
    actions.emplace_back(vlanCmd, [&] { code = sendVlan(vlanAction == "add" ? SW_CMD_VLAN_ADD : SW_CMD_VLAN_DELETE, vlan); });

    std::string ifName;
    int ifEvent = 0;
    std::optional<uint32_t> bandwidth, upstream;
    auto *ifev = app.add_subcommand("ifevent", "report an interface event (code 5); events 22, 25 and 26 with a "
                                               "bandwidth set the upstream rate limit");
    ifev->add_option("ifname", ifName, "interface, e.g. eth1")->required();
    ifev->add_option("event", ifEvent, "event number")->required();
    ifev->add_option("--bandwidth", bandwidth, "the interface's bandwidth in kbps");
    ifev->add_option("--upstream", upstream, "share of the bandwidth the upstream limit allows, in percent");
    actions.emplace_back(ifev, [&] { code = sendIfEvent(ifName, ifEvent, bandwidth, upstream); });

    CmdArgs cmd;
    auto *cmdCmd = app.add_subcommand("cmd", "send a driver command to a switch by name (64-byte name + 1300-byte "
                                             "argument)");
    cmdCmd->add_option("switch", cmd.sw, "switch name, e.g. PSE")->required();
    cmdCmd->add_option("code", cmd.code,
                       "command code, or one of: qos (47), queue-sched (48), pause (49), rate-limit (50), trust (51), "
                       "vlan-enable (33)")
        ->required();
    cmdCmd->add_option("hex", cmd.hex, "argument bytes in hex, e.g. 01 00 00 00");
    cmdCmd->add_option("--port", cmd.port, "port number (queue-sched: -1 for all ports, the default)");
    cmdCmd->add_option("--queues", cmd.queues, "queue-sched: number of queues");
    cmdCmd->add_option("--mode", cmd.mode, "queue-sched: scheduling mode");
    cmdCmd->add_option("--weights", cmd.weights, "queue-sched: four queue weights, e.g. 1,2,4,8")->delimiter(',');
    cmdCmd->add_option("--rate", cmd.rate, "rate-limit: limit in kbps");
    cmdCmd->add_flag("--off", cmd.off, "rate-limit: remove the limit");
    cmdCmd->add_option("--trust", cmd.trust, "trust: trust mode");
    cmdCmd->add_option("--enable", cmd.enable, "qos, pause, vlan-enable: 1 on, 0 off");
    actions.emplace_back(cmdCmd, [&] { code = sendCmd(cmd); });

    bool json = false, dot = false;
    auto *state = app.add_subcommand("state", "show the simulated hardware of swmgrd --sim");
    state->add_flag("--json", json, "as JSON");
    state->add_flag("--dot", dot, "the switches, ports, port mapping and VLANs as a Graphviz graph (dot -Tsvg)")
        ->excludes("--json");
    actions.emplace_back(state, [&] { code = showState(json, dot); });

    int logCount = 0;
    auto *log = app.add_subcommand("log", "be the bus's log service and print the records the daemon sends");
    log->add_option("--count", logCount, "stop after this many records");
    actions.emplace_back(log, [&] { code = followLog(logCount); });

    int rawModule = MBUS_MODULE_SWMGR, rawCode = 0, rawAux = 0;
    std::vector<std::string> rawHex;
    auto *raw = app.add_subcommand("raw", "send any request as hex bytes (for testing)");
    raw->add_option("code", rawCode, "command code")->required();
    raw->add_option("hex", rawHex, "request bytes in hex");
    raw->add_option("--module", rawModule, "module to send to")->capture_default_str();
    raw->add_option("--aux-len", rawAux, "zero-filled aux bytes to send along");
    actions.emplace_back(raw, [&] { code = sendRaw(rawModule, rawCode, rawHex, rawAux); });

    signal(SIGPIPE, SIG_IGN);
    if (int status = swtool::parseCommandLine(app, argc, argv); status >= 0) return status;
    if (!opt.busDir.empty()) mbusPortBusDirSet(opt.busDir.c_str());
    for (auto &[sub, run] : actions)
        if (sub->parsed()) run();
    return code;
}
