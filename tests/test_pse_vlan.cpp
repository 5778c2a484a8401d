// SPDX-License-Identifier: Apache-2.0
// VLAN membership on the engine, the CPU's ARL entry and the MAC address text.
#include "host_vlan.h"
#include "pse_fixture.h"

namespace {
using namespace psetest;

// PSE ports 1, 5 and 33 over BCM ports 1 to 4: port 5 stands for BCM 1
// and 3, port 1 for BCM 2, port 33 for BCM 4.
class PseVlanTest : public PseTest {
protected:
    void SetUp() override {
        PseTest::SetUp();
        host.enableHwAddr();
        host.setMac("eth1", {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E});
        Switch *bcm = swtest::addSwitch("BCM", 1);
        addPort(pse, 1, {addPort(bcm, 2)});
        addPort(pse, 5, {addPort(bcm, 1), addPort(bcm, 3)});
        addPort(pse, 33, {addPort(bcm, 4)});
        addPort(pse, 9);  // maps nothing, never joins
        vlan.vlanId = 100;
        vlan.vlanIndex = 3;
        cap->clear();
    }
    int apply(uint32_t fwdMap, const char *ifName = "eth1") {
        vlan.fwdMap = fwdMap;
        std::snprintf(vlan.interfaceName, sizeof vlan.interfaceName, "%s", ifName);
        return pseSwitchConfig(pse, 35, &vlan, SW_VLAN_REC_LEN, nullptr, nullptr);
    }
    // eth0 answers 02:00:00:00:00:01, the long name 02:00:00:00:00:03.
    swsim::HostVlanModel host{{"eth0", "eth1", "a-very-long-int"}};
    SwitchVlan vlan{};
};
using PseVlanForms = swtest::BothForms<PseVlanTest>;

TEST_P(PseVlanForms, MembershipMapsFollowThePsePortNumbers) {
    // No member: zero maps, and the ARL entry deleted with an empty MAC.
    EXPECT_EQ(0, apply(0));
    EXPECT_EQ((Lines{"vlan_table_func edit 3 0 0x0 0x0 100  1", "arl_table_func del  100"}), cap->commands);
    EXPECT_TRUE(cap->logsAre(
        {{64, "pseSwitchConfig", "Processing vlan membership configure request (35)\n"},
         {-1, "pseVlanMembershipSet", "Configuration: etagMap 0, mbMap 0, isWan 0, macAddr \n"},
         {8, "pseVlanMembershipConfigure", "cmd (vlan_table_func edit 3 0 0x0 0x0 100  1) returned (0).\n"},
         {8, "pseCpuARLTableEntryDelete", "cmd (arl_table_func del  100) returned (1).\n"},
         {64, "pseSwitchConfig", "handler not defined for command (35)\n"}}));
    EXPECT_TRUE(cap->ioctls.empty());

    // BCM port 3 alone: PSE port 5 and the CPU; the MAC text brings its
    // newline into both lines.
    cap->clear();
    EXPECT_EQ(0, apply(0x4));
    EXPECT_EQ((Lines{"vlan_table_func edit 3 1 0x24 0x24 100 00:1a:2b:3c:4d:5e\n 1",
                     "arl_table_func add 00:1a:2b:3c:4d:5e\n 100 0x4 0x1"}),
              cap->commands);
    const struct {
        uint32_t fwdMap;
        const char *ifName, *edit;
    } cases[] = {{0x6, "eth0", "vlan_table_func edit 3 0 0x26 0x26 100 02:00:00:00:00:01\n 1"},
                 {0x8, "eth1", "vlan_table_func edit 3 1 0x6 0x6 100 00:1a:2b:3c:4d:5e\n 1"},  // 33 is bit 1
                 {0xF, "eth1", "vlan_table_func edit 3 1 0x26 0x26 100 00:1a:2b:3c:4d:5e\n 1"}};
    for (const auto &c : cases) {
        cap->clear();
        EXPECT_EQ(0, apply(c.fwdMap, c.ifName));
        EXPECT_EQ(c.edit, cap->commands.at(0)) << c.fwdMap;
    }

    // The MAC text, cut interface names, and the cleared address of a
    // failed request (which still succeeds).
    char out[PSE_MAC_TEXT_LEN];
    EXPECT_EQ(0, switchMacAddressByIfNameGet("eth1", out));
    EXPECT_STREQ("00:1a:2b:3c:4d:5e\n", out);
    EXPECT_EQ(0, switchMacAddressByIfNameGet("a-very-long-interface-name", out));
    EXPECT_STREQ("02:00:00:00:00:03\n", out);
    EXPECT_EQ(0, switchMacAddressByIfNameGet("eth9", out));
    EXPECT_STREQ("00:00:00:00:00:00\n", out);
    EXPECT_EQ(SW_EINVAL, switchMacAddressByIfNameGet("eth1", nullptr));
}

TEST_P(PseVlanForms, OnlyNegativeEngineStatusesFail) {
    engine.failCommand("vlan_table_func", -1, true, 1);
    EXPECT_EQ(-1, apply(0x4));
    EXPECT_EQ(1u, cap->commands.size());
    engine.failCommand("arl_table_func add", -7, true, 1);
    EXPECT_EQ(-7, apply(0x4));
    EXPECT_EQ(nullptr, engine.vlanEntry(3));  // its line carried the MAC text's newline
    engine.failCommand("arl_table_func del", -2, true, 1);
    EXPECT_EQ(-2, apply(0));
    engine.failCommand("vlan_table_func", 9, true, 1);
    EXPECT_EQ(0, apply(0x4));
    EXPECT_EQ(7u, cap->commands.size());
}

SWTEST_BOTH_FORMS(PseVlanForms);

}  // namespace
