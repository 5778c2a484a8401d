#include "bcm_chip.h"

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

bool BcmChip::attach(const std::string &path) {
    detach();
    OsaDeviceModel model{};
    model.ctx = this;
    model.ioctl = thunkIoctl;
    model.close = [](void *ctx) { ++static_cast<BcmChip *>(ctx)->closes_; };
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
    if (argSize(code) == 0) return serve(code, nullptr, reinterpret_cast<uintptr_t>(arg));
    if (arg == nullptr) return kEfault;
    return serve(code, static_cast<uint8_t *>(arg), 0);
}

// Reserved bytes must be zero: the kernel driver refuses a record with
// garbage where it expects nothing, which is how a shifted field shows.
int BcmChip::serve(unsigned code, uint8_t *a, uintptr_t value) {
    auto validPort = [](unsigned p) { return p < static_cast<unsigned>(kPorts); };
    switch (code) {
        case kVlanEnable:
        case kVlanDisable:
            state_.vlanEnabled = code == kVlanEnable;
            return 0;
        case kLinkStatus:
            if (!validPort(static_cast<unsigned>(value))) return kEinval;
            return port(static_cast<int>(value)).link;
        case kQosEnable:
            state_.qosEnable = le32(a, 0);
            return 0;
        case kPauseFrames:
            state_.pauseFrames = le32(a, 0);
            return 0;
        case kVlanClear: {
            uint16_t vid = le16(a, 0);
            if (vid > kMaxVlanId || !zeros(a, 2, 5)) return kEinval;
            state_.vlans.erase(vid);
            return 0;
        }
        case kVlanEntryAdd: {
            uint16_t vid = le16(a, 0);
            if (vid > kMaxVlanId || a[6] != 0) return kEinval;
            state_.vlans[vid] = {le16(a, 2), le16(a, 4)};
            return 0;
        }
        case kVlanFwdQuery:
        case kVlanUntagQuery: {
            uint16_t vid = le16(a, 0);
            unsigned p = le16(a, 2);
            if (vid > kMaxVlanId || !validPort(p) || a[4] != 0) return kEinval;
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
    if (!validPort(p)) return kEinval;
    Port &pt = port(static_cast<int>(p));
    switch (code) {
        case kPortVlanQuery:
        case kPortVlanAdd:
        case kPortVlanDelete: {
            unsigned m = le16(a, 2);
            if (!validPort(m)) return kEinval;
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
            pt.tag = {le16(a, 2), a[4], a[5]};
            return 0;
        case kNon8021q:
            pt.non8021q = le32(a, 2);
            return 0;
        case kTrustMode:
            pt.trustMode = le32(a, 2);
            return 0;
        case kPortStats:
            std::memcpy(a + 2, pt.counters.data(), pt.counters.size());
            return 0;
        case kQueueSched:
            if (a[2] != 0) return kEinval;
            pt.sched = {a[3], {a[4], a[5], a[6], a[7]}};
            return 0;
        case kRateLimit:
            pt.rate = {a[2], le32(a, 3)};
            return 0;
        case kCosQueueMap:
            if (a[3] != 0) return kEinval;
            pt.cosQueue[a[2]] = a[4];
            return 0;
        default:
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
