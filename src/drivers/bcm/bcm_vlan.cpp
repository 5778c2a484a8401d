// SPDX-License-Identifier: Apache-2.0
// VLAN programming of the BCM chip: 802.1Q mode, VLAN table entries, PVIDs
// and untagged-frame handling per port, port-based VLANs and snooping.
#include "drivers/bcm/bcm.h"
#include "drivers/bcm/bcm_ioctl.h"
#include "portvlan/vlan_index.h"
#include "swmgr/swmgr.h"

namespace {
using namespace swmgr::bcm;

int portPair(unsigned code, int port, int member) {
    PortPairRec rec{};
    putLe16(rec.port, static_cast<uint32_t>(port));
    putLe16(rec.member, static_cast<uint32_t>(member));
    return request(code, rec);
}

// Port-based VLAN walks stop after the highest set bit of the map.
bool bitsLeft(uint32_t map, int bit) { return bit < 32 && (map >> bit) != 0; }

// Ports 0 to 3 always reach the CPU port; the CPU port itself reaches port 0.
int extraPort(int port) { return port >= 0 && port <= 3 ? 4 : 0; }

int applyOne(SwitchVlan *vlan) {
    int cpuPort = vlan->inSwitchOnly != 0 ? 0 : bcmCPUPortNumberGet(vlan);
    int r = bcmVlanMembershipConfigure(vlan->vlanId, vlan->fwdMap, vlan->untagMap, cpuPort);
    if (r < 0)
        SWMGR_LOG_AS(swVlanStrGet(vlan), SW_LOG_ERR, "bcmVlanMembershipSet",
                     "Failed to configure membership for vlan%d\n", vlan->vlanId);
    return r;
}
}  // namespace

extern "C" int bcmVlanEnable(int32_t enable) {
    SWMGR_LOG("", SW_LOG_INFO, "VLAN Enable status %d\n", enable);
    if (enable == 0) return requestValue(kIocVlanDisable, 0);
    if (enable == 1) return requestValue(kIocVlanEnable, 0);
    return -1;
}

extern "C" int bcmVlanMembershipClear(int vlanId) {
    VlanIdRec rec{};
    putLe16(rec.vlanId, static_cast<uint32_t>(vlanId));
    int r = request(kIocVlanClear, rec);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "ERROR#%d clearing 802.1Q VLAN #%u\n", r,
                  static_cast<unsigned>(vlanId));
        return r;
    }
    return 0;
}

extern "C" int bcmVlanMembershipConfigure(int vlanId, uint32_t fwdMap, uint32_t untagMap,
                                          int cpuPort) {
    SWMGR_LOG("", SW_LOG_TRACE, "Clearing VLAN Membership %d\n", vlanId);
    // The entry write replaces whatever is left, so a failed clear does not
    // stop it.
    (void)bcmVlanMembershipClear(vlanId);
    // An empty VLAN stays empty: the CPU joins only VLANs with members.
    if (fwdMap != 0) fwdMap |= portBit(cpuPort);
    SWMGR_LOG("", SW_LOG_RESULT, "Modifying untag value to %d and fwdMap to %d for vlanid: %d \n",
              static_cast<int>(untagMap), static_cast<int>(fwdMap), vlanId);
    VlanEntryRec rec{};
    putLe16(rec.vlanId, static_cast<uint32_t>(vlanId));
    putLe16(rec.fwdMap, fwdMap);
    putLe16(rec.untagMap, untagMap);
    int r = request(kIocVlanEntryAdd, rec);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "ERROR#%d adding 802.1Q VLAN entry\n", r);
        return r;
    }
    return 0;
}

extern "C" int bcmVlanMembershipSet(Switch *sw, SwitchVlan *vlan) {
    if (vlan != nullptr) return applyOne(vlan);
    if (sw == nullptr) return SW_EINVAL;
    for (auto *v : listEntries<SwitchVlan>(sw->vlanList)) {
        int r = applyOne(v);
        if (r < 0) return r;
    }
    return 0;
}

extern "C" int bcmVlanMembershipUpdate(Switch *sw, SwitchVlan *vlan) {
    if (sw == nullptr || vlan == nullptr) return SW_EINVAL;
    const int32_t id = vlan->vlanId;
    const uint32_t fwdMap = vlan->fwdMap;
    const uint32_t untagMap = vlan->untagMap;
    // A port sends untagged frames of one VLAN only: the last one updated.
    for (auto *v : swmgr::vlanIndexWalk(sw)) {
        if (v->vlanId == id) {
            v->untagMap = untagMap;
            v->fwdMap = fwdMap;
        } else {
            v->untagMap &= untagMap ^ kAllPortsMap;
        }
    }
    return 0;
}

extern "C" int bcmSwitchPortPVIDSet(int port, int vid) {
    TagRec rec{};
    putLe16(rec.port, static_cast<uint32_t>(port));
    putLe16(rec.vid, static_cast<uint32_t>(vid));
    int r = request(kIocTagSet, rec);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "setting 802.1Q default tag for [%u %u\n] failed. \n",
                  static_cast<unsigned>(port), static_cast<unsigned>(vid));
        return r;
    }
    return 0;
}

extern "C" int bcmNon8021qFramesStateChange(int port, int state) {
    SWMGR_LOG("", SW_LOG_INFO, "Configuring non8021qFramesStatus to (%d) for port (%d) \n", state,
              port);
    PortValueRec rec{};
    putLe16(rec.port, static_cast<uint32_t>(port));
    putLe32(rec.value, static_cast<uint32_t>(state));
    int r = request(kIocNon8021q, rec);
    if (r < 0)
        SWMGR_LOG("", SW_LOG_ERR, "setting non8021q configuration for #%u failed\n",
                  static_cast<unsigned>(port));
    return r;
}

extern "C" int bcmSwitchPortConfigure(Switch *sw, SwitchPort *port) {
    if (sw == nullptr) return SW_EINVAL;
    uint32_t untagged = 0;
    // The walk's trace lines are kept only in developer mode; their text is
    // the same for every step, so it is formatted once.
    const char *const swText = swMgrDevDebug ? switchStrGet(sw) : "";
    // Without those lines a VLAN untagged on none of the ports changes
    // nothing, and after membership updates that is most of them.
    uint32_t portsMap = 0;
    for (auto *p : listEntries<SwitchPort>(sw->portList)) portsMap |= portBit(p->portNumber);
    for (auto *v : swmgr::vlanIndexWalk(sw)) {
        if (!swMgrDevDebug && (v->untagMap & portsMap) == 0) continue;
        for (auto *p : listEntries<SwitchPort>(sw->portList)) {
            if ((v->untagMap & portBit(p->portNumber)) != 0) {
                SWMGR_LOG(swText, SW_LOG_TRACE, "Updating PVID of port %d to %d\n",
                          static_cast<int>(p->seqNo), v->vlanId);
                p->PVID = v->vlanId;
                untagged |= portBit(p->portNumber);
            }
            SWMGR_LOG(swText, SW_LOG_TRACE,
                      "After port (%d) iteration non8021qFramesStatus is %d \n", p->portNumber,
                      static_cast<int>(untagged));
        }
        SWMGR_LOG(swText, SW_LOG_TRACE,
                  "After vlan iteration (%d) map (%d:%d) non8021qFramesStatus is %d \n", v->vlanId,
                  static_cast<int>(v->fwdMap), static_cast<int>(v->untagMap),
                  static_cast<int>(untagged));
    }
    SWMGR_LOG(swText, SW_LOG_TRACE, "New non8021qFramesStatus is %d \n",
              static_cast<int>(untagged));

    // Once the switch has a VLAN, every port's PVID may have moved, so every
    // port is programmed whatever record was given.
    const bool allPorts = port == nullptr || osaListFirst(&sw->vlanList) != nullptr;
    for (auto *p : listEntries<SwitchPort>(sw->portList)) {
        if (!allPorts && p != port) continue;
        p->non8021qFramesStatus = (untagged & portBit(p->portNumber)) == 0 ? 1 : 0;
        int r = bcmSwitchPortPVIDSet(p->portNumber, p->PVID);
        if (r < 0) {
            SWMGR_LOG(swPortStrGet(p), SW_LOG_ERR, "Failed to set PVID for port %d\n", p->portNumber);
            return r;
        }
        r = bcmNon8021qFramesStateChange(p->portNumber, p->non8021qFramesStatus);
        if (r < 0) {
            SWMGR_LOG(swPortStrGet(p), SW_LOG_ERR, "Failed to set Non-8021q Frame status for port %d\n",
                      p->portNumber);
            return r;
        }
    }
    return 0;
}

extern "C" int bcmPortVlanReset(int port) {
    SWMGR_LOG("", SW_LOG_INFO, "Resetting port VLAN for #%u\n", static_cast<unsigned>(port));
    // A failed query counts as present: deleting an absent member is harmless.
    for (int m = 0; m < kChipPorts; ++m) {
        if (portPair(kIocPortVlanQuery, port, m) == 0) continue;
        int r = portPair(kIocPortVlanDelete, port, m);
        if (r < 0)
            SWMGR_LOG("", SW_LOG_ERR, "ERROR#%d deleting Port %d in forward map of port:%d\n", r, m,
                      port);
    }
    return 0;
}

extern "C" int bcmPortVlanConfig(void *unused, SwitchVlan *vlan) {
    (void)unused;
    if (vlan == nullptr) return SW_EINVAL;
    const uint32_t fwdMap = vlan->fwdMap;
    for (int p = 0; bitsLeft(fwdMap, p); ++p) {
        if ((fwdMap & portBit(p)) == 0) continue;
        bcmPortVlanReset(p);
        const uint32_t map = fwdMap | portBit(extraPort(p));
        SWMGR_LOG("", SW_LOG_INFO, "configuring Port VLAN #%u: [PMAP:%x FWD %x]\n",
                  static_cast<unsigned>(p), map, fwdMap);
        for (int m = 0; bitsLeft(map, m); ++m) {
            if ((map & portBit(m)) == 0) continue;
            int r = portPair(kIocPortVlanAdd, p, m);
            if (r < 0) {
                SWMGR_LOG("", SW_LOG_ERR, "ERROR#%d configuring Port VLAN #%u: [FWD %x]\n", r,
                          static_cast<unsigned>(p), map);
                return r;
            }
        }
    }
    return 0;
}

extern "C" int bcmPortVlanDeConfig(void *unused, SwitchVlan *vlan) {
    (void)unused;
    if (vlan == nullptr) return SW_EINVAL;
    const uint32_t fwdMap = vlan->fwdMap;
    for (int p = 0; bitsLeft(fwdMap, p); ++p) {
        if ((fwdMap & portBit(p)) == 0) continue;
        const uint32_t map = fwdMap | portBit(extraPort(p));
        SWMGR_LOG("", SW_LOG_INFO, "De-configuring Port VLAN #%u: [PMAP:%x FWD %x]\n",
                  static_cast<unsigned>(p), map, fwdMap);
        for (int m = 0; bitsLeft(map, m); ++m) {
            if ((map & portBit(m)) == 0) continue;
            int r = portPair(kIocPortVlanDelete, p, m);
            if (r < 0) {
                SWMGR_LOG("", SW_LOG_ERR, "ERROR#%d de-configuring Port VLAN #%u: [FWD %x]\n", r,
                          static_cast<unsigned>(p), map);
                return r;
            }
        }
        // Best effort: the port-based VLAN is gone either way.
        (void)bcmDefPortVlanConfig(p);
    }
    return 0;
}

extern "C" int bcmDefPortVlanConfig(int port) {
    const uint32_t map = port >= 0 && port <= 3 ? kAllPortsMap : 0x01u;
    SWMGR_LOG("", SW_LOG_INFO, "configuring default port VLAN #%u: [FWD %x]\n",
              static_cast<unsigned>(port), map);
    // Members above the map's highest bit are left as they are. Both default
    // maps run unbroken from member 0 up, so every member the walk meets is
    // wanted: it only ever adds, and no member is ever taken out.
    static_assert((kAllPortsMap & (kAllPortsMap + 1)) == 0, "a default map is a run of members from 0");
    for (int m = 0; bitsLeft(map, m); ++m) {
        if (portPair(kIocPortVlanQuery, port, m) != 0) continue;
        int r = portPair(kIocPortVlanAdd, port, m);
        if (r < 0) {
            SWMGR_LOG("", SW_LOG_ERR, "ERROR#%d adding Port %d in forward map of port:%d\n", r, m, port);
            return r;
        }
    }
    return 0;
}

extern "C" int bcmIGMPSnoopSet(Switch *sw) {
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Configuring IGMP Snooping in the switch \n");
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Successfully configured IGMP in the switch. \n");
    return 0;
}

extern "C" int bcmMLDSnoopSet(Switch *sw) {
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Configuring MLD Snooping in the switch \n");
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Successfully configured MLD in the switch. \n");
    return 0;
}
