// SPDX-License-Identifier: Apache-2.0
// The PSE driver's attach, command table and forwarding to lower switches.
#include "pse_fixture.h"

namespace {
using namespace psetest;

// A REC switch below the PSE, with PSE port 7 standing for its ports 3 and 5.
class PseForwardTest : public PseTest {
protected:
    void SetUp() override {
        PseTest::SetUp();
        pse->lowerLvlForward = 1;
        lower = swtest::addSwitch("REC", 1);
        ASSERT_EQ(0, switchConfigFuncRegister(lower));
        addPort(pse, 7, {addPort(lower, 3), addPort(lower, 5)});
        cap->clear();
    }
    int config(int cmd, void *arg, int len) { return pseSwitchConfig(pse, cmd, arg, len, nullptr, nullptr); }
    swtest::RecordingDriver rec;
    Switch *lower = nullptr;
};
using PseForwardForms = swtest::BothForms<PseForwardTest>;

TEST_P(PseForms, AttachesOnlyToAnExactPseName) {
    EXPECT_EQ(pse->switchConfigFunc, pseSwitchConfig);
    EXPECT_EQ(pse->driverPriv, pseConfTransfer);
    for (const char *name : {"PSE ", "pse"}) {
        Switch *sw = swtest::addSwitch(name, 1);
        EXPECT_EQ(SW_EINVAL, pseSwitchRegister(sw)) << name;
        EXPECT_EQ(nullptr, sw->switchConfigFunc);
        sw->driverPriv = pseConfTransfer;
        EXPECT_EQ(SW_EINVAL, pseSwitchUnRegister(sw)) << name;
        EXPECT_NE(nullptr, sw->driverPriv);
    }
    // No lower switch: the summary says Failed, the result is still 0.
    EXPECT_EQ(0, pseLowerSwitchConfig(pse, 44, nullptr, 0, nullptr, nullptr));
    EXPECT_TRUE(cap->logsAre({{64, "pseLowerSwitchConfig", "Sending command=(44) to lower switches\n"},
                              {64, "pseLowerSwitchConfig", "Lower switches processed command=(44). Result=Failed\n"}}));
    EXPECT_EQ(0, pseSwitchUnRegister(pse));
    EXPECT_EQ(nullptr, pse->switchConfigFunc);
    EXPECT_EQ(nullptr, pse->driverPriv);
}

TEST_P(PseForwardForms, CommandEntryAndForwarding) {
    SwitchVlan vlan{};
    SwitchTrustModeArg trust{3, 4};
    EXPECT_EQ(SW_EINVAL, config(35, &vlan, 1311));
    EXPECT_EQ(SW_EINVAL, config(51, &trust, SW_TRUST_MODE_ARG_LEN + 1));
    char arg[4] = {1, 2, 3, 4};
    EXPECT_EQ(0, config(40, arg, 4));  // no handler: passed on as it is
    ASSERT_EQ(1u, rec.calls.size());
    EXPECT_EQ(arg, rec.calls[0].argPtr);
    EXPECT_EQ(4, rec.calls[0].argLen);
    pse->lowerLvlForward = 0;
    EXPECT_EQ(0, config(40, arg, 4));
    uint32_t on = 1;
    EXPECT_EQ(0, config(47, &on, SW_U32_ARG_LEN));
    EXPECT_EQ(Lines{"sppe_ioctl rl enable"}, cap->commands);
    EXPECT_TRUE(
        cap->logsAre({{64, "pseSwitchConfig", "Processing vlan membership configure request (35)\n"},
                      {64, "pseSwitchConfig", "Processing  switch port trust mode configuration request (51)\n"},
                      {64, "pseLowerSwitchConfig", "Sending command=(40) to lower switches\n"},
                      {64, "pseLowerSwitchConfig", "Lower switches processed command=(40). Result=Success\n"},
                      {64, "pseSwitchConfig", "handler not defined for command (40)\n"},
                      {64, "pseSwitchConfig", "Processing QoS Configuration request (47)\n"},
                      {64, "pseQoSConfigure", "(switch=PSE) Configuring QoS [Status:1] \n"},
                      {8, "pseQoSConfigure", "cmd (sppe_ioctl rl enable) returned (0).\n"},
                      {64, "pseQoSConfigure", "(switch=PSE) QoS configuration (Success) \n"},
                      {64, "pseSwitchConfig", "handler not defined for command (47)\n"}}));

    // A rate limit reaches each lower port the PSE port stands for.
    pse->lowerLvlForward = 1;
    rec.calls.clear();
    cap->clear();
    SwitchRateLimitArg limit{7, 1, {0xAA, 0xAA, 0xAA}, 3000};
    EXPECT_EQ(0, config(50, &limit, SW_RATE_LIMIT_ARG_LEN));
    EXPECT_EQ(Lines{"rate_limit_func set 7 46 0"}, cap->commands);
    ASSERT_EQ(2u, rec.calls.size());
    EXPECT_EQ(swtest::Bytes({3, 0, 0, 0, 1, 0, 0, 0, 0xb8, 0x0b, 0, 0}), rec.calls[0].arg);
    EXPECT_EQ(swtest::Bytes({5, 0, 0, 0, 1, 0, 0, 0, 0xb8, 0x0b, 0, 0}), rec.calls[1].arg);
    for (const auto &c : rec.calls) EXPECT_EQ(std::make_pair(50, 12), std::make_pair(c.cmd, c.argLen));
    // A lower failure on the first mapped port stops there; an unknown PSE
    // port reaches no lower port.
    rec.results[50] = -3;
    EXPECT_EQ(-3, pseConfTransfer(pse, lower, 50, &limit, 12, nullptr, nullptr));
    limit.portNumber = 9;
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, 50, &limit, 12, nullptr, nullptr));
    EXPECT_EQ(3u, rec.calls.size());
    EXPECT_EQ(1, cap->countLog("Failed to find port (9).\n"));

    // A step refused locally is hidden by the lower switches' success; a
    // lower failure stops the walk and is returned.
    rec.calls.clear();
    uint32_t bad = 7;
    EXPECT_EQ(-1, pseQoSConfigure(pse, &bad));
    EXPECT_EQ(0, config(47, &bad, SW_U32_ARG_LEN));
    Switch *second = swtest::addSwitch("REC2", 1);
    second->switchConfigFunc = lower->switchConfigFunc;
    switchLowerLvlSwitchListAppend(pse, second);
    rec.results[47] = -5;
    cap->clear();
    EXPECT_EQ(-5, config(47, &on, SW_U32_ARG_LEN));
    EXPECT_EQ((std::vector<int>{47, 47}), rec.cmds());  // REC2 never reached
    EXPECT_EQ(1, cap->countLog("Failed to process cmd (47) in lower switch REC\n"));
}

SWTEST_BOTH_FORMS(PseForms);
SWTEST_BOTH_FORMS(PseForwardForms);

}  // namespace
