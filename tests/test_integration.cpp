// The whole system started the way the device starts it: the example router
// configuration in a real database file and swMgrInit on it, with the chip,
// the engine's tools and the host's VLAN interfaces simulated. What follows
// start-up is driven through the daemon in the end-to-end tests.
#include <cstdlib>
#include <string>

#include "bcm_chip.h"
#include "config/swconf.h"
#include "host_vlan.h"
#include "portvlan/portvlan.h"
#include "pse_engine.h"
#include "swmgr_test.h"

namespace {

class Router : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        const char *src = std::getenv("SWMGR_SOURCE_DIR");
        ASSERT_NE(src, nullptr) << "run through CTest, which sets SWMGR_SOURCE_DIR";
        const std::string sql = swtest::readFile(std::string(src) + "/examples/router.sql");
        ASSERT_FALSE(sql.empty());
        const std::string dbPath = swtest::makeDb(root->file("router.db"), sql);
        root->write("var/.keep", "");

        ASSERT_TRUE(chip.attach("/dev/bcmsw"));
        engine.attach();
        host.attach();
        host.enableHwAddr();
        ASSERT_EQ(swMgrInit(dbPath.c_str()), 0);
    }
    void TearDown() override {
        swMgrDeinit();
        host.detach();
        engine.detach();
        chip.detach();
        SwmgrTest::TearDown();
    }

    const swsim::PseEngine::VlanEntry *engineVlan(int vlanId) const {
        for (const auto &[index, e] : engine.vlanTable())
            if (e.vlanId == vlanId) return &e;
        return nullptr;
    }

    swsim::BcmChip chip;
    swsim::PseEngine engine;
    swsim::HostVlanModel host;
};

TEST_F(Router, StartUpProgramsChipEngineAndHost) {
    Switch *pse = switchAtTopLevelGet();
    ASSERT_NE(pse, nullptr);
    EXPECT_STREQ(pse->switchName, "PSE");
    ASSERT_NE(switchLowerLvlSwitchByNameGet(pse, "BCM"), nullptr);

    // The chip: VLAN 10 on ports 0-3 plus the LAN's CPU port 4, VLAN 20 on
    // port 4; each port's default tag from the VLAN it is untagged in.
    const auto &s = chip.state();
    EXPECT_TRUE(s.vlanEnabled);
    ASSERT_TRUE(chip.vlan(10).has_value());
    EXPECT_EQ(chip.vlan(10)->fwdMap, 0x1f);
    EXPECT_EQ(chip.vlan(10)->untagMap, 0x0f);
    ASSERT_TRUE(chip.vlan(20).has_value());
    EXPECT_EQ(chip.vlan(20)->fwdMap, 0x10);
    EXPECT_EQ(chip.vlan(20)->untagMap, 0x10);
    for (int p = 0; p < 4; ++p) EXPECT_EQ(chip.port(p).tag.vid, 10) << p;
    EXPECT_EQ(chip.port(4).tag.vid, 20);
    for (int p = 0; p < 5; ++p) EXPECT_EQ(chip.port(p).non8021q, 0u) << p;

    // The engine: VLAN 10 reaches the trunk port 1 (and the CPU), VLAN 20's
    // lower port 4 stands at bit 3, which VLAN 20 does not set.
    const auto *v10 = engineVlan(10);
    ASSERT_NE(v10, nullptr);
    EXPECT_EQ(v10->index, 4);
    EXPECT_EQ(v10->etagMap, 0x6u);
    EXPECT_EQ(v10->mbMap, 0x6u);
    EXPECT_EQ(v10->isWan, 0);
    EXPECT_EQ(v10->mac, "02:00:00:00:00:01");
    ASSERT_NE(engineVlan(20), nullptr);
    EXPECT_EQ(engineVlan(20)->index, 5);
    EXPECT_EQ(engineVlan(20)->etagMap, 0u);
    EXPECT_NE(engine.arlEntry("02:00:00:00:00:01", 10), nullptr);
    EXPECT_EQ(engine.qosEnabled(), std::optional<bool>(true));
    // Pause frames were set twice (when added, again when applied), each
    // time through the pipeline that drops the low half's leading zeros.
    for (uint32_t reg : swsim::PseEngine::kPauseRegisters) EXPECT_EQ(engine.reg(reg), 0x80080u) << std::hex << reg;
    ASSERT_NE(engine.trust(0), nullptr);
    EXPECT_EQ(*engine.trust(0), (swsim::PseEngine::TrustFlags{0, 0, 0, 1, 0}));
    EXPECT_EQ(*engine.trust(1), (swsim::PseEngine::TrustFlags{0, 0, 1, 0, 0}));

    // The host: one sub-interface per VLAN, priorities mapped 1:1.
    ASSERT_NE(host.find("eth0.20"), nullptr);
    EXPECT_EQ(host.find("eth0.20")->egressMap.size(), 8u);
    EXPECT_TRUE(root->exists("var/VLAN.10.Uptime"));
}

}  // namespace
