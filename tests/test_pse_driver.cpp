// SPDX-License-Identifier: Apache-2.0
// The PSE driver on the engine model: attach, its command table and the
// forwarding to lower switches, QoS, VLAN membership with the CPU's ARL entry
// and the MAC address text.
#include <cstdlib>

#include "drivers/pse/pse.h"
#include "host_vlan.h"
#include "data_lines.h"
#include "pse_engine.h"

namespace {
using Lines = std::vector<std::string>;
const char *const kData = "pse/expected.txt";

// A PSE switch bound to its driver, with the engine model behind the command seams.
class PseTest : public swtest::DriverTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        engine.attach();  // behind the capture, which records every line first
        pse = swtest::addSwitch("PSE", 2);
        pse->lowerLvlForward = 0;  // tests that forward switch it on
        ASSERT_EQ(0, pseSwitchRegister(pse));
    }
    void TearDown() override {
        engine.detach();
        SwmgrTest::TearDown();
    }
    // A port of `sw` standing for each of `lowers`, whose switch joins sw's lower-level list.
    static SwitchPort *addPort(Switch *sw, int number, std::initializer_list<SwitchPort *> lowers = {}) {
        auto *p = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
        p->portNumber = number, p->sw = sw;
        osaListInit(&p->mappedPorts);
        osaListNodeAppend(&sw->portList, p);
        for (SwitchPort *lower : lowers) EXPECT_EQ(0, switchPortMappedListAppend(p, lower));
        return p;
    }
    int config(int cmd, void *arg, int len) { return pseSwitchConfig(pse, cmd, arg, len, nullptr, nullptr); }
    swsim::PseEngine engine;
    Switch *pse = nullptr;
};
SWTEST_BOTH_FORMS(PseForms, PseTest);

TEST_P(PseForms, CommandEntryForwardingAndAttachingOnlyToAnExactPseName) {
    // A REC switch below the PSE, with PSE port 7 standing for its ports 3 and 5.
    Switch *lower = swtest::addSwitch("REC", 1);
    ASSERT_EQ(0, switchConfigFuncRegister(lower));
    pse->lowerLvlForward = 1;
    addPort(pse, 7, {addPort(lower, 3), addPort(lower, 5)});
    cap->clear();
    char record[SW_VLAN_REC_LEN] = {};  // large enough for either
    EXPECT_EQ(SW_EINVAL, config(35, record, SW_VLAN_REC_LEN - 1));
    EXPECT_EQ(SW_EINVAL, pseSwitchConfig(nullptr, 35, record, SW_VLAN_REC_LEN, nullptr, nullptr));
    EXPECT_EQ(SW_EINVAL, config(51, record, SW_TRUST_MODE_ARG_LEN + 1));
    char arg[4] = {1, 2, 3, 4};
    EXPECT_EQ(0, config(40, arg, 4));  // no handler: passed on as it is
    ASSERT_EQ(1u, drv.calls.size());
    EXPECT_EQ(std::make_pair<const void *>(arg, 4), std::make_pair(drv.calls[0].argPtr, drv.calls[0].argLen));
    pse->lowerLvlForward = 0;
    EXPECT_EQ(0, config(40, arg, 4));
    uint32_t on = 1;
    EXPECT_EQ(0, config(47, &on, SW_U32_ARG_LEN));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "forwarding")));
    EXPECT_EQ(-22, (cap->clear(), config(47, &on, SW_U32_ARG_LEN - 1))) << "shorter than what is read";
    EXPECT_TRUE(cap->commands.empty());

    // A rate limit reaches each lower port the PSE port stands for.
    pse->lowerLvlForward = 1;
    reset();
    SwitchRateLimitArg limit{7, 1, {0xAA, 0xAA, 0xAA}, 3000};
    EXPECT_EQ(0, config(50, &limit, SW_RATE_LIMIT_ARG_LEN));
    EXPECT_EQ(Lines{"rate_limit_func set 7 46 0"}, cap->commands);
    ASSERT_EQ(2u, drv.calls.size());
    EXPECT_EQ(swtest::Bytes({3, 0, 0, 0, 1, 0, 0, 0, 0xb8, 0x0b, 0, 0}), drv.calls[0].arg);
    EXPECT_EQ(swtest::Bytes({5, 0, 0, 0, 1, 0, 0, 0, 0xb8, 0x0b, 0, 0}), drv.calls[1].arg);
    for (const auto &c : drv.calls) EXPECT_EQ(std::make_pair(50, 12), std::make_pair(c.cmd, c.argLen));
    // A lower failure on the first mapped port stops there; a PSE port
    // standing for none, or unknown, reaches no lower port and fails.
    drv.results[50] = -3;
    EXPECT_EQ(-3, pseConfTransfer(pse, lower, 50, &limit, 12, nullptr, nullptr));
    limit.portNumber = (addPort(pse, 8), 8);
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, 50, &limit, 12, nullptr, nullptr));
    limit.portNumber = 9;
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, 50, &limit, 12, nullptr, nullptr));
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, 50, &limit, 11, nullptr, nullptr));  // short: nothing sent
    EXPECT_EQ(-1, pseConfTransfer(pse, nullptr, 50, &limit, 12, nullptr, nullptr));  // nowhere to send
    EXPECT_EQ(std::make_pair(-1, -1), std::make_pair(pseConfTransfer(nullptr, lower, 50, &limit, 12, nullptr, nullptr),
                                                     pseConfTransfer(pse, lower, 50, nullptr, 12, nullptr, nullptr)));
    EXPECT_EQ(SW_EINVAL, pseLowerSwitchConfig(nullptr, 50, &limit, 12, nullptr, nullptr));
    EXPECT_EQ(3u, drv.calls.size());
    EXPECT_EQ(1, cap->countLog("Failed to find port (9).\n"));

    // A step refused locally is hidden by the lower switches' success; a
    // lower failure stops the walk and is returned.
    drv.calls.clear();
    uint32_t bad = 7;
    EXPECT_EQ(-1, pseQoSConfigure(pse, &bad));
    EXPECT_EQ(0, config(47, &bad, SW_U32_ARG_LEN));
    Switch *second = swtest::addSwitch("REC2", 1);
    second->switchConfigFunc = lower->switchConfigFunc;
    switchLowerLvlSwitchListAppend(pse, second);
    drv.results[47] = -5;
    EXPECT_EQ(-5, (cap->clear(), config(47, &on, SW_U32_ARG_LEN)));
    EXPECT_EQ((std::vector<int>{47, 47}), drv.cmds());  // REC2 never reached
    EXPECT_EQ(1, cap->countLog("Failed to process cmd (47) in lower switch REC\n"));

    // The driver attaches only to an exact "PSE" name.
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
}

TEST_P(PseForms, RateLimitsQosTrustModesQueueSchedulingAndPauseFrames) {
    for (int n : {1, 3}) addPort(pse, n);
    // Any non-zero status fails: a negative rate is below 64 and reaches
    // the engine, which refuses the negative value.
    for (const swtest::Row &c : swtest::dataRows(kData, "rate-limits")) {
        cap->clear();
        SwitchRateLimitArg arg{uint32_t(std::stoul(c[0])), uint8_t(std::stoi(c[1])), {}, uint32_t(std::stol(c[2]))};
        EXPECT_EQ(std::stoi(c[3]), pseRateLimitConfigure(pse, &arg)) << c[2];
        EXPECT_EQ(Lines(c.begin() + 4, c.end()), cap->commands) << c[2];
    }
    EXPECT_TRUE(cap->logsAre({{8, "pseRateLimitConfigure", "(switch=PSE) Failed to find port (4). \n"}}));

    // QoS off, and the five trust modes (a sixth is refused unsent).
    cap->clear();
    uint32_t off = 0;
    EXPECT_EQ(0, pseQoSConfigure(pse, &off));
    SwitchTrustModeArg t{3, 0};
    for (; t.trustMode < 6; ++t.trustMode) EXPECT_EQ(t.trustMode < 5 ? 0 : -1, pseTrustModeConfigure(pse, &t));
    EXPECT_EQ(swtest::dataLines(kData, "qos-off-and-trust"), cap->commands);
    t.trustMode = 0;
    engine.failCommand("pri_ctl_func", 3, true);
    EXPECT_EQ(3, pseTrustModeConfigure(pse, &t));  // the status is passed up
    engine.failCommand("sppe_ioctl rl ", 4, true, 1);
    EXPECT_EQ(4, pseQoSConfigure(pse, &off));  // and QoS's too

    // Queue scheduling over ports 1 and 3: bad counts and modes are refused unsent.
    cap->clear();
    for (SwitchQueueSchedArg bad : {SwitchQueueSchedArg{-1, 3, 0, 1, 1, 1, 1}, {-1, 4, 2, 1, 1, 1, 1}})
        EXPECT_EQ(-1, config(SW_CMD_QUEUE_SCHED, &bad, SW_QUEUE_SCHED_ARG_LEN));  // through the command entry
    EXPECT_EQ(std::make_tuple(-1, -1, -1, SW_EINVAL), std::make_tuple(pseQueueSchedConfigure(pse, nullptr),
              pseTrustModeConfigure(pse, nullptr), psePauseFrameConfigure(pse, nullptr), pseVlanMembershipSet(pse, nullptr)));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "sched-refused")));
    EXPECT_TRUE(cap->commands.empty());

    SwitchQueueSchedArg all{-1, 4, 3, 1, 2, 4, 8}, one{3, 1, 0, 0, 3, 128, -5}, two{3, 2, 1, 1, 1, 1, 1};
    for (SwitchQueueSchedArg arg : {all, one, two}) EXPECT_EQ(0, pseQueueSchedConfigure(pse, &arg));
    EXPECT_EQ(swtest::dataLines(kData, "queue-sched"), cap->commands);

    // Any non-zero status stops.
    cap->clear(), engine.failCommand("tc_func set 2", 4, false, 1);
    EXPECT_EQ(4, pseQueueSchedConfigure(pse, &all));
    engine.failCommand("queue_weight_func set 1", 1, true, 1);
    EXPECT_EQ(1, pseQueueSchedConfigure(pse, &all));
    EXPECT_EQ((Lines{"tc_func set 2", "tc_func set 2", "queue_weight_func set 1 2 0 1 2 3"}), cap->commands);

    // Pause frames off: the pipelines clearing bit 31 of three registers.
    cap->clear();
    uint32_t on = 1, other = 2;
    EXPECT_EQ(0, psePauseFrameConfigure(pse, &other));
    EXPECT_EQ(swtest::dataLines(kData, "pause-clear"), cap->systemCommands);

    // Without the engine: a pipeline that exited 1 goes on, a failed
    // system() stops at once.
    engine.detach();
    cap->clear(), cap->systemStatus = 256;
    EXPECT_EQ(256, psePauseFrameConfigure(pse, &on));
    cap->systemStatus = -1;
    EXPECT_EQ(-1, psePauseFrameConfigure(pse, &on));
    EXPECT_EQ(4u, cap->systemCommands.size());
    EXPECT_EQ(1, cap->countLog("(switch=PSE) Pause Frame configuration failed \n")) << "for the failed system() only";
}

// PSE ports 1, 5, 9 and 33 over BCM ports 0 to 4: port 5 stands for BCM 1
// and 3, port 1 for BCM 2, port 33 for BCM 4.
class PseVlanTest : public PseTest {
protected:
    void SetUp() override {
        PseTest::SetUp();
        host.enableHwAddr();
        host.setMac("eth1", {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E});
        Switch *bcm = swtest::addSwitch("BCM", 1);
        addPort(pse, 1, {addPort(bcm, 2)});
        addPort(pse, 5, {addPort(bcm, 1), addPort(bcm, 3)});
        addPort(pse, 33, {addPort(bcm, 4)});
        addPort(pse, 9, {addPort(bcm, 0)});  // BCM 0 has no bit in fwdMap: never joins
        cap->clear();
    }
    int apply(uint32_t fwdMap, const char *ifName = "eth1") {
        vlan.fwdMap = fwdMap;
        std::snprintf(vlan.interfaceName, sizeof vlan.interfaceName, "%s", ifName);
        return config(35, &vlan, SW_VLAN_REC_LEN);
    }
    // eth0 answers 02:00:00:00:00:01, the long name 02:00:00:00:00:03.
    swsim::HostVlanModel host{{"eth0", "eth1", "a-very-long-int"}};
    SwitchVlan vlan{{}, 100, 3, {}, {}, {}, {}, {}, 0, 0, 0, nullptr};
};
SWTEST_BOTH_FORMS(PseVlanForms, PseVlanTest);

TEST_P(PseVlanForms, MembershipMapsFollowThePsePortNumbersAndOnlyNegativeStatusesFail) {
    // Only negative engine statuses fail; a failed table edit sends no ARL
    // line, so the six requests send eleven lines. A line carrying the MAC
    // text's newline makes no table entry.
    for (const swtest::Row &r : swtest::dataRows(kData, "engine-statuses")) {
        engine.failCommand(r.at(0).c_str(), std::stoi(r.at(1)), true, 1);
        EXPECT_EQ(std::stoi(r.at(3)), apply(std::stoul(r.at(2), nullptr, 16))) << r[0];
        EXPECT_EQ(r.at(4) == "entry", engine.vlanEntry(3) != nullptr) << r[0];
    }
    EXPECT_EQ(11u, cap->commands.size());
    EXPECT_EQ(1, cap->countLog("Failed to add CPU ARL Entry for VLAN.\n")) << "the -7 only";
    EXPECT_EQ(1, cap->countLog("Failed to delete CPU ARL Entry for VLAN.\n")) << "the -2 only";

    // PSE port 5 stands for bit 0 and 2, port 33 for bit 1; the MAC text
    // brings its newline into both lines. No member: zero maps, and the ARL
    // entry deleted with an empty MAC (the last row, whose one bit is a lower
    // port 32 that nothing maps).
    for (const swtest::Row &c : swtest::dataRows(kData, "membership")) {
        cap->clear();
        EXPECT_EQ(0, apply(std::stoul(c.at(0), nullptr, 16), c.at(1).c_str()));
        EXPECT_EQ(Lines(c.begin() + 2, c.end()), cap->commands) << c[0];
    }
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "no-members")));
    EXPECT_TRUE(cap->ioctls.empty());

    // The MAC text, cut interface names, and the cleared address of a
    // failed request (which still succeeds) for a name that only looks like dots.
    char out[PSE_MAC_TEXT_LEN];
    for (const swtest::Row &m : swtest::dataRows(kData, "mac-texts")) {
        EXPECT_EQ(0, switchMacAddressByIfNameGet(m.at(0).c_str(), out));
        EXPECT_EQ(m.at(1), out);
    }
    EXPECT_EQ(std::make_pair(-22, -22),
              std::make_pair(switchMacAddressByIfNameGet("eth1", nullptr), switchMacAddressByIfNameGet(nullptr, out)));
    EXPECT_EQ(SW_EINVAL, apply(0x4, "eth;1")) << "no address for a name that is none";
    EXPECT_EQ(1, cap->countLog("Failed to get the MAC address of \n"));
}

}  // namespace
