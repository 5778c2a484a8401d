// QoS on the engine: global switch, queue scheduling, pause frames, rate
// limits and trust modes.
#include <cstdio>
#include <cstring>

#include "pse_fixture.h"

namespace {

using Logs = std::vector<std::string>;
using Lines = std::vector<std::string>;

class PseQosTest : public psetest::PseTest {
protected:
    void SetUp() override {
        PseTest::SetUp();
        pse->lowerLvlForward = 0;
        addPort(pse, 1);
        addPort(pse, 3);
        cap->clear();
    }
};

// The pipelines for register 0x7000000c; the others differ only in the address.
const std::string kSet0c =
    "/sysx2.0/bin/memrw 0x7000000c w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val = lshift(1,31); reg = 0x7000000c ;     res = or (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf (\"%#x%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";
const std::string kClear0c =
    "/sysx2.0/bin/memrw 0x7000000c w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val1 = lshift(1,31); val = val1^0xFFFFFFFF ; reg = 0x7000000c ;     res = and (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf (\"%#x%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";

std::string pipeline(bool set, unsigned reg) {
    std::string text = set ? kSet0c : kClear0c;
    char addr[16];
    std::snprintf(addr, sizeof addr, "%#x", reg);
    for (size_t at = 0; (at = text.find("0x7000000c", at)) != std::string::npos; at += std::strlen(addr))
        text.replace(at, 10, addr);
    return text;
}

TEST_F(PseQosTest, RateLimitUnitsAndBoundaries) {
    struct Case {
        uint8_t action;
        int32_t rate;
        const char *line;
    } cases[] = {
        {1, 64, "rate_limit_func set 3 1 0"},          {1, 8128, "rate_limit_func set 3 127 0"},
        {1, 8129, "rate_limit_func set 3 7 1"},        {1, 130048, "rate_limit_func set 3 127 1"},
        {1, 130049, "rate_limit_func set 3 12 2"},     {1, 1300480, "rate_limit_func set 3 127 2"},
        {1, 10, "rate_limit_func set 3 0 1"},          {0, 999999, "rate_limit_func set 3 0 0"},
        {1, 63, "rate_limit_func set 3 0 1"},
    };
    for (const auto &c : cases) {
        cap->clear();
        SwitchRateLimitArg arg{3, c.action, {}, static_cast<uint32_t>(c.rate)};
        EXPECT_EQ(0, pseRateLimitConfigure(pse, &arg)) << c.rate;
        EXPECT_EQ(Lines{c.line}, cap->commands);
    }
    ASSERT_NE(nullptr, engine.rateLimit(3));
    EXPECT_EQ(0, engine.rateLimit(3)->value);

    cap->clear();
    SwitchRateLimitArg tooFast{3, 1, {}, 1300481};
    EXPECT_EQ(-1, pseRateLimitConfigure(pse, &tooFast));
    SwitchRateLimitArg badAction{3, 2, {}, 64};
    EXPECT_EQ(-1, pseRateLimitConfigure(pse, &badAction));
    SwitchRateLimitArg noPort{4, 1, {}, 64};
    EXPECT_EQ(-1, pseRateLimitConfigure(pse, &noPort));
    EXPECT_EQ(-1, pseRateLimitConfigure(pse, nullptr));
    EXPECT_EQ((Logs{"(switch=PSE) Switch can't configure this rate (1300481kbps) \n",
                    "(switch=PSE) Invalid cmd (2) to configure rate limiting\n",
                    "(switch=PSE) Failed to find port (4). \n"}),
              logs());
    EXPECT_TRUE(cap->commands.empty());

    // Any non-zero status fails; a negative rate is below 64 and reaches
    // the engine, which refuses the negative value.
    SwitchRateLimitArg negative{3, 1, {}, static_cast<uint32_t>(-5000)};
    EXPECT_EQ(swsim::PseEngine::kUsageStatus, pseRateLimitConfigure(pse, &negative));
    EXPECT_EQ(Lines{"rate_limit_func set 3 -4 1"}, cap->commands);
    EXPECT_EQ(1, cap->countLog("(switch=PSE) rate limit configuration failed \n"));
}

TEST_F(PseQosTest, QueueSchedulingSendsLog2Exponents) {
    SwitchQueueSchedArg all{-1, 4, 3, 1, 2, 4, 8};
    EXPECT_EQ(0, pseQueueSchedConfigure(pse, &all));
    EXPECT_EQ((Lines{"tc_func set 2", "queue_weight_func set 1 2 0 1 2 3",
                     "queue_weight_func set 3 2 0 1 2 3"}),
              cap->commands);
    EXPECT_EQ(std::optional<int>(2), engine.trafficClass());
    ASSERT_NE(nullptr, engine.queueWeight(3));
    EXPECT_EQ((std::array<int, 4>{0, 1, 2, 3}), engine.queueWeight(3)->exponents);
    EXPECT_EQ("(switch=PSE) Switch ports Queue scheduling configuring Success. \n", logs().back());

    cap->clear();
    SwitchQueueSchedArg one{3, 1, 0, 0, 3, 128, -5};
    EXPECT_EQ(0, pseQueueSchedConfigure(pse, &one));
    SwitchQueueSchedArg two{3, 2, 1, 1, 1, 1, 1};
    EXPECT_EQ(0, pseQueueSchedConfigure(pse, &two));
    EXPECT_EQ((Lines{"tc_func set 0", "queue_weight_func set 3 1 -2147483648 1 7 0", "tc_func set 1",
                     "queue_weight_func set 3 0 0 0 0 0"}),
              cap->commands);
}

TEST_F(PseQosTest, QueueSchedulingRefusalsAndFailures) {
    SwitchQueueSchedArg threeQueues{-1, 3, 0, 1, 1, 1, 1};
    SwitchQueueSchedArg mode2{-1, 4, 2, 1, 1, 1, 1};
    EXPECT_EQ(-1, pseQueueSchedConfigure(pse, &threeQueues));
    EXPECT_EQ(-1, pseQueueSchedConfigure(pse, &mode2));
    EXPECT_EQ((Logs{"(switch=PSE) Invalid number of queues  (3)\n",
                    "(switch=PSE) Invalid schedule mode  (2)\n"}),
              logs());
    EXPECT_TRUE(cap->commands.empty());

    SwitchQueueSchedArg ok{-1, 4, 0, 1, 1, 1, 1};
    engine.failCommand("tc_func set 2", 4, false, 1);
    EXPECT_EQ(4, pseQueueSchedConfigure(pse, &ok));
    EXPECT_EQ(1, cap->countLog("(switch=PSE) Failed to set number of queues in switch\n"));

    cap->clear();
    engine.failCommand("queue_weight_func set 1", 1, true, 1);
    EXPECT_EQ(1, pseQueueSchedConfigure(pse, &ok));
    EXPECT_EQ(2u, cap->commands.size());  // port 3 untouched
    EXPECT_EQ(1, cap->countLog("(switch=PSE) (port:1) Port Queues weight configuration failed \n"));

    // No port at all: only the traffic class, and still a success.
    swtest::resetRegistry();
    Switch *bare = swtest::addSwitch("PSE", 2);
    cap->clear();
    EXPECT_EQ(0, pseQueueSchedConfigure(bare, &ok));
    EXPECT_EQ(Lines{"tc_func set 2"}, cap->commands);
}

TEST_F(PseQosTest, PauseFramesRewriteBit31OfThreeRegisters) {
    engine.setReg(0x7000000C, 0x1234);
    engine.setReg(0x70000010, 0x12);
    engine.setReg(0x70000014, 0x55);
    uint32_t on = 1;
    EXPECT_EQ(0, psePauseFrameConfigure(pse, &on));
    EXPECT_EQ((Lines{pipeline(true, 0x7000000C), pipeline(true, 0x70000010), pipeline(true, 0x70000018)}),
              cap->systemCommands);
    EXPECT_TRUE(cap->commands.empty());
    EXPECT_EQ(Logs{"(switch=PSE) Pause Frame configuration Success \n"}, logs());
    EXPECT_EQ(0x80001234u, engine.reg(0x7000000C));
    EXPECT_EQ(0x00800012u, engine.reg(0x70000010));  // the low half lost its zeros
    EXPECT_EQ(0x00080000u, engine.reg(0x70000018));
    EXPECT_EQ(0x55u, engine.reg(0x70000014));

    cap->clear();
    uint32_t other = 2;
    EXPECT_EQ(0, psePauseFrameConfigure(pse, &other));
    EXPECT_EQ(pipeline(false, 0x70000018), cap->systemCommands.at(2));
    EXPECT_EQ(0x1234u, engine.reg(0x7000000C));
}

TEST_F(PseQosTest, PauseFrameStatusesWithoutTheEngine) {
    engine.detach();
    uint32_t on = 1;
    cap->systemStatus = 256;  // a pipeline that exited 1 goes on
    EXPECT_EQ(256, psePauseFrameConfigure(pse, &on));
    EXPECT_EQ(3u, cap->systemCommands.size());
    EXPECT_EQ(Logs{"(switch=PSE) Pause Frame configuration Failed \n"}, logs());

    cap->clear();
    cap->systemStatus = -1;  // a failed system() stops at once
    EXPECT_EQ(-1, psePauseFrameConfigure(pse, &on));
    EXPECT_EQ(1u, cap->systemCommands.size());
    EXPECT_EQ(Logs{"(switch=PSE) Pause Frame configuration failed \n"}, logs());
    EXPECT_EQ(-1, psePauseFrameConfigure(nullptr, &on));
    EXPECT_EQ(-1, psePauseFrameConfigure(pse, nullptr));
}

TEST_F(PseQosTest, QosEnableAndTrustModes) {
    uint32_t off = 0, bad = 2;
    EXPECT_EQ(0, pseQoSConfigure(pse, &off));
    EXPECT_EQ(std::optional<bool>(false), engine.qosEnabled());
    EXPECT_EQ(-1, pseQoSConfigure(pse, &bad));
    EXPECT_EQ((Logs{"(switch=PSE) Configuring QoS [Status:0] \n", cmdLine("sppe_ioctl rl disable", 0),
                    "(switch=PSE) QoS configuration (Success) \n",
                    "(switch=PSE) Configuring QoS [Status:2] \n"}),
              logs());

    const char *flags[] = {"1 0 0 0 0", "0 0 0 1 0", "0 0 1 0 0", "0 0 0 0 1", "0 1 0 0 0"};
    cap->clear();
    for (int mode = 0; mode < 5; ++mode) {
        SwitchTrustModeArg arg{3, mode};
        EXPECT_EQ(0, pseTrustModeConfigure(pse, &arg));
        EXPECT_EQ(std::string("pri_ctl_func set 3 ") + flags[mode], cap->commands.back());
    }
    EXPECT_EQ((swsim::PseEngine::TrustFlags{0, 1, 0, 0, 0}), *engine.trust(3));

    cap->clear();
    SwitchTrustModeArg invalid{3, 5};
    EXPECT_EQ(-1, pseTrustModeConfigure(pse, &invalid));
    engine.failCommand("pri_ctl_func", 3, true);
    SwitchTrustModeArg fine{3, 0};
    EXPECT_EQ(3, pseTrustModeConfigure(pse, &fine));
    EXPECT_EQ((Logs{"(switch=PSE) Configuring TrustMode\n", "(switch=PSE) Invalid TrustMode value (5) ",
                    "(switch=PSE) Configuring TrustMode\n", cmdLine("pri_ctl_func set 3 1 0 0 0 0", 3),
                    "(switch=PSE) Trust Mode configuration (Failed) \n"}),
              logs());
}

}  // namespace
