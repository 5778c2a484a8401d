// SPDX-License-Identifier: Apache-2.0
// Switch creation, binding, initial settings, apply, disable and release.
#include <cstdlib>
#include <string>
#include <vector>

#include "swmgr/swconf.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {

using swtest::Bytes;
using Lines = std::vector<std::string>;

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

}  // namespace

TEST_F(SwitchLifecycle, AddBindsSendsFiveSettingsThenLists) {
    SwitchConf c = conf("REC", 3);
    c.vlanEnable = c.qosEnable = 1;
    c.igmpSnoopingEnable = 0x101;  // only the low byte travels
    c.mldSnoopingEnable = 2;
    ASSERT_EQ(switchConfAdd(&c), 0);
    Switch *sw = switchByNameGet("REC");
    ASSERT_NE(sw, nullptr);

    ASSERT_EQ(drv.cmds(), kSettings);
    const int lens[] = {1300, 4, 4, 1, 1};
    const Bytes args[] = {swtest::le32(1), swtest::le32(1), swtest::le32(0), Bytes{1}, Bytes{2}};
    for (size_t i = 0; i < drv.calls.size(); ++i) {
        EXPECT_EQ(drv.calls[i].argLen, lens[i]) << i;
        EXPECT_EQ(drv.calls[i].arg, args[i]) << i;
    }
    EXPECT_EQ(cap->rawLogs(), (Lines{"Creating REC Switch \n", "(switch=REC) Added switch configuration.\n"}));

    // A second switch of that name is refused; the first stays listed.
    cap->clear();
    drv.calls.clear();
    EXPECT_EQ(add("REC", 4), SW_EINVAL);
    EXPECT_EQ(cap->rawLogs(), (Lines{"Creating REC Switch \n",
                                     "There is a switch created already for this name\n",
                                     "Failed to create switch configuration \n"}));
    EXPECT_EQ(switchMaxLevel, 3);
    EXPECT_EQ(switchByNameGet("REC"), sw);
    EXPECT_EQ(osaListNext(sw), nullptr);
}

TEST_F(SwitchLifecycle, RejectedSettingStopsTheRestAndLeavesTheSwitchUnlisted) {
    const Lines messages = {"Failed to enable VLAN in REC \n", "Failed to enable QoS in REC \n",
                            "Failed to enable pause frames in REC \n", "Failed to configure igmp snooping in REC \n",
                            "Failed to configure mld snooping in REC \n"};
    for (size_t step = 0; step < kSettings.size(); ++step) {
        drv.calls.clear();
        drv.results = {{kSettings[step], -5}};
        cap->clear();
        EXPECT_EQ(add("REC", 1), -1) << step;  // not the driver's code
        EXPECT_EQ(drv.cmds(), std::vector<int>(kSettings.begin(), kSettings.begin() + step + 1));
        EXPECT_EQ(cap->rawLogs(), (Lines{"Creating REC Switch \n", messages[step],
                                         "Failed to apply the configuration \n"}));
        EXPECT_EQ(switchByNameGet("REC"), nullptr);
    }
}

TEST_F(SwitchLifecycle, RegistrationFailuresLeaveNothingListed) {
    drv.registerResult = -7;
    EXPECT_EQ(add("REC", 1), -7);
    EXPECT_TRUE(drv.calls.empty());
    SwitchConf bcm = conf("BCM", 1);
    std::snprintf(bcm.switchDevice, sizeof bcm.switchDevice, "%s/no/device", root->path().c_str());
    EXPECT_LT(switchConfAdd(&bcm), 0);
    EXPECT_EQ(cap->countLog("Failed to register REC switch \n"), 1);
    EXPECT_EQ(cap->countLog("Failed to register BCM switch \n"), 1) << cap->dump();
    EXPECT_EQ(osaListFirst(&switchTbl), nullptr);
    EXPECT_EQ(switchCount, 2u);  // each attempt took an id
}

TEST_F(SwitchLifecycle, TopLevelIsTheFirstOfTheHighestAndMaxLevelOutlivesLibInit) {
    for (const auto &[name, level] : {std::pair{"L1", 1}, {"L2a", 2}, {"L2b", 2}}) ASSERT_EQ(add(name, level), 0);
    EXPECT_EQ(switchAtTopLevelGet(), switchByNameGet("L2a"));
    ASSERT_EQ(add("L5", 5), 0);
    std::vector<void *> forgotten;  // switchLibInit forgets, the test frees
    for (void *n = osaListFirst(&switchTbl); n != nullptr; n = osaListNext(n)) forgotten.push_back(n);
    EXPECT_EQ(switchLibInit(), 0);
    for (void *n : forgotten) std::free(n);
    EXPECT_EQ(switchMaxLevel, 5);
    ASSERT_EQ(add("REC", 1), 0);
    EXPECT_EQ(switchByNameGet("REC")->switchId, 1u);
    EXPECT_EQ(switchAtTopLevelGet(), nullptr);
}

TEST_F(SwitchLifecycle, FailedApplyThenDeinitReleasesButKeepsTheSwitchListed) {
    EXPECT_EQ(switchCfgDisable(nullptr), -1);  // nothing at the top
    ASSERT_EQ(add("REC", 1), 0);
    Switch *sw = switchByNameGet("REC");
    drv.results = {{SW_CMD_QOS_CONFIG, -1}};
    EXPECT_EQ(switchCfgApply(sw), -1);
    EXPECT_EQ(cap->countLog("Failed apply configuration of REC \n"), 1) << cap->dump();
    EXPECT_EQ(switchDeinit("REC"), 0);
    EXPECT_EQ(sw->switchConfigFunc, nullptr);  // released by the driver, still listed
    EXPECT_EQ(switchByNameGet("REC"), sw);
    EXPECT_EQ(switchCfgApply(sw), -1);  // unbound: refuses instead of calling through nothing
    EXPECT_EQ(cap->countLog("Failed to enable VLAN in REC \n"), 1);
}
