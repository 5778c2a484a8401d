// The PSE driver's attach, command table and forwarding to lower switches,
// and the MAC address text.
#include <net/if.h>

#include <cstring>

#include "pse_fixture.h"

namespace {

using psetest::PseTest;
using swtest::Bytes;
using swtest::le32;
using Logs = std::vector<std::string>;

// A REC switch below the PSE, with a PSE port standing for two of its ports.
class PseForwardTest : public PseTest {
protected:
    void SetUp() override {
        PseTest::SetUp();
        lower = swtest::addSwitch("REC", 1);
        ASSERT_EQ(0, switchConfigFuncRegister(lower));
        pse7 = addPort(pse, 7);
        mapPort(pse7, addPort(lower, 3));
        mapPort(pse7, addPort(lower, 5));
        cap->clear();
    }
    swtest::RecordingDriver rec;
    Switch *lower = nullptr;
    SwitchPort *pse7 = nullptr;
};

Bytes rateRecord(uint32_t port, uint8_t action, uint32_t rate) {
    Bytes b = le32(port);
    b.insert(b.end(), {action, 0, 0, 0});
    Bytes r = le32(rate);
    b.insert(b.end(), r.begin(), r.end());
    return b;
}

TEST_F(PseTest, AttachesOnlyToAnExactPseName) {
    EXPECT_EQ(reinterpret_cast<void *>(pseSwitchConfig), reinterpret_cast<void *>(pse->switchConfigFunc));
    EXPECT_EQ(reinterpret_cast<void *>(pseConfTransfer), reinterpret_cast<void *>(pse->driverPriv));
    EXPECT_EQ(SW_EINVAL, pseSwitchRegister(nullptr));
    EXPECT_EQ(SW_EINVAL, pseSwitchUnRegister(nullptr));
    for (const char *name : {"PSE ", "pse"}) {
        Switch *sw = swtest::addSwitch(name, 1);
        EXPECT_EQ(SW_EINVAL, pseSwitchRegister(sw)) << name;
        EXPECT_EQ(nullptr, sw->switchConfigFunc);
        sw->driverPriv = pseConfTransfer;
        EXPECT_EQ(SW_EINVAL, pseSwitchUnRegister(sw)) << name;
        EXPECT_NE(nullptr, sw->driverPriv);
    }
    EXPECT_EQ(0, pseSwitchUnRegister(pse));
    EXPECT_EQ(nullptr, pse->switchConfigFunc);
    EXPECT_EQ(nullptr, pse->driverPriv);
    EXPECT_TRUE(cap->commands.empty());
}

TEST_F(PseForwardTest, WrongRecordLengthsAreRefusedBeforeAnythingRuns) {
    SwitchVlan vlan{};
    EXPECT_EQ(SW_EINVAL, pseSwitchConfig(pse, SW_CMD_VLAN_MEMBERSHIP_APPLY, &vlan, SW_VLAN_REC_LEN - 1,
                                         nullptr, nullptr));
    SwitchTrustModeArg trust{3, 4};
    EXPECT_EQ(SW_EINVAL, pseSwitchConfig(pse, SW_CMD_PORT_TRUST_MODE, &trust, SW_TRUST_MODE_ARG_LEN + 1,
                                         nullptr, nullptr));
    EXPECT_EQ((Logs{"Processing vlan membership configure request (35)\n",
                    "Processing  switch port trust mode configuration request (51)\n"}),
              logs());
    EXPECT_TRUE(cap->commands.empty());
    EXPECT_TRUE(rec.calls.empty());
}

TEST_F(PseForwardTest, CodesWithoutHandlerAreForwardedOrIgnored) {
    int replyLen = 0;
    char arg[4] = {1, 2, 3, 4};
    EXPECT_EQ(0, pseSwitchConfig(pse, 40, arg, 4, nullptr, &replyLen));
    ASSERT_EQ(1u, rec.calls.size());
    EXPECT_EQ(lower, rec.calls[0].sw);
    EXPECT_EQ(40, rec.calls[0].cmd);
    EXPECT_EQ(arg, rec.calls[0].argPtr);
    EXPECT_EQ(4, rec.calls[0].argLen);
    EXPECT_EQ((Logs{"Sending command=(40) to lower switches\n",
                    "Lower switches processed command=(40). Result=Success\n"}),
              logs());

    cap->clear();
    pse->lowerLvlForward = 0;
    EXPECT_EQ(0, pseSwitchConfig(pse, 40, arg, 4, nullptr, &replyLen));
    EXPECT_EQ(Logs{"handler not defined for command (40)\n"}, logs());
    EXPECT_EQ(SW_LOG_INFO, cap->logs[0].level);
    EXPECT_EQ(1u, rec.calls.size());
}

TEST_F(PseForwardTest, LocalHandlerWithForwardingOffLogsBothLines) {
    pse->lowerLvlForward = 0;
    uint32_t on = 1;
    EXPECT_EQ(0, pseSwitchConfig(pse, SW_CMD_QOS_CONFIG, &on, SW_U32_ARG_LEN, nullptr, nullptr));
    EXPECT_EQ((Logs{"Processing QoS Configuration request (47)\n",
                    "(switch=PSE) Configuring QoS [Status:1] \n",
                    cmdLine("sppe_ioctl rl enable", 0),
                    "(switch=PSE) QoS configuration (Success) \n",
                    "handler not defined for command (47)\n"}),
              logs());
    EXPECT_EQ(SW_LOG_ERR, cap->logs[2].level);
    EXPECT_EQ(std::optional<bool>(true), engine.qosEnabled());
    EXPECT_TRUE(rec.calls.empty());
}

TEST_F(PseForwardTest, ForwardingResultReplacesTheLocalOne) {
    uint32_t bad = 7;  // refused locally with -1
    EXPECT_EQ(0, pseSwitchConfig(pse, SW_CMD_QOS_CONFIG, &bad, SW_U32_ARG_LEN, nullptr, nullptr));
    EXPECT_EQ(std::vector<int>{SW_CMD_QOS_CONFIG}, rec.cmds());

    // And the other way round: a lower failure stops the walk and is returned.
    Switch *second = swtest::addSwitch("REC2", 1);
    second->switchConfigFunc = lower->switchConfigFunc;
    switchLowerLvlSwitchListAppend(pse, second);
    rec.results[SW_CMD_QOS_CONFIG] = -5;
    rec.calls.clear();
    cap->clear();
    uint32_t on = 1;
    EXPECT_EQ(-5, pseSwitchConfig(pse, SW_CMD_QOS_CONFIG, &on, SW_U32_ARG_LEN, nullptr, nullptr));
    ASSERT_EQ(1u, rec.calls.size());
    EXPECT_EQ(1, cap->countLog("Failed to process cmd (47) in lower switch REC\n"));
    EXPECT_EQ(0, cap->countLog("Lower switches processed command=(47). Result=Failed\n"));
}

TEST_F(PseTest, EmptyLowerListReportsFailedAndReturnsZero) {
    EXPECT_EQ(0, pseLowerSwitchConfig(pse, 44, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ((Logs{"Sending command=(44) to lower switches\n",
                    "Lower switches processed command=(44). Result=Failed\n"}),
              logs());
}

TEST_F(PseForwardTest, RateLimitReachesEachMappedLowerPort) {
    SwitchRateLimitArg arg{7, 1, {0xAA, 0xAA, 0xAA}, 3000};
    EXPECT_EQ(0, pseSwitchConfig(pse, SW_CMD_PORT_RATE_LIMIT, &arg, SW_RATE_LIMIT_ARG_LEN, nullptr, nullptr));
    EXPECT_EQ(std::vector<std::string>{"rate_limit_func set 7 46 0"}, cap->commands);
    ASSERT_EQ(2u, rec.calls.size());
    EXPECT_EQ(rateRecord(3, 1, 3000), rec.calls[0].arg);
    EXPECT_EQ(rateRecord(5, 1, 3000), rec.calls[1].arg);
    for (const auto &c : rec.calls) {
        EXPECT_EQ(SW_CMD_PORT_RATE_LIMIT, c.cmd);
        EXPECT_EQ(SW_RATE_LIMIT_ARG_LEN, c.argLen);
    }

    // A lower failure on the first mapped port stops there.
    rec.calls.clear();
    rec.results[SW_CMD_PORT_RATE_LIMIT] = -3;
    EXPECT_EQ(-3, pseConfTransfer(pse, lower, SW_CMD_PORT_RATE_LIMIT, &arg, 12, nullptr, nullptr));
    EXPECT_EQ(1u, rec.calls.size());
    EXPECT_EQ(1, cap->countLog("Failed to process cmd (50) in lower switch REC\n"));
}

TEST_F(PseForwardTest, RateLimitForUnknownOrUnmappedPort) {
    SwitchRateLimitArg unknown{9, 1, {}, 64};
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, SW_CMD_PORT_RATE_LIMIT, &unknown, 12, nullptr, nullptr));
    EXPECT_EQ(Logs{"Failed to find port (9).\n"}, logs());
    cap->clear();
    addPort(pse, 8);
    SwitchRateLimitArg unmapped{8, 1, {}, 64};
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, SW_CMD_PORT_RATE_LIMIT, &unmapped, 12, nullptr, nullptr));
    EXPECT_TRUE(logs().empty());
    EXPECT_TRUE(rec.calls.empty());
}

TEST_F(PseTest, EngineLinesNameTheirCallerInDeveloperForm) {
    swMgrDevDebug = 1;
    SwitchTrustModeArg trust{3, 4};
    EXPECT_EQ(0, pseTrustModeConfigure(pse, &trust));
    ASSERT_EQ(3u, cap->logs.size()) << cap->dump();
    const swtest::LogLine &l = cap->logs[1];
    EXPECT_EQ(SW_LOG_DEV, l.level);
    EXPECT_EQ("", l.prefix);
    EXPECT_EQ("pseTrustModeConfigure", l.func);
    EXPECT_GT(l.line, 0);
    EXPECT_EQ(cmdLine("pri_ctl_func set 3 0 1 0 0 0", 0), l.text);
}

// Answers the hardware-address request for one interface, keeping what it saw.
struct HwAddrHook {
    std::string seenName;
    int seenFamily = -1;
    static int on(void *ctx, int, unsigned request, void *arg, int *result) {
        auto *self = static_cast<HwAddrHook *>(ctx);
        if (request != 0x8927) return 0;
        auto *req = static_cast<struct ifreq *>(arg);
        self->seenName.assign(req->ifr_name, strnlen(req->ifr_name, sizeof req->ifr_name));
        self->seenFamily = req->ifr_hwaddr.sa_family;
        *result = -1;
        if (self->seenName == "eth1") {
            const unsigned char mac[6] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
            std::memcpy(req->ifr_hwaddr.sa_data, mac, sizeof mac);
            *result = 0;
        }
        return 1;
    }
};

TEST_F(PseTest, MacAddressTextKeepsItsNewline) {
    HwAddrHook hook;
    osaPortIoctlHookAdd(HwAddrHook::on, &hook);
    char out[PSE_MAC_TEXT_LEN + 4];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(0, switchMacAddressByIfNameGet("eth1", out));
    EXPECT_STREQ("00:1a:2b:3c:4d:5e\n", out);
    EXPECT_EQ(2, hook.seenFamily);
    EXPECT_EQ('x', out[PSE_MAC_TEXT_LEN]);

    // A failed request still succeeds, with the cleared address.
    EXPECT_EQ(0, switchMacAddressByIfNameGet("a-very-long-interface-name", out));
    EXPECT_EQ("a-very-long-int", hook.seenName);
    EXPECT_STREQ("00:00:00:00:00:00\n", out);
    EXPECT_EQ(SW_EINVAL, switchMacAddressByIfNameGet("eth1", nullptr));
    osaPortIoctlHookRemove(HwAddrHook::on, &hook);
    ASSERT_EQ(2u, cap->ioctls.size());
    EXPECT_EQ(0x8927u, cap->ioctls[0].code);
}

}  // namespace
