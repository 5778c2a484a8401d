// SPDX-License-Identifier: Apache-2.0
#include "bcm_chip.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "osa_port.h"

namespace swsim {
namespace {

// The kernel driver's request codes.
enum : unsigned {
    kVlanEnable = 0x20005301u,
    kVlanDisable = 0x20005302u,
    kPortVlanQuery = 0x80045303u,
    kPortVlanAdd = 0x80045304u,
    kPortVlanDelete = 0x80045305u,
    kTagGet = 0xc0065306u,
    kTagSet = 0x80065307u,
    kVlanFwdQuery = 0x80055308u,
    kVlanUntagQuery = 0x8005530bu,
    kVlanClear = 0x80055310u,
    kNon8021q = 0x80065311u,
    kVlanEntryAdd = 0x80075312u,
    kPortStats = 0xc0325314u,
    kLinkStatus = 0x20005319u,
    kTrustMode = 0xc006531eu,
    kQueueSched = 0xc008531fu,
    kQosEnable = 0xc0045320u,
    kPauseFrames = 0xc0045321u,
    kRateLimit = 0xc0075322u,
    kCosQueueMap = 0xc0055323u,
};

constexpr unsigned argSize(unsigned code) { return (code >> 16) & 0x1fffu; }
constexpr uint16_t kMaxVlanId = 4095;
constexpr uint32_t kMaxTrustMode = 4;
constexpr uint8_t kMaxSchedMode = 3;
constexpr uint8_t kMaxCos = 7;
constexpr uint8_t kMaxQueue = 3;

uint16_t le16(const uint8_t *a, int off) {
    return static_cast<uint16_t>(a[off] | (a[off + 1] << 8));
}
uint32_t le32(const uint8_t *a, int off) {
    return static_cast<uint32_t>(a[off]) | (static_cast<uint32_t>(a[off + 1]) << 8) |
           (static_cast<uint32_t>(a[off + 2]) << 16) | (static_cast<uint32_t>(a[off + 3]) << 24);
}
void put16(uint8_t *a, int off, uint16_t v) {
    a[off] = static_cast<uint8_t>(v);
    a[off + 1] = static_cast<uint8_t>(v >> 8);
}
bool zeros(const uint8_t *a, int from, int to) {
    for (int i = from; i < to; ++i)
        if (a[i] != 0) return false;
    return true;
}
uint16_t bit(unsigned n) { return static_cast<uint16_t>(1u << n); }

int thunkIoctl(void *ctx, unsigned request, void *arg) {
    return static_cast<BcmChip *>(ctx)->handle(request, arg);
}

__attribute__((format(printf, 2, 3))) void appendf(std::string &out, const char *fmt, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    out += buf;
}

}  // namespace

BcmChip::~BcmChip() { detach(); }

// The kernel driver is opened for reading and writing, with no creation
// mode: anything else means the driver was changed by mistake.
int BcmChip::open(int flags, int mode) {
    if (flags == O_RDWR && mode == 0) return 0;
    char entry[128];
    std::snprintf(entry, sizeof entry, "open refused (%d): flags 0x%x mode 0%o", kEinval, static_cast<unsigned>(flags),
                  static_cast<unsigned>(mode));
    history_.add(entry);
    return kEinval;
}

bool BcmChip::attach(const std::string &path) {
    detach();
    OsaDeviceModel model{};
    model.ctx = this;
    model.ioctl = thunkIoctl;
    model.close = [](void *ctx) { ++static_cast<BcmChip *>(ctx)->closes_; };
    model.open = [](void *ctx, int flags, int mode) { return static_cast<BcmChip *>(ctx)->open(flags, mode); };
    if (osaPortDeviceAttach(path.c_str(), &model) != 0) return false;
    path_ = path;
    return true;
}

void BcmChip::detach() {
    if (path_.empty()) return;
    osaPortDeviceDetach(path_.c_str());
    path_.clear();
}

void BcmChip::failRequest(unsigned code, int result, int times) {
    failures_[code] = {result, times};
}

std::optional<BcmChip::VlanEntry> BcmChip::vlan(uint16_t id) const {
    auto it = state_.vlans.find(id);
    if (it == state_.vlans.end()) return std::nullopt;
    return it->second;
}

int BcmChip::requests(unsigned code) const {
    auto it = counts_.find(code);
    return it == counts_.end() ? 0 : it->second;
}

int BcmChip::handle(unsigned code, void *arg) {
    ++total_;
    ++counts_[code];
    auto f = failures_.find(code);
    if (f != failures_.end() && f->second.times != 0) {
        if (f->second.times > 0) --f->second.times;
        return f->second.result;
    }
    const char *why = nullptr;
    int result = 0;
    if (argSize(code) == 0)
        result = serve(code, nullptr, reinterpret_cast<uintptr_t>(arg), &why);
    else if (arg == nullptr)
        result = kEfault, why = "no argument record";
    else
        result = serve(code, static_cast<uint8_t *>(arg), 0, &why);
    if (why != nullptr) {
        char entry[128];
        std::snprintf(entry, sizeof entry, "request 0x%08x refused (%d): %s", code, result, why);
        history_.add(entry);
    }
    return result;
}

// Every field is held to its definition and to what the kernel driver
// takes: reserved bytes zero, ports 0-4, VLAN ids 0-4095, maps within the
// five ports, switches 0 or 1, a tag set with PRI and CFI 0, a trust mode
// 0-4, a scheduling mode 0-3, a CoS 0-7 on a queue 0-3. The kernel
// driver refuses anything else with -EINVAL, so a shifted or stray field
// shows as a refusal (noted in the history) rather than as chip state.
int BcmChip::serve(unsigned code, uint8_t *a, uintptr_t value, const char **why) {
    auto refuse = [why](const char *reason) {
        *why = reason;
        return kEinval;
    };
    auto validPort = [](unsigned p) { return p < static_cast<unsigned>(kPorts); };
    auto validMap = [](unsigned m) { return (m & ~static_cast<unsigned>(kAllPorts)) == 0; };
    switch (code) {
        case kVlanEnable:
        case kVlanDisable:
            if (value != 0) return refuse("argument not 0");
            state_.vlanEnabled = code == kVlanEnable;
            return 0;
        case kLinkStatus:
            if (!validPort(static_cast<unsigned>(value))) return refuse("port out of range");
            return port(static_cast<int>(value)).link;
        case kQosEnable:
        case kPauseFrames:
            if (le32(a, 0) > 1) return refuse("switch not 0 or 1");
            (code == kQosEnable ? state_.qosEnable : state_.pauseFrames) = le32(a, 0);
            return 0;
        case kVlanClear: {
            uint16_t vid = le16(a, 0);
            if (vid > kMaxVlanId) return refuse("VLAN id out of range");
            if (!zeros(a, 2, 5)) return refuse("reserved bytes not 0");
            state_.vlans.erase(vid);
            return 0;
        }
        case kVlanEntryAdd: {
            uint16_t vid = le16(a, 0);
            if (vid > kMaxVlanId) return refuse("VLAN id out of range");
            if (!validMap(le16(a, 2)) || !validMap(le16(a, 4))) return refuse("map beyond the five ports");
            if (a[6] != 0) return refuse("last byte not 0");
            state_.vlans[vid] = {le16(a, 2), le16(a, 4)};
            return 0;
        }
        case kVlanFwdQuery:
        case kVlanUntagQuery: {
            uint16_t vid = le16(a, 0);
            unsigned p = le16(a, 2);
            if (vid > kMaxVlanId) return refuse("VLAN id out of range");
            if (!validPort(p)) return refuse("port out of range");
            if (a[4] != 0) return refuse("reserved byte not 0");
            auto it = state_.vlans.find(vid);
            if (it == state_.vlans.end()) return 0;
            uint16_t map = code == kVlanFwdQuery ? it->second.fwdMap : it->second.untagMap;
            return (map & bit(p)) != 0 ? 1 : 0;
        }
        default:
            break;
    }

    // Everything else addresses one port in its first two bytes.
    const unsigned p = le16(a, 0);
    if (!validPort(p)) return refuse("port out of range");
    Port &pt = port(static_cast<int>(p));
    switch (code) {
        case kPortVlanQuery:
        case kPortVlanAdd:
        case kPortVlanDelete: {
            unsigned m = le16(a, 2);
            if (!validPort(m)) return refuse("member port out of range");
            if (code == kPortVlanQuery) return (pt.fwdMap & bit(m)) != 0 ? 1 : 0;
            if (code == kPortVlanAdd)
                pt.fwdMap = static_cast<uint16_t>(pt.fwdMap | bit(m));
            else
                pt.fwdMap = static_cast<uint16_t>(pt.fwdMap & ~bit(m));
            return 0;
        }
        case kTagGet:
            put16(a, 2, pt.tag.vid);
            a[4] = pt.tag.pri;
            a[5] = pt.tag.cfi;
            return 0;
        case kTagSet:
            if (le16(a, 2) > kMaxVlanId) return refuse("VID out of range");
            if (a[4] != 0 || a[5] != 0) return refuse("PRI or CFI not 0");
            pt.tag = {le16(a, 2), a[4], a[5]};
            return 0;
        case kNon8021q:
            if (le32(a, 2) > 1) return refuse("state not 0 or 1");
            pt.non8021q = le32(a, 2);
            return 0;
        case kTrustMode:
            if (le32(a, 2) > kMaxTrustMode) return refuse("trust mode out of range");
            pt.trustMode = le32(a, 2);
            return 0;
        case kPortStats:
            std::memcpy(a + 2, pt.counters.data(), pt.counters.size());
            return 0;
        case kQueueSched:
            if (a[2] != 0) return refuse("reserved byte not 0");
            if (a[3] > kMaxSchedMode) return refuse("scheduling mode out of range");
            pt.sched = {a[3], {a[4], a[5], a[6], a[7]}};
            return 0;
        case kRateLimit:
            if (a[2] > 1) return refuse("action not 0 or 1");
            pt.rate = {a[2], le32(a, 3)};
            return 0;
        case kCosQueueMap:
            if (a[3] != 0) return refuse("reserved byte not 0");
            if (a[2] > kMaxCos || a[4] > kMaxQueue) return refuse("CoS or queue out of range");
            pt.cosQueue[a[2]] = a[4];
            return 0;
        default:
            *why = "unknown request";
            return kEnotty;
    }
}

std::string BcmChip::describe() const {
    std::string out;
    appendf(out, "vlan mode: %s\n", state_.vlanEnabled ? "enabled" : "disabled");
    appendf(out, "qos: %u\npause frames: %u\n", state_.qosEnable, state_.pauseFrames);
    appendf(out, "vlan table: %zu entries\n", state_.vlans.size());
    for (const auto &[vid, e] : state_.vlans)
        appendf(out, "  vlan %u: fwd 0x%02x untag 0x%02x\n", unsigned{vid}, unsigned{e.fwdMap},
                unsigned{e.untagMap});
    for (int n = 0; n < kPorts; ++n) {
        const Port &p = port(n);
        appendf(out,
                "port %d: tag vid %u pri %u cfi %u, fwd 0x%02x, non8021q %u, trust %u, link %d\n", n,
                unsigned{p.tag.vid}, unsigned{p.tag.pri}, unsigned{p.tag.cfi}, unsigned{p.fwdMap},
                p.non8021q, p.trustMode, p.link);
        appendf(out, "  sched mode %u weights %u/%u/%u/%u, rate %s %u kbps", unsigned{p.sched.mode},
                unsigned{p.sched.weight[0]}, unsigned{p.sched.weight[1]},
                unsigned{p.sched.weight[2]}, unsigned{p.sched.weight[3]},
                p.rate.action != 0 ? "on" : "off", p.rate.kbps);
        out += ", cos";
        if (p.cosQueue.empty()) out += " -";
        for (const auto &[cos, queue] : p.cosQueue)
            appendf(out, " %u->%u", unsigned{cos}, unsigned{queue});
        out += "\n";
    }
    return out;
}

}  // namespace swsim
