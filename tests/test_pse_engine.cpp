// The engine model itself: what it takes, what it refuses, what it passes on.
#include <cstdlib>

#include "pse_fixture.h"

namespace {
using psetest::PseTest;
using swsim::PseEngine;

TEST_F(PseTest, EngineInterpretsItsOwnLinesAndRefusesMalformedOnes) {
    const char *bad[] = {"sppe_ioctl rl on", "sppe_ioctl  rl enable", "tc_func set 3", "tc_func set 1 ",
                         "rate_limit_func set 3 128 0", "rate_limit_func set 3 1 3",
                         "queue_weight_func set 1 2 0 1 2", "queue_weight_func set 1 3 0 1 2 3",
                         "pri_ctl_func set 3 0 2 0 0 0", "vlan_table_func edit 3 0 0x0 0x0 100 1",
                         "vlan_table_func edit 3 0 24 0x24 100 00:1a:2b:3c:4d:5e 1",
                         "vlan_table_func edit 3 2 0x0 0x0 100  1", "vlan_table_func edit 3 0 0x0 0x0 4096  1",
                         "vlan_table_func edit 3 0 0x0 0x0 100 00:1a:2b:3c:4d 1", "arl_table_func add  100 0x4 0x1",
                         "arl_table_func add 00:1a:2b:3c:4d:5e\n\n 100 0x4 0x1", "arl_table_func flush"};
    const std::string before = engine.dump();
    for (const char *line : bad) EXPECT_EQ(PseEngine::kUsageStatus, osaCmdExec(line, nullptr, 0)) << line;
    EXPECT_EQ(before, engine.dump());
    EXPECT_EQ(std::size(bad), engine.handled().size());

    // Another tool's line passes on to the capture behind it; a register
    // line that is not a whole pipeline is refused.
    cap->unhandledCommandStatus = 42;
    EXPECT_EQ(42, osaCmdExec("tc_funcs set 1", nullptr, 0));
    EXPECT_EQ(PseEngine::kUsageStatus, std::system("/sysx2.0/bin/memrw 0x7000000c w |grep Value"));
    EXPECT_EQ(std::size(bad) + 1, engine.handled().size());

    // A scripted failure answers once; the well-formed lines then build the state below.
    engine.failCommand("tc_func", -9, true, 1);
    EXPECT_EQ(-9, osaCmdExec("tc_func set 1", nullptr, 0));
    const char *good[] = {"tc_func set 1", "sppe_ioctl rl enable",
                          "vlan_table_func edit 2 1 0x24 0x24 100 00:1A:2b:3c:4d:5e\n 1",
                          "vlan_table_func edit 0 0 0x0 0x0 7  1", "arl_table_func add 00:1a:2b:3c:4d:5e\n 100 0x4 0x1",
                          "arl_table_func add 02:00:00:00:00:01 7 0x4 0x1", "arl_table_func del 02:00:00:00:00:01 7",
                          "arl_table_func del  7", "rate_limit_func set 3 12 2",
                          "queue_weight_func set 1 2 -2147483648 1 2 3", "pri_ctl_func set 3 0 1 0 0 0"};
    for (const char *line : good) EXPECT_EQ(0, osaCmdExec(line, nullptr, 0)) << line;
    EXPECT_EQ("qos enabled\ntraffic-class 1\nvlan 0 vid 7 wan 0 etag 0x0 mb 0x0 mac - valid 1\n"
              "vlan 2 vid 100 wan 1 etag 0x24 mb 0x24 mac 00:1a:2b:3c:4d:5e valid 1\n"
              "arl 00:1a:2b:3c:4d:5e vid 100 ports 0x4 flags 0x1\nrate-limit port 3 value 12 unit 2\n"
              "queue-weight port 1 mode 2 exp -2147483648 1 2 3\ntrust port 3 flags 0 1 0 0 0\n"
              "reg 0x7000000c 0x0\nreg 0x70000010 0x0\nreg 0x70000018 0x0\n",
              engine.dump());
}

}  // namespace
