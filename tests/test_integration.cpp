// SPDX-License-Identifier: Apache-2.0
// The whole system started the way the device starts it: the example router
// configuration (plus more VLANs) in a real database file and swMgrInit on
// it, with the chip, the engine's tools and the host's VLAN interfaces
// simulated. Everything the system sent (log records as sent, command lines,
// system() lines, ioctl requests with their argument bytes) is compared
// whole, in both log forms, with the transcript kept beside the tests; what
// the models end in follows from those. Source lines of the developer form
// are left out: they move with every edit. What follows start-up is driven
// through the daemon in the end-to-end tests.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>

#include "bcm_chip.h"
#include "host_vlan.h"
#include "pse_engine.h"
#include "swmgr_test.h"

namespace {

// Numbers in the first group of `re` as "#<n - base>"; base -1 for the lowest of them.
std::string relabel(const std::string &text, const std::regex &re, int base) {
    const std::vector<std::smatch> found(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator());
    if (base < 0)
        for (const auto &m : found) base = base < 0 ? std::stoi(m[1]) : std::min(base, std::stoi(m[1]));
    std::string out;
    size_t at = 0;
    for (const auto &m : found) {
        out += text.substr(at, m.position(1) - at) + '#' + std::to_string(std::stoi(m[1]) - base);
        at = m.position(1) + m.length(1);
    }
    return out + text.substr(at);
}

class RouterTranscript : public swtest::SwmgrTest, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        const std::string dbPath = swtest::makeDb(
            root->file("router.db"), swtest::readFile(std::string(src) + "/examples/router.sql") +
            "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap,"
            " fwdMap, untagMap, inSwitchOnly) VALUES (30, 'eth0', 'br-voip', '', '', '1,2', '2', 1),"
            " (40, 'eth1', 'br-wan', '', '', '0,4', '0', 0), (50, 'eth0', 'br-guest', '', '', '3', '', 1);");
        root->write("var/.keep", "");
        ASSERT_TRUE(chip.attach("/dev/bcmsw"));
        engine.attach();
        host.attach();
        host.enableHwAddr();
        swMgrDevDebug = GetParam();
        ASSERT_EQ(swMgrInit(dbPath.c_str()), 0);
    }
    void TearDown() override {  // the models detach as they go
        swMgrDeinit();
        SwmgrTest::TearDown();
    }

    std::string transcript() const {
        std::ostringstream o;
        auto hex = [&o](const swtest::Bytes &b) {
            char h[3];
            for (uint8_t c : b) o << (std::snprintf(h, sizeof h, "%02x", c), h);
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
            o << "ioctl " << code << ' ' << (io.code == swsim::HostVlanModel::kHwAddrRequest ? 0 : io.value) << ' ';
            hex(io.arg);
            o << '\n';
        }
        // Engine VLAN indexes and port sequence numbers count on over the
        // whole process: they are kept relative to this start-up's first.
        std::string text = relabel(o.str(), std::regex("vlan_table_func edit ([0-9]+)"), firstIndex);
        return relabel(text, std::regex("Updating PVID of port ([0-9]+)"), -1);
    }

    const char *src = std::getenv("SWMGR_SOURCE_DIR") != nullptr ? std::getenv("SWMGR_SOURCE_DIR") : "";
    const int firstIndex = switchNextVlanIndexGet();
    swsim::BcmChip chip;
    swsim::PseEngine engine;
    swsim::HostVlanModel host;
};

TEST_P(RouterTranscript, StartUpSendsExactlyTheKeptTranscript) {
    const char *form = GetParam() != 0 ? "developer" : "plain";
    EXPECT_EQ(transcript(), swtest::readFile(std::string(src) + "/tests/data/startup-" + form + ".txt"));
}
INSTANTIATE_TEST_SUITE_P(BothForms, RouterTranscript, ::testing::Values(0, 1));

}  // namespace
