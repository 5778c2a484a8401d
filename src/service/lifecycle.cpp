// SPDX-License-Identifier: Apache-2.0
// Service start-up, the bus listening loop and shutdown.
#include "swmgr/swconf.h"
#include "swmgr/platform/mbus.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace {
constexpr int kRegisterKind = 2;
constexpr unsigned kListenTimeoutUs = 1000000;

// Loads switches, then ports, then VLANs (ports name their switch, VLANs use
// the ports), stopping at the first table that fails.
bool loadConfiguration() {
    if (switchCfgLoad() < 0) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrCfgReload", "Failed to load switch configuration \n");
        return false;
    }
    if (switchPortCfgLoad() < 0) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrCfgReload", "Failed to load switch port configuration \n");
        return false;
    }
    if (switchVlanCfgLoad() < 0) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrCfgReload", "Failed to load switch vlan configuration \n");
        return false;
    }
    return true;
}

void applyConfiguration() {
    Switch *top = switchAtTopLevelGet();
    int r = -1;
    if (top == nullptr)
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrCfgApply", "Failed to find switch configuration to load. \n");
    else
        r = switchCfgApply(top);
    if (r < 0) SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrCfgReload", "Failed to apply switch configuration \n");
}
}  // namespace

extern "C" int swMgrInit(const char *dbPath) {
    mbusInit(dbPath);
    pSwMgrMbusCtx = mbusRegister(MBUS_MODULE_SWMGR, kRegisterKind, swMgrIoctlHandler, nullptr);
    if (pSwMgrMbusCtx == nullptr) return -1;

    int r = switchLibInit();
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "failed to initialize switch manager list\n");
        mbusUnRegister(pSwMgrMbusCtx);
        return r;
    }
    r = swMgrDBInit(const_cast<char *>(dbPath));
    if (r < 0) {
        SWMGR_LOG("", SW_LOG_ERR, "failed to open database connection\n");
        mbusUnRegister(pSwMgrMbusCtx);
        return r;
    }

    // Take out whatever VLAN configuration a previous run left, then forget it.
    switchCfgDisable(nullptr);
    switchLibDeinit();
    switchLibInit();

    // A configuration that fails to load or apply leaves the service up, so
    // that later database events can still bring it in.
    if (loadConfiguration()) applyConfiguration();
    swMgrInitialized = 1;
    return 0;
}

extern "C" int swMgrRun(void) {
    while (swMgrInitialized) mbusListen(pSwMgrMbusCtx, kListenTimeoutUs);
    return 0;
}

extern "C" int swMgrDeinit(void) {
    if (pSwMgrMbusCtx != nullptr) {
        mbusUnRegister(pSwMgrMbusCtx);
        pSwMgrMbusCtx = nullptr;
    }
    if (swMgrInitialized) {
        swMgrInitialized = 0;
        mbusDeInit();
        swMgrDBDeinit();
    }
    return 0;
}
