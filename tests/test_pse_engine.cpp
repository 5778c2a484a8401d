// SPDX-License-Identifier: Apache-2.0
// The engine model itself: lines read as the device's shell reads them,
// tools that refuse what they cannot take, register pipelines computed as
// the device's awk computes them.
#include <cstdlib>

#include "pse_fixture.h"
#include "shell.h"

namespace {
using psetest::PseTest;
using swsim::PseEngine;

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

struct LineCase {
    const char *line;
    int status;
    std::vector<std::string> notes;  // history entries after the line
};

TEST_F(PseTest, ToolsRefuseWhatTheyCannotTakeAndTheShellSplitsAtNewlines) {
    const LineCase cases[] = {
        {"sppe_ioctl rl on", 1, {"sppe_ioctl: usage: sppe_ioctl rl enable|disable"}},
        {"tc_func set", 1, {"tc_func: usage: too few arguments (1)"}},
        {"tc_func set 3", 1, {"tc_func: invalid value"}},
        {"rate_limit_func set 3 128 0", 1, {"rate_limit_func: invalid value"}},
        {"queue_weight_func set 1 2 0 1 2", 1, {"queue_weight_func: usage: too few arguments (6)"}},
        {"pri_ctl_func set 3 0 2 0 0 0", 1, {"pri_ctl_func: invalid value"}},
        {"vlan_table_func edit 3 0 24 0x24 100 00:1a:2b:3c:4d:5e 1", 1, {"vlan_table_func: invalid value"}},
        {"vlan_table_func edit 3 0 0x0 0x0 100 1 1 1", 1, {"vlan_table_func: usage: too many arguments (9)"}},
        {"arl_table_func flush", 1, {"arl_table_func: unknown operation flush"}},
        // The MAC text's newline ends the command: the tool lacks its last
        // values and the rest is a command of its own.
        {"vlan_table_func edit 4 0 0x6 0x6 10 02:00:00:00:00:01\n 1", 127,
         {"vlan_table_func: invalid value", "1: not found"}},  // six values: the MAC stands for the valid flag
        {"arl_table_func add 02:00:00:00:00:01\n 10 0x4 0x1", 127,
         {"arl_table_func add: usage: too few arguments (2)", "10: not found"}},
        {"arl_table_func del  20", 1, {"arl_table_func del: usage: too few arguments (2)"}},
        {"tc_func set 1; reboot", 127, {"reboot: not found"}},
    };
    for (const auto &c : cases) {
        const std::string before = engine.dump();
        const size_t seen = engine.history().entries().size();
        EXPECT_EQ(c.status, osaCmdExec(c.line, nullptr, 0)) << c.line;
        std::vector<std::string> notes{c.line};
        notes.insert(notes.end(), c.notes.begin(), c.notes.end());
        EXPECT_EQ(engine.history().last(engine.history().entries().size() - seen), notes) << c.line;
        if (c.status == 1) {
            EXPECT_EQ(before, engine.dump()) << c.line;
        }
    }

    // Another tool's line, and one beyond the reader, pass on to the capture.
    cap->unhandledCommandStatus = 42;
    for (const char *other : {"tc_funcs set 1", "grep x", "tc_func set 1 >/dev/null"})
        EXPECT_EQ(42, osaCmdExec(other, nullptr, 0)) << other;

    engine.reset();
    engine.failCommand("tc_func", -9, true, 1);
    EXPECT_EQ(-9, osaCmdExec("tc_func set 1", nullptr, 0));
    const char *good[] = {"tc_func set 1", "sppe_ioctl rl enable", "vlan_table_func edit 2 1 0x24 0x24 100 00:1A:2b:3c:4d:5e 1",
                          "vlan_table_func edit 0 0 0x0 0x0 7  1", "arl_table_func add 00:1a:2b:3c:4d:5e 100 0x4 0x1",
                          "arl_table_func add 02:00:00:00:00:01 7 0x4 0x1", "arl_table_func del 02:00:00:00:00:01 7",
                          "rate_limit_func set 3 12 2", "queue_weight_func set 1 2 -2147483648 1 2 3",
                          "'pri_ctl_func' set 3 0 1 0 0 0"};
    for (const char *line : good) EXPECT_EQ(0, osaCmdExec(line, nullptr, 0)) << line;
    EXPECT_EQ("qos enabled\ntraffic-class 1\nvlan 0 vid 7 wan 0 etag 0x0 mb 0x0 mac - valid 1\n"
              "vlan 2 vid 100 wan 1 etag 0x24 mb 0x24 mac 00:1a:2b:3c:4d:5e valid 1\n"
              "arl 00:1a:2b:3c:4d:5e vid 100 ports 0x4 flags 0x1\nrate-limit port 3 value 12 unit 2\n"
              "queue-weight port 1 mode 2 exp -2147483648 1 2 3\ntrust port 3 flags 0 1 0 0 0\n"
              "reg 0x7000000c 0x0\nreg 0x70000010 0x0\nreg 0x70000018 0x0\n",
              engine.dump());
}

// awk's ^ is a power: the clear pipeline ANDs with +inf, which the device
// takes as all ones, so bit 31 stays; what changes the register is the
// written text, whose low half lost its leading zeros (and a high half of
// 0 prints as "0", making the text octal or unreadable).
TEST_F(PseTest, PausePipelinesLeaveWhatTheDevicesAwkComputes) {
    const char *set =
        "/sysx2.0/bin/memrw 0x7000000c w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val = lshift(1,31); reg = "
        "0x7000000c ;     res = or (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf "
        "(\"%#x%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";
    const char *clear =
        "/sysx2.0/bin/memrw 0x7000000c w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val1 = lshift(1,31); val = "
        "val1^0xFFFFFFFF ; reg = 0x7000000c ;     res = and (rl, val) ; fh = rshift (res, 16);     sh = and (res, "
        "0xFFFF); final_value = sprintf (\"%#x%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  "
        "system (cmd);}'";
    struct Case {
        const char *line;
        uint32_t before, after;
        const char *written;  // the write the awk program ran, or "" for none
    };
    const Case cases[] = {
        {set, 0x0, 0x80000, "0x80000"},           {set, 0x1234, 0x80001234, "0x80001234"},
        {set, 0x80000, 0x80080, "0x80080"},       {clear, 0x80001234, 0x80001234, "0x80001234"},
        {clear, 0x80000000, 0x80000, "0x80000"},  {clear, 0x1234, 01234, "01234"},
        {clear, 0xabcd, 0xabcd, "0abcd"},
    };
    for (const auto &c : cases) {
        engine.setReg(0x7000000c, c.before);
        EXPECT_EQ(0, std::system(c.line));
        EXPECT_EQ(c.after, engine.reg(0x7000000c)) << std::hex << c.before;
        std::vector<std::string> notes{c.line, std::string("awk: system(/sysx2.0/bin/memrw 1879048204 w ") + c.written + ")"};
        if (c.before == c.after && c.line == clear && c.before == 0xabcd) notes.push_back("memrw: invalid value");
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

TEST(History, KeepsTheMostRecentEntriesUpToItsLimit) {
    swsim::History h;
    h.setLimit(3);
    for (int i = 0; i < 5; ++i) h.add(std::to_string(i));
    EXPECT_EQ(h.last(10), (std::vector<std::string>{"2", "3", "4"}));
    h.setLimit(1);
    EXPECT_EQ(h.last(10), std::vector<std::string>{"4"});
    EXPECT_EQ(h.last(0), std::vector<std::string>{});
}

}  // namespace
