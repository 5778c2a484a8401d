// SPDX-License-Identifier: Apache-2.0
// cmd: a driver command to a switch by name. The argument record comes from
// hex bytes or from named options; a named command is sent only with every
// option its record needs, since a record of zeros would be obeyed (QoS off,
// rate limit removed) and reported as a success.
#include <cstring>
#include <map>
#include <optional>

#include "ctl.h"
#include "swmgr/platform/mbus.h"
#include "swmgr/portvlan.h"
#include "swmgr/switch.h"

namespace swctl {
namespace {

struct CmdArgs {
    std::string sw, code;
    std::vector<std::string> hex;
    std::optional<int> port, queues, mode, trust, enable;
    std::optional<uint32_t> rate;
    std::vector<int> weights;
    bool off = false;
};

template <typename T>
Bytes bytesOf(const T &value) {
    Bytes b(sizeof value);
    std::memcpy(b.data(), &value, sizeof value);
    return b;
}

struct Named {
    const char *name;
    int code;
    std::vector<std::string> needs;    // options that must be given
    std::vector<std::string> allowed;  // options that may be given besides
    Bytes (*build)(const CmdArgs &);
};

Bytes enableRecord(const CmdArgs &a) { return bytesOf(static_cast<uint32_t>(*a.enable)); }

const std::vector<Named> &namedCommands() {
    static const std::vector<Named> table = {
        {"vlan-enable", SW_CMD_VLAN_ENABLE, {"--enable"}, {}, enableRecord},
        {"qos", SW_CMD_QOS_CONFIG, {"--enable"}, {}, enableRecord},
        {"pause", SW_CMD_PAUSE_FRAMES, {"--enable"}, {}, enableRecord},
        {"queue-sched", SW_CMD_QUEUE_SCHED, {"--queues", "--mode", "--weights"}, {"--port"},
         [](const CmdArgs &a) {
             SwitchQueueSchedArg q{a.port.value_or(-1), *a.queues, *a.mode, a.weights[0], a.weights[1],
                                   a.weights[2], a.weights[3]};
             return bytesOf(q);
         }},
        {"rate-limit", SW_CMD_PORT_RATE_LIMIT, {"--port", "--rate|--off"}, {},
         [](const CmdArgs &a) {
             SwitchRateLimitArg r{};
             r.portNumber = static_cast<uint32_t>(*a.port);
             r.rate = a.off ? 0 : *a.rate;
             r.action = r.rate != 0 ? 1 : 0;
             return bytesOf(r);
         }},
        {"trust", SW_CMD_PORT_TRUST_MODE, {"--port", "--trust"}, {},
         [](const CmdArgs &a) { return bytesOf(SwitchTrustModeArg{*a.port, *a.trust}); }},
    };
    return table;
}

std::map<std::string, bool> givenOptions(const CmdArgs &a) {
    return {{"--port", a.port.has_value()},   {"--queues", a.queues.has_value()}, {"--mode", a.mode.has_value()},
            {"--trust", a.trust.has_value()}, {"--enable", a.enable.has_value()}, {"--rate", a.rate.has_value()},
            {"--off", a.off},                 {"--weights", !a.weights.empty()}};
}

// The record of a named command, or the reason it cannot be built.
std::optional<Bytes> namedRecord(const Named &n, const CmdArgs &a, std::string &err) {
    auto given = givenOptions(a);
    std::vector<std::string> missing;
    std::map<std::string, bool> fits;
    for (const auto &o : n.allowed) fits[o] = true;
    for (const auto &need : n.needs) {
        bool any = false;
        for (size_t start = 0;;) {  // "--rate|--off": either will do
            size_t bar = need.find('|', start);
            std::string o = need.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
            fits[o] = true;
            any = any || given[o];
            if (bar == std::string::npos) break;
            start = bar + 1;
        }
        if (!any) missing.push_back(need);
    }
    for (const auto &[o, on] : given)
        if (on && !fits.count(o)) err = std::string(n.name) + " does not take " + o;
    if (!missing.empty()) {
        err = std::string(n.name) + " needs";
        for (const auto &m : missing) err += " " + m;
        err += "; nothing was sent";
    }
    if (a.rate && a.off) err = "rate-limit takes --rate or --off, not both";
    if (!a.weights.empty() && a.weights.size() != 4) err = "--weights takes four numbers, e.g. 1,2,4,8";
    if (!err.empty()) return std::nullopt;
    return n.build(a);
}

int sendCmd(const CmdArgs &a) {
    const Named *named = nullptr;
    for (const auto &n : namedCommands())
        if (a.code == n.name) named = &n;
    long code = 0;
    if (named != nullptr) {
        code = named->code;
    } else {
        char *end = nullptr;
        code = std::strtol(a.code.c_str(), &end, 0);
        if (end == a.code.c_str() || *end != '\0') return fail("unknown command code: " + a.code);
        for (const auto &n : namedCommands())
            if (n.code == code) named = &n;
    }
    bool anyNamed = false;
    for (const auto &[o, on] : givenOptions(a)) anyNamed = anyNamed || on;

    std::string err;
    Bytes arg;
    if (!a.hex.empty() && anyNamed) return fail("give the argument either as hex bytes or with named options, not both");
    if (!a.hex.empty()) {
        if (!parseHex(a.hex, arg, err)) return fail(err);
    } else if (named != nullptr) {
        auto rec = namedRecord(*named, a, err);
        if (!rec) return fail(err);
        arg = *rec;
    } else if (anyNamed) {
        return fail("no named options for command " + std::to_string(code) + "; give the argument as hex bytes");
    }
    if (arg.size() > SW_BUS_ARG_LEN) return fail("argument longer than 1300 bytes");
    if (a.sw.size() >= SW_BUS_NAME_LEN)
        return fail("switch name longer than " + std::to_string(SW_BUS_NAME_LEN - 1) + " characters");
    Bytes data(SW_BUS_NAME_LEN + SW_BUS_ARG_LEN);
    std::memcpy(data.data(), a.sw.c_str(), a.sw.size());
    std::copy(arg.begin(), arg.end(), data.begin() + SW_BUS_NAME_LEN);
    return report("cmd " + a.sw + " " + std::to_string(code), request(MBUS_MODULE_SWMGR, static_cast<int>(code), data, nullptr));
}

}  // namespace

void addCmdVerb(CLI::App &app, Verbs &verbs) {
    auto a = std::make_shared<CmdArgs>();
    auto *cmd = app.add_subcommand("cmd", "send a driver command to a switch by name (64-byte name + 1300-byte "
                                          "argument)");
    cmd->add_option("switch", a->sw, "switch name, e.g. PSE")->required();
    cmd->add_option("code", a->code,
                    "command code, or one of: qos (47), queue-sched (48), pause (49), rate-limit (50), trust (51), "
                    "vlan-enable (33); these need their options (below)")
        ->required();
    cmd->add_option("hex", a->hex, "argument bytes in hex, e.g. 01 00 00 00");
    cmd->add_option("--port", a->port, "port number (queue-sched: -1 for all ports, the default)")
        ->check(CLI::Range(-1, 31));
    cmd->add_option("--queues", a->queues, "queue-sched: number of queues");
    cmd->add_option("--mode", a->mode, "queue-sched: scheduling mode");
    cmd->add_option("--weights", a->weights, "queue-sched: four queue weights, e.g. 1,2,4,8")
        ->delimiter(',')
        ->check(CLI::Range(0, 255));
    cmd->add_option("--rate", a->rate, "rate-limit: limit in kbps");
    cmd->add_flag("--off", a->off, "rate-limit: remove the limit");
    cmd->add_option("--trust", a->trust, "trust: trust mode");
    cmd->add_option("--enable", a->enable, "qos, pause, vlan-enable: 1 on, 0 off")->check(CLI::Range(0, 1));
    addJsonFlag(cmd);
    verbs.push_back({cmd, [a] { return sendCmd(*a); }});
}

}  // namespace swctl
