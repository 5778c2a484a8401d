// SPDX-License-Identifier: Apache-2.0
// Switch creation, binding, initial settings, apply, disable and release.
#include <cstdlib>
#include <utility>

#include "swmgr/portvlan.h"
#include "swmgr/swconf.h"
#include "swmgr_test.h"

namespace {

using swtest::Bytes;
using Lines = std::vector<std::string>;
using Calls = std::vector<std::pair<int, Bytes>>;  // argument length, record bytes

const std::vector<int> kSettings = {SW_CMD_VLAN_ENABLE, SW_CMD_QOS_CONFIG, SW_CMD_PAUSE_FRAMES,
                                    SW_CMD_IGMP_SNOOPING, SW_CMD_MLD_SNOOPING};

SwitchConf conf(const char *name, int level) {
    SwitchConf c{};
    std::snprintf(c.switchName, sizeof c.switchName, "%s", name);
    std::snprintf(c.switchDevice, sizeof c.switchDevice, "/dev/%s", name);
    c.switchLevel = level;
    return c;
}

class SwitchLifecycle : public swtest::SwmgrTest {
protected:
    // The recording driver binds the name in the table's spare entry.
    int add(const char *name, int level) {
        std::snprintf(switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1].name, SW_NAME_LEN, "%s", name);
        SwitchConf c = conf(name, level);
        return switchConfAdd(&c);
    }
    swtest::RecordingDriver drv;
};
using Lifecycle = swtest::BothForms<SwitchLifecycle>;
SWTEST_BOTH_FORMS(Lifecycle);

const swtest::Log kCreatingRec{64, "switchCreate", "Creating REC Switch \n"};

}  // namespace

TEST_P(Lifecycle, AddBindsSendsFiveSettingsThenLists) {
    SwitchConf c = conf("REC", 3);
    c.vlanEnable = c.qosEnable = 1;
    c.igmpSnoopingEnable = 0x101;  // only the low byte travels
    c.mldSnoopingEnable = 2;
    ASSERT_EQ(switchConfAdd(&c), 0);
    Switch *sw = switchByNameGet("REC");
    ASSERT_NE(sw, nullptr);

    ASSERT_EQ(drv.cmds(), kSettings);
    Calls calls;
    for (const auto &call : drv.calls) calls.emplace_back(call.argLen, call.arg);
    EXPECT_EQ(calls, (Calls{{1300, swtest::le32(1)}, {4, swtest::le32(1)}, {4, swtest::le32(0)}, {1, {1}}, {1, {2}}}));
    EXPECT_TRUE(cap->logsAre({kCreatingRec, {64, "switchConfAdd", "(switch=REC) Added switch configuration.\n"}}));

    // A second switch of that name is refused; the first stays listed.
    cap->clear(), drv.calls.clear();
    EXPECT_EQ(add("REC", 4), SW_EINVAL);
    EXPECT_TRUE(cap->logsAre({kCreatingRec,
                              {8, "switchCreate", "There is a switch created already for this name\n"},
                              {8, "switchConfAdd", "Failed to create switch configuration \n"}}));
    EXPECT_EQ(switchMaxLevel, 3);
    EXPECT_EQ(switchByNameGet("REC"), sw);
    EXPECT_EQ(osaListNext(sw), nullptr);
}

TEST_P(Lifecycle, RejectedSettingStopsTheRestAndLeavesTheSwitchUnlisted) {
    const Lines messages = {"Failed to enable VLAN in REC \n", "Failed to enable QoS in REC \n",
                            "Failed to enable pause frames in REC \n", "Failed to configure igmp snooping in REC \n",
                            "Failed to configure mld snooping in REC \n"};
    for (size_t step = 0; step < kSettings.size(); ++step) {
        drv.calls.clear(), cap->clear();
        drv.results = {{kSettings[step], -5}};
        EXPECT_EQ(add("REC", 1), -1) << step;  // not the driver's code
        EXPECT_EQ(drv.cmds(), std::vector<int>(kSettings.begin(), kSettings.begin() + step + 1));
        EXPECT_TRUE(cap->logsAre({kCreatingRec, {8, "switchInitialCfgApply", messages[step]},
                                  {8, "switchConfAdd", "Failed to apply the configuration \n"}}));
        EXPECT_EQ(switchByNameGet("REC"), nullptr);
    }
}

TEST_P(Lifecycle, RegistrationFailuresLeaveNothingListed) {
    drv.registerResult = -7;
    EXPECT_EQ(add("REC", 1), -7);
    EXPECT_TRUE(drv.calls.empty());
    SwitchConf bcm = conf("BCM", 1);
    std::snprintf(bcm.switchDevice, sizeof bcm.switchDevice, "%s/no/device", root->path().c_str());
    EXPECT_LT(switchConfAdd(&bcm), 0);
    EXPECT_TRUE(cap->logsAre(
        {kCreatingRec,
         {8, "switchConfAdd", "Failed to register REC switch \n"},
         {64, "switchCreate", "Creating BCM Switch \n"},
         {8, "bcmSwitchRegister", "(switch=BCM) Failed to open the device " + root->path() + "/no/device \n"},
         {8, "switchConfAdd", "Failed to register BCM switch \n"}}));
    EXPECT_EQ(osaListFirst(&switchTbl), nullptr);
    EXPECT_EQ(switchCount, 2u);  // each attempt took an id
}

TEST_P(Lifecycle, TopLevelIsTheFirstOfTheHighestAndMaxLevelOutlivesLibInit) {
    for (const auto &[name, level] : {std::pair{"L1", 1}, {"L2a", 2}, {"L2b", 2}}) ASSERT_EQ(add(name, level), 0);
    EXPECT_EQ(switchAtTopLevelGet(), switchByNameGet("L2a"));
    ASSERT_EQ(add("L5", 5), 0);
    std::vector<void *> forgotten;  // switchLibInit forgets, the test frees
    for (void *n = osaListFirst(&switchTbl); n != nullptr; n = osaListNext(n)) forgotten.push_back(n);
    EXPECT_EQ(std::make_pair(switchLibDeinit(), switchLibInit()), std::make_pair(0, 0));
    for (void *n : forgotten) std::free(n);
    EXPECT_EQ(switchMaxLevel, 5);
    ASSERT_EQ(add("REC", 1), 0);
    EXPECT_EQ(switchByNameGet("REC")->switchId, 1u);
    EXPECT_EQ(switchAtTopLevelGet(), nullptr);
}

TEST_P(Lifecycle, FailedApplyThenDeinitReleasesButKeepsTheSwitchListed) {
    EXPECT_EQ(switchCfgDisable(nullptr), -1);  // nothing at the top
    EXPECT_EQ(switchDeinit("NONE"), SW_EINVAL);
    ASSERT_EQ(add("REC", 1), 0);
    Switch *sw = switchByNameGet("REC");
    drv.results = {{SW_CMD_QOS_CONFIG, -1}};
    cap->clear();
    EXPECT_EQ(switchCfgApply(sw), -1);
    EXPECT_EQ(switchDeinit("REC"), 0);
    EXPECT_EQ(sw->switchConfigFunc, nullptr);  // released by the driver, still listed
    EXPECT_EQ(switchByNameGet("REC"), sw);
    EXPECT_EQ(switchCfgApply(sw), -1);  // unbound: refuses instead of calling through nothing
    EXPECT_EQ(switchCfgDisable(nullptr), 0);
    EXPECT_TRUE(cap->logsAre({{8, "switchInitialCfgApply", "Failed to enable QoS in REC \n"},
                              {8, "switchCfgApply", "Failed apply configuration of REC \n"},
                              {8, "switchInitialCfgApply", "Failed to enable VLAN in REC \n"},
                              {8, "switchCfgApply", "Failed apply configuration of REC \n"}}));
}

// Apply stops at the first failing stage: settings, then ports, then VLANs.
TEST_P(Lifecycle, ApplyStopsAtTheFirstFailingStage) {
    ASSERT_EQ(add("REC", 1), 0);
    Switch *sw = switchByNameGet("REC");
    SwitchPortConf port{};
    SwitchVlanConf vlan{};
    std::snprintf(port.switchName, sizeof port.switchName, "REC");
    port.portNumber = 3, vlan.vlanId = 7;
    ASSERT_EQ(switchPortConfAdd(&port), 0);
    ASSERT_EQ(switchVlanByConfCreate(sw, &vlan), 0);
    struct Case {
        int failing;  // the command the driver refuses
        std::vector<int> cmds;
        swtest::Logs logs;
    } cases[] = {
        {0, {33, 47, 49, 56, 57, 51, 41}, {}},  // nothing refused
        {SW_CMD_PORT_TRUST_MODE, {33, 47, 49, 56, 57, 51},
         {{8, "switchPortTrustModeConfigure", "(switch=REC) (port:3) Failed to configure trustmode on port3 in REC\n"},
          {8, "switchPortCfgApply", "(switch=REC) (port:3) Failed to configure trust mode of port (3)"},
          {8, "switchCfgApply", "Failed to apply switch port configuration \n"}}},
        {SW_CMD_PORT_CONFIG_SET, {33, 47, 49, 56, 57, 51, 41},
         {{8, "switchPortVlanInfoConfigure", "(switch=REC) Failed to configure port-1 in REC\n"},
          {8, "switchVlanCfgApply", "(switch=REC) Failed to configure ports in REC\n"},
          {8, "switchCfgApply", "Failed to apply switch vlan configuration \n"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.failing);
        drv.calls.clear(), cap->clear();
        drv.results = {{c.failing, -4}};
        EXPECT_EQ(switchCfgApply(sw), c.failing ? -4 : 0);
        EXPECT_EQ(drv.cmds(), c.cmds);
        EXPECT_TRUE(cap->logsAre(c.logs));
    }
}
