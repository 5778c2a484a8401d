// SPDX-License-Identifier: Apache-2.0
// Switch creation, binding, initial settings, apply, disable and release;
// the registry's lookups, prefixes and command routing by switch name.
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>

#include "data_lines.h"

namespace {

const std::vector<int> kSettings = {SW_CMD_VLAN_ENABLE, SW_CMD_QOS_CONFIG, SW_CMD_PAUSE_FRAMES,
                                    SW_CMD_IGMP_SNOOPING, SW_CMD_MLD_SNOOPING};

SWTEST_BOTH_FORMS(Lifecycle, swtest::DriverTest);

const swtest::Log kCreatingRec{64, "switchCreate", "Creating REC Switch \n"};

}  // namespace

TEST_P(Lifecycle, AddBindsAndSendsFiveSettings) {
    SwitchConf c{};
    c.vlanEnable = c.qosEnable = 1;
    c.igmpSnoopingEnable = 0x101;  // only the low byte travels
    c.mldSnoopingEnable = 2;
    ASSERT_EQ(drv.confAdd("REC", 3, c), 0);
    ASSERT_EQ(drv.cmds(), kSettings);
    std::vector<std::tuple<int, int, swtest::Bytes>> calls;  // argument length, reply length (none), record bytes
    for (const auto &call : drv.calls) calls.emplace_back(call.argLen, call.replyLen, call.arg);
    EXPECT_EQ(calls, (decltype(calls){{1300, 0, swtest::le32(1)}, {4, 0, swtest::le32(1)}, {4, 0, swtest::le32(0)},
                                      {1, 0, {1}}, {1, 0, {2}}}));
}

TEST_P(Lifecycle, RefusedRegistrationOrSettingStopsTheRestAndLeavesTheSwitchUnlisted) {
    drv.registerResult = -7;
    EXPECT_EQ(drv.confAdd("REC", 1), -7);
    EXPECT_TRUE(drv.calls.empty());
    EXPECT_TRUE(cap->logsAre({kCreatingRec, {8, "switchConfAdd", "Failed to register REC switch \n"}}));
    EXPECT_EQ(switchCount, 1u);  // the attempt took an id
    drv.registerResult = 0;
    const swtest::Logs refused = swtest::dataLogs("lifecycle/logs.txt", "setting refused");
    for (size_t step = 0; step < kSettings.size(); ++step) {
        reset();
        drv.results = {{kSettings[step], -5}};
        EXPECT_EQ(drv.confAdd("REC", 1), -1) << step;  // not the driver's code
        EXPECT_EQ(drv.cmds(), std::vector<int>(kSettings.begin(), kSettings.begin() + step + 1));
        EXPECT_TRUE(cap->logsAre({kCreatingRec, refused.at(step),
                                  {8, "switchConfAdd", "Failed to apply the configuration \n"}}));
        EXPECT_EQ(osaListFirst(&switchTbl), nullptr);
    }
}

TEST_P(Lifecycle, TopLevelIsTheFirstOfTheHighestAndMaxLevelOutlivesLibInit) {
    for (auto [name, level] : {std::pair{"L1", 1}, {"L2a", 2}, {"L2b", 2}}) ASSERT_EQ(drv.confAdd(name, level), 0);
    EXPECT_EQ(switchAtTopLevelGet(), switchByNameGet("L2a"));
    ASSERT_EQ(drv.confAdd("L5", 5), 0);
    std::vector<void *> forgotten;  // switchLibInit forgets, the test frees
    for (void *n = osaListFirst(&switchTbl); n != nullptr; n = osaListNext(n)) forgotten.push_back(n);
    EXPECT_EQ(std::make_pair(switchLibDeinit(), switchLibInit()), std::make_pair(0, 0));
    for (void *n : forgotten) std::free(n);
    EXPECT_EQ(switchMaxLevel, 5);
    ASSERT_EQ(drv.confAdd("REC", 1), 0);
    EXPECT_EQ(switchByNameGet("REC")->switchId, 1u);
    EXPECT_EQ(switchAtTopLevelGet(), nullptr);
}

TEST_P(Lifecycle, FailedApplyThenDeinitReleasesButKeepsTheSwitchListed) {
    EXPECT_EQ(switchCfgDisable(nullptr), -1);  // nothing at the top
    Switch *sw = add("REC", 1);
    drv.results = {{SW_CMD_QOS_CONFIG, -1}};
    EXPECT_EQ(switchDeinit("NONE"), SW_EINVAL);
    EXPECT_EQ(switchCfgApply(sw), -1);
    EXPECT_EQ(switchDeinit("REC"), 0);
    EXPECT_EQ(sw->switchConfigFunc, nullptr);  // released by the driver, still listed
    EXPECT_EQ(switchByNameGet("REC"), sw);
    EXPECT_EQ(switchCfgApply(sw), -1);  // unbound: refuses instead of calling through nothing
    EXPECT_EQ(switchCfgDisable(nullptr), 0);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs("lifecycle/logs.txt", "failed apply then unbound")));
}

// Apply stops at the first failing stage: settings, then ports, then VLANs.
TEST_P(Lifecycle, ApplyStopsAtTheFirstFailingStage) {
    Switch *sw = add("REC", 1);
    SwitchPortConf port{};
    SwitchVlanConf vlan{};
    std::snprintf(port.switchName, sizeof port.switchName, "REC");
    port.portNumber = 3, vlan.vlanId = 7;
    ASSERT_EQ(switchPortConfAdd(&port), 0);
    ASSERT_EQ(switchVlanByConfCreate(sw, &vlan), 0);
    // The command the driver refuses, the commands sent, the section of lifecycle/logs.txt.
    for (const auto &[failing, cmds, logs] : std::initializer_list<std::tuple<int, std::vector<int>, const char *>>{
             {SW_CMD_PORT_TRUST_MODE, {33, 47, 49, 56, 57, 51}, "port stage refused"},
             {SW_CMD_PORT_CONFIG_SET, {33, 47, 49, 56, 57, 51, 41}, "vlan stage refused"}}) {
        reset();
        drv.results = {{failing, -4}};
        EXPECT_EQ(switchCfgApply(sw), -4);
        EXPECT_EQ(drv.cmds(), cmds);
        EXPECT_TRUE(cap->logsAre(swtest::dataLogs("lifecycle/logs.txt", logs)));
    }
}

TEST_P(Lifecycle, LookupsAreExactFirstMatchWinsAndBindingIsByExactName) {
    Switch *pse = swtest::addSwitch("PSE", 2), *bcm = swtest::addSwitch("bcm", 1);
    swtest::addSwitch("bcm", 1);
    EXPECT_EQ(switchByNameGet("bcm"), bcm);
    for (const char *name : {"BCM", "bcm ", static_cast<const char *>(nullptr)})
        EXPECT_EQ(switchByNameGet(name), nullptr) << (name ? name : "null");

    EXPECT_EQ(switchLowerLvlSwitchListAppend(nullptr, bcm), -1);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, nullptr), -1);

    // No driver is named "bcm": nothing bound, nothing to release.
    EXPECT_EQ(std::make_pair(switchConfigFuncRegister(nullptr), switchConfigFuncUnRegister(nullptr)),
              std::make_pair(int{SW_EINVAL}, int{SW_EINVAL}));
    EXPECT_EQ(switchConfigFuncRegister(bcm), -1);
    EXPECT_EQ(bcm->switchConfigFunc, nullptr);
    EXPECT_EQ(switchConfigFuncUnRegister(bcm), 0);
}

TEST_P(Lifecycle, PrefixesShareClearedBuffersAndAreCutToThem) {
    Switch *sw = swtest::addSwitch("BCM", 1);
    EXPECT_EQ(switchStrGet(sw), switchStr);
    // Each description text has its own buffer, which no object clears (the
    // texts themselves open the objects' log lines).
    EXPECT_EQ(std::string(switchStrGet(nullptr)) + swPortStrGet(nullptr) + swVlanStrGet(nullptr), "");
    for (const char *buf : {switchStr, swPortStr, swVlanStr}) EXPECT_EQ(std::string(buf, 512), std::string(512, '\0'));
    // A name filling its whole field is cut to the buffer, not overrun.
    std::memset(sw->switchName, 'n', sizeof sw->switchName);
    EXPECT_EQ(std::string(switchStrGet(sw)), "(switch=" + std::string(503, 'n'));
    std::memcpy(sw->switchName, "B", 2);  // a shorter text leaves nothing of the longer one
    EXPECT_EQ(std::string(switchStrGet(sw), 512), "(switch=B) " + std::string(501, '\0'));
}

// Results, unknown names and the bus handler's mapping are checked with the
// bus handler; here what reaches the driver and what comes back unmapped.
TEST_P(Lifecycle, RoutedCommandCarriesTheWholeBusArgumentAreaOfTheNamedSwitchOnly) {
    swtest::addSwitch("PSE", 2);
    Switch *sw = swtest::addSwitch("REC", 1);
    ASSERT_EQ(switchConfigFuncRegister(sw), 0);
    char request[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "REC";
    std::memcpy(request + SW_BUS_NAME_LEN, "\1\0\0\0", 4);
    drv.results = {{SW_CMD_VLAN_ENABLE, 5}};
    EXPECT_EQ(switchConfig(request, SW_CMD_VLAN_ENABLE, nullptr, nullptr), 5);
    const auto &c = drv.calls.at(0);
    EXPECT_EQ(std::make_tuple(c.sw, c.cmd, c.argLen, c.argPtr, c.arg),
              std::make_tuple(sw, 33, 1300, static_cast<const void *>(request + 64), swtest::le32(1)));
    // A name filling all 64 bytes is read as 64 characters, never past them.
    std::memset(request, 'R', SW_BUS_NAME_LEN);
    EXPECT_EQ(switchConfig(request, 33, nullptr, nullptr), -1);
    EXPECT_EQ(drv.calls.size() + cap->logs.size(), 1u);
}
