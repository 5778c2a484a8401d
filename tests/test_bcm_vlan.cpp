// VLAN programming of the BCM chip.
#include "bcm_fixture.h"

namespace {
using namespace bcmtest;
using Entry = swsim::BcmChip::VlanEntry;

constexpr unsigned kClear = 0x80055310u, kEntry = 0x80075312u, kTagSet = 0x80065307u,
                   kNon8021q = 0x80065311u, kPairQuery = 0x80045303u, kPairAdd = 0x80045304u,
                   kPairDelete = 0x80045305u;

int apply(Switch *sw, SwitchVlan *v) { return bcmSwitchConfig(sw, 35, v, SW_VLAN_REC_LEN, nullptr, nullptr); }

TEST_F(BcmTest, VlanModeOnOffAndRejectedValue) {
    EXPECT_EQ(0, bcmVlanEnable(1));
    EXPECT_TRUE(chip.state().vlanEnabled);
    EXPECT_EQ(0, bcmVlanEnable(0));
    EXPECT_FALSE(chip.state().vlanEnabled);
    EXPECT_EQ(-1, bcmVlanEnable(2));
    EXPECT_EQ(requests(), (Requests{{0x20005301u, {}}, {0x20005302u, {}}}));
    EXPECT_EQ(1, cap->countLog("VLAN Enable status 2\n"));
}

TEST_F(BcmTest, EntryGetsCpuPortOnlyWhenItHasMembers) {
    EXPECT_EQ(0, apply(sw, addVlan(10, 0x03, 0x01, "eth0")));
    EXPECT_EQ(0, apply(sw, addVlan(11, 0x00, 0x00, "eth0")));
    SwitchVlan *local = addVlan(12, 0x02, 0x00, "eth0");
    local->inSwitchOnly = 1;  // port 0 in place of the CPU port
    EXPECT_EQ(0, apply(sw, local));
    EXPECT_EQ(requests(), (Requests{{kClear, {10, 0, 0, 0, 0}}, {kEntry, {10, 0, 0x13, 0, 0x01, 0, 0}},
                                    {kClear, {11, 0, 0, 0, 0}}, {kEntry, {11, 0, 0, 0, 0, 0, 0}},
                                    {kClear, {12, 0, 0, 0, 0}}, {kEntry, {12, 0, 0x03, 0, 0, 0, 0}}}));
    EXPECT_EQ(chip.vlan(10), (Entry{0x13, 0x01}));
    EXPECT_EQ(1, cap->countLog("Modifying untag value to 1 and fwdMap to 19 for vlanid: 10 \n"));
}

TEST_F(BcmTest, ApplyAllStopsAtFirstFailedEntry) {
    addVlan(10, 0x03, 0x01, "eth1");
    addVlan(20, 0x04, 0x00, "eth1");
    chip.failRequest(kClear, -5);  // a failed clear does not stop the write
    EXPECT_EQ(0, apply(sw, nullptr));
    EXPECT_EQ(chip.vlan(10), (Entry{0x03, 0x01}));
    EXPECT_EQ(chip.vlan(20), (Entry{0x05, 0x00}));

    chip.state().vlans.clear();
    chip.failRequest(kEntry, -5, 1);
    EXPECT_EQ(-5, apply(sw, nullptr));
    EXPECT_FALSE(chip.vlan(20).has_value());
    EXPECT_EQ(1, cap->countLog("ERROR#-5 adding 802.1Q VLAN entry\n"));
    EXPECT_EQ(1, cap->countLog("(switch=BCM) (vlan:10) Failed to configure membership for vlan10\n"));
}

TEST_F(BcmTest, UpdateKeepsEachPortUntaggedInOneVlan) {
    SwitchVlan *v10 = addVlan(10, 0x07, 0x03);
    SwitchVlan *v20 = addVlan(20, 0x01, 0x00);
    SwitchVlan *v30 = addVlan(30, 0x06, 0x06);
    SwitchVlan update = *v20;
    update.fwdMap = 0x0f;
    update.untagMap = 0x02;
    EXPECT_EQ(0, bcmSwitchConfig(sw, 34, &update, SW_VLAN_REC_LEN, nullptr, nullptr));
    EXPECT_EQ((std::vector<uint32_t>{v10->untagMap, v10->fwdMap, v20->untagMap, v20->fwdMap, v30->untagMap}),
              (std::vector<uint32_t>{0x01, 0x07, 0x02, 0x0f, 0x04}));
    EXPECT_TRUE(cap->ioctls.empty());
    EXPECT_EQ(SW_EINVAL, bcmVlanMembershipUpdate(sw, nullptr));
}

TEST_F(BcmTest, PortConfigLastUntaggedVlanGivesPvid) {
    addPorts({0, 1, 2, 3, 4});
    addVlan(10, 0x03, 0x01);
    addVlan(20, 0x01, 0x01);
    EXPECT_EQ(0, bcmSwitchConfig(sw, 41, nullptr, SW_PORT_REC_LEN, nullptr, nullptr));
    auto *p0 = static_cast<SwitchPort *>(osaListFirst(&sw->portList));
    auto *p1 = static_cast<SwitchPort *>(osaListNext(p0));
    EXPECT_EQ((std::vector<int>{p0->PVID, p0->non8021qFramesStatus, p1->PVID, p1->non8021qFramesStatus}),
              (std::vector<int>{20, 0, 1, 1}));
    EXPECT_EQ(argsOf(kTagSet)[0], Bytes({0, 0, 20, 0, 0, 0}));
    EXPECT_EQ(argsOf(kNon8021q)[0], Bytes({0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(argsOf(kNon8021q)[1], Bytes({1, 0, 1, 0, 0, 0}));
    EXPECT_EQ(chip.port(0).tag, (swsim::BcmChip::Tag{20, 0, 0}));
    for (int n = 1; n < 5; ++n) EXPECT_EQ(1u, chip.port(n).non8021q) << n;
}

TEST_F(BcmTest, PortConfigWidensToEveryPortOnceAVlanExists) {
    addPorts({0, 1});
    SwitchPort *p2 = addPort(2, 7);
    EXPECT_EQ(0, bcmSwitchConfig(sw, 41, p2, SW_PORT_REC_LEN, nullptr, nullptr));
    EXPECT_EQ(requests(), (Requests{{kTagSet, {2, 0, 7, 0, 0, 0}}, {kNon8021q, {2, 0, 1, 0, 0, 0}}}));
    cap->clear();
    addVlan(10, 0x01, 0x00);
    EXPECT_EQ(0, bcmSwitchPortConfigure(sw, p2));
    EXPECT_EQ(3u, argsOf(kNon8021q).size());

    cap->clear();
    cap->scriptIoctl(kTagSet, -5, 1);
    EXPECT_EQ(-5, bcmSwitchPortConfigure(sw, p2));
    EXPECT_EQ(logs(), (Logs{{8, "setting 802.1Q default tag for [0 1\n] failed. \n"},
                            {8, "(switch=BCM) (port:0) Failed to set PVID for port 0\n"}}));
}

TEST_F(BcmTest, PortVlanConfigAddsCpuPortToEachMember) {
    SwitchVlan *v = addVlan(10, 0x05, 0x00);
    EXPECT_EQ(0, bcmPortVlanConfig(nullptr, v));
    for (int n = 0; n < 5; ++n) EXPECT_EQ(n == 0 || n == 2 ? 0x15 : 0x1f, chip.port(n).fwdMap) << n;
    EXPECT_EQ(1, cap->countLog("configuring Port VLAN #0: [PMAP:15 FWD 5]\n"));
    EXPECT_EQ(argsOf(kPairAdd), (std::vector<Bytes>{{0, 0, 0, 0}, {0, 0, 2, 0}, {0, 0, 4, 0},
                                                    {2, 0, 0, 0}, {2, 0, 2, 0}, {2, 0, 4, 0}}));
    EXPECT_EQ(0, bcmPortVlanDeConfig(nullptr, v));
    EXPECT_EQ(0x1f, chip.port(0).fwdMap);  // default map restored
    EXPECT_EQ(1, cap->countLog("De-configuring Port VLAN #2: [PMAP:15 FWD 5]\n"));

    cap->clear();
    v->fwdMap = 0;
    EXPECT_EQ(0, bcmPortVlanConfig(nullptr, v));
    EXPECT_TRUE(cap->ioctls.empty());
    v->fwdMap = 0x02;
    chip.failRequest(kPairAdd, -5);
    EXPECT_EQ(-5, bcmPortVlanConfig(nullptr, v));
    EXPECT_EQ(1, cap->countLog("ERROR#-5 configuring Port VLAN #1: [FWD 12]\n"));
    EXPECT_EQ(1u, argsOf(kPairAdd).size());
}

TEST_F(BcmTest, DefaultPortVlanOfCpuPortTouchesMemberZeroOnly) {
    chip.port(4).fwdMap = 0x1e;
    EXPECT_EQ(0, bcmDefPortVlanConfig(4));
    EXPECT_EQ(0x1f, chip.port(4).fwdMap);
    EXPECT_EQ(requests(), (Requests{{kPairQuery, {4, 0, 0, 0}}, {kPairAdd, {4, 0, 0, 0}}}));
    EXPECT_EQ(1, cap->countLog("configuring default port VLAN #4: [FWD 1]\n"));
    chip.port(1).fwdMap = 0x03;
    EXPECT_EQ(0, bcmDefPortVlanConfig(1));
    EXPECT_EQ(0x1f, chip.port(1).fwdMap);

    chip.failRequest(kPairDelete, -5, 1);  // a reset logs and carries on
    EXPECT_EQ(0, bcmPortVlanReset(3));
    EXPECT_EQ(0x01, chip.port(3).fwdMap);
    EXPECT_EQ(1, cap->countLog("ERROR#-5 deleting Port 0 in forward map of port:3\n"));
}

TEST_F(BcmTest, SnoopingOnlyLogs) {
    EXPECT_EQ(0, bcmIGMPSnoopSet(sw));
    EXPECT_EQ(0, bcmMLDSnoopSet(sw));
    EXPECT_EQ(logs(), (Logs{{64, "(switch=BCM) Configuring IGMP Snooping in the switch \n"},
                            {128, "(switch=BCM) Successfully configured IGMP in the switch. \n"},
                            {64, "(switch=BCM) Configuring MLD Snooping in the switch \n"},
                            {128, "(switch=BCM) Successfully configured MLD in the switch. \n"}}));
    EXPECT_TRUE(cap->ioctls.empty());
}

}  // namespace
