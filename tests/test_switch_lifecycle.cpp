// Switch creation, binding, initial settings, apply, disable and release.
#include <cstdlib>
#include <string>
#include <vector>

#include "config/swconf.h"
#include "portvlan/portvlan.h"
#include "swmgr_test.h"

namespace {

using swtest::Bytes;
using swtest::le32;
using Lines = std::vector<std::string>;

const std::vector<int> kSettings = {SW_CMD_VLAN_ENABLE, SW_CMD_QOS_CONFIG, SW_CMD_PAUSE_FRAMES,
                                    SW_CMD_IGMP_SNOOPING, SW_CMD_MLD_SNOOPING};

class SwitchLifecycle : public swtest::SwmgrTest {
protected:
    // The recording driver binds the name in the table's spare entry;
    // renaming the entry lets differently named switches bind to it.
    int add(const char *name, int level, const char *driverName = nullptr) {
        std::snprintf(switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1].name, SW_NAME_LEN, "%s",
                      driverName != nullptr ? driverName : name);
        SwitchConf c = conf(name, level);
        return switchConfAdd(&c);
    }
    static SwitchConf conf(const char *name, int level) {
        SwitchConf c{};
        std::snprintf(c.switchName, sizeof c.switchName, "%s", name);
        std::snprintf(c.switchDevice, sizeof c.switchDevice, "/dev/%s", name);
        c.switchLevel = level;
        return c;
    }
    swtest::RecordingDriver drv;
};

}  // namespace

TEST_F(SwitchLifecycle, AddBindsSendsFiveSettingsThenLists) {
    SwitchConf c = conf("REC", 3);
    c.vlanEnable = 1;
    c.qosEnable = 1;
    c.igmpSnoopingEnable = 0x101;  // only the low byte travels
    c.mldSnoopingEnable = 2;
    c.numPorts = 7;
    ASSERT_EQ(switchConfAdd(&c), 0);

    Switch *sw = switchByNameGet("REC");
    ASSERT_NE(sw, nullptr);
    EXPECT_EQ(sw->switchId, 1u);
    EXPECT_EQ(sw->lowerLvlForward, 1);
    EXPECT_STREQ(sw->switchDevice, "/dev/REC");
    const int32_t fields[] = {1, 1, 0, 0x101, 2, 7, 3};  // qos, vlan, pause, igmp, mld, ports, level
    EXPECT_EQ(swtest::bytesOf(fields), Bytes(reinterpret_cast<uint8_t *>(&sw->qosEnable),
                                             reinterpret_cast<uint8_t *>(&sw->qosEnable) + 28));
    EXPECT_EQ(switchMaxLevel, 3);

    ASSERT_EQ(drv.cmds(), kSettings);
    const int lens[] = {1300, 4, 4, 1, 1};
    const Bytes args[] = {le32(1), le32(1), le32(0), Bytes{1}, Bytes{2}};
    for (size_t i = 0; i < drv.calls.size(); ++i) {
        EXPECT_EQ(drv.calls[i].sw, sw);
        EXPECT_EQ(drv.calls[i].argLen, lens[i]) << i;
        EXPECT_EQ(drv.calls[i].arg, args[i]) << i;
        EXPECT_TRUE(drv.calls[i].replyLenZero) << i;
    }
    EXPECT_EQ(drv.calls[0].argPtr, &sw->vlanEnable);  // the record's field, in place
    EXPECT_EQ(cap->rawLogs(), (Lines{"Creating REC Switch \n", "(switch=REC) Added switch configuration.\n"}));
    EXPECT_EQ(cap->logs[0].level, SW_LOG_INFO);
    EXPECT_EQ(cap->logs[1].level, SW_LOG_INFO);
}

TEST_F(SwitchLifecycle, RejectedSettingStopsTheRestAndLeavesTheSwitchUnlisted) {
    const Lines messages = {"Failed to enable VLAN in REC \n", "Failed to enable QoS in REC \n",
                            "Failed to enable pause frames in REC \n",
                            "Failed to configure igmp snooping in REC \n",
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
    // The developer form names the settings function.
    drv.results = {{SW_CMD_VLAN_ENABLE, -5}};
    cap->clear();
    swMgrDevDebug = 1;
    add("REC", 1);
    ASSERT_EQ(cap->logs.size(), 3u) << cap->dump();
    EXPECT_EQ(cap->logs[0].func, "switchCreate");
    EXPECT_EQ(cap->logs[1].func, "switchInitialCfgApply");
    EXPECT_EQ(cap->logs[1].level, SW_LOG_DEV);
    EXPECT_EQ(cap->logs[1].text, messages[0]);
    EXPECT_EQ(cap->logs[2].func, "switchConfAdd");
}

TEST_F(SwitchLifecycle, RegistrationFailuresLeaveNothingListed) {
    drv.registerResult = -7;
    EXPECT_EQ(add("REC", 1), -7);
    EXPECT_TRUE(drv.calls.empty());
    EXPECT_EQ(add("bcm", 1, "REC"), -1);  // names are case-sensitive: no driver

    SwitchConf bcm = conf("BCM", 1);
    std::snprintf(bcm.switchDevice, sizeof bcm.switchDevice, "%s/no/device", root->path().c_str());
    EXPECT_LT(switchConfAdd(&bcm), 0);
    EXPECT_EQ(cap->countLog("Failed to register REC switch \n"), 1);
    EXPECT_EQ(cap->countLog("Failed to register bcm switch \n"), 1);
    EXPECT_EQ(cap->countLog("Failed to register BCM switch \n"), 1) << cap->dump();
    EXPECT_EQ(osaListFirst(&switchTbl), nullptr);
    EXPECT_EQ(switchCount, 3u);  // each attempt took an id
}

TEST_F(SwitchLifecycle, DuplicateNameRefusedFirstSwitchStaysUsable) {
    ASSERT_EQ(add("REC", 1), 0);
    Switch *first = switchByNameGet("REC");
    cap->clear();
    drv.calls.clear();

    EXPECT_EQ(add("REC", 4), SW_EINVAL);
    EXPECT_EQ(cap->rawLogs(), (Lines{"Creating REC Switch \n",
                                     "There is a switch created already for this name\n",
                                     "Failed to create switch configuration \n"}));
    EXPECT_EQ(cap->logs[1].level, SW_LOG_ERR);
    EXPECT_TRUE(drv.calls.empty());
    EXPECT_EQ(switchMaxLevel, 1);
    EXPECT_EQ(switchByNameGet("REC"), first);
    EXPECT_EQ(osaListNext(first), nullptr);
    EXPECT_EQ(switchCfgApply(first), 0);
}

TEST_F(SwitchLifecycle, TopLevelIsTheFirstOfTheHighestAndMaxLevelOutlivesLibInit) {
    ASSERT_EQ(add("L1", 1), 0);
    ASSERT_EQ(add("L2a", 2), 0);
    ASSERT_EQ(add("L2b", 2), 0);
    EXPECT_EQ(switchAtTopLevelGet(), switchByNameGet("L2a"));
    EXPECT_EQ(switchByNameGet("L2b")->switchId, 3u);
    ASSERT_EQ(add("L5", 5), 0);

    std::vector<void *> forgotten;  // switchLibInit forgets, the test frees
    for (void *n = osaListFirst(&switchTbl); n != nullptr; n = osaListNext(n)) forgotten.push_back(n);
    EXPECT_EQ(switchLibInit(), 0);
    for (void *n : forgotten) std::free(n);
    EXPECT_EQ(osaListFirst(&switchTbl), nullptr);
    EXPECT_EQ(switchCount, 0u);
    EXPECT_EQ(switchMaxLevel, 5);

    ASSERT_EQ(add("REC", 1), 0);
    EXPECT_EQ(switchByNameGet("REC")->switchId, 1u);
    EXPECT_EQ(switchAtTopLevelGet(), nullptr);
}

TEST_F(SwitchLifecycle, ApplySendsSettingsPortsThenVlansAndStopsAtFirstFailure) {
    ASSERT_EQ(add("REC", 1), 0);
    Switch *sw = switchByNameGet("REC");
    SwitchPortConf p{};
    std::snprintf(p.switchName, sizeof p.switchName, "REC");
    ASSERT_EQ(switchPortConfAdd(&p), 0);
    drv.calls.clear();

    EXPECT_EQ(switchCfgApply(sw), 0);
    EXPECT_EQ(drv.cmds(), (std::vector<int>{33, 47, 49, 56, 57, 51, 41}));
    EXPECT_EQ(drv.calls.back().argPtr, nullptr);
    EXPECT_EQ(drv.calls.back().argLen, SW_PORT_REC_LEN);

    const struct {
        int cmd, result;
        const char *message;
    } cases[] = {{SW_CMD_QOS_CONFIG, -1, "Failed apply configuration of REC \n"},
                 {SW_CMD_PORT_TRUST_MODE, -4, "Failed to apply switch port configuration \n"},
                 {SW_CMD_PORT_CONFIG_SET, -6, "Failed to apply switch vlan configuration \n"}};
    for (const auto &k : cases) {
        drv.results = {{k.cmd, k.result}};
        cap->clear();
        EXPECT_EQ(switchCfgApply(sw), k.result);
        EXPECT_EQ(cap->countLog(k.message), 1) << cap->dump();
    }
}

TEST_F(SwitchLifecycle, DisableAndDeinit) {
    EXPECT_EQ(switchCfgDisable(nullptr), -1);
    EXPECT_TRUE(cap->logs.empty());
    ASSERT_EQ(add("REC", 1), 0);
    Switch *sw = switchByNameGet("REC");
    EXPECT_EQ(switchCfgDisable(nullptr), 0);
    cap->clear();

    EXPECT_EQ(switchDeinit("NONE"), SW_EINVAL);
    EXPECT_EQ(cap->rawLogs(), Lines{"Failed to find switch profile for NONE \n"});
    EXPECT_EQ(switchDeinit("REC"), 0);
    EXPECT_EQ(sw->switchConfigFunc, nullptr);  // released by the driver
    EXPECT_EQ(switchByNameGet("REC"), sw);     // and still listed
    // An unbound switch refuses commands instead of calling through nothing.
    EXPECT_EQ(switchCfgApply(sw), -1);
    EXPECT_EQ(cap->countLog("Failed to enable VLAN in REC \n"), 1);
}
