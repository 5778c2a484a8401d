// SPDX-License-Identifier: Apache-2.0
#include "sim_host.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "common/list.h"
#include "common/text.h"
#include "osa_port.h"
#include "swmgr/portvlan.h"
#include "swmgr/switch.h"

namespace swtool {
namespace {

constexpr size_t kHistoryShown = 20;
// Bounds every model's history (and the lines no model took).
constexpr const char kHistoryEnv[] = "SWMGR_SIM_HISTORY";

// Rows of a one-column query; empty when the table or column is missing.
std::vector<std::string> column(sqlite3 *db, const char *sql) {
    std::vector<std::string> out;
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) != SQLITE_OK) return out;
    while (sqlite3_step(st) == SQLITE_ROW) {
        const unsigned char *v = sqlite3_column_text(st, 0);
        if (v != nullptr && *v != '\0') out.emplace_back(reinterpret_cast<const char *>(v));
    }
    sqlite3_finalize(st);
    return out;
}

bool makeDirs(const std::string &dir, std::string &err) {
    for (size_t i = 1; i <= dir.size(); ++i) {
        if (i != dir.size() && dir[i] != '/') continue;
        std::string part = dir.substr(0, i);
        if (::mkdir(part.c_str(), 0750) != 0 && errno != EEXIST) {
            err = "cannot create " + part + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

nlohmann::json chipJson(const swsim::BcmChip &chip, const std::string &device) {
    const auto &s = chip.state();
    nlohmann::json j{{"device", device},
                     {"vlanMode", s.vlanEnabled},
                     {"qos", s.qosEnable},
                     {"pauseFrames", s.pauseFrames},
                     {"vlans", nlohmann::json::array()},
                     {"ports", nlohmann::json::array()}};
    for (const auto &[vid, e] : s.vlans)
        j["vlans"].push_back({{"vlanId", vid}, {"fwdMap", e.fwdMap}, {"untagMap", e.untagMap}});
    for (int n = 0; n < swsim::BcmChip::kPorts; ++n) {
        const auto &p = chip.port(n);
        nlohmann::json cos = nlohmann::json::object();
        for (const auto &[c, q] : p.cosQueue) cos[std::to_string(c)] = q;
        j["ports"].push_back({{"port", n},
                              {"vid", p.tag.vid},
                              {"pri", p.tag.pri},
                              {"fwdMap", p.fwdMap},
                              {"non8021q", p.non8021q},
                              {"trustMode", p.trustMode},
                              {"schedMode", p.sched.mode},
                              {"weights", p.sched.weight},
                              {"rateLimit", {{"on", p.rate.action != 0}, {"kbps", p.rate.kbps}}},
                              {"cosQueue", cos}});
    }
    return j;
}

nlohmann::json engineJson(const swsim::PseEngine &e) {
    nlohmann::json j;
    j["qos"] = e.qosEnabled() ? nlohmann::json(*e.qosEnabled()) : nlohmann::json(nullptr);
    j["trafficClass"] = e.trafficClass() ? nlohmann::json(*e.trafficClass()) : nlohmann::json(nullptr);
    j["vlans"] = nlohmann::json::array();
    for (const auto &[index, v] : e.vlanTable())
        j["vlans"].push_back({{"index", index},
                              {"vlanId", v.vlanId},
                              {"wan", v.isWan},
                              {"etagMap", v.etagMap},
                              {"memberMap", v.mbMap},
                              {"mac", v.mac},
                              {"valid", v.valid}});
    j["arl"] = nlohmann::json::array();
    for (const auto &a : e.arlTable())
        j["arl"].push_back({{"mac", a.mac}, {"vlanId", a.vlanId}, {"portMap", a.portMap}, {"flags", a.flags}});
    j["rateLimits"] = nlohmann::json::array();
    for (const auto &[port, r] : e.rateLimits())
        j["rateLimits"].push_back({{"port", port}, {"value", r.value}, {"unit", r.unit}, {"kbps", r.kbps()}});
    j["queueWeights"] = nlohmann::json::array();
    for (const auto &[port, w] : e.queueWeights())
        j["queueWeights"].push_back({{"port", port}, {"mode", w.mode}, {"exponents", w.exponents}});
    j["trust"] = nlohmann::json::array();
    for (const auto &[port, t] : e.trustFlags()) j["trust"].push_back({{"port", port}, {"flags", t}});
    j["registers"] = nlohmann::json::object();
    for (const auto &[addr, v] : e.registers()) j["registers"][hex(addr)] = v;
    return j;
}

nlohmann::json hostJson(const swsim::HostVlanModel &h) {
    nlohmann::json j{{"parents", nlohmann::json::array()}, {"interfaces", nlohmann::json::array()}};
    for (const auto &p : h.parents()) j["parents"].push_back({{"name", p.name}, {"up", p.up}});
    for (const auto &s : h.subInterfaces()) {
        nlohmann::json egress = nlohmann::json::object();
        for (const auto &[prio, q] : s.egressMap) egress[std::to_string(prio)] = q;
        j["interfaces"].push_back({{"name", s.name},
                                   {"parent", s.parent},
                                   {"vlanId", s.vlanId},
                                   {"up", s.up},
                                   {"ingressMap", s.ingressMap},
                                   {"egressMap", egress}});
    }
    return j;
}

// The switches as the service holds them: level, ports with the lower
// ports each stands for, VLANs with their member and untagged ports.
nlohmann::json topologyJson() {
    nlohmann::json out = nlohmann::json::array();
    for (auto *sw : swmgr::listEntries<Switch>(switchTbl)) {
        nlohmann::json ports = nlohmann::json::array(), vlans = nlohmann::json::array();
        for (auto *p : swmgr::listEntries<SwitchPort>(sw->portList)) {
            nlohmann::json mapped = nlohmann::json::array();
            for (auto *m : swmgr::listEntries<SwitchPortMapEntry>(p->mappedPorts)) {
                if (m->port == nullptr || m->port->sw == nullptr) continue;
                const auto &lowerName = m->port->sw->switchName;
                mapped.push_back({{"switch", std::string(lowerName, swmgr::fieldLen(lowerName))},
                                  {"port", m->port->portNumber}});
            }
            ports.push_back({{"port", p->portNumber}, {"mapped", mapped}});
        }
        for (auto *v : swmgr::listEntries<SwitchVlan>(sw->vlanList))
            vlans.push_back({{"vlanId", v->vlanId}, {"fwdMap", v->fwdMap}, {"untagMap", v->untagMap}});
        out.push_back({{"name", std::string(sw->switchName, swmgr::fieldLen(sw->switchName))},
                       {"level", sw->switchLevel},
                       {"ports", ports},
                       {"vlans", vlans}});
    }
    return out;
}

void appendHistory(std::string &out, const char *title, const swsim::History &h) {
    if (h.entries().empty()) return;
    out += std::string("== ") + title + " (the last " + std::to_string(kHistoryShown) + " at most)\n";
    for (const auto &e : h.last(kHistoryShown)) {
        std::string line;
        for (char c : e) line += c == '\n' ? std::string("\\n") : std::string(1, c);  // one entry a line
        out += "  " + line + "\n";
    }
}

}  // namespace

SimHost::~SimHost() { stop(); }

void SimHost::setHistoryLimit(size_t n) {
    historyLimit_ = n;
    refused_.setLimit(n);
    if (chip_) chip_->setHistoryLimit(n);
    if (engine_) engine_->setHistoryLimit(n);
    if (host_) host_->setHistoryLimit(n);
}

bool SimHost::startDevicesOnly(const std::string &dbPath, const std::string &stateDir, std::string &err) {
    devicesOnly_ = true;
    return start(dbPath, stateDir, err);
}

bool SimHost::start(const std::string &dbPath, const std::string &stateDir, std::string &err) {
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        err = "cannot read " + dbPath + ": " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return false;
    }
    auto devices = column(db, "SELECT switchDevice FROM swGlobalCfg WHERE switchName = 'BCM'");
    std::vector<std::string> parents{"eth0", "eth1"};
    for (auto &p : column(db, "SELECT DISTINCT interfaceName FROM vlanEncapIf"))
        if (std::find(parents.begin(), parents.end(), p) == parents.end()) parents.push_back(p);
    sqlite3_close(db);

    if (const char *limit = std::getenv(kHistoryEnv); limit != nullptr) {
        char *end = nullptr;
        unsigned long n = std::strtoul(limit, &end, 10);
        if (*limit == '\0' || *end != '\0' || n > 1000000) {
            err = std::string(kHistoryEnv) + " must be a number of lines up to 1000000";
            return false;
        }
        historyLimit_ = n;
    }

    // The system stamps files into /var, which a device always has.
    root_ = stateDir + "/root";
    if (!makeDirs(root_ + "/var", err)) return false;

    chip_ = std::make_unique<swsim::BcmChip>();
    if (!devices.empty()) {
        device_ = devices.front();
        if (!chip_->attach(device_)) {
            err = "cannot attach the switch chip model at " + device_;
            return false;
        }
    }
    if (devicesOnly_) {
        osaPortFileRootSet(root_.c_str());
        started_ = true;
        return true;
    }
    host_ = std::make_unique<swsim::HostVlanModel>(parents);
    host_->attach();
    host_->enableHwAddr();
    engine_ = std::make_unique<swsim::PseEngine>();
    osaPortSystemHookSet(nullptr, nullptr);
    engine_->attach();
    // system() lines go to the engine first; what it does not take is
    // refused here rather than run on this machine.
    osaPortSystemHookGet(&engineSystem_, &engineSystemCtx_);
    osaPortSystemHookSet(systemLine, this);
    osaPortCmdFallbackSet(refuseCommand, this);
    osaPortFileRootSet(root_.c_str());
    setHistoryLimit(historyLimit_);
    started_ = true;
    return true;
}

void SimHost::stop() {
    if (!started_) return;
    osaPortFileRootSet(nullptr);
    started_ = false;
    if (devicesOnly_) {
        chip_->detach();
        return;
    }
    osaPortCmdFallbackSet(nullptr, nullptr);
    osaPortSystemHookSet(engineSystem_, engineSystemCtx_);
    engine_->detach();
    host_->disableHwAddr();
    host_->detach();
    chip_->detach();
}

void SimHost::remember(const char *command) { refused_.add(command != nullptr ? command : ""); }

int SimHost::refuseCommand(void *ctx, const char *command, int *status) {
    static_cast<SimHost *>(ctx)->remember(command);
    *status = 127;
    return 1;
}

int SimHost::systemLine(void *ctx, const char *command, int *status) {
    auto *self = static_cast<SimHost *>(ctx);
    if (self->engineSystem_ != nullptr && self->engineSystem_(self->engineSystemCtx_, command, status)) return 1;
    self->remember(command);
    *status = 127 << 8;  // as system() reports a command the shell cannot find
    return 1;
}

std::string SimHost::text() const {
    if (!started_ || devicesOnly_) return "";
    std::string out;
    out += "== switch chip (BCM) at " + (device_.empty() ? std::string("(no device)") : device_) + "\n";
    out += chip_->describe();
    out += "== packet switch engine (PSE)\n";
    out += engine_->dump();
    out += "== host VLAN interfaces\n";
    out += host_->dump();
    appendHistory(out, "chip: refused requests", chip_->history());
    appendHistory(out, "engine: lines and what the tools said", engine_->history());
    appendHistory(out, "host: lines and what the tools said", host_->history());
    appendHistory(out, "lines no model took (not run, status 127)", refused_);
    return out;
}

nlohmann::json SimHost::json() const {
    if (!started_ || devicesOnly_) return nlohmann::json::object();
    return {{"chip", chipJson(*chip_, device_)},
            {"engine", engineJson(*engine_)},
            {"host", hostJson(*host_)},
            {"unsimulated", refused_.last(kHistoryShown)},
            {"history",
             {{"chip", chip_->history().last(kHistoryShown)},
              {"engine", engine_->history().last(kHistoryShown)},
              {"host", host_->history().last(kHistoryShown)}}},
            {"topology", topologyJson()},
            {"fileRoot", root_}};
}

}  // namespace swtool
