// SPDX-License-Identifier: Apache-2.0
// VLAN records: one per VLAN row on every switch, their index, and the
// driver commands for membership, apply, disable and the port-based VLAN.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/list.h"
#include "common/text.h"
#include "swmgr/portvlan.h"
#include "portvlan/vlan_index.h"
#include "swmgr/swmgr.h"
#include "switch/command.h"

namespace {

// The first VLAN added gets index 4; a failed add consumes none.
int vlanIndexCounter = 3;

const char *swNameOf(const SwitchVlan *vlan) {
    return vlan != nullptr && vlan->sw != nullptr ? vlan->sw->switchName : "";
}

int vlanCommandSend(SwitchVlan *vlan, int cmd) {
    return swmgr::switchCommandSend(vlan->sw, cmd, vlan, SW_VLAN_REC_LEN);
}

// While the VLAN layer programs a switch itself, its driver must not pass
// the same commands on to the lower-level switches: each gets its own.
class ForwardingPaused {
public:
    explicit ForwardingPaused(Switch *sw) : sw_(sw) { sw_->lowerLvlForward = 0; }
    ~ForwardingPaused() { sw_->lowerLvlForward = 1; }
    ForwardingPaused(const ForwardingPaused &) = delete;
    ForwardingPaused &operator=(const ForwardingPaused &) = delete;

private:
    Switch *sw_;
};

// The configuration's parent interface name may fill its field.
struct IfName {
    explicit IfName(const SwitchVlanConf *conf) { swmgr::copyText(text, conf->interfaceName); }
    char text[sizeof(SwitchVlanConf::interfaceName) + 1];
};

}  // namespace

extern "C" int switchNextVlanIndexGet(void) { return vlanIndexCounter + 1; }

extern "C" int switchVlanIndexIncr(void) {
    ++vlanIndexCounter;
    return 0;
}

extern "C" int switchVlanMembershipUpdate(SwitchVlan *vlan) {
    if (vlan == nullptr) return SW_EINVAL;
    int r = vlanCommandSend(vlan, SW_CMD_VLAN_MEMBERSHIP_UPDATE);
    if (r < 0)
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to update vlan%d membership in %s\n",
                  vlan->vlanId, swNameOf(vlan));
    return r;
}

extern "C" int switchPortVlanConfigure(SwitchVlan *vlan, int op) {
    if (vlan == nullptr) return SW_EINVAL;
    if (vlan->inSwitchOnly == 0) return 0;
    int cmd;
    if (op == SW_CMD_VLAN_ADD)
        cmd = SW_CMD_PORT_VLAN_CONFIG;
    else if (op == SW_CMD_VLAN_DELETE)
        cmd = SW_CMD_PORT_VLAN_REMOVE;
    else
        return -1;
    if (vlanCommandSend(vlan, cmd) < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to configure port vlan for ID=%d\n",
                  vlan->vlanId);
        return -1;
    }
    return 0;
}

extern "C" int switchVlanCfgApply(Switch *sw, SwitchVlan *vlan) {
    if (sw == nullptr) return SW_EINVAL;
    int r = switchPortVlanInfoConfigure(sw, nullptr);
    if (r < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to configure ports in %s\n", sw->switchName);
        return r;
    }
    // Only the given record is applied, and only while it is listed here.
    if (!swmgr::vlanIndexListed(sw, vlan)) return 0;
    SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_RESULT, "Applying VLAN Configuration.\n");
    r = vlanCommandSend(vlan, SW_CMD_VLAN_MEMBERSHIP_APPLY);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to apply configuration in %s\n",
                  sw->switchName);
        return r;
    }
    return 0;
}

extern "C" int switchVlanConfParamsAssign(SwitchVlan *vlan, SwitchVlanConf *conf) {
    if (vlan == nullptr || conf == nullptr) return -1;
    SWMGR_LOG("", SW_LOG_TRACE, "Copying params for %d VLAN\n", conf->vlanId);
    vlan->vlanId = conf->vlanId;
    vlan->fwdMap = conf->fwdMap;
    vlan->untagMap = conf->untagMap;
    vlan->inSwitchOnly = conf->inSwitchOnly;
    // Same-sized fields: the bounded copy never reads past the source.
    static_assert(sizeof vlan->vlanName == sizeof conf->vlanName);
    static_assert(sizeof vlan->interfaceName == sizeof conf->interfaceName);
    static_assert(sizeof vlan->LogicalIfName == sizeof conf->LogicalIfName);
    swmgr::copyText(vlan->vlanName, conf->vlanName);
    swmgr::copyText(vlan->interfaceName, conf->interfaceName);
    swmgr::copyText(vlan->LogicalIfName, conf->LogicalIfName);
    return 0;
}

extern "C" int switchVlanCreate(Switch *sw, SwitchVlan *proto) {
    if (sw == nullptr || proto == nullptr) return SW_EINVAL;
    if (switchVlanByIdGet(sw, proto->vlanId) != nullptr) {
        // The listed VLAN stays as it is.
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "This VLAN Id is already exists \n");
        return SW_EINVAL;
    }
    auto *vlan = static_cast<SwitchVlan *>(std::calloc(1, sizeof(SwitchVlan)));
    if (vlan == nullptr) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "VLAN Memory allocation failed \n");
        return SW_ENOMEM;
    }
    *vlan = *proto;
    vlan->link = OsaListNode{};
    vlan->sw = sw;

    int r = switchVlanMembershipUpdate(vlan);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR,
                  "Failed to configure initial configuration of vlan.\n");
        std::free(vlan);
        return r;
    }
    swmgr::vlanIndexAppend(sw, vlan);
    if (vlan->inSwitchOnly) switchPortVlanConfigure(vlan, SW_CMD_VLAN_ADD);

    // A failed apply leaves the VLAN listed: it exists on the switch and a
    // later delete or disable still finds it.
    r = switchVlanCfgApply(sw, vlan);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to apply switch vlan configuration \n");
        return r;
    }
    return 0;
}

extern "C" int switchVlanByConfCreate(Switch *sw, SwitchVlanConf *conf) {
    if (sw == nullptr || conf == nullptr) return -1;
    SwitchVlan proto{};
    switchVlanConfParamsAssign(&proto, conf);
    proto.vlanIndex = conf->vlanIndex;
    proto.sw = sw;
    if (switchVlanCreate(sw, &proto) < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to create vlan (ID=%d)\n", conf->vlanId);
        return -1;
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Created switch vlan (ID=%d)\n", conf->vlanId);
    return 0;
}

extern "C" int switchVlanConfAdd(SwitchVlanConf *conf) {
    if (conf == nullptr) return -1;
    conf->vlanIndex = switchNextVlanIndexGet();
    for (auto *sw : swmgr::listEntries<Switch>(switchTbl)) {
        int r;
        {
            ForwardingPaused paused(sw);
            r = switchVlanByConfCreate(sw, conf);
        }
        if (r < 0) return r;
    }
    IfName ifName(conf);
    int r = switchVlanEncapCreate(ifName.text, conf->vlanId);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to apply configuration in %s \n", "");
        return r;
    }
    switchVlanIndexIncr();
    return 0;
}

extern "C" int switchVlanUpdate(SwitchVlan *vlan, SwitchVlan *newVals) {
    if (vlan == nullptr || newVals == nullptr || vlan->sw == nullptr) return SW_EINVAL;
    Switch *sw = vlan->sw;
    if (vlan->inSwitchOnly) switchPortVlanConfigure(vlan, SW_CMD_VLAN_DELETE);

    // The record stays with its switch whatever the new values say.
    SwitchVlan next = *newVals;
    next.link = OsaListNode{};
    next.sw = sw;
    int r = switchVlanMembershipUpdate(&next);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR,
                  "Failed to configure initial configuration of vlan.\n");
        return r;
    }
    SWMGR_LOG(swVlanStrGet(&next), SW_LOG_INFO, "updated membership of vlan ID=%d\n", next.vlanId);

    swmgr::vlanIndexRemove(sw, vlan);
    *vlan = next;
    swmgr::vlanIndexAppend(sw, vlan);
    if (vlan->inSwitchOnly) switchPortVlanConfigure(vlan, SW_CMD_VLAN_ADD);

    r = switchVlanCfgApply(sw, vlan);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to apply switch vlan configuration \n");
        return r;
    }
    SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_INFO,
              "Successfully processed DB Update on  VLAN configuration.\n");
    return 0;
}

extern "C" int switchVlanConfUpdate(SwitchVlanConf *newConf, SwitchVlanConf *oldConf) {
    if (newConf == nullptr || oldConf == nullptr) return -1;
    for (auto *sw : swmgr::listEntries<Switch>(switchTbl)) {
        // A switch without the VLAN is left with forwarding off; later
        // commands to it see it so.
        sw->lowerLvlForward = 0;
        SwitchVlan *found = switchVlanByIdGet(sw, oldConf->vlanId);
        if (found == nullptr) continue;
        SwitchVlan copy = *found;
        switchVlanConfParamsAssign(&copy, newConf);
        if (switchVlanUpdate(found, &copy) < 0) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to update switch vlan configuration \n");
            sw->lowerLvlForward = 1;
            return -1;
        }
        sw->lowerLvlForward = 1;
        SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "updated switch vlan (%d) configuration.\n",
                  newConf->vlanId);
    }
    return 0;
}

namespace {
// Its lines are the disable's own, whichever walk it serves.
int vlanDisableOne(Switch *sw, SwitchVlan *v, int vlanId) {
    SWMGR_LOG_AS(swVlanStrGet(v), SW_LOG_ERR, "switchVlanDisable", "Disabling Vlan%d in %s\n", vlanId, sw->switchName);
    v->fwdMap = 0;
    v->untagMap = 0;
    ForwardingPaused paused(sw);
    int r = vlanCommandSend(v, SW_CMD_VLAN_MEMBERSHIP_UPDATE);
    if (r < 0) {
        SWMGR_LOG_AS(swVlanStrGet(v), SW_LOG_ERR, "switchVlanDisable",
                     "Failed to update vlan membership in %s for ID=%d\n", sw->switchName, vlanId);
        return r;
    }
    r = vlanCommandSend(v, SW_CMD_VLAN_MEMBERSHIP_APPLY);
    if (r < 0) {
        SWMGR_LOG_AS(swVlanStrGet(v), SW_LOG_ERR, "switchVlanDisable",
                     "Failed to configure vlan membership in %s for ID=%d\n", sw->switchName, vlanId);
        return r;
    }
    return 0;
}
}  // namespace

extern "C" int switchVlanDisable(SwitchVlan *vlan) {
    if (vlan == nullptr || vlan->sw == nullptr) return SW_EINVAL;
    Switch *sw = vlan->sw;
    const int vlanId = vlan->vlanId;
    if (vlan->inSwitchOnly) switchPortVlanConfigure(vlan, SW_CMD_VLAN_DELETE);

    // Every listed record with the id is disabled; with ids unique that is
    // the indexed one alone.
    if (swmgr::vlanIndexIdUnique(sw, vlanId)) {
        SwitchVlan *v = swmgr::vlanIndexFind(sw, vlanId);
        return v != nullptr ? vlanDisableOne(sw, v, vlanId) : 0;
    }
    for (auto *v : swmgr::listEntries<SwitchVlan>(sw->vlanList)) {
        if (v->vlanId != vlanId) continue;
        int r = vlanDisableOne(sw, v, vlanId);
        if (r < 0) return r;
    }
    return 0;
}

extern "C" int switchAllVlansDisable(Switch *sw) {
    if (sw == nullptr) return SW_EINVAL;
    for (auto *v : swmgr::listEntries<SwitchVlan>(sw->vlanList)) switchVlanDisable(v);
    return 0;
}

extern "C" int switchVlanDelete(SwitchVlan *vlan) {
    if (vlan == nullptr || vlan->sw == nullptr) return SW_EINVAL;
    Switch *sw = vlan->sw;
    int r = switchVlanDisable(vlan);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to disable VLAN in switch \n");
        return r;
    }
    r = switchVlanCfgApply(sw, vlan);
    if (r < 0) {
        SWMGR_LOG(swVlanStrGet(vlan), SW_LOG_ERR, "Failed to apply switch vlan configuration \n");
        return r;
    }
    swmgr::vlanIndexRemove(sw, vlan);
    std::free(vlan);
    return 0;
}

extern "C" int switchVlanConfDelete(SwitchVlanConf *conf) {
    if (conf == nullptr) return -1;
    for (auto *sw : swmgr::listEntries<Switch>(switchTbl)) {
        // As with updates, a switch without the VLAN keeps forwarding off.
        sw->lowerLvlForward = 0;
        SwitchVlan *vlan = switchVlanByIdGet(sw, conf->vlanId);
        if (vlan == nullptr) continue;
        if (switchVlanDelete(vlan) < 0) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to delete vlan (ID=%d)\n", conf->vlanId);
            sw->lowerLvlForward = 1;
            return -1;
        }
        sw->lowerLvlForward = 1;
        SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Deleted vlan (ID=%d).\n", conf->vlanId);
    }
    IfName ifName(conf);
    int r = switchVlanEncapDestroy(ifName.text, conf->vlanId);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to delete encap interface for vlan ID=%d\n", conf->vlanId);
        return r;
    }
    return 0;
}

extern "C" int switchVlanConfigure(void *context, int code, SwitchVlanConf *conf) {
    (void)context;
    // The bus request succeeds once it reached the VLAN layer; the layer
    // reports its own failures.
    if (code == SW_CMD_VLAN_ADD) {
        switchVlanConfAdd(conf);
        return 0;
    }
    if (code == SW_CMD_VLAN_DELETE) {
        switchVlanConfDelete(conf);
        return 0;
    }
    return -1;
}
