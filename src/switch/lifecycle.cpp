// SPDX-License-Identifier: Apache-2.0
// Switch lifecycle: from a configuration record to a listed switch bound to
// its driver, the start-up apply, disabling and releasing.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/text.h"
#include "swmgr/swconf.h"
#include "swmgr/portvlan.h"
#include "portvlan/vlan_index.h"
#include "swmgr/swmgr.h"
#include "switch/command.h"
#include "swmgr/switch.h"

extern "C" int switchLibInit(void) {
    // Records listed before are forgotten, not freed: nothing frees switches.
    osaListInit(&switchTbl);
    swmgr::vlanIndexReset();
    switchCount = 0;
    return 0;
}

extern "C" int switchLibDeinit(void) { return 0; }

extern "C" Switch *switchCreate(SwitchConf *conf) {
    if (conf == nullptr) return nullptr;
    // The configuration's texts may fill their fields to the last byte.
    char name[sizeof conf->switchName + 1];
    swmgr::copyText(name, conf->switchName);
    SWMGR_LOG("", SW_LOG_INFO, "Creating %s Switch \n", name);

    if (switchByNameGet(name) != nullptr) {
        // The listed switch stays as it is: it is still reachable and in use.
        SWMGR_LOG("", SW_LOG_ERR, "There is a switch created already for this name\n");
        return nullptr;
    }

    auto *sw = static_cast<Switch *>(std::calloc(1, sizeof(Switch)));
    if (sw == nullptr) return nullptr;
    swmgr::copyText(sw->switchName, name);
    char device[sizeof conf->switchDevice + 1];
    swmgr::copyText(device, conf->switchDevice);
    swmgr::copyText(sw->switchDevice, device);
    sw->qosEnable = conf->qosEnable;
    sw->vlanEnable = conf->vlanEnable;
    sw->pauseFrameEnable = conf->pauseFrameEnable;
    sw->igmpSnoopingEnable = conf->igmpSnoopingEnable;
    sw->mldSnoopingEnable = conf->mldSnoopingEnable;
    sw->numPorts = conf->numPorts;
    sw->switchLevel = conf->switchLevel;
    switchMaxLevel = std::max(switchMaxLevel, sw->switchLevel);
    return sw;
}

extern "C" int switchInitialCfgApply(Switch *sw) {
    if (sw == nullptr) return SW_EINVAL;

    // Command 33 carries the record's own field with the length of a bus
    // argument area; only its first word means anything.
    if (swmgr::switchCommandSend(sw, SW_CMD_VLAN_ENABLE, &sw->vlanEnable, SW_VLAN_ENABLE_ARG_LEN) < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to enable VLAN in %s \n", sw->switchName);
        return -1;
    }
    uint32_t qos = static_cast<uint32_t>(sw->qosEnable);
    if (swmgr::switchCommandSend(sw, SW_CMD_QOS_CONFIG, &qos, SW_U32_ARG_LEN) < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to enable QoS in %s \n", sw->switchName);
        return -1;
    }
    uint32_t pause = static_cast<uint32_t>(sw->pauseFrameEnable);
    if (swmgr::switchCommandSend(sw, SW_CMD_PAUSE_FRAMES, &pause, SW_U32_ARG_LEN) < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to enable pause frames in %s \n", sw->switchName);
        return -1;
    }
    uint8_t igmp = static_cast<uint8_t>(sw->igmpSnoopingEnable & 0xff);
    if (swmgr::switchCommandSend(sw, SW_CMD_IGMP_SNOOPING, &igmp, SW_U8_ARG_LEN) < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to configure igmp snooping in %s \n", sw->switchName);
        return -1;
    }
    uint8_t mld = static_cast<uint8_t>(sw->mldSnoopingEnable & 0xff);
    if (swmgr::switchCommandSend(sw, SW_CMD_MLD_SNOOPING, &mld, SW_U8_ARG_LEN) < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to configure mld snooping in %s \n", sw->switchName);
        return -1;
    }
    return 0;
}

extern "C" int switchConfAdd(SwitchConf *conf) {
    Switch *sw = switchCreate(conf);
    if (sw == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to create switch configuration \n");
        return SW_EINVAL;
    }
    sw->lowerLvlForward = 1;
    sw->switchId = ++switchCount;
    osaListInit(&sw->lowerLvlSwitchList);
    osaListInit(&sw->portList);
    osaListInit(&sw->vlanList);

    int r = switchConfigFuncRegister(sw);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to register %s switch \n", sw->switchName);
        // Never listed, so nothing can reach the record again.
        std::free(sw);
        return r;
    }
    r = switchInitialCfgApply(sw);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to apply the configuration \n");
        // The driver keeps what it opened for the switch (the BCM device
        // stays open); only the unreachable record goes.
        std::free(sw);
        return r;
    }
    osaListNodeAppend(&switchTbl, sw);
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Added switch configuration.\n");
    return r;
}

extern "C" int switchCfgApply(Switch *sw) {
    if (sw == nullptr) return SW_EINVAL;
    int r = switchInitialCfgApply(sw);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed apply configuration of %s \n", sw->switchName);
        return r;
    }
    r = switchPortCfgApply(sw, nullptr);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to apply switch port configuration \n");
        return r;
    }
    r = switchVlanCfgApply(sw, nullptr);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to apply switch vlan configuration \n");
        return r;
    }
    return 0;
}

extern "C" int switchCfgDisable(Switch *sw) {
    if (sw == nullptr) sw = switchAtTopLevelGet();
    if (sw == nullptr) return -1;
    int r = switchAllVlansDisable(sw);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to disable vlan configuration in %s\n", sw->switchName);
        return r;
    }
    return 0;
}

extern "C" int switchDeinit(const char *name) {
    Switch *sw = switchByNameGet(name);
    if (sw == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to find switch profile for %s \n",
                  name != nullptr ? name : "");
        return SW_EINVAL;
    }
    int r = switchConfigFuncUnRegister(sw);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to unregister %s switch \n", sw->switchName);
        return r;
    }
    r = switchDestroy(sw);
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to destroy the switch %s\n", sw->switchName);
        return r;
    }
    return r;
}

// Switch records live as long as the process; this hook frees nothing.
extern "C" int switchDestroy(Switch *sw) {
    (void)sw;
    return 0;
}
