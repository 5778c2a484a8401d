// SPDX-License-Identifier: Apache-2.0
// VLAN records on every switch: index, add, update, disable, delete, and the
// host sub-interface that goes with each VLAN, with the model of the host's tools.
#include <cstdio>

#include "data_lines.h"

namespace {

using Ints = std::vector<int>;
const char *const kData = "vlans/expected.txt";

SwitchVlanConf vlanConf(int id, uint32_t fwd = 0x6, uint32_t untag = 0x2, int inSwitchOnly = 0) {
    SwitchVlanConf c{};
    c.vlanId = id, c.fwdMap = fwd, c.untagMap = untag, c.inSwitchOnly = inSwitchOnly;
    std::snprintf(c.interfaceName, sizeof c.interfaceName, "eth0");
    return c;
}

Ints ids(Switch *sw) { return swtest::listed(&sw->vlanList, &SwitchVlan::vlanId); }

// Two switches bound to the recording driver: TOP (level 2), then LOW.
class Vlans : public swtest::DriverTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        root->write("var/.keep", "");
        top = add("TOP", 2);
        low = add("LOW", 1);
        ASSERT_TRUE(top != nullptr && low != nullptr);
    }
    Switch *top = nullptr, *low = nullptr;
};
SWTEST_BOTH_FORMS(VlanForms, Vlans);

}  // namespace

// A successful add (its records, order, pauses and index) is checked in the
// start-up transcript. The index counter lives as long as the process, so
// only its steps are checked here.
TEST_P(VlanForms, FailedAddsTakeNoIndexAndOnlyAddAndDeleteAreBusCodes) {
    const int first = switchNextVlanIndexGet();
    SwitchVlanConf c = vlanConf(100);
    // Requests that program the switches are checked through the daemon; a
    // failed add through the bus code is not passed on.
    EXPECT_EQ(std::make_tuple(switchVlanMembershipUpdate(nullptr), switchVlanDisable(nullptr),
                              switchVlanConfigure(nullptr, 37, &c), switchPortVlanInfoConfigure(nullptr, nullptr),
                              switchAllVlansDisable(nullptr), switchVlanConfAdd(nullptr), switchVlanByConfCreate(nullptr, &c),
                              switchVlanByConfCreate(top, nullptr)),
              std::make_tuple(SW_EINVAL, SW_EINVAL, -1, SW_EINVAL, SW_EINVAL, -1, -1, -1));
    EXPECT_TRUE(drv.calls.empty());
    drv.results[SW_CMD_VLAN_MEMBERSHIP_UPDATE] = -5;
    EXPECT_EQ(switchVlanConfigure(nullptr, SW_CMD_VLAN_ADD, &c), 0);
    EXPECT_EQ(cap->countLog("(switch=TOP) (vlan:100) Failed to update vlan100 membership in TOP\n"), 1);
    EXPECT_TRUE(ids(top).empty());
    drv.results.clear();
    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    EXPECT_EQ(switchVlanByIdGet(low, 100)->vlanIndex, first);

    // A duplicate fails at the first switch, before any other switch or
    // host interface; failed adds take no index.
    reset();
    EXPECT_EQ(switchVlanConfAdd(&c), -1);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "duplicate-100")));
    EXPECT_TRUE(cap->commands.empty() && drv.calls.empty());
    EXPECT_EQ(switchVlanCreate(low, switchVlanByIdGet(low, 100)), SW_EINVAL);
    cap->scriptCommand("vconfig add eth0 200", -3, 1);  // a failing host interface
    SwitchVlanConf failing = vlanConf(200);
    EXPECT_EQ(switchVlanConfAdd(&failing), -3);
    EXPECT_EQ(cap->countLog("Failed to apply configuration in  \n"), 1);
    EXPECT_EQ(switchNextVlanIndexGet(), first + 1);
    // A positive status from the host's tools still counts as added.
    cap->scriptCommand("vconfig add eth0 400", 3, 1);
    SwitchVlanConf positive = vlanConf(400);
    EXPECT_EQ(switchVlanConfAdd(&positive), 0);
    EXPECT_EQ(switchVlanByIdGet(low, 400)->vlanIndex, first + 1);
    EXPECT_EQ(switchVlanConfigure(nullptr, SW_CMD_VLAN_DELETE, &positive), 0);
    EXPECT_EQ(switchVlanByIdGet(low, 400), nullptr);
    EXPECT_EQ(switchVlanIndexIncr(), 0);
    EXPECT_EQ(switchNextVlanIndexGet(), first + 3);
}

TEST_P(VlanForms, UpdateFindsTheOldIdStoresTheNewOneAndMovesItLast) {
    SwitchVlanConf a = vlanConf(100), b = vlanConf(200);
    ASSERT_EQ(switchVlanConfAdd(&a), 0);
    ASSERT_EQ(switchVlanConfAdd(&b), 0);
    SwitchVlan *rec = switchVlanByIdGet(top, 100);
    const int index = rec->vlanIndex;
    reset();
    SwitchVlanConf moved = vlanConf(150, 0xf0, 0x10);
    ASSERT_EQ(switchVlanConfUpdate(&moved, &a), 0);
    EXPECT_EQ(ids(top), (Ints{200, 150}));
    EXPECT_EQ(switchVlanByIdGet(top, 150), rec);
    EXPECT_EQ(std::tie(rec->fwdMap, rec->vlanIndex), std::make_tuple(0xf0u, index));
    EXPECT_TRUE(cap->commands.empty());  // the host interface is left alone
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "update-150")));

    // A refused apply fails the update at the first switch.
    EXPECT_EQ(switchVlanConfUpdate(nullptr, &a), -1);
    EXPECT_EQ(switchVlanConfParamsAssign(nullptr, &a), -1);
    reset();
    drv.results[SW_CMD_VLAN_MEMBERSHIP_APPLY] = -4;
    SwitchVlanConf again = vlanConf(160);
    EXPECT_EQ(switchVlanConfUpdate(&again, &moved), -1);
    drv.results.clear();
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "update-refused-160")));
    EXPECT_EQ(std::tie(top->lowerLvlForward, low->lowerLvlForward), std::make_tuple(1, 1));

    // A switch without the VLAN is left with forwarding off.
    SwitchVlanConf only = vlanConf(300), renamed = vlanConf(301);
    ASSERT_EQ(switchVlanByConfCreate(top, &only), 0);
    ASSERT_EQ(switchVlanConfUpdate(&renamed, &only), 0);
    EXPECT_EQ(std::tie(top->lowerLvlForward, low->lowerLvlForward), std::make_tuple(1, 0));
    SwitchVlan *v301 = switchVlanByIdGet(top, 301);
    EXPECT_EQ(std::make_tuple(switchVlanUpdate(v301, v301), switchVlanUpdate(v301, nullptr)), std::make_tuple(0, -22));
    EXPECT_EQ((drv.results = {{SW_CMD_VLAN_MEMBERSHIP_APPLY, -5}}, switchVlanUpdate(v301, v301)), -5) << "a refused apply";
    EXPECT_EQ((drv.results = {{SW_CMD_VLAN_MEMBERSHIP_UPDATE, -7}}, switchVlanUpdate(v301, v301)), -7) << "a refused update";
}

TEST_P(VlanForms, PortBasedVlanOnlyWithInSwitchOnlyAndDisableThenDeleteRemovesEverywhere) {
    for (int only : {0, 1}) {
        // The add's commands are checked in the start-up transcript.
        SwitchVlanConf c = vlanConf(10 + only, 0x3, 0x1, only);
        ASSERT_EQ(switchVlanConfAdd(&c), 0);
        SwitchVlan *v = switchVlanByIdGet(top, 10 + only);
        EXPECT_EQ(std::make_pair(switchPortVlanConfigure(v, SW_CMD_VLAN_ADD), switchPortVlanConfigure(v, 99)),
                  std::make_pair(0, -only)) << "an operation neither add nor delete is refused";
        drv.results[SW_CMD_PORT_VLAN_CONFIG] = -5;
        EXPECT_EQ(switchPortVlanConfigure(v, SW_CMD_VLAN_ADD), -only) << "nor one the switch refuses";
        drv.results.clear();
        reset();
        SwitchVlanConf next = vlanConf(10 + only, 0x7, 0x1, only);
        ASSERT_EQ(switchVlanConfUpdate(&next, &c), 0);
        EXPECT_EQ(drv.cmds(top), (only ? Ints{59, 34, 58, 41, 35} : Ints{34, 41, 35})) << only;
        reset();
        ASSERT_EQ(switchVlanConfDelete(&next), 0);
        EXPECT_EQ(drv.cmds(low), (only ? Ints{59, 34, 35, 41, 35} : Ints{34, 35, 41, 35})) << only;
        EXPECT_EQ(std::tie(top->lowerLvlForward, low->lowerLvlForward), std::make_tuple(1, 1)) << "forwarding again";
    }

    SwitchVlanConf c = vlanConf(100);
    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    reset();
    EXPECT_EQ(switchVlanDisable(switchVlanByIdGet(top, 100)), 0);
    EXPECT_EQ(top->lowerLvlForward, 1);
    EXPECT_TRUE(cap->logsAre({{8, "switchVlanDisable", "(switch=TOP) (vlan:100) Disabling Vlan100 in TOP\n"}}));

    reset();
    cap->scriptCommand("vconfig rem eth0.100", -3, 1);  // gone from the switches, the host keeps it
    EXPECT_EQ(switchVlanConfDelete(&c), -3);
    EXPECT_TRUE(ids(top).empty() && ids(low).empty() && cap->countLog("Failed to delete encap interface for vlan ID=100\n") == 1);

    // A switch that refuses keeps its VLAN; the one without it stays paused.
    SwitchVlanConf d = vlanConf(200);
    ASSERT_EQ(switchVlanByConfCreate(low, &d), 0);
    reset();
    drv.results[SW_CMD_VLAN_MEMBERSHIP_APPLY] = -4;
    EXPECT_EQ(switchVlanConfDelete(&d), -1);
    EXPECT_EQ(ids(low), Ints{200});
    EXPECT_EQ(cap->countLog("(switch=LOW) Failed to delete vlan (ID=200)\n"), 1);
    EXPECT_EQ(std::tie(top->lowerLvlForward, low->lowerLvlForward), std::make_tuple(0, 1));
    SwitchVlan *v200 = switchVlanByIdGet(low, 200);
    drv.results = {{SW_CMD_VLAN_MEMBERSHIP_APPLY, -5}};
    EXPECT_EQ(switchVlanDisable(v200), -5);
    drv.results = {{SW_CMD_VLAN_MEMBERSHIP_UPDATE, -6}};
    EXPECT_EQ(switchVlanDisable(v200), -6);
    drv.results = {{SW_CMD_PORT_CONFIG_SET, -4}};  // disabled, but the apply is refused
    EXPECT_EQ(switchVlanDelete(v200), -4);
    EXPECT_EQ(std::make_pair(ids(low), cap->countLog("(switch=LOW) (vlan:200) Failed to apply switch vlan configuration \n")),
              std::make_pair(Ints{200}, 1));
}

// Finding a VLAN by id gives the first listed record with it, whoever
// changed the list: the layer or an update onto a taken id.
TEST_P(VlanForms, LookupsApplyAndDisableFollowTheListWhateverChangedIt) {
    SwitchVlanConf a = vlanConf(100), b = vlanConf(200), high = vlanConf(4096), neg = vlanConf(-3);
    std::snprintf(a.vlanName, sizeof a.vlanName, "guest");
    for (SwitchVlanConf *c : {&a, &b, &high, &neg}) ASSERT_EQ(switchVlanByConfCreate(top, c), 0);
    SwitchVlan *v100 = switchVlanByIdGet(top, 100), *v200 = switchVlanByIdGet(top, 200);
    for (SwitchVlanConf *c : {&a, &b, &high, &neg}) EXPECT_EQ(switchVlanByIdGet(top, c->vlanId)->vlanId, c->vlanId);
    EXPECT_EQ(switchVlanByNameGet(top, "guest"), v100);
    EXPECT_EQ(switchVlanByNameGet(top, "gues"), nullptr);
    EXPECT_EQ(switchVlanByNameGet(top, nullptr), nullptr);

    // Only a listed record is applied; a copy of one is not.
    reset();
    SwitchVlan copy = *v100;
    for (SwitchVlan *v : {&copy, v100}) EXPECT_EQ(switchVlanCfgApply(top, v), 0);
    SwitchVlan stray{};  // no listed record has its id (past the indexed ones): nothing to disable or apply
    stray.sw = top, stray.vlanId = 6000;
    EXPECT_EQ(std::make_tuple(switchVlanDisable(&stray), switchVlanCfgApply(nullptr, v100), switchVlanCfgApply(top, &stray)),
              std::make_tuple(0, -22, 0));
    EXPECT_EQ(drv.cmds(top), (Ints{41, 41, 35, 41}));

    // An update onto a taken id leaves two records with it: lookups give the
    // first listed, a disable reaches both, a delete leaves the other.
    SwitchVlanConf onto = vlanConf(200);
    ASSERT_EQ(switchVlanConfUpdate(&onto, &a), 0);
    EXPECT_EQ(ids(top), (Ints{200, 4096, -3, 200}));
    EXPECT_EQ(switchVlanByIdGet(top, 200), v200);
    reset();
    EXPECT_EQ(switchVlanDisable(v100), 0);
    EXPECT_EQ(drv.cmds(top), (Ints{34, 35, 34, 35}));
    // The first refusal ends the walk, with its code.
    EXPECT_EQ((drv.results = {{SW_CMD_VLAN_MEMBERSHIP_APPLY, -5}}, switchVlanDisable(v100)), -5);
    ASSERT_EQ((drv.results.clear(), switchVlanDelete(v200)), 0);
    EXPECT_EQ(switchVlanByIdGet(top, 200), v100);
    EXPECT_EQ(switchVlanByIdGet(top, 100), nullptr);
}
