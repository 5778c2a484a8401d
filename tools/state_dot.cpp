// SPDX-License-Identifier: Apache-2.0
#include "state_dot.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace swtool {

namespace {

// A DOT string: quotes and backslashes escaped, nothing else special.
std::string dotString(const std::string &s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out + "\"";
}

std::string portId(const std::string &sw, long port) { return dotString(sw + ":" + std::to_string(port)); }

std::string hex(unsigned long v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%lx", v);
    return b;
}

}  // namespace

std::string topologyDot(const nlohmann::json &state) {
    std::vector<nlohmann::json> switches;
    if (state.contains("topology") && state["topology"].is_array())
        for (const auto &sw : state["topology"]) switches.push_back(sw);
    std::stable_sort(switches.begin(), switches.end(), [](const nlohmann::json &a, const nlohmann::json &b) {
        return a.value("level", 0) > b.value("level", 0);
    });

    std::string out = "digraph swmgr {\n  rankdir=TB;\n  node [shape=box, fontsize=10];\n";
    std::string edges;
    for (const auto &sw : switches) {
        const std::string name = sw.value("name", "");
        const int level = sw.value("level", 0);
        out += "  subgraph " + dotString("cluster_" + name) + " {\n";
        out += "    label=" + dotString(name + " (level " + std::to_string(level) + ")") + ";\n";
        for (const auto &p : sw.value("ports", nlohmann::json::array())) {
            const long n = p.value("port", 0L);
            out += "    " + portId(name, n) + " [label=" + dotString("port " + std::to_string(n)) + "];\n";
            for (const auto &m : p.value("mapped", nlohmann::json::array()))
                edges += "  " + portId(name, n) + " -> " + portId(m.value("switch", ""), m.value("port", 0L)) + ";\n";
        }
        std::string vlans;
        for (const auto &v : sw.value("vlans", nlohmann::json::array()))
            vlans += "VLAN " + std::to_string(v.value("vlanId", 0L)) + ": members " + hex(v.value("fwdMap", 0UL)) +
                     ", untagged " + hex(v.value("untagMap", 0UL)) + "\n";
        if (!vlans.empty())
            out += "    " + dotString(name + ":vlans") + " [shape=note, label=" + dotString(vlans) + "];\n";
        out += "  }\n";
    }
    return out + edges + "}\n";
}

}  // namespace swtool
