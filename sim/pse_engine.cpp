// SPDX-License-Identifier: Apache-2.0
#include "pse_engine.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace swsim {

namespace {

constexpr int kMaxVlanId = 4095;

bool parseInt(const std::string &s, int *out) {
    if (s.empty()) return false;
    size_t i = s[0] == '-' ? 1 : 0;
    if (i == s.size()) return false;
    for (size_t k = i; k < s.size(); ++k)
        if (s[k] < '0' || s[k] > '9') return false;
    errno = 0;
    long long v = std::strtoll(s.c_str(), nullptr, 10);
    if (errno != 0 || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

bool parseIntIn(const std::string &s, int lo, int hi, int *out) {
    return parseInt(s, out) && *out >= lo && *out <= hi;
}

// "0x" and one to eight hexadecimal digits.
bool parseHex(const std::string &s, uint32_t *out) {
    if (s.size() < 3 || s.size() > 10 || s[0] != '0' || (s[1] != 'x' && s[1] != 'X')) return false;
    uint32_t v = 0;
    for (size_t k = 2; k < s.size(); ++k) {
        char c = s[k];
        uint32_t d;
        if (c >= '0' && c <= '9') d = static_cast<uint32_t>(c - '0');
        else if (c >= 'a' && c <= 'f') d = static_cast<uint32_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F') d = static_cast<uint32_t>(c - 'A' + 10);
        else return false;
        v = (v << 4) | d;
    }
    *out = v;
    return true;
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// "xx:xx:xx:xx:xx:xx", stored lower case.
bool parseMac(std::string s, std::string *out) {
    if (s.size() != 17) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        if (i % 3 == 2 ? s[i] != ':' : !isHexDigit(s[i])) return false;
    }
    std::transform(s.begin(), s.end(), s.begin(),
                   [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c; });
    *out = s;
    return true;
}

bool parseFlag(const std::string &s, int *out) { return parseIntIn(s, 0, 1, out); }

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", v);
    return b;
}

}  // namespace

int64_t PseEngine::RateLimit::kbps() const {
    static constexpr int64_t kGranularity[] = {64, 1024, 10240};
    if (unit < 0 || unit > 2) return 0;
    return static_cast<int64_t>(value) * kGranularity[unit];
}

PseEngine::PseEngine() {
    addTools();
    reset();
}

PseEngine::~PseEngine() { detach(); }

void PseEngine::attach() {
    if (attached_) return;
    osaPortCmdHookAdd(onCommand, this);
    osaPortSystemHookGet(&prevSystem_, &prevSystemCtx_);
    osaPortSystemHookSet(onSystem, this);
    attached_ = true;
}

void PseEngine::detach() {
    if (!attached_) return;
    osaPortCmdHookRemove(onCommand, this);
    OsaCmdHook current = nullptr;
    void *currentCtx = nullptr;
    osaPortSystemHookGet(&current, &currentCtx);
    // Someone who hooked in after us keeps their place.
    if (current == onSystem && currentCtx == this) osaPortSystemHookSet(prevSystem_, prevSystemCtx_);
    prevSystem_ = nullptr;
    prevSystemCtx_ = nullptr;
    attached_ = false;
}

void PseEngine::failCommand(const std::string &match, int status, bool prefix, int times) {
    failures_.push_back({match, prefix, status, times});
}

void PseEngine::clearFailures() { failures_.clear(); }

void PseEngine::reset() {
    qos_.reset();
    trafficClass_.reset();
    vlans_.clear();
    arl_.clear();
    rateLimits_.clear();
    weights_.clear();
    trust_.clear();
    regs_.clear();
    for (uint32_t r : kPauseRegisters) regs_[r] = 0;
    history_.clear();
}

bool PseEngine::failureFor(std::string_view line, int *status) {
    for (auto &f : failures_) {
        if (f.times == 0) continue;
        bool hit = f.prefix ? line.compare(0, f.match.size(), f.match) == 0 : line == f.match;
        if (!hit) continue;
        if (f.times > 0) --f.times;
        *status = f.status;
        return true;
    }
    return false;
}

bool PseEngine::run(std::string_view line, int *status) {
    int dummy = 0;
    if (status == nullptr) status = &dummy;
    auto commands = tools_.claim(line);
    if (!commands) return false;
    history_.add(std::string(line));
    if (!failureFor(line, status)) *status = tools_.run(*commands);
    return true;
}

void PseEngine::addTools() {
    auto plain = [this](int (PseEngine::*fn)(const Args &)) {
        return [this, fn](const Args &args, ToolBox::Io &) { return (this->*fn)(args); };
    };
    auto piped = [this](int (PseEngine::*fn)(const Args &, ToolBox::Io &)) {
        return [this, fn](const Args &args, ToolBox::Io &io) { return (this->*fn)(args, io); };
    };
    tools_.add("sppe_ioctl", plain(&PseEngine::sppeIoctl));
    tools_.add("vlan_table_func", plain(&PseEngine::vlanTable));
    tools_.add("arl_table_func", plain(&PseEngine::arlTable));
    tools_.add("rate_limit_func", plain(&PseEngine::rateLimitSet));
    tools_.add("tc_func", plain(&PseEngine::tcSet));
    tools_.add("queue_weight_func", plain(&PseEngine::queueWeightSet));
    tools_.add("pri_ctl_func", plain(&PseEngine::priCtlSet));
    tools_.add(kMemrwPath, piped(&PseEngine::memrw));
    // The filters of the register pipelines serve them only.
    tools_.add("grep", piped(&PseEngine::grep), false);
    tools_.add("cut", piped(&PseEngine::cut), false);
    tools_.add("awk", piped(&PseEngine::awk), false);
}

// sppe_ioctl rl enable|disable
int PseEngine::sppeIoctl(const Args &args) {
    if (auto r = tools_.arity("sppe_ioctl", args.size(), 2, 2)) return *r;
    if (args[0] != "rl" || (args[1] != "enable" && args[1] != "disable"))
        return tools_.usage("sppe_ioctl", "usage: sppe_ioctl rl enable|disable");
    qos_ = args[1] == "enable";
    return 0;
}

// vlan_table_func edit <index> <isWan> <etagMap> <mbMap> <vid> [<mac>] <valid>
int PseEngine::vlanTable(const Args &args) {
    if (auto r = tools_.arity("vlan_table_func", args.size(), 7, 8)) return *r;
    if (args[0] != "edit") return tools_.usage("vlan_table_func", "unknown operation " + args[0]);
    const bool withMac = args.size() == 8;
    VlanEntry e;
    if (!parseIntIn(args[1], 0, INT_MAX, &e.index) || !parseFlag(args[2], &e.isWan) ||
        !parseHex(args[3], &e.etagMap) || !parseHex(args[4], &e.mbMap) ||
        !parseIntIn(args[5], 0, kMaxVlanId, &e.vlanId) || (withMac && !parseMac(args[6], &e.mac)) ||
        !parseFlag(args.back(), &e.valid))
        return tools_.usage("vlan_table_func", "invalid value");
    vlans_[e.index] = e;
    return 0;
}

// arl_table_func add <mac> <vid> <portMap> <flags> | del <mac> <vid>
int PseEngine::arlTable(const Args &args) {
    if (auto r = tools_.arity("arl_table_func", args.size(), 1, 5)) return *r;
    ArlEntry e;
    const bool add = args[0] == "add";
    if (!add && args[0] != "del") return tools_.usage("arl_table_func", "unknown operation " + args[0]);
    if (auto r = tools_.arity("arl_table_func", args.size(), add ? 5u : 3u, add ? 5u : 3u, args[0])) return *r;
    if (!parseMac(args[1], &e.mac) || !parseIntIn(args[2], 0, kMaxVlanId, &e.vlanId) ||
        (add && (!parseHex(args[3], &e.portMap) || !parseHex(args[4], &e.flags))))
        return tools_.usage("arl_table_func", "invalid value");
    auto same = [&](const ArlEntry &a) { return a.mac == e.mac && a.vlanId == e.vlanId; };
    auto it = std::find_if(arl_.begin(), arl_.end(), same);
    if (!add) {
        if (it != arl_.end()) arl_.erase(it);
    } else if (it != arl_.end()) {
        *it = e;
    } else {
        arl_.push_back(e);
    }
    return 0;
}

// rate_limit_func set <port> <value 0-127> <unit 0-2>
int PseEngine::rateLimitSet(const Args &args) {
    if (auto r = tools_.arity("rate_limit_func", args.size(), 4, 4)) return *r;
    int port = 0;
    RateLimit r;
    if (args[0] != "set" || !parseIntIn(args[1], 0, INT_MAX, &port) || !parseIntIn(args[2], 0, 127, &r.value) ||
        !parseIntIn(args[3], 0, 2, &r.unit))
        return tools_.usage("rate_limit_func", "invalid value");
    rateLimits_[port] = r;
    return 0;
}

// tc_func set <0-2>
int PseEngine::tcSet(const Args &args) {
    if (auto r = tools_.arity("tc_func", args.size(), 2, 2)) return *r;
    int tc = 0;
    if (args[0] != "set" || !parseIntIn(args[1], 0, 2, &tc)) return tools_.usage("tc_func", "invalid value");
    trafficClass_ = tc;
    return 0;
}

// queue_weight_func set <port> <mode 0-2> <e1> <e2> <e3> <e4>
int PseEngine::queueWeightSet(const Args &args) {
    if (auto r = tools_.arity("queue_weight_func", args.size(), 7, 7)) return *r;
    int port = 0;
    QueueWeights w;
    bool ok = args[0] == "set" && parseIntIn(args[1], 0, INT_MAX, &port) && parseIntIn(args[2], 0, 2, &w.mode);
    for (size_t i = 0; ok && i < 4; ++i) ok = parseInt(args[3 + i], &w.exponents[i]);
    if (!ok) return tools_.usage("queue_weight_func", "invalid value");
    weights_[port] = w;
    return 0;
}

// pri_ctl_func set <port> <f1> <f2> <f3> <f4> <f5>
int PseEngine::priCtlSet(const Args &args) {
    if (auto r = tools_.arity("pri_ctl_func", args.size(), 7, 7)) return *r;
    int port = 0;
    TrustFlags f{};
    bool ok = args[0] == "set" && parseIntIn(args[1], 0, INT_MAX, &port);
    for (size_t i = 0; ok && i < f.size(); ++i) ok = parseFlag(args[2 + i], &f[i]);
    if (!ok) return tools_.usage("pri_ctl_func", "invalid value");
    trust_[port] = f;
    return 0;
}

const PseEngine::VlanEntry *PseEngine::vlanEntry(int index) const {
    auto it = vlans_.find(index);
    return it != vlans_.end() ? &it->second : nullptr;
}

const PseEngine::RateLimit *PseEngine::rateLimit(int port) const {
    auto it = rateLimits_.find(port);
    return it != rateLimits_.end() ? &it->second : nullptr;
}

const PseEngine::TrustFlags *PseEngine::trust(int port) const {
    auto it = trust_.find(port);
    return it != trust_.end() ? &it->second : nullptr;
}

uint32_t PseEngine::reg(uint32_t addr) const {
    auto it = regs_.find(addr);
    return it != regs_.end() ? it->second : 0;
}

void PseEngine::setReg(uint32_t addr, uint32_t value) { regs_[addr] = value; }

std::string PseEngine::dump() const {
    std::ostringstream os;
    os << "qos " << (qos_ ? (*qos_ ? "enabled" : "disabled") : "unset") << "\n";
    os << "traffic-class ";
    if (trafficClass_) os << *trafficClass_;
    else os << "unset";
    os << "\n";
    for (const auto &[index, e] : vlans_)
        os << "vlan " << index << " vid " << e.vlanId << " wan " << e.isWan << " etag "
           << hex(e.etagMap) << " mb " << hex(e.mbMap) << " mac " << (e.mac.empty() ? "-" : e.mac)
           << " valid " << e.valid << "\n";
    for (const auto &a : arl_)
        os << "arl " << a.mac << " vid " << a.vlanId << " ports " << hex(a.portMap) << " flags "
           << hex(a.flags) << "\n";
    for (const auto &[port, r] : rateLimits_)
        os << "rate-limit port " << port << " value " << r.value << " unit " << r.unit << "\n";
    for (const auto &[port, w] : weights_)
        os << "queue-weight port " << port << " mode " << w.mode << " exp " << w.exponents[0] << " "
           << w.exponents[1] << " " << w.exponents[2] << " " << w.exponents[3] << "\n";
    for (const auto &[port, f] : trust_)
        os << "trust port " << port << " flags " << f[0] << " " << f[1] << " " << f[2] << " " << f[3]
           << " " << f[4] << "\n";
    for (const auto &[addr, v] : regs_) os << "reg " << hex(addr) << " " << hex(v) << "\n";
    return os.str();
}

int PseEngine::onCommand(void *ctx, const char *command, int *status) {
    if (command == nullptr) return 0;
    return static_cast<PseEngine *>(ctx)->run(command, status) ? 1 : 0;
}

int PseEngine::onSystem(void *ctx, const char *command, int *status) {
    auto *self = static_cast<PseEngine *>(ctx);
    if (command == nullptr) return 0;
    if (self->run(command, status)) {
        // system() gives a wait status; a scripted negative result stands
        // for system() itself failing and passes as it is.
        if (*status > 0 && *status < 256) *status <<= 8;
        // The hook before us still sees the line (a capture records it);
        // the engine's status is the one returned.
        if (self->prevSystem_ != nullptr) {
            int ignored = 0;
            self->prevSystem_(self->prevSystemCtx_, command, &ignored);
        }
        return 1;
    }
    return self->prevSystem_ != nullptr ? self->prevSystem_(self->prevSystemCtx_, command, status)
                                        : 0;
}

}  // namespace swsim
