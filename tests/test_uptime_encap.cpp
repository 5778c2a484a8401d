// Uptime stamps and host VLAN sub-interfaces, checked against the exact
// command lines and the host state the model ends in.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host_vlan.h"
#include "portvlan/portvlan.h"
#include "swmgr_test.h"

namespace {

using Lines = std::vector<std::string>;

std::string fmt(const char *f, const std::string &name, int a, int b = 0) {
    char buf[128];
    std::snprintf(buf, sizeof buf, f, name.c_str(), a, b);
    return buf;
}

Lines createLines(const std::string &parent, int vid) {
    Lines out = {fmt("vconfig rem %s.%d", parent, vid), fmt("vconfig add %s %d", parent, vid),
                 fmt("ifconfig %s.%d up", parent, vid)};
    std::string sub = fmt("%s.%d", parent, vid);
    for (int p = 0; p < 8; ++p) {
        out.push_back(fmt("/sbin/vconfig set_ingress_map %s %d %d", sub, p, p));
        out.push_back(fmt("/sbin/vconfig set_egress_map %s %d %d", sub, p, p));
    }
    return out;
}

const std::string kIdentityEth0_100 =
    "eth0 up\n"
    "eth0.100 vlan 100 on eth0 up ingress 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7 "
    "egress 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7\n"
    "eth1 up\n";

class EncapTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        ::mkdir((root->path() + "/var").c_str(), 0755);
        root->write("proc/uptime", "12345.67 890.12\n");
        host.attach();
    }
    // Error-level texts, in order.
    Lines errLogs() const {
        Lines out;
        for (const auto &l : cap->logs)
            if (l.level == SW_LOG_ERR) out.push_back(l.raw);
        return out;
    }
    swsim::HostVlanModel host;
    char eth0[8] = "eth0";
};

TEST_F(EncapTest, CreateRunsEverySubInterfaceCommandAndStampsUptime) {
    ASSERT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    Lines expected = createLines("eth0", 100);
    EXPECT_EQ(cap->commands, expected);

    // The stale-interface removal finds nothing on a clean host.
    Lines logs = {"cmd (vconfig rem eth0.100) returned (1).\n"};
    for (size_t i = 1; i < expected.size(); ++i) logs.push_back("cmd (" + expected[i] + ") returned (0).\n");
    EXPECT_EQ(errLogs(), logs) << cap->dump();
    EXPECT_EQ(cap->logs.size(), logs.size());

    EXPECT_EQ(root->read("var/VLAN.100.Uptime"), "12345\n");
    EXPECT_EQ(host.dump(), kIdentityEth0_100);
}

TEST_F(EncapTest, DeveloperModeNamesEachRunner) {
    swMgrDevDebug = 1;
    ASSERT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    ASSERT_EQ(cap->logs.size(), 19u);
    Lines funcs;
    for (const auto &l : cap->logs) {
        EXPECT_EQ(l.level, SW_LOG_DEV);
        funcs.push_back(l.func);
    }
    EXPECT_EQ(funcs[0], "switchVlanEncapDestroy");
    EXPECT_EQ(funcs[1], "switchVlanEncapCreate");
    EXPECT_EQ(funcs[2], "switchVlanEncapCreate");
    for (size_t i = 3; i < 19; i += 2) {
        EXPECT_EQ(funcs[i], "switchVlanEncapIngressCoSMapConfig");
        EXPECT_EQ(funcs[i + 1], "switchVlanEncapEgressCoSMapConfig");
    }
    EXPECT_EQ(cap->logs[18].text, "cmd (/sbin/vconfig set_egress_map eth0.100 7 7) returned (0).\n");
}

TEST_F(EncapTest, CreatingTwiceReplacesInterfaceAndStamp) {
    ASSERT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    root->write("proc/uptime", "20000.99 1.00\n");
    cap->clear();
    ASSERT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    EXPECT_EQ(cap->commands, createLines("eth0", 100));
    EXPECT_EQ(errLogs().front(), "cmd (vconfig rem eth0.100) returned (0).\n");
    EXPECT_EQ(root->read("var/VLAN.100.Uptime"), "20000\n");
    EXPECT_EQ(host.dump(), kIdentityEth0_100);
}

TEST_F(EncapTest, FailedAddEndsCreationWithItsStatus) {
    host.failCommand("vconfig add eth0 100", 3);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 3);
    EXPECT_EQ(cap->commands, (Lines{"vconfig rem eth0.100", "vconfig add eth0 100"}));
    EXPECT_EQ(errLogs().back(), "cmd (vconfig add eth0 100) returned (3).\n");
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
    EXPECT_EQ(host.dump(), "eth0 up\neth1 up\n");

    // An unknown parent is refused by the tool itself.
    char eth9[] = "eth9";
    cap->clear();
    EXPECT_EQ(switchVlanEncapCreate(eth9, 7), 1);
    EXPECT_EQ(cap->commands.size(), 2u);
    EXPECT_FALSE(root->exists("var/VLAN.7.Uptime"));

    cap->scriptCommand("vconfig add eth0 100", -1);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), -1);
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
}

TEST_F(EncapTest, FailedLinkUpIsIgnored) {
    host.setParentUp("eth0", false);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    EXPECT_EQ(cap->commands, createLines("eth0", 100));
    EXPECT_EQ(errLogs()[2], "cmd (ifconfig eth0.100 up) returned (1).\n");
    EXPECT_EQ(root->read("var/VLAN.100.Uptime"), "12345\n");
    ASSERT_NE(host.find("eth0.100"), nullptr);
    EXPECT_FALSE(host.find("eth0.100")->up);
    EXPECT_EQ(host.find("eth0.100")->egressMap.size(), 8u);
}

TEST_F(EncapTest, OnlyTheLastEgressMapDecides) {
    host.failCommand("/sbin/vconfig set_egress_map eth0.100 0 0", -5);
    host.failCommand("/sbin/vconfig set_ingress_map eth0.100 7 7", -6);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    EXPECT_EQ(cap->commands.size(), 19u);
    EXPECT_EQ(cap->countLog("cmd (/sbin/vconfig set_egress_map eth0.100 0 0) returned (-5).\n"), 1);
    EXPECT_EQ(cap->findLog("Failed to update QoS Mapping for VLAN eth0.100\n"), -1);

    host.clearFailures();
    host.failCommand("/sbin/vconfig set_egress_map eth0.100 7 7", 2);
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), 2);
    EXPECT_EQ(cap->findLog("Failed to update QoS Mapping for VLAN eth0.100\n"), -1);

    host.clearFailures();
    host.failCommand("/sbin/vconfig set_egress_map eth0.100 7 7", -7);
    cap->clear();
    EXPECT_EQ(switchVlanEncapCreate(eth0, 100), -7);
    Lines logs = errLogs();
    ASSERT_EQ(logs.size(), 20u);
    EXPECT_EQ(logs[18], "cmd (/sbin/vconfig set_egress_map eth0.100 7 7) returned (-7).\n");
    EXPECT_EQ(logs[19], "Failed to update QoS Mapping for VLAN eth0.100\n");
    EXPECT_EQ(host.find("eth0.100")->egressMap.count(7), 0u);
}

TEST_F(EncapTest, DestroyReturnsToolStatusAndAlwaysDropsStamp) {
    root->write("var/VLAN.100.Uptime", "1\n");
    EXPECT_EQ(switchVlanEncapDestroy(eth0, 100), 1);
    EXPECT_EQ(cap->commands, Lines{"vconfig rem eth0.100"});
    EXPECT_EQ(errLogs(), Lines{"cmd (vconfig rem eth0.100) returned (1).\n"});
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));

    ASSERT_EQ(switchVlanEncapCreate(eth0, 100), 0);
    char eth1[] = "eth1";
    ASSERT_EQ(switchVlanEncapCreate(eth1, 200), 0);
    EXPECT_EQ(switchVlanEncapDestroy(eth0, 100), 0);
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
    EXPECT_TRUE(root->exists("var/VLAN.200.Uptime"));
    ASSERT_EQ(host.subInterfaces().size(), 1u);
    EXPECT_EQ(host.subInterfaces()[0].name, "eth1.200");
}

TEST_F(EncapTest, MissingOrOverLongNames) {
    EXPECT_EQ(switchVlanEncapCreate(nullptr, 100), SW_EINVAL);
    EXPECT_EQ(switchVlanEncapDestroy(nullptr, 100), SW_EINVAL);
    EXPECT_TRUE(cap->commands.empty());
    EXPECT_EQ(errLogs(), Lines(2, "No parent interface for VLAN 100\n"));

    // The sub-interface name is cut at 63 characters, each command at 511.
    cap->scriptCommand("vconfig add ", 0, -1, true);
    std::string longName(600, 'x');
    // The host has no such interface, so its map tool refuses (status 1).
    EXPECT_EQ(switchVlanEncapCreate(longName.data(), 100), 1);
    ASSERT_EQ(cap->commands.size(), 19u);
    EXPECT_EQ(cap->commands[0], ("vconfig rem " + longName).substr(0, 511));
    EXPECT_EQ(cap->commands[3], "/sbin/vconfig set_ingress_map " + std::string(63, 'x') + " 0 0");
}

TEST_F(EncapTest, UptimeStampReadAndWrite) {
    uint32_t s = 99;
    EXPECT_EQ(timeEventGet(&s, "/proc/uptime"), 0);
    EXPECT_EQ(s, 12345u);
    root->write("var/empty", "none\n");
    s = 99;
    EXPECT_EQ(timeEventGet(&s, "/var/empty"), 0);
    EXPECT_EQ(s, 0u);
    EXPECT_EQ(timeEventGet(&s, "/var/absent"), -1);
    EXPECT_EQ(timeEventGet(nullptr, "/proc/uptime"), -1);
    EXPECT_EQ(timeEventGet(&s, nullptr), -1);
    EXPECT_EQ(timeEventRecord(nullptr), -1);

    root->write("var/stamp", "4294967295\nold\n");
    EXPECT_EQ(timeEventRecord("/var/stamp"), 0);
    EXPECT_EQ(root->read("var/stamp"), "12345\n");

    // A directory that cannot take the file: missing, or not a directory.
    EXPECT_EQ(timeEventRecord("/nodir/stamp"), -1);
    EXPECT_FALSE(root->exists("nodir"));
    EXPECT_EQ(timeEventRecord("/var/stamp/inner"), -1);
    EXPECT_EQ(root->read("var/stamp"), "12345\n");
}

}  // namespace
