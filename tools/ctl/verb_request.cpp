// SPDX-License-Identifier: Apache-2.0
// vlan, ifevent and raw: the service's own bus requests, composed from
// options.
#include <cstring>
#include <optional>
#include <tuple>

#include "common/names.h"
#include "common/text.h"
#include "swmgr/swconf.h"
#include "ctl.h"
#include "swmgr/platform/mbus.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace swctl {
namespace {

struct VlanArgs {
    std::string action;
    int id = 0;
    std::string name, ifName = "eth0", logical, ingress, egress;
    std::vector<int> ports, untagged;
    bool inSwitchOnly = false;
};

int sendVlan(const VlanArgs &a) {
    // The daemon refuses such names too; saying so here names the option.
    for (const auto &[option, name, optional] :
         {std::tuple{"--if", &a.ifName, false}, std::tuple{"--logical", &a.logical, true}}) {
        if (optional && name->empty()) continue;
        const swmgr::NameVerdict v = swmgr::checkName(name->c_str(), name->size() + 1);
        if (v.ok()) continue;
        char why[128];
        return fail(std::string(option) + ": " + swmgr::nameFaultText(why, v), kFailed);
    }
    const int code = a.action == "add" ? SW_CMD_VLAN_ADD : SW_CMD_VLAN_DELETE;
    SwitchVlanConf conf{};
    conf.vlanId = a.id;
    swmgr::copyText(conf.vlanName, a.name.c_str());
    swmgr::copyText(conf.interfaceName, a.ifName.c_str());
    swmgr::copyText(conf.LogicalIfName, a.logical.c_str());
    swmgr::copyText(conf.ingressMap, a.ingress.c_str());
    swmgr::copyText(conf.egressMap, a.egress.c_str());
    conf.fwdMap = portBits(a.ports);
    conf.untagMap = portBits(a.untagged);
    conf.inSwitchOnly = a.inSwitchOnly ? 1 : 0;
    Bytes data(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN);
    std::memcpy(data.data() + SW_BUS_NAME_LEN, &conf, SW_VLAN_CONF_LEN);
    return report("vlan " + a.action + " " + std::to_string(a.id), request(MBUS_MODULE_SWMGR, code, data, nullptr));
}

struct IfEventArgs {
    std::string ifName;
    int event = 0;
    std::optional<uint32_t> bandwidth, upstream;
};

int sendIfEvent(const IfEventArgs &a) {
    SwIfDevEvent ev{};
    swmgr::copyText(ev.ifName, a.ifName.c_str());
    ev.event = static_cast<uint32_t>(a.event);
    Bytes data(SW_IFDEV_EVENT_LEN);
    std::memcpy(data.data(), &ev, sizeof ev);
    Bytes aux;
    if (a.bandwidth || a.upstream) {
        SwIfBandwidth bw{};
        bw.totalBandwidth = a.bandwidth.value_or(0);
        bw.upstreamPercent = a.upstream.value_or(0);
        aux.resize(SW_IF_BANDWIDTH_LEN);
        std::memcpy(aux.data(), &bw, sizeof bw);
    }
    Reply r = request(MBUS_MODULE_SWMGR, SW_CMD_IFDEV_EVENT, data, aux.empty() ? nullptr : &aux);
    return report("ifevent " + a.ifName + " " + std::to_string(a.event), r);
}

struct RawArgs {
    int module = MBUS_MODULE_SWMGR, code = 0, auxLen = 0;
    std::vector<std::string> hex;
};

int sendRaw(const RawArgs &a) {
    Bytes data;
    std::string err;
    if (!parseHex(a.hex, data, err)) return fail(err);
    Bytes aux(static_cast<size_t>(a.auxLen));
    Reply r = request(a.module, a.code, data, aux.empty() ? nullptr : &aux);
    return report("raw " + std::to_string(a.module) + " " + std::to_string(a.code) + " (" +
                      std::to_string(data.size()) + " bytes)",
                  r);
}

}  // namespace

void addRequestVerbs(CLI::App &app, Verbs &verbs) {
    auto v = std::make_shared<VlanArgs>();
    auto *vlan = app.add_subcommand("vlan", "add or delete a VLAN on the top-level switch (codes 36 and 38)");
    vlan->add_option("action", v->action, "add or del")->required()->check(CLI::IsMember({"add", "del"}));
    vlan->add_option("--id", v->id, "VLAN id")->required()->check(CLI::Range(1, 4094));
    vlan->add_option("--name", v->name, "VLAN name");
    vlan->add_option("--if", v->ifName, "parent interface of the host sub-interface")->capture_default_str();
    vlan->add_option("--logical", v->logical, "logical interface name, e.g. br-guest");
    addPortList(vlan, "--ports", v->ports, "member ports of the top-level switch");
    addPortList(vlan, "--untagged", v->untagged, "ports that send the VLAN untagged");
    vlan->add_option("--ingress", v->ingress, "ingress priority map text");
    vlan->add_option("--egress", v->egress, "egress priority map text");
    vlan->add_flag("--in-switch-only", v->inSwitchOnly, "VLAN stays inside the switch (port-based VLAN)");
    addJsonFlag(vlan);
    verbs.push_back({vlan, [v] { return sendVlan(*v); }});

    auto e = std::make_shared<IfEventArgs>();
    auto *ifev = app.add_subcommand("ifevent", "report an interface event (code 5); events 22, 25 and 26 with a "
                                               "bandwidth set the upstream rate limit");
    ifev->add_option("ifname", e->ifName, "interface, e.g. eth1")->required();
    ifev->add_option("event", e->event, "event number")->required();
    ifev->add_option("--bandwidth", e->bandwidth, "the interface's bandwidth in kbps");
    ifev->add_option("--upstream", e->upstream, "share of the bandwidth the upstream limit allows, in percent");
    addJsonFlag(ifev);
    verbs.push_back({ifev, [e] { return sendIfEvent(*e); }});

    auto r = std::make_shared<RawArgs>();
    auto *raw = app.add_subcommand("raw", "send any request as hex bytes (for testing)");
    raw->add_option("code", r->code, "command code")->required();
    raw->add_option("hex", r->hex, "request bytes in hex");
    raw->add_option("--module", r->module, "module to send to")->capture_default_str();
    raw->add_option("--aux-len", r->auxLen, "zero-filled aux bytes to send along")->check(CLI::Range(0, 65536));
    addJsonFlag(raw);
    verbs.push_back({raw, [r] { return sendRaw(*r); }});
}

}  // namespace swctl
