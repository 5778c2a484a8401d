/* SPDX-License-Identifier: Apache-2.0 */
// Requests of the kernel's switch device and their argument records.
//
// The records are the kernel driver's wire format: packed, little-endian,
// no padding, with 32-bit fields at odd offsets. Every multi-byte field is
// therefore a byte array written through putLe16/putLe32, so no field is
// ever stored through a misaligned pointer and the bytes are the same on
// any host.
#ifndef SWMGR_DRIVERS_BCM_BCM_IOCTL_H
#define SWMGR_DRIVERS_BCM_BCM_IOCTL_H

#include <cstddef>
#include <cstdint>

#include "common/list.h"
#include "drivers/bcm/bcm.h"
#include "swmgr/platform/osa.h"

namespace swmgr::bcm {

// MIPS request encoding: direction in the top three bits (1 none, 4 write,
// 6 read/write), argument size in the next 13, then type and number.
enum : unsigned { kDirNone = 1, kDirWrite = 4, kDirReadWrite = 6 };
constexpr unsigned kIocType = 0x53;  // 'S'
constexpr unsigned mipsIoc(unsigned dir, std::size_t size, unsigned nr) {
    return (dir << 29) | (static_cast<unsigned>(size) << 16) | (kIocType << 8) | nr;
}

// Request codes as the kernel driver defines them.
enum : unsigned {
    kIocVlanEnable = 0x20005301u,
    kIocVlanDisable = 0x20005302u,
    kIocPortVlanQuery = 0x80045303u,
    kIocPortVlanAdd = 0x80045304u,
    kIocPortVlanDelete = 0x80045305u,
    kIocTagGet = 0xc0065306u,
    kIocTagSet = 0x80065307u,
    kIocVlanFwdQuery = 0x80055308u,
    kIocVlanUntagQuery = 0x8005530bu,
    kIocVlanClear = 0x80055310u,
    kIocNon8021q = 0x80065311u,
    kIocVlanEntryAdd = 0x80075312u,
    kIocPortStats = 0xc0325314u,
    kIocLinkStatus = 0x20005319u,
    kIocTrustMode = 0xc006531eu,
    kIocQueueSched = 0xc008531fu,
    kIocQosEnable = 0xc0045320u,
    kIocPauseFrames = 0xc0045321u,
    kIocRateLimit = 0xc0075322u,
    kIocCosQueueMap = 0xc0055323u,
};

inline void putLe16(uint8_t (&f)[2], uint32_t v) {
    f[0] = static_cast<uint8_t>(v);
    f[1] = static_cast<uint8_t>(v >> 8);
}
inline void putLe32(uint8_t (&f)[4], uint32_t v) {
    f[0] = static_cast<uint8_t>(v);
    f[1] = static_cast<uint8_t>(v >> 8);
    f[2] = static_cast<uint8_t>(v >> 16);
    f[3] = static_cast<uint8_t>(v >> 24);
}
inline uint32_t getLe16(const uint8_t (&f)[2]) {
    return static_cast<uint32_t>(f[0]) | (static_cast<uint32_t>(f[1]) << 8);
}

// One port's forward map, one member in it.
struct PortPairRec {
    uint8_t port[2];
    uint8_t member[2];
};

// Default 802.1Q tag of a port.
struct TagRec {
    uint8_t port[2];
    uint8_t vid[2];
    uint8_t pri;
    uint8_t cfi;
};

// Membership query of one port in one VLAN.
struct VlanPortRec {
    uint8_t vlanId[2];
    uint8_t port[2];
    uint8_t reserved;
};

struct VlanIdRec {
    uint8_t vlanId[2];
    uint8_t reserved[3];
};

struct VlanEntryRec {
    uint8_t vlanId[2];
    uint8_t fwdMap[2];
    uint8_t untagMap[2];
    uint8_t zero;
};

// A per-port 32-bit value: non-802.1Q frames state or trust mode.
struct PortValueRec {
    uint8_t port[2];
    uint8_t value[4];
};

struct QueueSchedRec {
    uint8_t port[2];
    uint8_t reserved;
    uint8_t schedMode;
    uint8_t weight[4];
};

struct RateRec {
    uint8_t port[2];
    uint8_t action;
    uint8_t rate[4];
};

struct CosMapRec {
    uint8_t port[2];
    uint8_t cos;
    uint8_t zero;
    uint8_t queue;
};

struct U32Rec {
    uint8_t value[4];
};

static_assert(sizeof(PortPairRec) == 4 && offsetof(PortPairRec, member) == 2);
static_assert(sizeof(TagRec) == 6 && offsetof(TagRec, vid) == 2 && offsetof(TagRec, pri) == 4 &&
              offsetof(TagRec, cfi) == 5);
static_assert(sizeof(VlanPortRec) == 5 && offsetof(VlanPortRec, port) == 2 &&
              offsetof(VlanPortRec, reserved) == 4);
static_assert(sizeof(VlanIdRec) == 5 && offsetof(VlanIdRec, reserved) == 2);
static_assert(sizeof(VlanEntryRec) == 7 && offsetof(VlanEntryRec, fwdMap) == 2 &&
              offsetof(VlanEntryRec, untagMap) == 4 && offsetof(VlanEntryRec, zero) == 6);
static_assert(sizeof(PortValueRec) == 6 && offsetof(PortValueRec, value) == 2);
static_assert(sizeof(QueueSchedRec) == 8 && offsetof(QueueSchedRec, reserved) == 2 &&
              offsetof(QueueSchedRec, schedMode) == 3 && offsetof(QueueSchedRec, weight) == 4);
static_assert(sizeof(RateRec) == 7 && offsetof(RateRec, action) == 2 && offsetof(RateRec, rate) == 3);
static_assert(sizeof(CosMapRec) == 5 && offsetof(CosMapRec, cos) == 2 &&
              offsetof(CosMapRec, zero) == 3 && offsetof(CosMapRec, queue) == 4);
static_assert(sizeof(U32Rec) == 4);

// Each code carries its record's size; a record that drifts from the kernel's
// definition fails here rather than on the device.
static_assert(kIocVlanEnable == mipsIoc(kDirNone, 0, 0x01));
static_assert(kIocVlanDisable == mipsIoc(kDirNone, 0, 0x02));
static_assert(kIocPortVlanQuery == mipsIoc(kDirWrite, sizeof(PortPairRec), 0x03));
static_assert(kIocPortVlanAdd == mipsIoc(kDirWrite, sizeof(PortPairRec), 0x04));
static_assert(kIocPortVlanDelete == mipsIoc(kDirWrite, sizeof(PortPairRec), 0x05));
static_assert(kIocTagGet == mipsIoc(kDirReadWrite, sizeof(TagRec), 0x06));
static_assert(kIocTagSet == mipsIoc(kDirWrite, sizeof(TagRec), 0x07));
static_assert(kIocVlanFwdQuery == mipsIoc(kDirWrite, sizeof(VlanPortRec), 0x08));
static_assert(kIocVlanUntagQuery == mipsIoc(kDirWrite, sizeof(VlanPortRec), 0x0b));
static_assert(kIocVlanClear == mipsIoc(kDirWrite, sizeof(VlanIdRec), 0x10));
static_assert(kIocNon8021q == mipsIoc(kDirWrite, sizeof(PortValueRec), 0x11));
static_assert(kIocVlanEntryAdd == mipsIoc(kDirWrite, sizeof(VlanEntryRec), 0x12));
static_assert(kIocPortStats == mipsIoc(kDirReadWrite, BCM_PORT_STATS_LEN, 0x14));
static_assert(kIocLinkStatus == mipsIoc(kDirNone, 0, 0x19));
static_assert(kIocTrustMode == mipsIoc(kDirReadWrite, sizeof(PortValueRec), 0x1e));
static_assert(kIocQueueSched == mipsIoc(kDirReadWrite, sizeof(QueueSchedRec), 0x1f));
static_assert(kIocQosEnable == mipsIoc(kDirReadWrite, sizeof(U32Rec), 0x20));
static_assert(kIocPauseFrames == mipsIoc(kDirReadWrite, sizeof(U32Rec), 0x21));
static_assert(kIocRateLimit == mipsIoc(kDirReadWrite, sizeof(RateRec), 0x22));
static_assert(kIocCosQueueMap == mipsIoc(kDirReadWrite, sizeof(CosMapRec), 0x23));

// Every request goes to the one device descriptor of the process.
template <typename Rec>
inline int request(unsigned code, Rec &rec) {
    return osaIoctl(fd, code, &rec);
}
inline int requestValue(unsigned code, uint32_t value) {
    return osaIoctl(fd, code, reinterpret_cast<void *>(static_cast<uintptr_t>(value)));
}

// Bit n of a port bitmap; ports outside the 32-bit map have no bit.
inline uint32_t portBit(int32_t port) {
    return port >= 0 && port < 32 ? (1u << port) : 0u;
}

using swmgr::listEntries;

// The chip's ports, for the loops that run over all of them.
constexpr int kChipPorts = 5;
constexpr uint32_t kAllPortsMap = 0x1f;

}  // namespace swmgr::bcm

#endif
