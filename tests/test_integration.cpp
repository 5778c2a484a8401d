// SPDX-License-Identifier: Apache-2.0
// The whole system started the way the device starts it: the example router
// configuration in a real database file and swMgrInit on it, with the chip,
// the engine's tools and the host's VLAN interfaces simulated. What follows
// start-up is driven through the daemon in the end-to-end tests.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "bcm_chip.h"
#include "swmgr/swconf.h"
#include "host_vlan.h"
#include "swmgr/portvlan.h"
#include "pse_engine.h"
#include "swmgr_test.h"

namespace {

const char *sourceDir() {
    const char *src = std::getenv("SWMGR_SOURCE_DIR");
    return src != nullptr ? src : "";
}

class Router : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        ASSERT_NE(*sourceDir(), '\0') << "run through CTest, which sets SWMGR_SOURCE_DIR";
        const std::string sql = swtest::readFile(std::string(sourceDir()) + "/examples/router.sql");
        ASSERT_FALSE(sql.empty());
        const std::string dbPath = swtest::makeDb(root->file("router.db"), sql + extraSql());
        root->write("var/.keep", "");

        ASSERT_TRUE(chip.attach("/dev/bcmsw"));
        engine.attach();
        host.attach();
        host.enableHwAddr();
        swMgrDevDebug = devDebug();
        ASSERT_EQ(swMgrInit(dbPath.c_str()), 0);
    }
    virtual std::string extraSql() const { return ""; }
    // Engine VLAN indexes count on over the whole process.
    const int firstIndex = switchNextVlanIndexGet();
    virtual int devDebug() const { return 0; }
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

    // The engine: VLAN 10 reaches the trunk port 1, so its lines carry the
    // MAC text, whose newline ends the shell command before the entry is
    // whole: no table entry and no address entry. VLAN 20's lower port 4
    // stands at bit 3, which VLAN 20 does not set: its entry has no MAC and
    // is written whole.
    EXPECT_EQ(engineVlan(10), nullptr);
    EXPECT_TRUE(engine.arlTable().empty());
    ASSERT_NE(engineVlan(20), nullptr);
    EXPECT_EQ(engineVlan(20)->index, firstIndex + 1);
    EXPECT_EQ(engineVlan(20)->etagMap, 0u);
    EXPECT_EQ(engineVlan(20)->mac, "");
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

// Start-up with more VLANs, in both log forms: everything the system sent
// (log records as sent, command lines, system() lines, ioctl requests with
// their argument bytes) is compared whole with the transcript kept beside
// the tests. Source lines of the developer form are left out: they move
// with every edit. SWMGR_UPDATE_TRANSCRIPTS=1 rewrites the files.
class RouterTranscript : public Router, public ::testing::WithParamInterface<int> {
protected:
    std::string extraSql() const override {
        return "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap,"
               " fwdMap, untagMap, inSwitchOnly) VALUES"
               " (30, 'eth0', 'br-voip', '', '', '1,2', '2', 1),"
               " (40, 'eth1', 'br-wan', '', '', '0,4', '0', 0),"
               " (50, 'eth0', 'br-guest', '', '', '3', '', 1);";
    }
    int devDebug() const override { return GetParam(); }

    std::string transcript() const {
        std::ostringstream o;
        auto hex = [&o](const swtest::Bytes &b) {
            for (uint8_t c : b) {
                char h[3];
                std::snprintf(h, sizeof h, "%02x", c);
                o << h;
            }
        };
        for (const auto &l : cap->logs) {
            // The length as sent must be the text's with its terminator.
            o << "log " << l.level << (static_cast<size_t>(l.length) == l.raw.size() + 1 ? " " : " BADLEN ");
            hex(l.header);
            o << " [" << l.prefix << "][" << l.func << "][" << l.text << "]\n";
        }
        for (const auto &c : cap->commands) o << "cmd [" << c << "]\n";
        for (const auto &c : cap->systemCommands) o << "system [" << c << "]\n";
        for (const auto &io : cap->ioctls) {
            char code[16];
            std::snprintf(code, sizeof code, "%08x", io.code);
            // The hardware-address request carries a pointer, not a value.
            const bool pointer = io.code == swsim::HostVlanModel::kHwAddrRequest;
            o << "ioctl " << code << ' ' << (pointer ? 0 : io.value) << ' ';
            hex(io.arg);
            o << '\n';
        }
        // Engine VLAN indexes and port sequence numbers count on over the
        // whole process: they are kept relative to this start-up's first.
        std::string text = relabel(o.str(), std::regex("vlan_table_func edit ([0-9]+)"), firstIndex);
        return relabel(text, std::regex("Updating PVID of port ([0-9]+)"), -1);
    }

    // Numbers in the first group of `re` as "#<n - base>"; base -1 for the
    // lowest of them.
    static std::string relabel(const std::string &text, const std::regex &re, int base) {
        using It = std::sregex_iterator;
        if (base < 0)
            for (It it(text.begin(), text.end(), re); it != It(); ++it)
                base = base < 0 ? std::stoi((*it)[1]) : std::min(base, std::stoi((*it)[1]));
        std::ostringstream out;
        auto at = text.cbegin();
        for (It it(text.begin(), text.end(), re); it != It(); ++it) {
            out << std::string_view(&*at, static_cast<size_t>((*it)[1].first - at)) << '#'
                << std::stoi((*it)[1]) - base;
            at = (*it)[1].second;
        }
        out << std::string_view(&*at, static_cast<size_t>(text.cend() - at));
        return out.str();
    }
};

TEST_P(RouterTranscript, StartUpSendsExactlyTheKeptTranscript) {
    const std::string path = std::string(sourceDir()) + "/tests/data/startup-" +
                             (GetParam() != 0 ? "developer" : "plain") + ".txt";
    const std::string got = transcript();
    if (const char *u = std::getenv("SWMGR_UPDATE_TRANSCRIPTS"); u != nullptr && *u == '1')
        std::ofstream(path) << got;
    const std::string want = swtest::readFile(path);
    ASSERT_FALSE(want.empty()) << path;
    EXPECT_EQ(got, want);
}
INSTANTIATE_TEST_SUITE_P(BothForms, RouterTranscript, ::testing::Values(0, 1));

}  // namespace
