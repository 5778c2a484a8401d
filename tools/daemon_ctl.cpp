// SPDX-License-Identifier: Apache-2.0
#include "daemon_ctl.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/list.h"
#include "osa_port.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"
#include "swmgr_tools.h"
#include "swmgr/switch.h"

namespace swtool {
namespace {

// Callbacks of the bus carry no user data; there is one daemon per process.
DaemonCtl *active = nullptr;

// Which driver a command line or a device request speaks for.
const char *driverOfLine(std::string_view line) {
    static constexpr std::string_view engineTools[] = {"sppe_ioctl",      "arl_table_func",    "vlan_table_func",
                                                       "rate_limit_func", "tc_func",           "queue_weight_func",
                                                       "pri_ctl_func",    "/sysx2.0/bin/memrw"};
    const std::string_view program = line.substr(0, line.find(' '));
    if (std::find(std::begin(engineTools), std::end(engineTools), program) != std::end(engineTools)) return "PSE";
    const std::string_view base = program.substr(program.rfind('/') + 1);
    if (base == "vconfig" || base == "ifconfig") return "host";
    return "other";
}

const char *driverOfRequest(unsigned request) {
    if (((request >> 8) & 0xffu) == 'S') return "BCM";
    if (request == kSiocgifhwaddr) return "PSE";  // the engine's VLANs need the interface's address
    return "other";
}

using swmgr::listEntries;

std::string driverOf(const Switch &sw) {
    if (sw.switchConfigFunc == nullptr) return "";
    for (const auto &d : switchConfigFuncRegisterTbl)
        if (std::strcmp(d.name, sw.switchName) == 0) return d.name;
    return "";
}

}  // namespace

DaemonCtl::DaemonCtl() : tap_([this](const TapEvent &ev) { count(ev); }) {
    tap_.watchCommands();
    active = this;
}

DaemonCtl::~DaemonCtl() {
    if (ctl_ != nullptr) mbusUnRegister(ctl_);
    if (active == this) active = nullptr;
}

void DaemonCtl::count(const TapEvent &ev) {
    if (ev.kind == TapEvent::kIoctl) {
        auto &d = drivers_[driverOfRequest(ev.request)];
        ++d.ioctls;
        if (ev.status < 0) ++d.ioctlFailures;
        return;
    }
    auto &d = drivers_[ev.kind == TapEvent::kSystem ? "PSE" : driverOfLine(ev.line)];
    ++d.commands;
    if (ev.status != 0) ++d.commandFailures;
}

bool DaemonCtl::serve(std::string &err) {
    tap_.watchSystem();
    // The service's module is registered again with a counting front to the
    // service's own handler; nothing in the service changes.
    if (pSwMgrMbusCtx == nullptr) {
        err = "the service is not on the bus";
        return false;
    }
    mbusUnRegister(pSwMgrMbusCtx);
    pSwMgrMbusCtx = mbusRegister(MBUS_MODULE_SWMGR, 2, onServiceRequest, nullptr);
    if (pSwMgrMbusCtx == nullptr) {
        err = std::string("cannot count the service's requests: ") + mbusPortLastError();
        return false;
    }
    ctl_ = mbusRegister(kCtlModule, 2, onCtlRequest, nullptr);
    if (ctl_ == nullptr || mbusPortListenAlong(ctl_, pSwMgrMbusCtx) != 0) {
        err = std::string("cannot serve the control module: ") + mbusPortLastError();
        return false;
    }
    return true;
}

int DaemonCtl::onServiceRequest(MbusCtx *ctx, const MbusMsgHeader *header, int cmd, void *data, int dataLen,
                                void *aux, int *auxLen) {
    auto t0 = std::chrono::steady_clock::now();
    int r = swMgrIoctlHandler(ctx, header, cmd, data, dataLen, aux, auxLen);
    if (active != nullptr) {
        auto &t = active->requests_[cmd];
        ++t.count;
        if (r < 0) ++t.failures;
        t.time += std::chrono::steady_clock::now() - t0;
    }
    return r;
}

int DaemonCtl::onCtlRequest(MbusCtx *, const MbusMsgHeader *, int cmd, void *, int, void *aux, int *auxLen) {
    if (active == nullptr || aux == nullptr || auxLen == nullptr || *auxLen <= 0) return -22;
    nlohmann::json j;
    switch (cmd) {
        case kCtlSwitches: j = active->switches(); break;
        case kCtlPorts: j = active->ports(); break;
        case kCtlVlans: j = active->vlans(); break;
        case kCtlStats: j = active->stats(); break;
        default: return -22;
    }
    const std::string out = j.dump();
    const size_t cap = static_cast<size_t>(*auxLen);
    const size_t n = std::min(out.size(), cap - 1);
    std::memcpy(aux, out.data(), n);
    static_cast<char *>(aux)[n] = '\0';
    *auxLen = static_cast<int>(n + 1);
    return out.size() < cap ? 0 : 1;
}

nlohmann::json DaemonCtl::switches() const {
    nlohmann::json out = nlohmann::json::array();
    const Switch *top = switchAtTopLevelGet();
    for (auto *sw : listEntries<Switch>(switchTbl)) {
        nlohmann::json lower = nlohmann::json::array();
        for (auto *l : listEntries<SwitchLowerRef>(sw->lowerLvlSwitchList))
            lower.push_back(l->sw->switchName);
        out.push_back({{"name", sw->switchName},
                       {"id", sw->switchId},
                       {"level", sw->switchLevel},
                       {"top", sw == top},
                       {"driver", driverOf(*sw)},
                       {"device", sw->switchDevice},
                       {"numPorts", sw->numPorts},
                       {"lower", lower}});
    }
    return out;
}

nlohmann::json DaemonCtl::ports() const {
    nlohmann::json out = nlohmann::json::array();
    for (auto *sw : listEntries<Switch>(switchTbl))
        for (auto *p : listEntries<SwitchPort>(sw->portList)) {
            nlohmann::json mapped = nlohmann::json::array();
            for (auto *m : listEntries<SwitchPortMapEntry>(p->mappedPorts))
                mapped.push_back(std::string(m->port->sw->switchName) + ":" + std::to_string(m->port->portNumber));
            out.push_back({{"switch", sw->switchName},
                           {"port", p->portNumber},
                           {"interface", std::string(p->interfaceName, strnlen(p->interfaceName, sizeof p->interfaceName))},
                           {"pvid", p->PVID},
                           {"trustMode", p->trustMode},
                           {"mappedTo", mapped}});
        }
    return out;
}

nlohmann::json DaemonCtl::vlans() const {
    std::map<int, nlohmann::json> byId;
    for (auto *sw : listEntries<Switch>(switchTbl))
        for (auto *v : listEntries<SwitchVlan>(sw->vlanList)) {
            auto &j = byId[v->vlanId];
            if (j.is_null()) j = {{"vlanId", v->vlanId}, {"switches", nlohmann::json::array()}};
            j["switches"].push_back({{"switch", sw->switchName},
                                     {"index", v->vlanIndex},
                                     {"interface", std::string(v->interfaceName, strnlen(v->interfaceName, sizeof v->interfaceName))},
                                     {"fwdMap", v->fwdMap},
                                     {"untagMap", v->untagMap},
                                     {"inSwitchOnly", v->inSwitchOnly != 0}});
        }
    nlohmann::json out = nlohmann::json::array();
    for (auto &[id, j] : byId) out.push_back(std::move(j));
    return out;
}

nlohmann::json DaemonCtl::stats() const {
    nlohmann::json requests = nlohmann::json::array();
    for (const auto &[code, t] : requests_)
        requests.push_back({{"code", code},
                            {"count", t.count},
                            {"failures", t.failures},
                            {"totalUs", std::chrono::duration_cast<std::chrono::microseconds>(t.time).count()}});
    nlohmann::json drivers = nlohmann::json::object();
    for (const auto &[name, d] : drivers_)
        drivers[name] = {{"commands", d.commands},
                         {"commandFailures", d.commandFailures},
                         {"ioctls", d.ioctls},
                         {"ioctlFailures", d.ioctlFailures}};
    // The host bus refuses other users' connections without counting them.
    return {{"requests", requests},
            {"drivers", drivers},
            {"logDropped", mbusPortLogDropped()},
            {"connectionsRefused", mbusPortConnRefused()}};
}

}  // namespace swtool
