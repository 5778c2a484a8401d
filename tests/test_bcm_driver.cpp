// Binding the BCM driver, its command entry, and the read-only operations.
#include <cstring>

#include "bcm_fixture.h"

namespace {
using namespace bcmtest;

TEST_F(BcmTest, RegisterAndUnregister) {
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
    ASSERT_GT(fd, 0);
    Switch *lower = swtest::addSwitch("bcm", 0);
    EXPECT_EQ(SW_EINVAL, bcmSwitchRegister(lower));
    EXPECT_EQ(SW_EINVAL, bcmSwitchUnRegister(nullptr));
    EXPECT_EQ(nullptr, lower->switchConfigFunc);

    const int opened = fd;
    fd = 0;  // never closed
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(nullptr, sw->switchConfigFunc);
    EXPECT_EQ(0, chip.closes());
    fd = opened;
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(1, chip.closes());
    EXPECT_EQ(opened, fd);
    fd = 0;
}

TEST_F(BcmTest, RegisterFailsWhenDeviceCannotBeOpened) {
    const int opened = fd;
    Switch *other = swtest::addSwitch("BCM", 2);
    std::snprintf(other->switchDevice, sizeof other->switchDevice, "/nonexistent/bcm0");
    EXPECT_EQ(SW_EINVAL, bcmSwitchRegister(other));
    EXPECT_LT(fd, 0);
    EXPECT_EQ(logs(), (Logs{{8, "(switch=BCM) Failed to open the device /nonexistent/bcm0 \n"}}));
    // Still bound: commands arrive and fail on the bad descriptor.
    Bytes arg(SW_VLAN_ENABLE_ARG_LEN, 0);
    arg[0] = 1;
    EXPECT_LT(bcmSwitchConfig(other, 33, arg.data(), 1300, nullptr, nullptr), 0);
    EXPECT_FALSE(chip.state().vlanEnabled);
    osaClose(opened);
}

TEST_F(BcmTest, CommandEntryChecksExactSizes) {
    const std::pair<int, std::string> served[] = {
        {1300, "(switch=BCM) Processing vlan enable update request (33)\n"},
        {1312, "(switch=BCM) Processing vlan membership update request (34)\n"},
        {1312, "(switch=BCM) Processing vlan membership apply request (35)\n"},
        {140, "(switch=BCM) Processing switch port configuration set request (41)\n"}};
    const int cmds[] = {33, 34, 35, 41};
    Bytes arg(2000, 0);
    for (int i = 0; i < 4; ++i) {
        for (int len : {served[i].first - 1, served[i].first + 1}) {
            cap->clear();
            EXPECT_EQ(SW_EINVAL, bcmSwitchConfig(sw, cmds[i], arg.data(), len, nullptr, nullptr));
            char bad[64];
            std::snprintf(bad, sizeof bad, "(switch=BCM) (%d) processing returned -22 \n", cmds[i]);
            EXPECT_EQ(logs(), (Logs{{64, served[i].second}, {8, bad}})) << len;
            EXPECT_TRUE(cap->ioctls.empty());
        }
    }
    cap->clear();
    arg[0] = 1;
    EXPECT_EQ(0, bcmSwitchConfig(sw, 33, arg.data(), 1300, nullptr, nullptr));
    EXPECT_TRUE(chip.state().vlanEnabled);
    EXPECT_EQ(logs(), (Logs{{64, served[0].second}, {64, "VLAN Enable status 1\n"}}));

    // Codes the driver does not serve are reported and succeed.
    cap->clear();
    EXPECT_EQ(0, bcmSwitchConfig(sw, 36, nullptr, 1300, nullptr, nullptr));
    EXPECT_EQ(logs(), (Logs{{8, "(switch=BCM) Invalid command (36)\n"},
                            {8, "(switch=BCM) (36) processing returned 0 \n"}}));
}

TEST_F(BcmTest, CpuPortFollowsZoneOfParentInterface) {
    EXPECT_EQ(4, bcmCPUPortNumberGet(addVlan(10, 1, 0, "eth0")));
    EXPECT_EQ(0, bcmCPUPortNumberGet(addVlan(11, 1, 0, "eth1")));
    EXPECT_EQ(0, bcmCPUPortNumberGet(addVlan(12, 1, 0, "eth0.100")));
}

TEST_F(BcmTest, LinkStatusAndStatistics) {
    chip.port(2).link = 1;
    uint32_t status = 7;
    EXPECT_EQ(0, bcmLinkStatusGet(2, &status));
    EXPECT_EQ(1u, status);
    ASSERT_EQ(1u, cap->ioctls.size());
    EXPECT_EQ(0x20005319u, cap->ioctls[0].code);
    EXPECT_EQ(2u, cap->ioctls[0].value);  // the port itself, not a pointer
    EXPECT_EQ(-1, bcmLinkStatusGet(9, &status));  // no such port on the chip
    EXPECT_EQ(1u, status);
    EXPECT_EQ(logs(), (Logs{{64, "Link Status is 1\n"}, {8, "Failed to get the port9 link status\n"}}));

    for (size_t i = 0; i < chip.port(3).counters.size(); ++i) chip.port(3).counters[i] = uint8_t(i + 1);
    uint8_t buf[BCM_PORT_STATS_LEN + 1] = {};
    EXPECT_EQ(0, bcmPortStatsGet(3, buf + 1));  // needs no alignment
    EXPECT_EQ(Bytes({3, 0}), Bytes(buf + 1, buf + 3));
    EXPECT_EQ(0, std::memcmp(buf + 3, chip.port(3).counters.data(), 48));
    chip.failRequest(0xc0325314u, -5);
    EXPECT_EQ(-1, bcmPortStatsGet(3, buf));
    EXPECT_EQ("Failed to get the statistics for Port3 \n", cap->logs.back().raw);
}

TEST_F(BcmTest, TagsDumpPrintsQuestionMarksForFailedPorts) {
    chip.port(2).tag = {100, 3, 1};
    const std::string head = "802.1Q tags\n-----------\nPORT\tVID\tPRI\tCFI\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }),
              head + "0 \t1 \t0 \t0\n1 \t1 \t0 \t0\n2 \t100 \t3 \t1\n3 \t1 \t0 \t0\n4 \t1 \t0 \t0\n\n");
    EXPECT_EQ(argsOf(0xc0065306u)[2], Bytes({2, 0, 0, 0, 0, 0}));
    chip.failRequest(0xc0065306u, -5, 4);  // ports 0 to 3
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }),
              head + "0\t ?\t?\t?1\t ?\t?\t?2\t ?\t?\t?3\t ?\t?\t?4 \t1 \t0 \t0\n\n");
    chip.failRequest(0xc0065306u, -5);
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmTagsShow()); }),
              head + "0\t ?\t?\t?1\t ?\t?\t?2\t ?\t?\t?3\t ?\t?\t?4\t ?\t?\t?\n");
}

TEST_F(BcmTest, VlanDumpMarksFailedQueriesAndAlwaysFails) {
    chip.state().vlans[10] = {0x13, 0x01};
    const std::string head = "802.1Q VLAN\n-----------\nVlan ID 10\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }),
              head + "\tForward map: \t0 1 4 \n\tUntag map: \t0 \n\n");
    EXPECT_EQ(argsOf(0x80055308u)[4], Bytes({10, 0, 4, 0, 0}));
    chip.failRequest(0x8005530bu, -5, 1);
    cap->scriptIoctl(0x80055308u, 2, 2);  // answers other than 0 and 1
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }),
              head + "\tForward map: \t0? 1? 4 \n\tUntag map: \t0? \n\n");
    EXPECT_EQ(-1, bcmIsPortInVlanFwdMap(0, 5000));
}

}  // namespace
