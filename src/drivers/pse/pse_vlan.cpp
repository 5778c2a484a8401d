// SPDX-License-Identifier: Apache-2.0
// VLAN membership on the packet switch engine and the CPU's ARL entry for
// each VLAN.
#include <cstring>

#include "common/list.h"
#include "common/text.h"
#include "drivers/pse/pse.h"
#include "drivers/pse/pse_internal.h"
#include "swmgr/swmgr.h"

namespace {

// The engine's CPU port: part of every non-empty membership.
constexpr uint32_t kCpuPortBit = 0x4;
constexpr uint32_t kWanZone = 2;

// fwdMap numbers the lower-level ports from 1 at bit 0.
bool inFwdMap(uint32_t fwdMap, int lowerPort) {
    return lowerPort >= 1 && lowerPort <= 32 && ((fwdMap >> (lowerPort - 1)) & 1u) != 0;
}

bool joins(const SwitchPort *port, uint32_t fwdMap) {
    auto *ports = const_cast<OsaList *>(&port->mappedPorts);
    for (auto *m : swmgr::listEntries<SwitchPortMapEntry>(*ports)) {
        if (m->port != nullptr && inFwdMap(fwdMap, m->port->portNumber)) return true;
    }
    return false;
}

// The engine's shifter only sees the low five bits of the port number.
uint32_t portBit(int portNumber) { return 1u << (static_cast<uint32_t>(portNumber) & 31u); }

const char *textOr(const char *s) { return s != nullptr ? s : ""; }

}  // namespace

extern "C" int pseVlanMembershipSet(Switch *sw, SwitchVlan *vlan) {
    if (vlan == nullptr || sw == nullptr) return SW_EINVAL;
    uint32_t etagMap = 0;
    uint32_t mbMap = 0;
    int isWan = 0;
    char macAddr[PSE_MAC_BUF_LEN];
    std::memset(macAddr, 0, sizeof macAddr);
    // The record's text fields need not be terminated.
    char ifName[sizeof vlan->interfaceName + 1] = {};
    std::memcpy(ifName, vlan->interfaceName, sizeof vlan->interfaceName);

    for (auto *port : swmgr::listEntries<SwitchPort>(sw->portList)) {
        if (!joins(port, vlan->fwdMap)) continue;
        SWMGR_LOG("", SW_LOG_TRACE, "Adding port(%d) to membership. \n", port->portNumber);

        uint32_t zone = 0;
        if (swMgrZoneTypeGet(ifName, &zone) < 0) {
            // Reported as success: the VLAN stays as it was on the engine.
            SWMGR_LOG("", SW_LOG_ERR, "Failed to get the zone info of %.*s\n",
                      static_cast<int>(swmgr::fieldLen(vlan->LogicalIfName)), vlan->LogicalIfName);
            return 0;
        }
        int rc = switchMacAddressByIfNameGet(ifName, macAddr);
        if (rc < 0) {
            SWMGR_LOG("", SW_LOG_ERR, "Failed to get the MAC address of %s\n", "");
            return rc;
        }
        etagMap |= portBit(port->portNumber) | kCpuPortBit;
        mbMap |= portBit(port->portNumber) | kCpuPortBit;
        isWan = zone == kWanZone ? 1 : 0;
    }

    SWMGR_LOG("", SW_LOG_TRACE, "Configuration: etagMap %d, mbMap %d, isWan %d, macAddr %s\n",
              static_cast<int>(etagMap), static_cast<int>(mbMap), isWan, macAddr);

    int status = pseVlanMembershipConfigure(vlan->vlanIndex, isWan, vlan->vlanId, etagMap, mbMap,
                                            macAddr);
    if (status < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to configure PSE membership for VLAN.\n");
        return status;
    }
    if (etagMap == 0 && mbMap == 0) {
        status = pseCpuARLTableEntryDelete(vlan->vlanId, macAddr);
        if (status < 0) {
            SWMGR_LOG("", SW_LOG_ERR, "Failed to delete CPU ARL Entry for VLAN.\n");
            return status;
        }
    } else {
        status = pseCpuARLTableEntryAdd(vlan->vlanId, macAddr);
        if (status < 0) {
            SWMGR_LOG("", SW_LOG_ERR, "Failed to add CPU ARL Entry for VLAN.\n");
            return status;
        }
    }
    return 0;
}

extern "C" int pseVlanMembershipConfigure(int vlanIndex, int isWan, int vlanId, uint32_t etagMap,
                                          uint32_t mbMap, const char *macAddr) {
    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "%s %d %d 0x%x 0x%x %d %s 1", "vlan_table_func edit", vlanIndex, isWan,
                      etagMap, mbMap, vlanId, textOr(macAddr));
    return swmgr::pse::engineCommandRun(__func__, cmd);
}

extern "C" int pseCpuARLTableEntryAdd(int vlanId, const char *macAddr) {
    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "arl_table_func add %s %d 0x4 0x1", textOr(macAddr), vlanId);
    return swmgr::pse::engineCommandRun(__func__, cmd);
}

extern "C" int pseCpuARLTableEntryDelete(int vlanId, const char *macAddr) {
    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "arl_table_func del %s %d", textOr(macAddr), vlanId);
    return swmgr::pse::engineCommandRun(__func__, cmd);
}
