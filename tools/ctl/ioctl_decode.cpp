// SPDX-License-Identifier: Apache-2.0
#include "ioctl_decode.h"

#include <cstddef>
#include <cstdio>

#include "drivers/bcm/bcm_ioctl.h"
#include "seam_tap.h"

namespace swctl {
namespace {

using namespace swmgr::bcm;

struct Field {
    const char *name;
    size_t offset;
    size_t size;  // 1, 2 or 4 bytes, little-endian
    bool hex;     // port maps read best in hexadecimal
};

struct Request {
    unsigned code;
    const char *name;
    std::vector<Field> fields;
};

const std::vector<Request> &requests() {
    static const std::vector<Request> table = {
        {kIocVlanEnable, "vlan-enable", {}},
        {kIocVlanDisable, "vlan-disable", {}},
        {kIocPortVlanQuery, "port-vlan-query", {{"port", offsetof(PortPairRec, port), 2, false}, {"member", offsetof(PortPairRec, member), 2, false}}},
        {kIocPortVlanAdd, "port-vlan-add", {{"port", offsetof(PortPairRec, port), 2, false}, {"member", offsetof(PortPairRec, member), 2, false}}},
        {kIocPortVlanDelete, "port-vlan-delete", {{"port", offsetof(PortPairRec, port), 2, false}, {"member", offsetof(PortPairRec, member), 2, false}}},
        {kIocTagGet, "tag-get", {{"port", offsetof(TagRec, port), 2, false}}},
        {kIocTagSet, "tag-set", {{"port", offsetof(TagRec, port), 2, false}, {"vid", offsetof(TagRec, vid), 2, false}, {"pri", offsetof(TagRec, pri), 1, false}, {"cfi", offsetof(TagRec, cfi), 1, false}}},
        {kIocVlanFwdQuery, "vlan-fwd-query", {{"vlanId", offsetof(VlanPortRec, vlanId), 2, false}, {"port", offsetof(VlanPortRec, port), 2, false}}},
        {kIocVlanUntagQuery, "vlan-untag-query", {{"vlanId", offsetof(VlanPortRec, vlanId), 2, false}, {"port", offsetof(VlanPortRec, port), 2, false}}},
        {kIocVlanClear, "vlan-clear", {{"vlanId", offsetof(VlanIdRec, vlanId), 2, false}}},
        {kIocNon8021q, "non8021q-state", {{"port", offsetof(PortValueRec, port), 2, false}, {"state", offsetof(PortValueRec, value), 4, false}}},
        {kIocVlanEntryAdd, "vlan-entry-add", {{"vlanId", offsetof(VlanEntryRec, vlanId), 2, false}, {"fwdMap", offsetof(VlanEntryRec, fwdMap), 2, true}, {"untagMap", offsetof(VlanEntryRec, untagMap), 2, true}}},
        {kIocPortStats, "port-stats", {{"port", 0, 2, false}}},
        {kIocLinkStatus, "link-status", {}},
        {kIocTrustMode, "trust-mode", {{"port", offsetof(PortValueRec, port), 2, false}, {"mode", offsetof(PortValueRec, value), 4, false}}},
        {kIocQueueSched, "queue-sched", {{"port", offsetof(QueueSchedRec, port), 2, false}, {"mode", offsetof(QueueSchedRec, schedMode), 1, false}, {"weight1", offsetof(QueueSchedRec, weight), 1, false}, {"weight2", offsetof(QueueSchedRec, weight) + 1, 1, false}, {"weight3", offsetof(QueueSchedRec, weight) + 2, 1, false}, {"weight4", offsetof(QueueSchedRec, weight) + 3, 1, false}}},
        {kIocQosEnable, "qos-enable", {{"value", 0, 4, false}}},
        {kIocPauseFrames, "pause-frames", {{"value", 0, 4, false}}},
        {kIocRateLimit, "rate-limit", {{"port", offsetof(RateRec, port), 2, false}, {"action", offsetof(RateRec, action), 1, false}, {"kbps", offsetof(RateRec, rate), 4, false}}},
        {kIocCosQueueMap, "cos-queue-map", {{"port", offsetof(CosMapRec, port), 2, false}, {"cos", offsetof(CosMapRec, cos), 1, false}, {"queue", offsetof(CosMapRec, queue), 1, false}}},
    };
    return table;
}

std::string hex(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

}  // namespace

DecodedIoctl decodeIoctl(unsigned request, const std::vector<uint8_t> &arg, uintptr_t value) {
    DecodedIoctl d;
    if (request == swtool::kSiocgifhwaddr) {
        d.name = "get-hw-address";
        std::string name(arg.begin(), arg.end());
        d.fields["interface"] = name.substr(0, name.find('\0'));
        return d;
    }
    for (const auto &r : requests()) {
        if (r.code != request) continue;
        d.name = r.name;
        if (request == kIocLinkStatus) d.fields["port"] = static_cast<uint64_t>(value & 0xffffu);
        for (const auto &f : r.fields) {
            if (f.offset + f.size > arg.size()) continue;
            uint64_t v = 0;
            for (size_t i = 0; i < f.size; ++i) v |= static_cast<uint64_t>(arg[f.offset + i]) << (8 * i);
            if (f.hex)
                d.fields[f.name] = hex(v);
            else
                d.fields[f.name] = v;
        }
        return d;
    }
    d.name = "request " + hex(request);
    std::string bytes;
    for (uint8_t b : arg) {
        char two[4];
        std::snprintf(two, sizeof two, "%02x", b);
        bytes += two;
    }
    d.fields["bytes"] = bytes;
    return d;
}

}  // namespace swctl
