// SPDX-License-Identifier: Apache-2.0
// The PSE driver on the engine model: attach, its command table and the
// forwarding to lower switches, QoS, VLAN membership with the CPU's ARL entry
// and the MAC address text; and the engine model itself, whose lines are read
// as the device's shell reads them and whose pipelines compute as its awk does.
#include <cstdlib>

#include "drivers/pse/pse.h"
#include "host_vlan.h"
#include "data_lines.h"
#include "pse_engine.h"
#include "shell.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {
using Lines = std::vector<std::string>;
const char *const kData = "pse/expected.txt";

// A PSE switch bound to its driver, with the engine model behind the command seams.
class PseTest : public swtest::SwmgrTest {
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
        for (SwitchPort *lower : lowers) {
            auto *m = static_cast<SwitchPortMapEntry *>(std::calloc(1, sizeof(SwitchPortMapEntry)));
            m->port = lower;
            osaListNodeAppend(&p->mappedPorts, m);
            switchLowerLvlSwitchListAppend(sw, lower->sw);
        }
        return p;
    }
    swsim::PseEngine engine;
    Switch *pse = nullptr;
};
using PseForms = swtest::BothForms<PseTest>;
SWTEST_BOTH_FORMS(PseForms);

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
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "forwarding")));
    cap->clear();
    EXPECT_EQ(-22, config(47, &on, SW_U32_ARG_LEN - 1)) << "shorter than what is read";
    EXPECT_TRUE(cap->commands.empty());

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
    EXPECT_EQ(-1, pseConfTransfer(pse, lower, 50, &limit, 11, nullptr, nullptr));  // short: nothing sent
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

SWTEST_BOTH_FORMS(PseForwardForms);

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
    for (const swtest::Row &c : swtest::dataRows(kData, "rate-limits")) {
        cap->clear();
        SwitchRateLimitArg arg{uint32_t(std::stoul(c[0])), uint8_t(std::stoi(c[1])), {}, uint32_t(std::stol(c[2]))};
        EXPECT_EQ(std::stoi(c[3]), pseRateLimitConfigure(pse, &arg)) << c[2];
        EXPECT_EQ(Lines(c.begin() + 4, c.end()), cap->commands) << c[2];
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
    EXPECT_EQ(swtest::dataLines(kData, "queue-sched"), cap->commands);

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

// PSE ports 1, 5 and 33 over BCM ports 1 to 4: port 5 stands for BCM 1
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
        addPort(pse, 9);  // maps nothing, never joins
        vlan.vlanId = 100;
        vlan.vlanIndex = 3;
        cap->clear();
    }
    int apply(uint32_t fwdMap, const char *ifName = "eth1") {
        vlan.fwdMap = fwdMap;
        std::snprintf(vlan.interfaceName, sizeof vlan.interfaceName, "%s", ifName);
        return pseSwitchConfig(pse, 35, &vlan, SW_VLAN_REC_LEN, nullptr, nullptr);
    }
    // eth0 answers 02:00:00:00:00:01, the long name 02:00:00:00:00:03.
    swsim::HostVlanModel host{{"eth0", "eth1", "a-very-long-int"}};
    SwitchVlan vlan{};
};
using PseVlanForms = swtest::BothForms<PseVlanTest>;

TEST_P(PseVlanForms, MembershipMapsFollowThePsePortNumbers) {
    // No member: zero maps, and the ARL entry deleted with an empty MAC.
    EXPECT_EQ(0, apply(0));
    EXPECT_EQ((Lines{"vlan_table_func edit 3 0 0x0 0x0 100  1", "arl_table_func del  100"}), cap->commands);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "no-members")));
    EXPECT_TRUE(cap->ioctls.empty());

    // BCM port 3 alone: PSE port 5 and the CPU; the MAC text brings its
    // newline into both lines.
    cap->clear();
    EXPECT_EQ(0, apply(0x4));
    EXPECT_EQ((Lines{"vlan_table_func edit 3 1 0x24 0x24 100 00:1a:2b:3c:4d:5e\n 1",
                     "arl_table_func add 00:1a:2b:3c:4d:5e\n 100 0x4 0x1"}),
              cap->commands);
    for (const swtest::Row &c : swtest::dataRows(kData, "membership")) {  // PSE port 33 is bit 1
        cap->clear();
        EXPECT_EQ(0, apply(std::stoul(c.at(0), nullptr, 16), c.at(1).c_str()));
        EXPECT_EQ(c.at(2), cap->commands.at(0)) << c[0];
    }

    // The MAC text, cut interface names, and the cleared address of a
    // failed request (which still succeeds).
    char out[PSE_MAC_TEXT_LEN];
    EXPECT_EQ(0, switchMacAddressByIfNameGet("eth1", out));
    EXPECT_STREQ("00:1a:2b:3c:4d:5e\n", out);
    EXPECT_EQ(0, switchMacAddressByIfNameGet("a-very-long-interface-name", out));
    EXPECT_STREQ("02:00:00:00:00:03\n", out);
    EXPECT_EQ(0, switchMacAddressByIfNameGet("eth9", out));
    EXPECT_STREQ("00:00:00:00:00:00\n", out);
    EXPECT_EQ(SW_EINVAL, switchMacAddressByIfNameGet("eth1", nullptr));
}

TEST_P(PseVlanForms, OnlyNegativeEngineStatusesFail) {
    engine.failCommand("vlan_table_func", -1, true, 1);
    EXPECT_EQ(-1, apply(0x4));
    EXPECT_EQ(1u, cap->commands.size());
    engine.failCommand("arl_table_func add", -7, true, 1);
    EXPECT_EQ(-7, apply(0x4));
    EXPECT_EQ(nullptr, engine.vlanEntry(3));  // its line carried the MAC text's newline
    engine.failCommand("arl_table_func del", -2, true, 1);
    EXPECT_EQ(-2, apply(0));
    engine.failCommand("vlan_table_func", 9, true, 1);
    EXPECT_EQ(0, apply(0x4));
    EXPECT_EQ(7u, cap->commands.size());
}

SWTEST_BOTH_FORMS(PseVlanForms);

TEST(ShellReader, SplitsCommandsStagesAndWordsAsTheShellDoes) {
    using Cmds = std::vector<std::vector<swsim::Words>>;
    auto parsed = [](const char *line) {
        Cmds out;
        auto commands = swsim::shellParse(line);
        if (commands)
            for (const auto &c : *commands) out.push_back(c.stages);
        return out;
    };
    EXPECT_EQ(parsed("a  b\n 1 2;c"), (Cmds{{{"a", "b"}}, {{"1", "2"}}, {{"c"}}}));
    EXPECT_EQ(parsed("x 'a \"b\" $1' \"c\\\"d\" e\\ f '' # rest"), (Cmds{{{"x", "a \"b\" $1", "c\"d", "e f", ""}}}));
    EXPECT_EQ(parsed("m w |grep V | cut -d':' -f 2\n\n;"), (Cmds{{{"m", "w"}, {"grep", "V"}, {"cut", "-d:", "-f", "2"}}}));
    for (const char *beyond : {"a > b", "a $x", "a 'open", "a | | b", "a |", "a && b", "a `b`", "a *"})
        EXPECT_FALSE(swsim::shellParse(beyond).has_value()) << beyond;
}

TEST_F(PseTest, ToolsRefuseWhatTheyCannotTakeAndTheShellSplitsAtNewlines) {
    // Each line, its status and the history it adds. The MAC text's newline
    // ends the command: the tool lacks its last values (six values: the MAC
    // stands for the valid flag) and the rest is a command of its own.
    for (const swtest::Row &c : swtest::dataRows(kData, "tool-refusals")) {
        const std::string before = engine.dump();
        const size_t seen = engine.history().entries().size();
        EXPECT_EQ(std::stoi(c.at(1)), osaCmdExec(c[0].c_str(), nullptr, 0)) << c[0];
        Lines notes{c[0]};
        notes.insert(notes.end(), c.begin() + 2, c.end());
        EXPECT_EQ(engine.history().last(engine.history().entries().size() - seen), notes) << c[0];
        if (c[1] == "1") {
            EXPECT_EQ(before, engine.dump()) << c[0];
        }
    }

    // Another tool's line, and one beyond the reader, pass on to the capture.
    cap->unhandledCommandStatus = 42;
    for (const char *other : {"tc_funcs set 1", "grep x", "tc_func set 1 >/dev/null"})
        EXPECT_EQ(42, osaCmdExec(other, nullptr, 0)) << other;

    engine.reset();
    engine.failCommand("tc_func", -9, true, 1);
    EXPECT_EQ(-9, osaCmdExec("tc_func set 1", nullptr, 0));
    std::string state;
    for (const std::string &line : swtest::dataLines(kData, "tool-accepted"))
        EXPECT_EQ(0, osaCmdExec(line.c_str(), nullptr, 0)) << line;
    for (const std::string &line : swtest::dataLines(kData, "engine-state")) state += line + "\n";
    EXPECT_EQ(state, engine.dump());
}

// awk's ^ is a power: the clear pipeline ANDs with +inf, which the device
// takes as all ones, so bit 31 stays; what changes the register is the
// written text, whose low half lost its leading zeros (and a high half of
// 0 prints as "0", making the text octal or unreadable).
TEST_F(PseTest, PausePipelinesLeaveWhatTheDevicesAwkComputes) {
    const std::string set = pipeline(true, "0x7000000c"), clear = pipeline(false, "0x7000000c");
    struct Case {
        const std::string &line;
        uint32_t before, after;
        const char *written;  // the write the awk program ran
    };
    // (Setting from 0 and from 0x1234 is checked on the driver's pause frames.)
    const Case cases[] = {{set, 0x80000, 0x80080, "0x80080"},      {clear, 0x80001234, 0x80001234, "0x80001234"},
                          {clear, 0x80000000, 0x80000, "0x80000"}, {clear, 0x1234, 01234, "01234"},
                          {clear, 0xabcd, 0xabcd, "0abcd"}};
    for (const auto &c : cases) {
        engine.setReg(0x7000000c, c.before);
        EXPECT_EQ(0, std::system(c.line.c_str()));
        EXPECT_EQ(c.after, engine.reg(0x7000000c)) << std::hex << c.before;
        Lines notes{c.line, std::string("awk: system(/sysx2.0/bin/memrw 1879048204 w ") + c.written + ")"};
        if (c.before == 0xabcd) notes.push_back("memrw: invalid value");
        EXPECT_EQ(notes, engine.history().last(notes.size()));
    }

    // A program outside the model changes nothing and is said to be.
    engine.setReg(0x7000000c, 5);
    EXPECT_EQ(2 << 8, std::system("/sysx2.0/bin/memrw 0x7000000c w | awk '{x = $1 + 1; system(\"/sysx2.0/bin/memrw 0x7000000c w \"x)}'"));
    EXPECT_EQ(5u, engine.reg(0x7000000c));
    EXPECT_EQ("awk: program not modelled: unexpected '+'", engine.history().entries().back());
    EXPECT_EQ(1 << 8, std::system("/sysx2.0/bin/memrw 0x7000000c")) << "a wait status, as system() gives";
    EXPECT_EQ(2 << 8, std::system("/sysx2.0/bin/memrw 0x7000000c w | cut -f 2 -d"));
    EXPECT_EQ("cut: usage: -d<char> -f<number> only", engine.history().entries().back());
    EXPECT_EQ(0, std::system("/sysx2.0/bin/memrw 0x7000000c w | cut -d : -f 2 | awk '{system(\"/sysx2.0/bin/memrw 0x10 w \"$1)}'"));
    EXPECT_EQ(5u, engine.reg(0x10)) << "the value read, written elsewhere";
    EXPECT_EQ("awk: system(/sysx2.0/bin/memrw 0x10 w 0x00000005)", engine.history().entries().back())
        << "a field keeps its text";
}

}  // namespace
