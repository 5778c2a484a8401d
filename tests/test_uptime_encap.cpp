// SPDX-License-Identifier: Apache-2.0
// Uptime stamps and host VLAN sub-interfaces, checked against the exact
// command lines and the host state the model ends in. What a successful
// creation sends is pinned by the start-up transcript.
#include <sys/stat.h>

#include "host_vlan.h"
#include "swmgr/portvlan.h"
#include "data_lines.h"

namespace {

using Lines = std::vector<std::string>;

class EncapTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        ::mkdir((root->path() + "/var").c_str(), 0755);
        root->write("proc/uptime", "12345.67 890.12\n");
        host.attach();
    }
    swsim::HostVlanModel host;
    char eth0[8] = "eth0";
};
using EncapForms = swtest::BothForms<EncapTest>;
SWTEST_BOTH_FORMS(EncapForms);

TEST_P(EncapForms, StatusOfAFailedAddOrOfTheLastEgressMapDecides) {
    // A failed add ends the creation with its status.
    host.failCommand("vconfig add eth0 100", 3);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 3);
    EXPECT_EQ(cap->commands, (Lines{"vconfig rem eth0.100", "vconfig add eth0 100"}));
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
    cap->scriptCommand("vconfig add eth0 100", -1, 1);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), -1) << "a negative one too";

    // Failures of the link-up and of every map but the last egress one are
    // logged and pass.
    host.clearFailures(), cap->clear();
    host.setParentUp("eth0", false);
    host.failCommand("/sbin/vconfig set_egress_map eth0.100 0 0", -5);
    host.failCommand("/sbin/vconfig set_ingress_map eth0.100 7 7", -6);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    EXPECT_EQ(cap->commands, swtest::dataLines("encap/commands.txt", "create eth0.100"));
    EXPECT_EQ(cap->countLog("cmd (/sbin/vconfig set_egress_map eth0.100 0 0) returned (-5).\n"), 1);
    EXPECT_EQ(cap->countLog("Failed to update QoS Mapping for VLAN eth0.100\n"), 0);
    EXPECT_EQ(root->read("var/VLAN.100.Uptime"), "12345\n");

    // The last one's status is the result; only a negative one is reported.
    host.clearFailures();
    host.failCommand("/sbin/vconfig set_egress_map eth0.100 7 7", 2);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 2);
    EXPECT_EQ(cap->countLog("Failed to update QoS Mapping for VLAN eth0.100\n"), 0);

    host.clearFailures(), cap->clear();
    host.failCommand("/sbin/vconfig set_egress_map eth0.100 7 7", -7);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), -7);
    swtest::Logs logs = swtest::encapCreateLogs("eth0", 100);
    logs[2].text = "cmd (ifconfig eth0.100 up) returned (1).\n";  // the parent is still down
    logs.back().text = "cmd (/sbin/vconfig set_egress_map eth0.100 7 7) returned (-7).\n";
    logs.push_back({8, "switchVlanEncapCreate", "Failed to update QoS Mapping for VLAN eth0.100\n"});
    EXPECT_TRUE(cap->logsAre(logs));
}

TEST_P(EncapForms, DestroyReturnsToolStatusAndAlwaysDropsStamp) {
    root->write("var/VLAN.100.Uptime", "1\n");
    root->write("var/VLAN.200.Uptime", "1\n");
    EXPECT_EQ(switchVlanEncapDestroy(eth0, 100), 1);
    EXPECT_EQ(cap->commands, Lines{"vconfig rem eth0.100"});
    EXPECT_TRUE(cap->logsAre({{8, "switchVlanEncapDestroy", "cmd (vconfig rem eth0.100) returned (1).\n"}}));
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
    EXPECT_TRUE(root->exists("var/VLAN.200.Uptime")) << "other VLANs' stamps stay";
}

TEST_P(EncapForms, MissingOrUnsafeNameIsRefused) {
    EXPECT_EQ(switchVlanEncapCreate(nullptr, 100), SW_EINVAL);
    EXPECT_EQ(switchVlanEncapDestroy(nullptr, 100), SW_EINVAL);
    EXPECT_TRUE(cap->logsAre({{8, "switchVlanEncapCreate", "No parent interface for VLAN 100\n"},
                              {8, "switchVlanEncapDestroy", "No parent interface for VLAN 100\n"}}));
    // Whatever a caller let through, no such name reaches a command line.
    const std::pair<std::string, std::string> cases[] = {
        {"eth0;reboot", "character ';' at offset 4"}, {"eth0\n", "character '\\n' at offset 4"},
        {"$(x)", "character '$' at offset 0"},      {"a\x7f", "character 0x7f at offset 1"},
        {"", "the name is empty"},                   {"..", "\".\" and \"..\" are not names"}};
    for (const auto &[name, why] : cases) {
        cap->clear();
        std::string text = name;
        EXPECT_EQ(switchVlanEncapCreate(text.data(), 7), SW_EINVAL) << name;
        EXPECT_EQ(switchVlanEncapDestroy(text.data(), 7), SW_EINVAL) << name;
        const std::string tail = why.find("character") == 0 ? " is not allowed (letters, digits, '_', '.', '-')" : "";
        const std::string refused = "Parent interface of VLAN 7 refused: " + why + tail + "\n";
        EXPECT_TRUE(cap->logsAre({{8, "switchVlanEncapCreate", refused}, {8, "switchVlanEncapDestroy", refused}}));
    }
    EXPECT_TRUE(cap->commands.empty());
}

TEST_P(EncapForms, UptimeStampReadAndWrite) {
    uint32_t s = 99;
    // No number, or beyond 32 bits, or negative: zero, as no stamp can hold it.
    for (const auto &[text, value] :
         {std::pair{"none\n", 0u}, {"", 0u}, {"4294967296.5 1.0\n", 0u}, {"-1.00 2.00\n", 0u},
          {"99999999999999999999999\n", 0u}, {"  4294967295.99 1\n", 4294967295u}}) {
        root->write("var/t", text);
        s = 99;
        EXPECT_EQ(timeEventGet(&s, "/var/t"), 0);
        EXPECT_EQ(s, value) << text;
    }
    EXPECT_EQ((std::vector<int>{timeEventGet(&s, "/var/absent"), timeEventGet(nullptr, "/proc/uptime"),
                                timeEventGet(&s, nullptr), timeEventRecord(nullptr)}), std::vector<int>(4, -1));

    root->write("var/stamp", "4294967295\nold\n");
    EXPECT_EQ(timeEventRecord("/var/stamp"), 0);
    EXPECT_EQ(root->read("var/stamp"), "12345\n");
    EXPECT_EQ(timeEventRecord("/nodir/stamp"), -1) << "no directory to take the file";
    EXPECT_FALSE(root->exists("nodir"));
}

}  // namespace
