// Binding the BCM driver, its command entry, and the read-only operations.
#include <cstring>

#include "bcm_fixture.h"

namespace {
using namespace bcmtest;

TEST_F(BcmTest, CommandEntryChecksExactSizesAndBindingKeepsDescriptors) {
    const struct {
        int cmd, len;
        const char *line;
    } served[] = {{33, 1300, "(switch=BCM) Processing vlan enable update request (33)\n"},
                  {34, 1312, "(switch=BCM) Processing vlan membership update request (34)\n"},
                  {35, 1312, "(switch=BCM) Processing vlan membership apply request (35)\n"},
                  {41, 140, "(switch=BCM) Processing switch port configuration set request (41)\n"}};
    Bytes arg(2000, 0);
    for (const auto &s : served) {
        for (int len : {s.len - 1, s.len + 1}) {
            cap->clear();
            EXPECT_EQ(SW_EINVAL, config(s.cmd, arg.data(), len));
            const std::string bad = "(switch=BCM) (" + std::to_string(s.cmd) + ") processing returned -22 \n";
            EXPECT_EQ(logs(), (Logs{{64, s.line}, {8, bad}})) << len;
            EXPECT_TRUE(cap->ioctls.empty());
        }
    }
    cap->clear();
    arg[0] = 1;
    EXPECT_EQ(0, config(33, arg.data(), 1300));
    EXPECT_EQ(-1, bcmVlanEnable(2));
    EXPECT_EQ(0, bcmVlanEnable(0));
    EXPECT_EQ(requests(), (Requests{{0x20005301u, {}}, {0x20005302u, {}}}));

    // Codes the driver does not serve are reported and succeed.
    cap->clear();
    EXPECT_EQ(0, config(36, nullptr, 1300));
    EXPECT_EQ(logs(), (Logs{{8, "(switch=BCM) Invalid command (36)\n"},
                            {8, "(switch=BCM) (36) processing returned 0 \n"}}));

    // Descriptor 0 is never closed; a device that cannot be opened leaves
    // the driver bound, so commands arrive and fail on the bad descriptor.
    const int opened = fd;
    fd = 0;
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(nullptr, sw->switchConfigFunc);
    EXPECT_EQ(0, chip.closes());
    fd = opened;
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(1, chip.closes());
    std::snprintf(sw->switchDevice, sizeof sw->switchDevice, "/nonexistent/bcm0");
    cap->clear();
    EXPECT_EQ(SW_EINVAL, bcmSwitchRegister(sw));
    EXPECT_LT(fd, 0);
    EXPECT_EQ(logs(), (Logs{{8, "(switch=BCM) Failed to open the device /nonexistent/bcm0 \n"}}));
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
}

TEST_F(BcmTest, ReadOnlyQueriesAndDumps) {
    chip.port(2).link = 1;
    uint32_t status = 7;
    EXPECT_EQ(0, bcmLinkStatusGet(2, &status));
    EXPECT_EQ(1u, status);
    EXPECT_EQ(2u, cap->ioctls.at(0).value);  // the port itself, not a pointer
    EXPECT_EQ(-1, bcmLinkStatusGet(9, &status));  // no such port on the chip
    EXPECT_EQ(1u, status);

    for (size_t i = 0; i < chip.port(3).counters.size(); ++i) chip.port(3).counters[i] = uint8_t(i + 1);
    uint8_t buf[BCM_PORT_STATS_LEN + 1] = {};
    EXPECT_EQ(0, bcmPortStatsGet(3, buf + 1));  // needs no alignment
    EXPECT_EQ(Bytes({3, 0}), Bytes(buf + 1, buf + 3));
    EXPECT_EQ(0, std::memcmp(buf + 3, chip.port(3).counters.data(), 48));
    chip.failRequest(0xc0325314u, -5);
    EXPECT_EQ(-1, bcmPortStatsGet(3, buf));

    // The dumps print question marks for failed queries.
    chip.port(2).tag = {100, 3, 1};
    const std::string tags = "802.1Q tags\n-----------\nPORT\tVID\tPRI\tCFI\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }),
              tags + "0 \t1 \t0 \t0\n1 \t1 \t0 \t0\n2 \t100 \t3 \t1\n3 \t1 \t0 \t0\n4 \t1 \t0 \t0\n\n");
    chip.failRequest(0xc0065306u, -5, 4);  // ports 0 to 3
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }),
              tags + "0\t ?\t?\t?1\t ?\t?\t?2\t ?\t?\t?3\t ?\t?\t?4 \t1 \t0 \t0\n\n");
    chip.failRequest(0xc0065306u, -5);
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmTagsShow()); }),
              tags + "0\t ?\t?\t?1\t ?\t?\t?2\t ?\t?\t?3\t ?\t?\t?4\t ?\t?\t?\n");

    // The VLAN dump fails whatever the chip answers.
    chip.state().vlans[10] = {0x13, 0x01};
    const std::string vlan = "802.1Q VLAN\n-----------\nVlan ID 10\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }),
              vlan + "\tForward map: \t0 1 4 \n\tUntag map: \t0 \n\n");
    chip.failRequest(0x8005530bu, -5, 1);
    cap->scriptIoctl(0x80055308u, 2, 2);  // answers other than 0 and 1
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }),
              vlan + "\tForward map: \t0? 1? 4 \n\tUntag map: \t0? \n\n");
    EXPECT_EQ(-1, bcmIsPortInVlanFwdMap(0, 5000));  // a refused query is no answer
}

}  // namespace
