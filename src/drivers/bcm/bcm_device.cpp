// SPDX-License-Identifier: Apache-2.0
// Attaching the BCM driver to a switch record, its command entry, and the
// read-only operations and console dumps of the chip.
#include <cstdio>
#include <cstring>

#include "drivers/bcm/bcm.h"
#include "drivers/bcm/bcm_ioctl.h"
#include "swmgr/swmgr.h"

extern "C" {
int fd = 0;
}

namespace {
using namespace swmgr::bcm;

bool isBcm(const Switch *sw) {
    return sw != nullptr && std::strncmp(sw->switchName, "BCM", sizeof sw->switchName) == 0;
}
constexpr int kOpenReadWrite = 2;

// A command the driver serves: its progress line, the exact size of its
// argument record and its handler.
struct Served {
    int cmd;
    const char *progress;
    int argLen;
    int (*handler)(Switch *sw, void *arg);
};
constexpr Served kServed[] = {
    {SW_CMD_VLAN_ENABLE, "Processing vlan enable update request (%d)\n", SW_VLAN_ENABLE_ARG_LEN,
     [](Switch *, void *arg) -> int {
         if (arg == nullptr) return SW_EINVAL;
         int32_t enable;
         std::memcpy(&enable, arg, sizeof enable);
         return bcmVlanEnable(enable);
     }},
    {SW_CMD_VLAN_MEMBERSHIP_UPDATE, "Processing vlan membership update request (%d)\n",
     SW_VLAN_REC_LEN,
     [](Switch *sw, void *arg) { return bcmVlanMembershipUpdate(sw, static_cast<SwitchVlan *>(arg)); }},
    {SW_CMD_VLAN_MEMBERSHIP_APPLY, "Processing vlan membership apply request (%d)\n",
     SW_VLAN_REC_LEN,
     [](Switch *sw, void *arg) { return bcmVlanMembershipSet(sw, static_cast<SwitchVlan *>(arg)); }},
    {SW_CMD_PORT_CONFIG_SET, "Processing switch port configuration set request (%d)\n",
     SW_PORT_REC_LEN,
     [](Switch *sw, void *arg) { return bcmSwitchPortConfigure(sw, static_cast<SwitchPort *>(arg)); }},
};

// Answer of a membership query: only 0 and 1 are answers.
int membershipAnswer(unsigned code, int port, int vlanId) {
    VlanPortRec rec{};
    putLe16(rec.vlanId, static_cast<uint32_t>(vlanId));
    putLe16(rec.port, static_cast<uint32_t>(port));
    int r = request(code, rec);
    return r == 0 || r == 1 ? r : -1;
}

void printMap(const char *title, int (*query)(int, int), int vlanId) {
    std::printf("%s", title);
    for (unsigned p = 0; p < kChipPorts; ++p) {
        int in = query(static_cast<int>(p), vlanId);
        if (in == 1)
            std::printf("%u ", p);
        else if (in != 0)
            std::printf("%u? ", p);
    }
    std::printf("\n");
}
}  // namespace

extern "C" int bcmSwitchRegister(Switch *sw) {
    if (!isBcm(sw)) return SW_EINVAL;
    // Installed before the open and left in place when it fails: later
    // commands still reach the driver and fail on the bad descriptor.
    sw->switchConfigFunc = bcmSwitchConfig;
    fd = osaOpen(sw->switchDevice, kOpenReadWrite, 0);
    if (fd < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to open the device %s \n", sw->switchDevice);
        return SW_EINVAL;
    }
    return 0;
}

extern "C" int bcmSwitchUnRegister(Switch *sw) {
    if (!isBcm(sw)) return SW_EINVAL;
    sw->switchConfigFunc = nullptr;
    // Descriptor 0 is the "never opened" value and is not ours to close.
    if (fd >= 1) osaClose(fd);
    return 0;
}

extern "C" int bcmSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                               int *replyLen) {
    (void)reply;
    (void)replyLen;
    for (const Served &s : kServed) {
        if (s.cmd != cmd) continue;
        SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, s.progress, cmd);
        if (argLen != s.argLen) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "(%d) processing returned %d \n", cmd, SW_EINVAL);
            return SW_EINVAL;
        }
        return s.handler(sw, arg);
    }
    // Unknown commands are reported but succeed: the framework sends codes
    // that only other drivers serve.
    SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Invalid command (%d)\n", cmd);
    SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "(%d) processing returned %d \n", cmd, 0);
    return 0;
}

extern "C" int bcmCPUPortNumberGet(SwitchVlan *vlan) {
    if (vlan == nullptr) return 0;
    uint32_t zone = 0;
    if (swMgrZoneTypeGet(vlan->interfaceName, &zone) != 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to get the zone info of %s \n",
                  vlan->LogicalIfName);
        return 0;
    }
    return zone == 1 ? 4 : 0;
}

extern "C" int bcmLinkStatusGet(int port, uint32_t *status) {
    int r = requestValue(kIocLinkStatus, static_cast<uint32_t>(port) & 0xffffu);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to get the port%d link status\n", port);
        return -1;
    }
    SWMGR_LOG("", SW_LOG_INFO, "Link Status is %d\n", r);
    if (status != nullptr) *status = static_cast<uint32_t>(r);
    return 0;
}

extern "C" int bcmPortStatsGet(int port, void *stats) {
    if (stats == nullptr) return -1;
    // Byte by byte: the caller's buffer need not be aligned.
    auto *bytes = static_cast<uint8_t *>(stats);
    bytes[0] = static_cast<uint8_t>(port);
    bytes[1] = static_cast<uint8_t>(static_cast<uint32_t>(port) >> 8);
    if (osaIoctl(fd, kIocPortStats, stats) < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to get the statistics for Port%d \n", port);
        return -1;
    }
    return 0;
}

extern "C" int bcmIsPortInVlanFwdMap(int port, int vlanId) {
    return membershipAnswer(kIocVlanFwdQuery, port, vlanId);
}

extern "C" int bcmIsPortInVlanUntagMap(int port, int vlanId) {
    return membershipAnswer(kIocVlanUntagQuery, port, vlanId);
}

extern "C" int bcmTagsShow(void) {
    std::puts("802.1Q tags");
    std::puts("-----------");
    std::puts("PORT\tVID\tPRI\tCFI");
    int result = 0;
    for (unsigned p = 0; p < kChipPorts; ++p) {
        TagRec rec{};
        putLe16(rec.port, p);
        if (request(kIocTagGet, rec) < 0) {
            std::printf("%u\t ?\t?\t?", p);
            result = -1;
        } else {
            std::printf("%u \t%u \t%u \t%u\n", p, getLe16(rec.vid), unsigned{rec.pri},
                        unsigned{rec.cfi});
            result = 0;
        }
    }
    std::printf("\n");
    return result;
}

extern "C" int bcmVlanShow(void *unused, int vlanId) {
    (void)unused;
    std::puts("802.1Q VLAN");
    std::puts("-----------");
    std::printf("Vlan ID %u\n", static_cast<unsigned>(vlanId) & 0xffffu);
    printMap("\tForward map: \t", bcmIsPortInVlanFwdMap, vlanId);
    printMap("\tUntag map: \t", bcmIsPortInVlanUntagMap, vlanId);
    std::printf("\n");
    // The dump is diagnostics only; callers get -1 whatever the chip said.
    return -1;
}
