// SPDX-License-Identifier: Apache-2.0
// state, show and stats: questions to a running swmgrd, answered as text or
// JSON.
#include <cstdio>

#include "ctl.h"
#include "osa_port.h"
#include "state_dot.h"
#include "swmgr_tools.h"

namespace swctl {
namespace {

// Asks module/cmd for a JSON document; kOk with it in `out`.
int ask(const std::string &what, int module, int cmd, const std::string &hint, json &out) {
    Bytes aux(swtool::kStateReplyMax);
    Reply r = request(module, cmd, {}, &aux);
    if (!r.delivered) return fail(what + ": " + mbusPortLastError() + hint, kUnreachable);
    if (r.result < 0) return report(what, r);
    out = json::parse(replyText(r), nullptr, false);
    if (out.is_discarded()) return fail(what + ": the daemon's reply is not JSON", kFailed);
    return kOk;
}

std::string hex(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string joined(const json &list, const char *none) {
    std::string out;
    for (const auto &s : list) out += (out.empty() ? "" : ",") + s.get<std::string>();
    return out.empty() ? none : out;
}

void printSwitches(const json &j) {
    for (const auto &s : j)
        std::printf("%s: level %d%s, driver %s, device %s, %d ports, lower %s\n", s["name"].get<std::string>().c_str(),
                    s["level"].get<int>(), s["top"].get<bool>() ? " (top)" : "",
                    s["driver"].get<std::string>().empty() ? "none" : s["driver"].get<std::string>().c_str(),
                    s["device"].get<std::string>().empty() ? "-" : s["device"].get<std::string>().c_str(),
                    s["numPorts"].get<int>(), joined(s["lower"], "-").c_str());
}

void printPorts(const json &j) {
    for (const auto &p : j)
        std::printf("%s:%d %s pvid %d trust %d maps %s\n", p["switch"].get<std::string>().c_str(), p["port"].get<int>(),
                    p["interface"].get<std::string>().empty() ? "-" : p["interface"].get<std::string>().c_str(),
                    p["pvid"].get<int>(), p["trustMode"].get<int>(), joined(p["mappedTo"], "-").c_str());
}

void printVlans(const json &j) {
    for (const auto &v : j) {
        std::printf("vlan %d\n", v["vlanId"].get<int>());
        for (const auto &s : v["switches"])
            std::printf("  %s: index %d fwd %s untag %s on %s%s\n", s["switch"].get<std::string>().c_str(),
                        s["index"].get<int>(), hex(s["fwdMap"].get<uint64_t>()).c_str(),
                        hex(s["untagMap"].get<uint64_t>()).c_str(), s["interface"].get<std::string>().c_str(),
                        s["inSwitchOnly"].get<bool>() ? " in-switch-only" : "");
    }
}

std::string counted(const json &v) { return v.is_null() ? "not counted by this bus" : std::to_string(v.get<uint64_t>()); }

void printStats(const json &j) {
    std::printf("requests\n");
    for (const auto &r : j["requests"])
        std::printf("  code %d: %llu handled, %llu failed, %.3f ms in all\n", r["code"].get<int>(),
                    static_cast<unsigned long long>(r["count"].get<uint64_t>()),
                    static_cast<unsigned long long>(r["failures"].get<uint64_t>()), r["totalUs"].get<double>() / 1000.0);
    std::printf("drivers\n");
    for (const auto &[name, d] : j["drivers"].items())
        std::printf("  %s: %llu commands (%llu failed), %llu ioctls (%llu failed)\n", name.c_str(),
                    static_cast<unsigned long long>(d["commands"].get<uint64_t>()),
                    static_cast<unsigned long long>(d["commandFailures"].get<uint64_t>()),
                    static_cast<unsigned long long>(d["ioctls"].get<uint64_t>()),
                    static_cast<unsigned long long>(d["ioctlFailures"].get<uint64_t>()));
    std::printf("log records dropped: %s\n", counted(j["logDropped"]).c_str());
    std::printf("connections refused: %s\n", counted(j["connectionsRefused"]).c_str());
}

int showState(bool dot) {
    const bool asJson = opt.json || dot;
    Bytes aux(swtool::kStateReplyMax);
    Reply r = request(swtool::kSimModule, asJson ? swtool::kSimStateJson : swtool::kSimStateText, {}, &aux);
    if (!r.delivered) return fail(std::string("state: ") + mbusPortLastError() + " (is swmgrd running with --sim?)", kUnreachable);
    if (r.result < 0) return report("state", r);
    if (!asJson) {
        std::fputs(replyText(r).c_str(), stdout);
        return kOk;
    }
    json j = json::parse(replyText(r), nullptr, false);
    if (j.is_discarded()) return fail("state: the daemon's reply is not JSON", kFailed);
    if (dot)
        std::fputs(swtool::topologyDot(j).c_str(), stdout);
    else
        printJson(j);
    return kOk;
}

}  // namespace

void addQueryVerbs(CLI::App &app, Verbs &verbs) {
    auto dot = std::make_shared<bool>(false);
    auto *state = app.add_subcommand("state", "show the simulated hardware of swmgrd --sim");
    addJsonFlag(state);
    state->add_flag("--dot", *dot, "the switches, ports, port mapping and VLANs as a Graphviz graph (dot -Tsvg)")
        ->excludes("--json");
    verbs.push_back({state, [dot] { return showState(*dot); }});

    auto what = std::make_shared<std::string>();
    auto *show = app.add_subcommand("show", "show the daemon's switches, ports or VLANs, from its switch registry");
    show->add_option("what", *what, "switches, ports or vlans")
        ->required()
        ->check(CLI::IsMember({"switches", "ports", "vlans"}));
    addJsonFlag(show);
    verbs.push_back({show, [what] {
                         const int cmd = *what == "switches" ? swtool::kCtlSwitches
                                         : *what == "ports"  ? swtool::kCtlPorts
                                                             : swtool::kCtlVlans;
                         json j;
                         int rc = ask("show " + *what, swtool::kCtlModule, cmd, " (is swmgrd running?)", j);
                         if (rc != kOk) return rc;
                         if (opt.json)
                             printJson(j);
                         else if (cmd == swtool::kCtlSwitches)
                             printSwitches(j);
                         else if (cmd == swtool::kCtlPorts)
                             printPorts(j);
                         else
                             printVlans(j);
                         return kOk;
                     }});

    auto *stats = app.add_subcommand("stats", "show the daemon's counters: requests per command code, commands and "
                                              "ioctls per driver, dropped log records, refused connections");
    addJsonFlag(stats);
    verbs.push_back({stats, [] {
                         json j;
                         int rc = ask("stats", swtool::kCtlModule, swtool::kCtlStats, " (is swmgrd running?)", j);
                         if (rc != kOk) return rc;
                         if (opt.json)
                             printJson(j);
                         else
                             printStats(j);
                         return kOk;
                     }});
}

}  // namespace swctl
