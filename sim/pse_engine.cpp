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

// The register tool's read-modify-write pipelines, as the driver composes
// them (address, bit, address).
constexpr const char kSetPipeline[] =
    "/sysx2.0/bin/memrw %#x w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val = lshift(1,%d); reg = %#x ;     res = or (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf (\"%%#x%%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";
constexpr const char kClearPipeline[] =
    "/sysx2.0/bin/memrw %#x w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val1 = lshift(1,%d); val = val1^0xFFFFFFFF ; reg = %#x ;     res = and (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf (\"%%#x%%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";
constexpr std::string_view kMemrw = "/sysx2.0/bin/memrw ";

constexpr std::string_view kTools[] = {"sppe_ioctl",        "vlan_table_func", "arl_table_func",
                                       "rate_limit_func",   "tc_func",         "queue_weight_func",
                                       "pri_ctl_func"};

constexpr int kMaxVlanId = 4095;

// Arguments are separated by single spaces; runs of spaces give empty ones.
std::vector<std::string> splitArgs(std::string_view rest) {
    std::vector<std::string> out;
    size_t start = 0;
    while (true) {
        size_t sp = rest.find(' ', start);
        out.emplace_back(rest.substr(start, sp == std::string_view::npos ? sp : sp - start));
        if (sp == std::string_view::npos) break;
        start = sp + 1;
    }
    return out;
}

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

// "xx:xx:xx:xx:xx:xx", optionally followed by one newline; "" when
// `allowEmpty`. Stored lower case without the newline.
bool parseMac(std::string s, bool allowEmpty, std::string *out) {
    if (!s.empty() && s.back() == '\n') s.pop_back();
    if (s.empty()) {
        if (!allowEmpty) return false;
        out->clear();
        return true;
    }
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

std::string composePipeline(const char *tmpl, uint32_t addr, int bit) {
    char b[512];
    std::snprintf(b, sizeof b, tmpl, addr, bit, addr);
    return b;
}

}  // namespace

int64_t PseEngine::RateLimit::kbps() const {
    static constexpr int64_t kGranularity[] = {64, 1024, 10240};
    if (unit < 0 || unit > 2) return 0;
    return static_cast<int64_t>(value) * kGranularity[unit];
}

PseEngine::PseEngine() { reset(); }

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
    handled_.clear();
}

bool PseEngine::failureFor(const std::string &line, int *status) {
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

bool PseEngine::run(const std::string &line, int *status) {
    int dummy = 0;
    if (status == nullptr) status = &dummy;
    const bool pipeline = line.compare(0, kMemrw.size(), kMemrw) == 0;
    std::string program;
    if (!pipeline) {
        program = line.substr(0, line.find(' '));
        if (std::find(std::begin(kTools), std::end(kTools), program) == std::end(kTools)) return false;
    }
    handled_.push_back(line);
    if (failureFor(line, status)) return true;
    if (pipeline) {
        *status = pausePipeline(line);
        return true;
    }
    const size_t sp = line.find(' ');
    Args args = sp == std::string::npos ? Args{} : splitArgs(std::string_view(line).substr(sp + 1));
    *status = tool(program, args);
    return true;
}

int PseEngine::tool(const std::string &program, const Args &args) {
    if (program == "sppe_ioctl") return sppeIoctl(args);
    if (program == "vlan_table_func") return vlanTable(args);
    if (program == "arl_table_func") return arlTable(args);
    if (program == "rate_limit_func") return rateLimitSet(args);
    if (program == "tc_func") return tcSet(args);
    if (program == "queue_weight_func") return queueWeightSet(args);
    if (program == "pri_ctl_func") return priCtlSet(args);
    return kUsageStatus;
}

// sppe_ioctl rl enable|disable
int PseEngine::sppeIoctl(const Args &args) {
    if (args.size() != 2 || args[0] != "rl") return kUsageStatus;
    if (args[1] == "enable") qos_ = true;
    else if (args[1] == "disable") qos_ = false;
    else return kUsageStatus;
    return 0;
}

// vlan_table_func edit <index> <isWan> <etagMap> <mbMap> <vid> <mac> <valid>
int PseEngine::vlanTable(const Args &args) {
    if (args.size() != 8 || args[0] != "edit") return kUsageStatus;
    VlanEntry e;
    if (!parseIntIn(args[1], 0, INT_MAX, &e.index) || !parseFlag(args[2], &e.isWan) ||
        !parseHex(args[3], &e.etagMap) || !parseHex(args[4], &e.mbMap) ||
        !parseIntIn(args[5], 0, kMaxVlanId, &e.vlanId) || !parseMac(args[6], true, &e.mac) ||
        !parseFlag(args[7], &e.valid))
        return kUsageStatus;
    vlans_[e.index] = e;
    return 0;
}

// arl_table_func add <mac> <vid> <portMap> <flags> | del <mac> <vid>
int PseEngine::arlTable(const Args &args) {
    if (args.empty()) return kUsageStatus;
    ArlEntry e;
    if (args[0] == "add") {
        if (args.size() != 5 || !parseMac(args[1], false, &e.mac) ||
            !parseIntIn(args[2], 0, kMaxVlanId, &e.vlanId) || !parseHex(args[3], &e.portMap) ||
            !parseHex(args[4], &e.flags))
            return kUsageStatus;
        auto it = std::find_if(arl_.begin(), arl_.end(), [&](const ArlEntry &a) {
            return a.mac == e.mac && a.vlanId == e.vlanId;
        });
        if (it != arl_.end()) *it = e;
        else arl_.push_back(e);
        return 0;
    }
    if (args[0] == "del") {
        // An empty address names no entry: nothing to remove.
        if (args.size() != 3 || !parseMac(args[1], true, &e.mac) ||
            !parseIntIn(args[2], 0, kMaxVlanId, &e.vlanId))
            return kUsageStatus;
        arl_.erase(std::remove_if(arl_.begin(), arl_.end(),
                                  [&](const ArlEntry &a) {
                                      return a.mac == e.mac && a.vlanId == e.vlanId;
                                  }),
                   arl_.end());
        return 0;
    }
    return kUsageStatus;
}

// rate_limit_func set <port> <value 0-127> <unit 0-2>
int PseEngine::rateLimitSet(const Args &args) {
    int port = 0;
    RateLimit r;
    if (args.size() != 4 || args[0] != "set" || !parseIntIn(args[1], 0, INT_MAX, &port) ||
        !parseIntIn(args[2], 0, 127, &r.value) || !parseIntIn(args[3], 0, 2, &r.unit))
        return kUsageStatus;
    rateLimits_[port] = r;
    return 0;
}

// tc_func set <0-2>
int PseEngine::tcSet(const Args &args) {
    int tc = 0;
    if (args.size() != 2 || args[0] != "set" || !parseIntIn(args[1], 0, 2, &tc)) return kUsageStatus;
    trafficClass_ = tc;
    return 0;
}

// queue_weight_func set <port> <mode 0-2> <e1> <e2> <e3> <e4>
int PseEngine::queueWeightSet(const Args &args) {
    int port = 0;
    QueueWeights w;
    if (args.size() != 7 || args[0] != "set" || !parseIntIn(args[1], 0, INT_MAX, &port) ||
        !parseIntIn(args[2], 0, 2, &w.mode))
        return kUsageStatus;
    for (size_t i = 0; i < 4; ++i)
        if (!parseInt(args[3 + i], &w.exponents[i])) return kUsageStatus;
    weights_[port] = w;
    return 0;
}

// pri_ctl_func set <port> <f1> <f2> <f3> <f4> <f5>
int PseEngine::priCtlSet(const Args &args) {
    int port = 0;
    TrustFlags f{};
    if (args.size() != 7 || args[0] != "set" || !parseIntIn(args[1], 0, INT_MAX, &port))
        return kUsageStatus;
    for (size_t i = 0; i < f.size(); ++i)
        if (!parseFlag(args[2 + i], &f[i])) return kUsageStatus;
    trust_[port] = f;
    return 0;
}

// The set or clear pipeline for one register and bit. The tool reads the
// register, awk changes the bit and prints the new value as "%#x" of the
// high half followed by "%x" of the low half, and the tool writes that
// text back, read as hexadecimal: leading zeros of the low half are lost.
int PseEngine::pausePipeline(const std::string &line) {
    const size_t addrEnd = line.find(' ', kMemrw.size());
    const size_t bitAt = line.find("lshift(1,");
    if (addrEnd == std::string::npos || bitAt == std::string::npos) return kUsageStatus;
    uint32_t addr = 0;
    int bit = 0;
    const size_t bitStart = bitAt + 9;
    const size_t bitEnd = line.find(')', bitStart);
    if (!parseHex(line.substr(kMemrw.size(), addrEnd - kMemrw.size()), &addr) ||
        bitEnd == std::string::npos ||
        !parseIntIn(line.substr(bitStart, bitEnd - bitStart), 0, 31, &bit))
        return kUsageStatus;

    bool set;
    if (line == composePipeline(kSetPipeline, addr, bit)) set = true;
    else if (line == composePipeline(kClearPipeline, addr, bit)) set = false;
    else return kUsageStatus;

    const uint32_t current = reg(addr);
    const uint32_t mask = 1u << bit;
    const uint32_t res = set ? (current | mask) : (current & ~mask);
    char text[32];
    std::snprintf(text, sizeof text, "%#x%x", res >> 16, res & 0xFFFFu);
    regs_[addr] = static_cast<uint32_t>(std::strtoul(text, nullptr, 16));
    return 0;
}

const PseEngine::VlanEntry *PseEngine::vlanEntry(int index) const {
    auto it = vlans_.find(index);
    return it != vlans_.end() ? &it->second : nullptr;
}

const PseEngine::ArlEntry *PseEngine::arlEntry(const std::string &mac, int vlanId) const {
    std::string key;
    if (!parseMac(mac, false, &key)) return nullptr;
    for (const auto &a : arl_)
        if (a.mac == key && a.vlanId == vlanId) return &a;
    return nullptr;
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
