// The host VLAN model stands in for vconfig and ifconfig, so it has to
// refuse what the tools refuse and leave alone what it does not know.
#include <net/if.h>

#include <cerrno>
#include <cstring>

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

TEST_F(HostVlanModelTest, RefusesWhatTheToolsRefuse) {
    ASSERT_EQ(run("vconfig add eth0 100"), 0);
    EXPECT_EQ(run("vconfig add eth0 100"), 1);       // exists
    EXPECT_EQ(run("vconfig add eth2 100"), 1);       // unknown parent
    EXPECT_EQ(run("vconfig add eth0.100 5"), 1);     // not a parent
    EXPECT_EQ(run("vconfig add eth0 4095"), 1);      // out of range
    EXPECT_EQ(run("vconfig add eth0 x"), 1);
    EXPECT_EQ(run("vconfig add eth0"), 1);
    EXPECT_EQ(run("vconfig rem eth0.200"), 1);
    EXPECT_EQ(run("vconfig rem eth0"), 1);
    EXPECT_EQ(run("/sbin/vconfig set_egress_map eth0.200 1 1"), 1);
    EXPECT_EQ(run("/sbin/vconfig set_ingress_map eth0.100 1 8"), 1);
    EXPECT_EQ(run("ifconfig eth7 up"), 1);

    host.setParentUp("eth0", false);
    EXPECT_EQ(run("ifconfig eth0.100 up"), 1);  // parent down
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

TEST_F(HostVlanModelTest, PassesOnWhatItDoesNotModel) {
    for (const char *line : {"vconfig set_flag eth0.100 1 1", "ifconfig eth0", "ip link",
                             "vconfig add eth0 100 >/dev/null", "ifconfig eth0 up; reboot"})
        EXPECT_EQ(run(line), 42) << line;
    EXPECT_TRUE(host.handled().empty());
    EXPECT_TRUE(host.subInterfaces().empty());
    host.detach();
    EXPECT_EQ(run("vconfig add eth0 100"), 42);
    EXPECT_EQ(host.find("eth0.100"), nullptr);
}

TEST_F(HostVlanModelTest, ScriptedFailuresLeaveStateAlone) {
    host.failCommand("vconfig add eth1 ", 3, true, 1);
    host.failCommand("ip link", 9);
    EXPECT_EQ(run("vconfig add eth1 10"), 3);
    EXPECT_EQ(host.find("eth1.10"), nullptr);
    EXPECT_EQ(run("vconfig add eth1 10"), 0);
    EXPECT_EQ(run("ip link"), 9);
    host.clearFailures();
    EXPECT_EQ(run("ip link"), 42);
    EXPECT_EQ(host.handled(), (std::vector<std::string>{"vconfig add eth1 10", "vconfig add eth1 10", "ip link"}));
}

TEST_F(HostVlanModelTest, HardwareAddresses) {
    ASSERT_EQ(run("vconfig add eth1 20"), 0);
    auto query = [](const char *name, unsigned char *out) {
        struct ifreq req;
        std::memset(&req, 0xAA, sizeof req);
        std::snprintf(req.ifr_name, sizeof req.ifr_name, "%s", name);
        errno = 0;
        int r = osaIoctl(-1, 0x8927, &req);
        std::memcpy(out, req.ifr_hwaddr.sa_data, 6);
        return r;
    };
    unsigned char mac[6];
    // Off by default: the request reaches the kernel, which rejects the descriptor.
    EXPECT_EQ(query("eth0", mac), -1);
    EXPECT_EQ(errno, EBADF);

    host.enableHwAddr();
    const unsigned char eth1[6] = {0x02, 0, 0, 0, 0, 0x02};
    EXPECT_EQ(query("eth1", mac), 0);
    EXPECT_EQ(std::memcmp(mac, eth1, 6), 0);
    EXPECT_EQ(query("eth1.20", mac), 0);  // shares its parent's address
    EXPECT_EQ(std::memcmp(mac, eth1, 6), 0);
    host.setMac("eth1.20", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    EXPECT_EQ(query("eth1.20", mac), 0);
    EXPECT_EQ(std::memcmp(mac, "\x00\x11\x22\x33\x44\x55", 6), 0);
    EXPECT_EQ(query("eth9", mac), -1);
    EXPECT_EQ(errno, ENODEV);
}

}  // namespace
