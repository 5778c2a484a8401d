// SPDX-License-Identifier: Apache-2.0
// Diagnostic output in both forms and both destinations, and zone lookup.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "swmgr_test.h"

using swtest::Bytes;

namespace {

class Diagnostics : public swtest::SwmgrTest {};

TEST_F(Diagnostics, PlainFormIsOneLogRecordOfModule103) {
    EXPECT_EQ(swMgrDebug("", 8, nullptr, 0, "Failed to load %s %d\n", "switch", 7), 0);
    ASSERT_EQ(cap->logs.size(), 1u);
    const auto &l = cap->logs[0];
    EXPECT_EQ(l.raw, "Failed to load switch 7\n");
    EXPECT_EQ(l.length, static_cast<int>(l.raw.size()) + 1);  // NUL travels with the text
    Bytes header = swtest::le32(103);
    Bytes level = swtest::le32(8);
    header.insert(header.end(), level.begin(), level.end());
    header.resize(40, 0);  // empty 32-byte tag
    EXPECT_EQ(l.header, header);
}

// The log service in a process of its own leaves as soon as a record
// arrives, with the record's level as its exit status.
int leaveWithLevel(MbusCtx *, const MbusMsgHeader *, int cmd, void *data, int dataLen, void *, int *) {
    uint32_t level = 0;
    if (cmd == MBUS_LOG_CMD && dataLen >= 8) std::memcpy(&level, static_cast<char *>(data) + 4, 4);
    ::_exit(static_cast<int>(level));
}

TEST_F(Diagnostics, RecordsReachTheLogServiceWithoutWaitingForAReply) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t pid = ::fork();
    if (pid == 0) {
        MbusCtx *ctx = mbusRegister(MBUS_MODULE_LOG, 2, leaveWithLevel, nullptr);
        if (ctx == nullptr || ::write(ready[1], "R", 1) != 1) ::_exit(1);
        for (;;) mbusListen(ctx, 100000);
    }
    ::close(ready[1]);
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::close(ready[0]);
    cap.reset();  // nothing stands between the service and the bus
    swMgrDebug("", 64, nullptr, 0, "to the log\n");
    // Waiting for a reply would meet a service gone without one.
    EXPECT_STREQ(mbusPortLastError(), "");
    int status = -1;
    for (int i = 0; i < 1000 && ::waitpid(pid, &status, WNOHANG) != pid; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!WIFEXITED(status)) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 64) << status;
}

TEST_F(Diagnostics, OverlongTextIsCutAt1023Characters) {
    std::string big(3000, 'x');
    swMgrDebug("pre:", 64, "f", 1, "%s", big.c_str());
    ASSERT_EQ(cap->logs.size(), 1u);
    EXPECT_EQ(cap->logs[0].raw.size(), 1023u);
    EXPECT_EQ(cap->logs[0].length, 1024);
    EXPECT_EQ(cap->logs[0].raw.substr(0, 8), "pre:f:1:");

    // A prefix longer than the buffer is cut as well, never overflowing it.
    cap->clear();
    swMgrDebug(big.c_str(), 64, "f", 1, "tail");
    ASSERT_EQ(cap->logs.size(), 1u);
    EXPECT_EQ(cap->logs[0].raw, std::string(1023, 'x'));
}

TEST_F(Diagnostics, ForegroundWritesToStandardErrorOnlyAndNegativeLevelsNowhere) {
    EXPECT_EQ(swMgrDebug("", -1, nullptr, 0, "trace\n"), 0);
    swMgrForeground = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(swMgrDebug("", -1, nullptr, 0, "trace\n"), 0);
    swMgrDebug("", 8, nullptr, 0, "unexpected reply from %d cmd=%d !\n", 20, 4);
    swMgrDebug("(switch=PSE) ", 256, "pseSwitchConfig", 9, "x\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "unexpected reply from 20 cmd=4 !\n(switch=PSE) pseSwitchConfig:9:x\n");
    EXPECT_TRUE(cap->logs.empty());
}

TEST(ZoneType, ExactNamesOnly) {
    uint32_t zone = 99;
    EXPECT_EQ(swMgrZoneTypeGet("eth1", &zone), 0);
    EXPECT_EQ(zone, 2u);
    EXPECT_EQ(swMgrZoneTypeGet("eth0", &zone), 0);
    EXPECT_EQ(zone, 1u);
    for (const char *other : {"eth0.100", "ETH0", "eth", "", "eth10"}) {
        zone = 99;
        EXPECT_EQ(swMgrZoneTypeGet(other, &zone), 0);
        EXPECT_EQ(zone, 0u) << other;
    }
}

}  // namespace
