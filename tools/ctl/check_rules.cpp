// SPDX-License-Identifier: Apache-2.0
// What check can tell from the rows alone, before the service sees them:
// names, numbers, port maps and the shape of the switch hierarchy.
#include <cctype>
#include <climits>
#include <functional>
#include <map>

#include "config_rows.h"

namespace swctl {
namespace {

constexpr size_t kNameField = 64;     // switch, interface and port-map texts
constexpr size_t kDeviceField = 132;  // switchDevice
constexpr size_t kMapField = 512;     // priority maps and port lists
constexpr size_t kKernelIfName = 15;  // the kernel cuts interface names here
constexpr int kMapBits = 32;

struct Ctx {
    const Config &cfg;
    std::vector<Finding> out;
    std::set<std::pair<std::string, int64_t>> &refused;

    void add(const Table &t, int64_t row, const std::string &col, bool error, const std::string &reason,
             bool fatal = false) {
        for (const auto &f : out)
            if (f.table == t.name && f.row == row && f.column == col && f.reason == reason) return;
        out.push_back({t.name, row, col, error, reason, fatal});
        if (error && row != 0) refused.insert({t.name, row});
    }
};

std::string quoted(const std::string &s) { return "\"" + s + "\""; }

// atoi's reading of a text, and whether the text is a plain number.
struct Number {
    long long value = 0;
    bool plain = false;
    bool overflow = false;
};

Number readNumber(const std::string &text) {
    Number n;
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    bool neg = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) neg = text[i++] == '-';
    size_t digits = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i, ++digits) {
        if (n.value > (LLONG_MAX - 9) / 10) n.overflow = true;
        if (!n.overflow) n.value = n.value * 10 + (text[i] - '0');
    }
    if (neg) n.value = -n.value;
    n.plain = digits > 0 && i == text.size();
    if (n.value > INT_MAX || n.value < INT_MIN) n.overflow = true;
    return n;
}

// The non-empty items of a comma-separated list, as strtok gives them.
std::vector<std::string> items(const std::string &text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        if (comma == std::string::npos) comma = text.size();
        if (comma > pos) out.push_back(text.substr(pos, comma - pos));
        pos = comma + 1;
    }
    return out;
}

// An integer column: read as the service reads it, within [lo, hi].
void checkInt(Ctx &c, const Table &t, const Row &r, const std::string &col, long long lo, long long hi) {
    Value v = t.get(r, col);
    if (!v || v->empty()) {
        if (lo > 0) c.add(t, r.id, col, true, "empty; the service reads 0, outside " + std::to_string(lo) + ".." + std::to_string(hi));
        return;
    }
    Number n = readNumber(*v);
    if (n.overflow) return c.add(t, r.id, col, true, quoted(*v) + " is out of range for a 32-bit number");
    if (!n.plain)
        c.add(t, r.id, col, n.value < lo || n.value > hi,
              quoted(*v) + " is not a number; the service reads " + std::to_string(n.value) +
                  (n.value < lo || n.value > hi ? ", outside " + std::to_string(lo) + ".." + std::to_string(hi) : ""));
    else if (n.value < lo || n.value > hi)
        c.add(t, r.id, col, true, std::to_string(n.value) + " is outside " + std::to_string(lo) + ".." + std::to_string(hi));
}

// A text column: longer than its field, the service keeps the start only.
void checkLength(Ctx &c, const Table &t, const Row &r, const std::string &col, size_t field) {
    Value v = t.get(r, col);
    if (v && v->size() >= field)
        c.add(t, r.id, col, false, "cut to " + std::to_string(field - 1) + " characters: " + quoted(v->substr(0, field - 1)));
}

// Interface names reach command lines: letters, digits, '_', '.' and '-' only.
bool checkIfName(Ctx &c, const Table &t, const Row &r, const std::string &col) {
    Value v = t.get(r, col);
    std::string name = v.value_or("");
    if (name.empty()) return c.add(t, r.id, col, true, "refused: empty interface name"), false;
    if (name == "." || name == "..") return c.add(t, r.id, col, true, "refused: " + quoted(name) + " is not an interface name"), false;
    for (unsigned char ch : name)
        if (!std::isalnum(ch) && ch != '_' && ch != '.' && ch != '-') {
            char shown[16];
            std::snprintf(shown, sizeof shown, std::isprint(ch) ? "'%c'" : "byte 0x%02x", ch);
            c.add(t, r.id, col, true, std::string("refused: interface name has ") + shown);
            return false;
        }
    checkLength(c, t, r, col, kNameField);
    return true;
}

void checkSwitches(Ctx &c) {
    const Table &t = c.cfg.switches;
    std::map<std::string, int64_t> seen;
    long long maxLevel = 0;
    for (const auto &r : t.rows) {
        std::string name = t.get(r, "switchName").value_or("");
        if (name.empty())
            c.add(t, r.id, "switchName", true, "empty switch name");
        else if (name != "BCM" && name != "PSE")
            c.add(t, r.id, "switchName", true, "no driver for switch " + quoted(name) + " (BCM or PSE)");
        else if (seen.count(name))
            c.add(t, r.id, "switchName", true, "switch " + name + " is already row " + std::to_string(seen[name]));
        if (!name.empty() && !seen.count(name)) seen[name] = r.id;
        if (name == "BCM" && t.get(r, "switchDevice").value_or("").empty())
            c.add(t, r.id, "switchDevice", true, "BCM needs the path of its device");
        checkLength(c, t, r, "switchDevice", kDeviceField);
        for (const char *flag : {"vlanEnable", "qosEnable", "pauseFrameEnable", "igmpSnoopingEnable", "mldSnoopingEnable"})
            checkInt(c, t, r, flag, 0, 1);
        checkInt(c, t, r, "numPorts", 1, kMapBits);
        checkInt(c, t, r, "switchLevel", 0, INT_MAX);
        maxLevel = std::max(maxLevel, readNumber(t.get(r, "switchLevel").value_or("0")).value);
    }
    if (!t.exists) return c.add(t, 0, "", true, "table missing: the service loads no switch and starts without one");
    if (t.rows.empty()) return c.add(t, 0, "", true, "no switch: the service has no top-level switch");
    const Row *top = nullptr;
    for (const auto &r : t.rows) {
        if (readNumber(t.get(r, "switchLevel").value_or("0")).value != maxLevel) continue;
        if (top == nullptr)
            top = &r;
        else
            c.add(t, r.id, "switchLevel", false,
                  "shares the top level " + std::to_string(maxLevel) + " with row " + std::to_string(top->id) +
                      ", which the service takes as the top-level switch");
    }
    if (top == nullptr) c.add(t, 0, "switchLevel", true, "no top-level switch: no switch has the highest level");
}

int numPortsOf(const Config &cfg, const std::string &sw) {
    for (const auto &r : cfg.switches.rows)
        if (cfg.switches.get(r, "switchName").value_or("") == sw)
            return static_cast<int>(readNumber(cfg.switches.get(r, "numPorts").value_or("0")).value);
    return -1;
}

// Row id of the port row (switch, number), or 0.
int64_t portRow(const Config &cfg, const std::string &sw, long long number) {
    for (const auto &r : cfg.ports.rows)
        if (cfg.ports.get(r, "switchName").value_or("") == sw &&
            readNumber(cfg.ports.get(r, "portNumber").value_or("0")).value == number)
            return r.id;
    return 0;
}

// phyDevice entries "SWITCH:PORT"; also collects the hierarchy's edges.
void checkMapping(Ctx &c, const Row &r, const std::string &owner, std::multimap<std::string, std::pair<std::string, int64_t>> &edges) {
    const Table &t = c.cfg.ports;
    std::string text = t.get(r, "phyDevice").value_or("");
    checkLength(c, t, r, "phyDevice", kNameField);
    for (const auto &entry : items(text.substr(0, kNameField - 1))) {
        size_t colon = entry.find(':');
        if (colon == std::string::npos) {
            c.add(t, r.id, "phyDevice", true, quoted(entry) + " is not SWITCH:PORT");
            continue;
        }
        std::string sw = entry.substr(0, colon);
        Number n = readNumber(entry.substr(colon + 1));
        if (numPortsOf(c.cfg, sw) < 0) {
            c.add(t, r.id, "phyDevice", true, quoted(entry) + " names switch " + quoted(sw) + ", which is not in swGlobalCfg");
            continue;
        }
        if (!n.plain || n.overflow) {
            c.add(t, r.id, "phyDevice", true, quoted(entry) + " has no port number");
            continue;
        }
        int64_t target = portRow(c.cfg, sw, n.value);
        if (target == 0)
            c.add(t, r.id, "phyDevice", true, quoted(entry) + " names a port that has no row in swPortConfig");
        else if (target > r.id)
            c.add(t, r.id, "phyDevice", true, quoted(entry) + " is loaded after this port (row " + std::to_string(target) +
                                                  "), so the service cannot map it yet");
        edges.insert({owner, {sw, r.id}});
    }
}

// A mapping that leads back to its own switch makes forwarding endless.
void checkCycles(Ctx &c, const std::multimap<std::string, std::pair<std::string, int64_t>> &edges) {
    for (const auto &[from, to] : edges) {
        std::vector<std::string> path{from, to.first};
        std::set<std::string> seen{to.first};
        std::function<bool(const std::string &)> reaches = [&](const std::string &at) -> bool {
            if (at == from) return true;
            auto [b, e] = edges.equal_range(at);
            for (auto it = b; it != e; ++it) {
                if (!seen.insert(it->second.first).second) continue;
                path.push_back(it->second.first);
                if (reaches(it->second.first)) return true;
                path.pop_back();
            }
            return false;
        };
        if (!reaches(to.first)) continue;
        std::string chain;
        for (const auto &s : path) chain += (chain.empty() ? "" : " -> ") + s;
        c.add(c.cfg.ports, to.second, "phyDevice", true, "makes " + from + " a lower-level switch of itself (" + chain + ")",
              true);
    }
}

void checkPorts(Ctx &c) {
    const Table &t = c.cfg.ports;
    if (!t.exists) return c.add(t, 0, "", true, "table missing: the service loads no port and no VLAN");
    std::map<std::pair<std::string, long long>, int64_t> seen;
    std::multimap<std::string, std::pair<std::string, int64_t>> edges;
    for (const auto &r : t.rows) {
        std::string sw = t.get(r, "switchName").value_or("");
        long long number = readNumber(t.get(r, "portNumber").value_or("0")).value;
        int numPorts = numPortsOf(c.cfg, sw);
        checkInt(c, t, r, "portNumber", 0, kMapBits - 1);
        if (numPorts < 0)
            c.add(t, r.id, "switchName", true, "switch " + quoted(sw) + " is not in swGlobalCfg");
        else if (number >= numPorts)
            c.add(t, r.id, "portNumber", true, "port " + std::to_string(number) + " is beyond " + sw + "'s " + std::to_string(numPorts) + " ports");
        if (seen.count({sw, number}))
            c.add(t, r.id, "portNumber", true, sw + ":" + std::to_string(number) + " is already row " + std::to_string(seen[{sw, number}]));
        else
            seen[{sw, number}] = r.id;
        checkInt(c, t, r, "PVID", 1, 4094);
        checkInt(c, t, r, "mirroring", 0, 1);
        for (const char *col : {"portType", "trustMode", "rateLimit", "schedMode"}) checkInt(c, t, r, col, 0, INT_MAX);
        checkInt(c, t, r, "numQueues", 0, 4);
        for (const char *col : {"queue1Weight", "queue2Weight", "queue3Weight", "queue4Weight"}) checkInt(c, t, r, col, 0, 255);
        checkIfName(c, t, r, "interfaceName");
        checkMapping(c, r, sw, edges);
    }
    checkCycles(c, edges);
}

// A port list as the service converts it; findings for what it drops or bends.
uint32_t checkPortList(Ctx &c, const Row &r, const std::string &col) {
    const Table &t = c.cfg.vlans;
    std::string text = t.get(r, col).value_or("");
    checkLength(c, t, r, col, kMapField);
    uint32_t bits = 0;
    for (const auto &item : items(text)) {
        Number n = readNumber(item);
        if (!n.plain || n.overflow) {
            c.add(t, r.id, col, true, quoted(item) + " is not a port number");
        } else if (n.value < 0 || (n.value & kMapBits) != 0) {
            c.add(t, r.id, col, false, "port " + std::to_string(n.value) + " is ignored: the map holds ports 0 to 31");
        } else if (n.value >= kMapBits) {
            c.add(t, r.id, col, true, "port " + std::to_string(n.value) + " is taken as port " + std::to_string(n.value % kMapBits));
        } else {
            bits |= 1u << n.value;
        }
    }
    int widest = 0;
    for (const auto &s : c.cfg.switches.rows)
        widest = std::max(widest, static_cast<int>(readNumber(c.cfg.switches.get(s, "numPorts").value_or("0")).value));
    for (int b = 0; b < kMapBits; ++b)
        if ((bits >> b & 1u) != 0 && b >= widest)
            c.add(t, r.id, col, true, "port " + std::to_string(b) + " exists on no switch");
    return bits;
}

void checkVlans(Ctx &c) {
    const Table &t = c.cfg.vlans;
    if (!t.exists) return c.add(t, 0, "", true, "table missing: the service loads no VLAN");
    std::map<long long, int64_t> seen;
    for (const auto &r : t.rows) {
        checkInt(c, t, r, "vlanId", 1, 4094);
        checkInt(c, t, r, "inSwitchOnly", 0, 1);
        long long id = readNumber(t.get(r, "vlanId").value_or("0")).value;
        if (seen.count(id))
            c.add(t, r.id, "vlanId", true, "VLAN " + std::to_string(id) + " is already row " + std::to_string(seen[id]));
        else
            seen[id] = r.id;
        if (checkIfName(c, t, r, "interfaceName")) {
            std::string sub = t.get(r, "interfaceName").value_or("").substr(0, kNameField - 1) + "." + std::to_string(id);
            if (sub.size() > kKernelIfName)
                c.add(t, r.id, "interfaceName", false, "the kernel cuts the sub-interface " + quoted(sub) + " to " + quoted(sub.substr(0, kKernelIfName)));
        }
        checkLength(c, t, r, "LogicalIfName", kNameField);
        checkLength(c, t, r, "ingressMap", kMapField);
        checkLength(c, t, r, "egressMap", kMapField);
        uint32_t fwd = checkPortList(c, r, "fwdMap");
        if (!t.get(r, "untagMap") && t.get(r, "fwdMap"))
            c.add(t, r.id, "untagMap", false, "NULL: the service takes the untagged ports from what is left of fwdMap");
        uint32_t untag = checkPortList(c, r, "untagMap");
        for (int b = 0; b < kMapBits; ++b)
            if ((untag & ~fwd) >> b & 1u)
                c.add(t, r.id, "untagMap", true, "port " + std::to_string(b) + " is untagged but not in fwdMap");
    }
}

}  // namespace

std::vector<Finding> staticFindings(const Config &config, std::set<std::pair<std::string, int64_t>> &refused) {
    Ctx c{config, {}, refused};
    checkSwitches(c);
    checkPorts(c);
    checkVlans(c);
    return std::move(c.out);
}

}  // namespace swctl
