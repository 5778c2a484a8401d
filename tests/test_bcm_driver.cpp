// SPDX-License-Identifier: Apache-2.0
// Binding the BCM driver, its command entry, and the read-only operations.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cstdio>
#include <utility>

#include "bcm_fixture.h"

namespace {
using namespace bcmtest;
SWTEST_BOTH_FORMS(BcmForms);

TEST_P(BcmForms, CommandEntryChecksExactSizesAndBindingKeepsDescriptors) {
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
            EXPECT_TRUE(cap->logsAre({{64, "bcmSwitchConfig", s.line}, {8, "bcmSwitchConfig", bad}})) << len;
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
    EXPECT_TRUE(cap->logsAre({{8, "bcmSwitchConfig", "(switch=BCM) Invalid command (36)\n"},
                            {8, "bcmSwitchConfig", "(switch=BCM) (36) processing returned 0 \n"}}));

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
    EXPECT_TRUE(
        cap->logsAre({{8, "bcmSwitchRegister", "(switch=BCM) Failed to open the device /nonexistent/bcm0 \n"}}));
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
}

TEST_P(BcmForms, ReadOnlyQueriesAndDumps) {
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

// The chip holds every field to its definition and to what the driver
// sends; anything else is -EINVAL (or -ENOTTY, -EFAULT) with nothing changed.
TEST(BcmChipModel, RefusesEveryFieldOutsideWhatTheDriverSends) {
    struct Case {
        unsigned code;
        Bytes arg;        // empty: the integer below is the argument
        uintptr_t value;
        int result;
        const char *why;  // nullptr: accepted
    };
    const Case cases[] = {
        {0x20005301u, {}, 1, -22, "argument not 0"},
        {0x20005302u, {}, 7, -22, "argument not 0"},
        {0x20005319u, {}, 5, -22, "port out of range"},
        {0xc0045320u, {2, 0, 0, 0}, 0, -22, "switch not 0 or 1"},
        {0xc0045321u, {0, 0, 0, 1}, 0, -22, "switch not 0 or 1"},
        {0x80055310u, {0, 0x10, 0, 0, 0}, 0, -22, "VLAN id out of range"},
        {0x80055310u, {10, 0, 0, 1, 0}, 0, -22, "reserved bytes not 0"},
        {0x80075312u, {10, 0, 0x20, 0, 0, 0, 0}, 0, -22, "map beyond the five ports"},
        {0x80075312u, {10, 0, 1, 0, 0, 1, 0}, 0, -22, "map beyond the five ports"},
        {0x80075312u, {10, 0, 1, 0, 1, 0, 1}, 0, -22, "last byte not 0"},
        {0x80055308u, {10, 0, 5, 0, 0}, 0, -22, "port out of range"},
        {0x8005530bu, {10, 0, 1, 0, 1}, 0, -22, "reserved byte not 0"},
        {0x80045304u, {1, 0, 5, 0}, 0, -22, "member port out of range"},
        {0x80065307u, {5, 0, 10, 0, 0, 0}, 0, -22, "port out of range"},
        {0x80065307u, {1, 0, 0, 0x10, 0, 0}, 0, -22, "VID out of range"},
        {0x80065307u, {1, 0, 10, 0, 1, 0}, 0, -22, "PRI or CFI not 0"},
        {0x80065307u, {1, 0, 10, 0, 0, 1}, 0, -22, "PRI or CFI not 0"},
        {0x80065311u, {1, 0, 2, 0, 0, 0}, 0, -22, "state not 0 or 1"},
        {0xc006531eu, {1, 0, 5, 0, 0, 0}, 0, -22, "trust mode out of range"},
        {0xc008531fu, {1, 0, 1, 0, 1, 1, 1, 1}, 0, -22, "reserved byte not 0"},
        {0xc008531fu, {1, 0, 0, 4, 1, 1, 1, 1}, 0, -22, "scheduling mode out of range"},
        {0xc0075322u, {1, 0, 2, 0, 0, 0, 0}, 0, -22, "action not 0 or 1"},
        {0xc0055323u, {1, 0, 8, 0, 0}, 0, -22, "CoS or queue out of range"},
        {0xc0055323u, {1, 0, 7, 0, 4}, 0, -22, "CoS or queue out of range"},
        {0xc0055323u, {1, 0, 7, 1, 3}, 0, -22, "reserved byte not 0"},
        {0x80045399u, {0, 0, 0, 0}, 0, -25, "unknown request"},
        {0x80065307u, {}, 0, -14, "no argument record"},
        // What the driver does send.
        {0x20005301u, {}, 0, 0, nullptr},
        {0x80065307u, {1, 0, 10, 0, 0, 0}, 0, 0, nullptr},
        {0x80075312u, {10, 0, 0x1f, 0, 0x01, 0, 0}, 0, 0, nullptr},
        {0xc0075322u, {1, 0, 1, 0xa0, 0x86, 0x01, 0x00}, 0, 0, nullptr},
        {0xc0055323u, {1, 0, 7, 0, 3}, 0, 0, nullptr},
    };
    swsim::BcmChip chip;
    const std::string fresh = chip.describe();
    std::vector<std::string> expected;
    for (const auto &c : cases) {
        Bytes arg = c.arg;
        void *p = c.arg.empty() ? reinterpret_cast<void *>(c.value) : arg.data();
        EXPECT_EQ(c.result, chip.handle(c.code, p)) << std::hex << c.code;
        if (c.why == nullptr) continue;
        EXPECT_EQ(fresh, chip.describe()) << std::hex << c.code;
        char entry[128];
        std::snprintf(entry, sizeof entry, "request 0x%08x refused (%d): %s", c.code, c.result, c.why);
        expected.push_back(entry);
    }
    EXPECT_EQ(std::vector<std::string>(chip.history().entries().begin(), chip.history().entries().end()), expected);

    // Opens: read-write with no mode is what the driver sends; the rest is refused.
    const std::string dev = "/dev/swmgr-test-open-" + std::to_string(::getpid());
    ASSERT_TRUE(chip.attach(dev));
    for (const auto &[flags, mode] : {std::pair{O_RDONLY, 0}, std::pair{O_RDWR | O_CREAT, 0644}}) {
        errno = 0;
        EXPECT_EQ(osaOpen(dev.c_str(), flags, mode), -1);
        EXPECT_EQ(errno, EINVAL);
        char why[64];  // the flags' values differ between architectures
        std::snprintf(why, sizeof why, "open refused (-22): flags 0x%x mode 0%o", static_cast<unsigned>(flags),
                      static_cast<unsigned>(mode));
        expected.push_back(why);
    }
    const int fd = osaOpen(dev.c_str(), O_RDWR, 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(osaClose(fd), 0);
    chip.detach();
    EXPECT_EQ(std::vector<std::string>(chip.history().entries().begin(), chip.history().entries().end()), expected);
    EXPECT_TRUE(chip.state().vlanEnabled);
    EXPECT_EQ(chip.port(1).tag, (swsim::BcmChip::Tag{10, 0, 0}));
    EXPECT_EQ(chip.vlan(10), (swsim::BcmChip::VlanEntry{0x1f, 0x01}));
    EXPECT_EQ(chip.port(1).rate, (swsim::BcmChip::RateLimit{1, 100000}));
    EXPECT_EQ(chip.port(1).cosQueue, (std::map<uint8_t, uint8_t>{{7, 3}}));
}

}  // namespace
