// VLAN membership on the engine and the CPU's ARL entry.
#include "host_vlan.h"
#include "pse_fixture.h"

namespace {

using Logs = std::vector<std::string>;
using Lines = std::vector<std::string>;

constexpr char kMac[] = "00:1a:2b:3c:4d:5e";

// PSE ports 1, 5 and 33 over BCM ports 1 to 4: port 5 stands for BCM 1
// and 3, port 1 for BCM 2, port 33 for BCM 4.
class PseVlanTest : public psetest::PseTest {
protected:
    void SetUp() override {
        PseTest::SetUp();
        host.enableHwAddr();
        host.setMac("eth1", {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E});
        host.setMac("eth0", {0x02, 0x00, 0x00, 0x00, 0x00, 0x01});
        Switch *bcm = swtest::addSwitch("BCM", 1);
        SwitchPort *p1 = addPort(pse, 1);
        SwitchPort *p5 = addPort(pse, 5);
        SwitchPort *p33 = addPort(pse, 33);
        mapPort(p5, addPort(bcm, 1));
        mapPort(p1, addPort(bcm, 2));
        mapPort(p5, addPort(bcm, 3));
        mapPort(p33, addPort(bcm, 4));
        addPort(pse, 9);  // maps nothing, never joins
        vlan.vlanId = 100;
        vlan.vlanIndex = 3;
        std::snprintf(vlan.interfaceName, sizeof vlan.interfaceName, "eth1");
        std::snprintf(vlan.LogicalIfName, sizeof vlan.LogicalIfName, "eth1.100");
        engine.run("arl_table_func add 02:00:00:00:00:09 7 0x4 0x1", nullptr);
        cap->clear();
    }
    void TearDown() override {
        host.disableHwAddr();
        PseTest::TearDown();
    }
    int apply(uint32_t fwdMap, const char *ifName = "eth1") {
        vlan.fwdMap = fwdMap;
        std::snprintf(vlan.interfaceName, sizeof vlan.interfaceName, "%s", ifName);
        return pseSwitchConfig(pse, SW_CMD_VLAN_MEMBERSHIP_APPLY, &vlan, SW_VLAN_REC_LEN, nullptr,
                               nullptr);
    }
    swsim::HostVlanModel host;
    SwitchVlan vlan{};
};

TEST_F(PseVlanTest, EmptyMembershipWritesZeroMapsAndDeletesWithEmptyMac) {
    pse->lowerLvlForward = 0;
    EXPECT_EQ(0, apply(0));
    const Lines expected{"vlan_table_func edit 3 0 0x0 0x0 100  1", "arl_table_func del  100"};
    EXPECT_EQ(expected, cap->commands);
    EXPECT_EQ((Logs{"Processing vlan membership configure request (35)\n", cmdLine(expected[0], 0),
                    cmdLine(expected[1], 0), "handler not defined for command (35)\n"}),
              logs());
    EXPECT_TRUE(cap->ioctls.empty());
    const auto *e = engine.vlanEntry(3);
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(0u, e->etagMap);
    EXPECT_EQ("", e->mac);
    EXPECT_EQ(1u, engine.arlTable().size());  // the unrelated entry stays
}

TEST_F(PseVlanTest, JoiningPortCarriesMacWithNewlineIntoBothLines) {
    swMgrDevDebug = 1;
    pse->lowerLvlForward = 0;
    EXPECT_EQ(0, apply(0x4));  // BCM port 3, below PSE port 5
    const std::string mac = std::string(kMac) + "\n";
    EXPECT_EQ((Lines{"vlan_table_func edit 3 1 0x24 0x24 100 " + mac + " 1",
                     "arl_table_func add " + mac + " 100 0x4 0x1"}),
              cap->commands);
    int adding = 0;
    for (const auto &l : cap->logs) adding += l.text == "Adding port(5) to membership. \n";
    EXPECT_EQ(1, adding) << cap->dump();
    int config = 0;
    for (const auto &l : cap->logs)
        config += l.text == "Configuration: etagMap 36, mbMap 36, isWan 1, macAddr " + mac + "\n";
    EXPECT_EQ(1, config) << cap->dump();

    const auto *e = engine.vlanEntry(3);
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(1, e->isWan);
    EXPECT_EQ(0x24u, e->mbMap);
    EXPECT_EQ(kMac, e->mac);
    const auto *arl = engine.arlEntry(kMac, 100);
    ASSERT_NE(nullptr, arl);
    EXPECT_EQ(0x4u, arl->portMap);
    EXPECT_EQ(0x1u, arl->flags);
}

TEST_F(PseVlanTest, MapsFollowThePsePortNumbers) {
    pse->lowerLvlForward = 0;
    struct Case {
        uint32_t fwdMap;
        const char *ifName;
        const char *edit;
    } cases[] = {
        {0x6, "eth0", "vlan_table_func edit 3 0 0x26 0x26 100 02:00:00:00:00:01\n 1"},
        {0x8, "eth1", "vlan_table_func edit 3 1 0x6 0x6 100 00:1a:2b:3c:4d:5e\n 1"},
        {0xF, "eth1", "vlan_table_func edit 3 1 0x26 0x26 100 00:1a:2b:3c:4d:5e\n 1"},
    };
    for (const auto &c : cases) {
        cap->clear();
        EXPECT_EQ(0, apply(c.fwdMap, c.ifName));
        ASSERT_EQ(2u, cap->commands.size());
        EXPECT_EQ(c.edit, cap->commands[0]) << c.fwdMap;
    }
}

TEST_F(PseVlanTest, OnlyNegativeEngineStatusesFail) {
    pse->lowerLvlForward = 0;
    EXPECT_EQ(SW_EINVAL, pseVlanMembershipSet(pse, nullptr));

    engine.failCommand("vlan_table_func", -1, true, 1);
    EXPECT_EQ(-1, apply(0x4));
    EXPECT_EQ(1u, cap->commands.size());
    EXPECT_EQ(1, cap->countLog("Failed to configure PSE membership for VLAN.\n"));

    engine.failCommand("arl_table_func add", -7, true, 1);
    EXPECT_EQ(-7, apply(0x4));
    EXPECT_EQ(1, cap->countLog("Failed to add CPU ARL Entry for VLAN.\n"));
    EXPECT_NE(nullptr, engine.vlanEntry(3));  // not undone

    engine.failCommand("arl_table_func del", -2, true, 1);
    EXPECT_EQ(-2, apply(0));
    EXPECT_EQ(1, cap->countLog("Failed to delete CPU ARL Entry for VLAN.\n"));

    cap->clear();
    engine.failCommand("vlan_table_func", 9, true, 1);
    EXPECT_EQ(0, apply(0x4));
    EXPECT_EQ(2u, cap->commands.size());
}

}  // namespace
