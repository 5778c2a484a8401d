// SPDX-License-Identifier: Apache-2.0
// Uptime stamps and host VLAN sub-interfaces, checked against the exact
// command lines and the host state the model ends in. What a successful
// creation sends is pinned by the start-up transcript.
#include "host_vlan.h"
#include "data_lines.h"

namespace {

const char *const kHostData = "encap/host-model.txt";

class EncapTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        root->write("var/.keep", "");
        root->write("proc/uptime", "12345.67 890.12\n");
        host.attach();
    }
    swsim::HostVlanModel host;
    char eth0[8] = "eth0";
};
SWTEST_BOTH_FORMS(EncapForms, EncapTest);

TEST_P(EncapForms, StatusOfAFailedAddOrOfTheLastEgressMapDecides) {
    EXPECT_EQ(switchVlanEncapDestroy(eth0, 100), 1) << "the removal's status: nothing to remove";
    // A failed add ends the creation with its status, a negative one too.
    for (int status : {3, -1}) {
        cap->clear();
        cap->scriptCommand("vconfig add eth0 100", status, 1);
        EXPECT_EQ(switchVlanEncapCreate(eth0, 100), status);
        EXPECT_EQ(cap->commands, (std::vector<std::string>{"vconfig rem eth0.100", "vconfig add eth0 100"}));
    }
    EXPECT_FALSE(std::filesystem::exists(root->file("var/VLAN.100.Uptime")));

    // Failures of the link-up and of every map but the last egress one are
    // logged and pass; the last one's status is the result, reported only
    // when negative.
    host.setParentUp("eth0", false);
    for (int last : {2, -7}) {
        host.clearFailures(), cap->clear();
        host.failCommand("/sbin/vconfig set_egress_map eth0.100 0 0", -5);
        host.failCommand("/sbin/vconfig set_ingress_map eth0.100 7 7", -6);
        host.failCommand("/sbin/vconfig set_egress_map eth0.100 7 7", last);
        EXPECT_EQ(switchVlanEncapCreate(eth0, 100), last);
        EXPECT_EQ(cap->commands, swtest::dataLines("encap/commands.txt", "create eth0.100"));
        EXPECT_EQ(swtest::readFile(root->file("var/VLAN.100.Uptime")), "12345\n");
        // The first removal finds nothing; the parent stays down.
        EXPECT_TRUE(cap->logsAre(swtest::dataLogs("encap/commands.txt", "create logs " + std::to_string(last))));
    }
}

TEST_P(EncapForms, MissingOrUnsafeNameIsRefused) {
    // Whatever a caller let through, no such name reaches a command line.
    const std::string refused = "Parent interface of VLAN 7 refused: ";
    const std::string allowed = " is not allowed (letters, digits, '_', '.', '-')\n";
    for (const auto &[name, why] : std::initializer_list<std::pair<const char *, std::string>>{
             {nullptr, "No parent interface for VLAN 7\n"},
             {"eth0;reboot", refused + "character ';' at offset 4" + allowed},
             {"azAZ09_.-\x7f", refused + "character 0x7f at offset 9" + allowed},
             {"..", refused + "\".\" and \"..\" are not names\n"}}) {
        cap->clear();
        std::string text = name != nullptr ? name : "";
        char *arg = name != nullptr ? text.data() : nullptr;
        EXPECT_EQ(switchVlanEncapCreate(arg, 7), SW_EINVAL);
        EXPECT_EQ(switchVlanEncapDestroy(arg, 7), SW_EINVAL);
        EXPECT_TRUE(cap->logsAre({{8, "switchVlanEncapCreate", why}, {8, "switchVlanEncapDestroy", why}}));
    }
    EXPECT_TRUE(cap->commands.empty());
}

// The host VLAN model stands in for vconfig and ifconfig, so it has to
// refuse what the tools refuse and leave alone what it does not know. Each
// line runs in order on one model; lines beyond the reader pass on
// untouched, and the history shows what each tool made of the others.
TEST_P(EncapForms, TheHostModelKeepsTheToolsStateAndRefusesWhatTheyRefuse) {
    cap->unhandledCommandStatus = 42;  // marks lines that passed the model
    for (const char *part : {"host-build", "host-down", "host-lines"}) {
        for (const swtest::Row &l : swtest::dataRows(kHostData, part))
            EXPECT_EQ(osaCmdExec(l[0].c_str(), nullptr, 0), std::stoi(l.at(1))) << l[0];
        EXPECT_EQ(host.dump(), swtest::dataLines(kHostData, std::string(part) + "-dump").at(0));
    }
    EXPECT_EQ(host.history().last(host.history().entries().size()), swtest::dataLines(kHostData, "history"));
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
    EXPECT_EQ(swtest::readFile(root->file("var/stamp")), "12345\n");
    EXPECT_EQ(timeEventRecord("/nodir/stamp"), -1) << "no directory to take the file";
    EXPECT_FALSE(std::filesystem::exists(root->file("nodir")));
}

}  // namespace
