// SPDX-License-Identifier: Apache-2.0
// QoS on the engine: global switch, queue scheduling, pause frames, rate
// limits and trust modes.
#include "pse_fixture.h"

namespace {
using namespace psetest;

// The pipeline that sets (or clears) bit 31 of a register: read it, and
// write back "%#x" of the high half followed by "%x" of the low half.
std::string pipeline(bool set, const std::string &reg) {
    const std::string bit = set ? "val = lshift(1,31);" : "val1 = lshift(1,31); val = val1^0xFFFFFFFF ;";
    return "/sysx2.0/bin/memrw " + reg + " w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; " + bit + " reg = " +
           reg + " ;     res = " + (set ? "or" : "and") + " (rl, val) ; fh = rshift (res, 16);     sh = and (res, " +
           "0xFFFF); final_value = sprintf (\"%#x%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"" +
           "final_value;  system (cmd);}'";
}

TEST_P(PseForms, RateLimitsQosAndTrustModes) {
    addPort(pse, 3);
    // Any non-zero status fails: a negative rate is below 64 and reaches
    // the engine, which refuses the negative value.
    const struct {
        uint32_t port;
        uint8_t action;
        int32_t rate;
        int status;
        const char *line;
    } cases[] = {{3, 1, 64, 0, "rate_limit_func set 3 1 0"},      {3, 1, 8128, 0, "rate_limit_func set 3 127 0"},
                 {3, 1, 8129, 0, "rate_limit_func set 3 7 1"},    {3, 1, 130048, 0, "rate_limit_func set 3 127 1"},
                 {3, 1, 130049, 0, "rate_limit_func set 3 12 2"}, {3, 1, 1300480, 0, "rate_limit_func set 3 127 2"},
                 {3, 1, 10, 0, "rate_limit_func set 3 0 1"},      {3, 0, 999999, 0, "rate_limit_func set 3 0 0"},
                 {3, 1, 63, 0, "rate_limit_func set 3 0 1"},      {3, 1, -5000, 1, "rate_limit_func set 3 -4 1"},
                 {3, 1, 1300481, -1, nullptr},                   {3, 2, 64, -1, nullptr},
                 {4, 1, 64, -1, nullptr}};
    for (const auto &c : cases) {
        cap->clear();
        SwitchRateLimitArg arg{c.port, c.action, {}, static_cast<uint32_t>(c.rate)};
        EXPECT_EQ(c.status, pseRateLimitConfigure(pse, &arg)) << c.rate;
        EXPECT_EQ(c.line ? Lines{c.line} : Lines{}, cap->commands) << c.rate;
    }
    EXPECT_TRUE(cap->logsAre({{8, "pseRateLimitConfigure", "(switch=PSE) Failed to find port (4). \n"}}));

    // QoS off, and the five trust modes.
    uint32_t off = 0;
    EXPECT_EQ(0, pseQoSConfigure(pse, &off));
    EXPECT_EQ(Lines{"sppe_ioctl rl disable"}, cap->commands);
    const char *flags[] = {"1 0 0 0 0", "0 0 0 1 0", "0 0 1 0 0", "0 0 0 0 1", "0 1 0 0 0"};
    for (int mode = 0; mode < 5; ++mode) {
        SwitchTrustModeArg arg{3, mode};
        EXPECT_EQ(0, pseTrustModeConfigure(pse, &arg));
        EXPECT_EQ(std::string("pri_ctl_func set 3 ") + flags[mode], cap->commands.back());
    }
    SwitchTrustModeArg invalid{3, 5}, fine{3, 0};
    EXPECT_EQ(-1, pseTrustModeConfigure(pse, &invalid));
    engine.failCommand("pri_ctl_func", 3, true);
    EXPECT_EQ(3, pseTrustModeConfigure(pse, &fine));  // the status is passed up
}

TEST_P(PseForms, QueueSchedulingAndPauseFrames) {
    addPort(pse, 1);
    addPort(pse, 3);
    SwitchQueueSchedArg threeQueues{-1, 3, 0, 1, 1, 1, 1}, mode2{-1, 4, 2, 1, 1, 1, 1};
    EXPECT_EQ(-1, pseQueueSchedConfigure(pse, &threeQueues));
    EXPECT_EQ(-1, pseQueueSchedConfigure(pse, &mode2));
    EXPECT_TRUE(cap->logsAre({{8, "pseQueueSchedConfigure", "(switch=PSE) Invalid number of queues  (3)\n"},
                              {8, "pseQueueSchedConfigure", "(switch=PSE) Invalid schedule mode  (2)\n"}}));
    EXPECT_TRUE(cap->commands.empty());

    SwitchQueueSchedArg all{-1, 4, 3, 1, 2, 4, 8}, one{3, 1, 0, 0, 3, 128, -5}, two{3, 2, 1, 1, 1, 1, 1};
    EXPECT_EQ(0, pseQueueSchedConfigure(pse, &all));
    EXPECT_EQ(0, pseQueueSchedConfigure(pse, &one));
    EXPECT_EQ(0, pseQueueSchedConfigure(pse, &two));
    EXPECT_EQ((Lines{"tc_func set 2", "queue_weight_func set 1 2 0 1 2 3", "queue_weight_func set 3 2 0 1 2 3",
                     "tc_func set 0", "queue_weight_func set 3 1 -2147483648 1 7 0", "tc_func set 1",
                     "queue_weight_func set 3 0 0 0 0 0"}),
              cap->commands);

    // Any non-zero status stops.
    cap->clear();
    engine.failCommand("tc_func set 2", 4, false, 1);
    EXPECT_EQ(4, pseQueueSchedConfigure(pse, &all));
    engine.failCommand("queue_weight_func set 1", 1, true, 1);
    EXPECT_EQ(1, pseQueueSchedConfigure(pse, &all));
    EXPECT_EQ((Lines{"tc_func set 2", "tc_func set 2", "queue_weight_func set 1 2 0 1 2 3"}), cap->commands);

    // Pause frames: bit 31 of three registers rewritten.
    cap->clear();
    engine.setReg(0x7000000C, 0x1234);
    engine.setReg(0x70000010, 0x12);
    uint32_t on = 1, other = 2;
    EXPECT_EQ(0, psePauseFrameConfigure(pse, &on));
    EXPECT_EQ((Lines{pipeline(true, "0x7000000c"), pipeline(true, "0x70000010"), pipeline(true, "0x70000018")}),
              cap->systemCommands);
    EXPECT_TRUE(cap->logsAre({{64, "psePauseFrameConfigure", "(switch=PSE) Pause Frame configuration Success \n"}}));
    EXPECT_EQ(0x80001234u, engine.reg(0x7000000C));
    EXPECT_EQ(0x00800012u, engine.reg(0x70000010));  // the low half lost its zeros
    EXPECT_EQ(0x00080000u, engine.reg(0x70000018));
    cap->clear();
    EXPECT_EQ(0, psePauseFrameConfigure(pse, &other));
    EXPECT_EQ((Lines{pipeline(false, "0x7000000c"), pipeline(false, "0x70000010"), pipeline(false, "0x70000018")}),
              cap->systemCommands);

    // Without the engine: a pipeline that exited 1 goes on, a failed
    // system() stops at once.
    engine.detach();
    cap->clear();
    cap->systemStatus = 256;
    EXPECT_EQ(256, psePauseFrameConfigure(pse, &on));
    cap->systemStatus = -1;
    EXPECT_EQ(-1, psePauseFrameConfigure(pse, &on));
    EXPECT_EQ(4u, cap->systemCommands.size());
}

SWTEST_BOTH_FORMS(PseForms);

}  // namespace
