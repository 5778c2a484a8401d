// SPDX-License-Identifier: Apache-2.0
// VLAN programming of the BCM chip.
#include "bcm_fixture.h"

namespace {
using namespace bcmtest;
SWTEST_BOTH_FORMS(BcmForms);
using Entry = swsim::BcmChip::VlanEntry;

constexpr unsigned kClear = 0x80055310u, kEntry = 0x80075312u, kTagSet = 0x80065307u,
                   kNon8021q = 0x80065311u, kPairQuery = 0x80045303u, kPairAdd = 0x80045304u,
                   kPairDelete = 0x80045305u;

TEST_P(BcmForms, EntryGetsCpuPortOnlyWhenItHasMembers) {
    EXPECT_EQ(0, config(35, addVlan(10, 0x03, 0x01, "eth0"), SW_VLAN_REC_LEN));
    EXPECT_EQ(0, config(35, addVlan(11, 0x00, 0x00, "eth0"), SW_VLAN_REC_LEN));
    EXPECT_EQ(requests(), (Requests{{kClear, {10, 0, 0, 0, 0}}, {kEntry, {10, 0, 0x13, 0, 0x01, 0, 0}},
                                    {kClear, {11, 0, 0, 0, 0}}, {kEntry, {11, 0, 0, 0, 0, 0, 0}}}));
    addVlan(12, 0x02, 0x00, "eth0")->inSwitchOnly = 1;  // port 0 in place of the CPU port
    addVlan(13, 0x04, 0x00, "eth1");                    // no CPU port outside the LAN zone
    addVlan(14, 0x08, 0x00, "eth0.100");                // nor for a sub-interface

    // The whole list: a failed clear does not stop the write, a failed write stops the walk.
    chip.state().vlans.clear();
    chip.failRequest(kClear, -5, 1);
    EXPECT_EQ(0, config(35, nullptr, SW_VLAN_REC_LEN));
    EXPECT_EQ(chip.state().vlans, (std::map<uint16_t, Entry>{{10, {0x13, 0x01}}, {11, {0, 0}}, {12, {0x03, 0}},
                                                             {13, {0x05, 0}}, {14, {0x09, 0}}}));
    chip.state().vlans.clear();
    chip.failRequest(kEntry, -5, 1);
    EXPECT_EQ(-5, config(35, nullptr, SW_VLAN_REC_LEN));
    EXPECT_TRUE(chip.state().vlans.empty());
    EXPECT_EQ(1, cap->countLog("(switch=BCM) (vlan:10) Failed to configure membership for vlan10\n"));
}

TEST_P(BcmForms, UpdateKeepsEachPortUntaggedInOneVlan) {
    SwitchVlan *v10 = addVlan(10, 0x07, 0x03);
    SwitchVlan *v20 = addVlan(20, 0x01, 0x00);
    SwitchVlan *v30 = addVlan(30, 0x06, 0x06);
    SwitchVlan update = *v20;
    update.fwdMap = 0x0f;
    update.untagMap = 0x02;
    EXPECT_EQ(0, config(34, &update, SW_VLAN_REC_LEN));
    EXPECT_EQ((std::vector<uint32_t>{v10->untagMap, v10->fwdMap, v20->untagMap, v20->fwdMap, v30->untagMap}),
              (std::vector<uint32_t>{0x01, 0x07, 0x02, 0x0f, 0x04}));
    EXPECT_TRUE(cap->ioctls.empty());
}

TEST_P(BcmForms, PortConfigTakesPvidFromLastUntaggedVlanAndWidens) {
    SwitchPort *p0 = addPort(0), *p1 = addPort(1), *p2 = addPort(2, 7);
    addPorts({3, 4});
    // Without VLANs only the given port is written.
    EXPECT_EQ(0, config(41, p2, SW_PORT_REC_LEN));
    EXPECT_EQ(requests(), (Requests{{kTagSet, {2, 0, 7, 0, 0, 0}}, {kNon8021q, {2, 0, 1, 0, 0, 0}}}));

    addVlan(10, 0x03, 0x01);
    addVlan(20, 0x01, 0x01);
    EXPECT_EQ(0, config(41, nullptr, SW_PORT_REC_LEN));
    EXPECT_EQ((std::vector<int>{p0->PVID, p0->non8021qFramesStatus, p1->PVID, p1->non8021qFramesStatus}),
              (std::vector<int>{20, 0, 1, 1}));
    EXPECT_EQ(chip.port(0).tag, (swsim::BcmChip::Tag{20, 0, 0}));
    for (int n = 0; n < 5; ++n) EXPECT_EQ(n == 0 ? 0u : 1u, chip.port(n).non8021q) << n;

    // Once a VLAN exists, one port's record writes every port.
    cap->clear();
    EXPECT_EQ(0, config(41, p2, SW_PORT_REC_LEN));
    EXPECT_EQ(5u, argsOf(kNon8021q).size());
}

TEST_P(BcmForms, PortBasedVlansAddTheCpuPort) {
    SwitchVlan *v = addVlan(10, 0x05, 0x00);
    EXPECT_EQ(0, bcmPortVlanConfig(nullptr, v));
    for (int n = 0; n < 5; ++n) EXPECT_EQ(n == 0 || n == 2 ? 0x15 : 0x1f, chip.port(n).fwdMap) << n;
    EXPECT_EQ(argsOf(kPairAdd), (std::vector<Bytes>{{0, 0, 0, 0}, {0, 0, 2, 0}, {0, 0, 4, 0},
                                                    {2, 0, 0, 0}, {2, 0, 2, 0}, {2, 0, 4, 0}}));
    EXPECT_EQ(0, bcmPortVlanDeConfig(nullptr, v));
    EXPECT_EQ(0x1f, chip.port(0).fwdMap);  // default map restored

    // The CPU port's default port-based VLAN touches member 0 only.
    cap->clear();
    chip.port(4).fwdMap = 0x1e;
    EXPECT_EQ(0, bcmDefPortVlanConfig(4));
    EXPECT_EQ(0x1f, chip.port(4).fwdMap);
    EXPECT_EQ(requests(), (Requests{{kPairQuery, {4, 0, 0, 0}}, {kPairAdd, {4, 0, 0, 0}}}));
    chip.failRequest(kPairDelete, -5, 1);  // a reset logs and carries on
    EXPECT_EQ(0, bcmPortVlanReset(3));
    EXPECT_EQ(0x01, chip.port(3).fwdMap);
    EXPECT_EQ(1, cap->countLog("ERROR#-5 deleting Port 0 in forward map of port:3\n"));
}

}  // namespace
