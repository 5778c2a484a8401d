// SPDX-License-Identifier: Apache-2.0
// Host VLAN interfaces behind the command seam: the subset of vconfig and
// ifconfig that the switch manager uses, with the tools' failures.
#include "host_vlan.h"

#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sstream>

#include "osa_port.h"

namespace swsim {

namespace {
constexpr int kMaxVlanId = 4094;
constexpr uint32_t kMaxPriority = 7;

std::optional<uint32_t> number(const std::string &text) {
    uint32_t v = 0;
    const char *end = text.data() + text.size();
    auto [p, ec] = std::from_chars(text.data(), end, v, 10);
    if (ec != std::errc() || p != end || text.empty()) return std::nullopt;
    return v;
}
}  // namespace

HostVlanModel::HostVlanModel(std::vector<std::string> parents) {
    for (auto &name : parents) addParent(name);
    tools_.add("vconfig", [this](const Words &args, ToolBox::Io &) { return vconfig(args); });
    tools_.add("ifconfig", [this](const Words &args, ToolBox::Io &) { return ifconfig(args); });
}

HostVlanModel::~HostVlanModel() {
    detach();
    disableHwAddr();
}

void HostVlanModel::attach() {
    if (attached_) return;
    osaPortCmdHookAdd(onCommand, this);
    attached_ = true;
}

void HostVlanModel::detach() {
    if (!attached_) return;
    osaPortCmdHookRemove(onCommand, this);
    attached_ = false;
}

void HostVlanModel::enableHwAddr() {
    if (hwAddr_) return;
    osaPortIoctlHookAdd(onIoctl, this);
    hwAddr_ = true;
}

void HostVlanModel::disableHwAddr() {
    if (!hwAddr_) return;
    osaPortIoctlHookRemove(onIoctl, this);
    hwAddr_ = false;
}

void HostVlanModel::setMac(const std::string &ifName, const Mac &mac) { macs_[ifName] = mac; }

std::optional<HostVlanModel::Mac> HostVlanModel::mac(const std::string &ifName) const {
    if (!exists(ifName)) return std::nullopt;
    if (auto it = macs_.find(ifName); it != macs_.end()) return it->second;
    if (const SubInterface *s = find(ifName)) return mac(s->parent);
    auto n = static_cast<unsigned>(parentIndex(ifName) + 1);
    return Mac{0x02, 0x00, 0x00, 0x00, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n & 0xff)};
}

void HostVlanModel::failCommand(const std::string &match, int status, bool prefix, int times) {
    failures_.push_back({match, prefix, status, times});
}

void HostVlanModel::clearFailures() { failures_.clear(); }

void HostVlanModel::addParent(const std::string &name) {
    std::string cut = name.substr(0, kIfNameMax);
    if (cut.empty() || exists(cut)) return;
    parents_.push_back({cut, true});
}

bool HostVlanModel::setParentUp(const std::string &name, bool up) {
    Parent *p = findParent(name);
    if (p == nullptr) return false;
    p->up = up;
    if (!up) {
        for (auto &[n, s] : subs_)
            if (s.parent == name) s.up = false;
    }
    return true;
}

void HostVlanModel::reset() { subs_.clear(); }

std::vector<HostVlanModel::SubInterface> HostVlanModel::subInterfaces() const {
    std::vector<SubInterface> out;
    for (const auto &[n, s] : subs_) out.push_back(s);
    std::sort(out.begin(), out.end(), [this](const SubInterface &a, const SubInterface &b) {
        int pa = parentIndex(a.parent), pb = parentIndex(b.parent);
        if (pa != pb) return pa < pb;
        if (a.vlanId != b.vlanId) return a.vlanId < b.vlanId;
        return a.name < b.name;
    });
    return out;
}

const HostVlanModel::SubInterface *HostVlanModel::find(const std::string &name) const {
    auto it = subs_.find(name);
    return it != subs_.end() ? &it->second : nullptr;
}

bool HostVlanModel::exists(const std::string &name) const {
    return find(name) != nullptr || findParent(name) != nullptr;
}

std::string HostVlanModel::dump() const {
    std::ostringstream os;
    auto subs = subInterfaces();
    for (const Parent &p : parents_) {
        os << p.name << (p.up ? " up" : " down") << "\n";
        for (const SubInterface &s : subs) {
            if (s.parent != p.name) continue;
            os << s.name << " vlan " << s.vlanId << " on " << s.parent << (s.up ? " up" : " down")
               << " ingress";
            for (std::size_t q = 0; q < s.ingressMap.size(); ++q) os << " " << q << ":" << s.ingressMap[q];
            os << " egress";
            if (s.egressMap.empty()) os << " -";
            for (const auto &[prio, q] : s.egressMap) os << " " << prio << ":" << q;
            os << "\n";
        }
    }
    return os.str();
}

bool HostVlanModel::run(std::string_view line, int *status) {
    for (auto &f : failures_) {
        if (f.times == 0) continue;
        bool hit = f.prefix ? line.compare(0, f.match.size(), f.match) == 0 : line == f.match;
        if (!hit) continue;
        if (f.times > 0) --f.times;
        history_.add(std::string(line));
        *status = f.status;
        return true;
    }
    auto commands = tools_.claim(line);
    if (!commands) return false;
    history_.add(std::string(line));
    *status = tools_.run(*commands);
    return true;
}

// vconfig add <parent> <vid> | rem <device> | set_ingress_map|set_egress_map <device> <prio> <prio>
int HostVlanModel::vconfig(const Words &args) {
    static const char *const verbs[] = {"add", "rem", "set_ingress_map", "set_egress_map"};
    if (auto r = tools_.arity("vconfig", args.size(), 1, 4)) return *r;
    const std::string &verb = args[0];
    if (std::none_of(std::begin(verbs), std::end(verbs), [&](const char *v) { return verb == v; }))
        return tools_.usage("vconfig", "unknown operation " + verb);
    const size_t want = verb == "add" ? 3 : verb == "rem" ? 2 : 4;
    if (auto r = tools_.arity("vconfig", args.size(), want, want, verb)) return *r;
    auto refuse = [&](const std::string &why) {
        history_.add("vconfig: " + why);
        return kVconfigFailure;
    };
    if (verb == "add") {
        auto vid = number(args[2]);
        if (!vid || *vid > static_cast<uint32_t>(kMaxVlanId)) return refuse("invalid VLAN id " + args[2]);
        if (findParent(args[1]) == nullptr) return refuse("no such device " + args[1]);
        std::string name = (args[1] + "." + std::to_string(*vid)).substr(0, kIfNameMax);
        if (exists(name)) return refuse(name + " exists");
        SubInterface s;
        s.name = name;
        s.parent = args[1];
        s.vlanId = static_cast<int>(*vid);
        subs_.emplace(name, std::move(s));
        return 0;
    }
    if (verb == "rem") return subs_.erase(args[1]) == 1 ? 0 : refuse("no such VLAN device " + args[1]);
    auto it = subs_.find(args[1]);
    auto prio = number(args[2]);
    auto qos = number(args[3]);
    if (it == subs_.end()) return refuse("no such VLAN device " + args[1]);
    if (!prio || !qos || *qos > kMaxPriority) return refuse("invalid priority");
    if (verb == "set_ingress_map")
        it->second.ingressMap[*qos] = *prio;
    else
        it->second.egressMap[*prio] = *qos;
    return 0;
}

// ifconfig <device> [up|down]; the device alone only shows it.
int HostVlanModel::ifconfig(const Words &args) {
    if (auto r = tools_.arity("ifconfig", args.size(), 1, 2)) return *r;
    const std::string &name = args[0];
    if (!exists(name)) {
        history_.add("ifconfig: no such device " + name);
        return kIfconfigFailure;
    }
    if (args.size() == 1) return 0;
    if (args[1] != "up" && args[1] != "down") return tools_.usage("ifconfig", "option not modelled: " + args[1]);
    const bool up = args[1] == "up";
    if (setParentUp(name, up)) return 0;
    auto &sub = subs_.at(name);
    // A VLAN device cannot come up while its parent is down.
    if (up && !findParent(sub.parent)->up) {
        history_.add("ifconfig: " + name + ": parent " + sub.parent + " is down");
        return kIfconfigFailure;
    }
    sub.up = up;
    return 0;
}

HostVlanModel::Parent *HostVlanModel::findParent(const std::string &name) {
    auto it = std::find_if(parents_.begin(), parents_.end(), [&](const Parent &p) { return p.name == name; });
    return it != parents_.end() ? &*it : nullptr;
}

const HostVlanModel::Parent *HostVlanModel::findParent(const std::string &name) const {
    return const_cast<HostVlanModel *>(this)->findParent(name);
}

int HostVlanModel::parentIndex(const std::string &name) const {
    auto it = std::find_if(parents_.begin(), parents_.end(), [&](const Parent &p) { return p.name == name; });
    return static_cast<int>(it - parents_.begin());
}

int HostVlanModel::onCommand(void *ctx, const char *command, int *status) {
    if (command == nullptr) return 0;
    return static_cast<HostVlanModel *>(ctx)->run(command, status) ? 1 : 0;
}

int HostVlanModel::onIoctl(void *ctx, int, unsigned request, void *arg, int *result) {
    if (request != kHwAddrRequest || arg == nullptr) return 0;
    auto *self = static_cast<HostVlanModel *>(ctx);
    auto *req = static_cast<struct ifreq *>(arg);
    std::string name(req->ifr_name, strnlen(req->ifr_name, sizeof req->ifr_name));
    auto mac = self->mac(name);
    if (!mac) {
        errno = ENODEV;
        *result = -1;
        return 1;
    }
    req->ifr_hwaddr.sa_family = ARPHRD_ETHER;
    std::memcpy(req->ifr_hwaddr.sa_data, mac->data(), mac->size());
    *result = 0;
    return 1;
}

}  // namespace swsim
