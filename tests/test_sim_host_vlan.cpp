// SPDX-License-Identifier: Apache-2.0
// The host VLAN model stands in for vconfig and ifconfig, so it has to
// refuse what the tools refuse and leave alone what it does not know.
#include <string>
#include <vector>

#include "host_vlan.h"
#include "swmgr_test.h"

namespace {

class HostVlanModelTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        cap->unhandledCommandStatus = 42;  // marks lines that passed the model
        host.attach();
    }
    static int run(const char *line) { return osaCmdExec(line, nullptr, 0); }
    swsim::HostVlanModel host;
};

TEST_F(HostVlanModelTest, KeepsTheToolsStateAndRefusesWhatTheyRefuse) {
    ASSERT_EQ(run("vconfig add eth0 100"), 0);
    for (const char *bad : {"vconfig add eth0 100", "vconfig add eth2 100", "vconfig add eth0.100 5",
                            "vconfig add eth0 4095", "vconfig add eth0 x", "vconfig add eth0", "vconfig rem eth0.200",
                            "vconfig rem eth0", "/sbin/vconfig set_egress_map eth0.200 1 1",
                            "/sbin/vconfig set_ingress_map eth0.100 1 8", "ifconfig eth7 up"})
        EXPECT_EQ(run(bad), 1) << bad;

    host.setParentUp("eth0", false);
    EXPECT_EQ(run("ifconfig eth0.100 up"), 1) << "parent down";
    EXPECT_EQ(run("ifconfig eth0 up"), 0);
    EXPECT_EQ(run("ifconfig eth0.100 up"), 0);
    EXPECT_EQ(run("vconfig set_ingress_map eth0.100 5 3"), 0);
    EXPECT_EQ(run("/usr/sbin/vconfig set_egress_map eth0.100 6 2"), 0);
    EXPECT_EQ(host.dump(),
              "eth0 up\n"
              "eth0.100 vlan 100 on eth0 up ingress 0:0 1:0 2:0 3:5 4:0 5:0 6:0 7:0 egress 6:2\n"
              "eth1 up\n");
    EXPECT_EQ(run("ifconfig eth0 down"), 0);
    EXPECT_FALSE(host.find("eth0.100")->up);
    EXPECT_EQ(run("vconfig rem eth0.100"), 0);
    EXPECT_EQ(host.dump(), "eth0 down\neth1 up\n");
}

TEST_F(HostVlanModelTest, ReadsLinesAsTheShellAndPassesOnWhatIsNotItsOwn) {
    for (const char *line : {"ip link", "vconfig add eth0 100 >/dev/null", "echo; ifconfig eth0 up"})
        EXPECT_EQ(run(line), 42) << line;
    EXPECT_TRUE(host.history().entries().empty());

    const std::vector<std::pair<const char *, int>> lines{
        {"vconfig set_flag eth0.100 1 1", 1}, {"vconfig add eth0", 1}, {"ifconfig", 1},
        {"ifconfig eth0", 0},  {"vconfig add 'eth0' 7\n", 0}, {"ifconfig eth0.7 up; reboot", 127}};
    for (const auto &[line, status] : lines) EXPECT_EQ(run(line), status) << line;
    EXPECT_EQ(host.history().last(20),
              (std::vector<std::string>{"vconfig set_flag eth0.100 1 1", "vconfig: unknown operation set_flag",
                                        "vconfig add eth0", "vconfig add: usage: too few arguments (2)", "ifconfig",
                                        "ifconfig: usage: too few arguments (0)", "ifconfig eth0",
                                        "vconfig add 'eth0' 7\n", "ifconfig eth0.7 up; reboot", "reboot: not found"}));
    EXPECT_TRUE(host.find("eth0.7")->up);
}

}  // namespace
