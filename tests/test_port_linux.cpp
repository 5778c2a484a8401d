// SPDX-License-Identifier: Apache-2.0
// The Linux host port: entry points, commands and the SQLite helper. The bus
// has tests of its own; lists and files are what every registry and uptime
// test stands on.
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "swmgr/platform/sqlite_helpers.h"
#include "swmgr_test.h"

extern char **environ;

namespace {

// Each entry point refuses what it cannot use with its documented result,
// and leaves what it was given as it was.
TEST(Port, EntryPointsRefuseMissingOrUnusableArguments) {
    OsaList list;
    ASSERT_EQ(osaListInit(&list), 0);
    OsaListNode a{};
    int closed = -1;  // a model's descriptor, once closed
    const OsaDeviceModel model{nullptr, [](void *, unsigned int, void *) { return 0; }, nullptr,
                               [](void *, int flags, int) { return flags != 0 ? -ENODEV : 0; }};  // read-only only
    char out[8] = "", junk[512] = {};
    FILE *sink = osaFileOpen("/dev/null", "w");
    auto *foreign = reinterpret_cast<MbusCtx *>(junk);  // never handed out by the bus
    const MbusRequestCb none = [](MbusCtx *, const MbusMsgHeader *, int, void *, int, void *, int *) { return 0; };
    // Answers 7 to request 0; takes any other without a word, which answers 0.
    const OsaIoctlHook answers7 = [](void *, int, unsigned rq, void *, int *result) { return rq == 0 ? *result = 7 : 0, 1; };
    MbusCtx *posts = mbusRegister(231, 2, none, nullptr), *along = mbusRegister(232, 2, none, nullptr),
            *third = mbusRegister(233, 2, none, nullptr);
    ASSERT_EQ(mbusPortListenAlong(along, posts), 0);
#define ROW(call, want) {#call, static_cast<long>(call), want}
    const struct { const char *call; long got, want; } rows[] = {
        ROW(osaListInit(nullptr), -1), ROW(osaListNodeAppend(nullptr, &a), -1),
        ROW(osaListNodeAppend(&list, nullptr), -1), ROW(osaListNodeRemove(nullptr, &a), -1),
        ROW(osaListNodeRemove(&list, nullptr), -1), ROW(osaListNodeAppend(&list, &a), 0),
        ROW(osaOpen(nullptr, 0, 0), -1), ROW(osaPortDeviceAttach(nullptr, &model), -1),
        ROW(osaPortDeviceDetach(nullptr), -1), ROW(osaPortDeviceDetach("/dev/swmgr-none"), -1),
        ROW((osaPortDeviceAttach("/dev/swmgr-a", &model), osaClose(closed = osaOpen("/dev/swmgr-a", 0, 0))), 0),
        ROW(osaOpen("/dev/swmgr-a", 2, 0), -1), ROW(errno, ENODEV),  // read-write: the model refused it
        ROW(osaIoctl(closed, 0, nullptr), -1), ROW(osaPortDeviceDetach("/dev/swmgr-a"), 0),  // closed is closed
        ROW(osaFilePrintf(nullptr, "x"), -1), ROW(osaFileClose(nullptr), -1), ROW(osaUnlink(nullptr), -1),
        ROW(osaPortFilePathMap("/etc/hos", "r", out, sizeof out), -1), ROW(osaCmdExec(nullptr, nullptr, 0), -1),
        ROW(osaPortFilePathMap("/etc/ho", "r", out, sizeof out), 0),  // a path and its terminator fill it
        ROW((osaPortCmdFallbackSet(nullptr, nullptr), system("exit 3")), 3 << 8),  // no hook: the C library's
        ROW(osaCmdExec("true", nullptr, 1), -1), ROW(osaFileOpen(nullptr, "r") != nullptr, 0),
        ROW(osaPortFilePathMap(nullptr, "r", junk, 8), -1), ROW(osaPortFilePathMap("/x", "r", nullptr, 8), -1),
        ROW(osaFilePrintf(sink, "%d", 12345), 5), ROW(osaClose(osaOpen("/dev/null", 0, 0)), 0),
        ROW(osaPortCmdHookAdd(nullptr, nullptr), -1), ROW(mbusPortSocketPath(1, out, sizeof out), -1),
        ROW(mbusPortLogTargetSet(7, nullptr), -1), ROW(osaIoctl(-1, 0, nullptr), -1), ROW(osaIoctl(fileno(sink), FIOCLEX, nullptr), 0),
        ROW((osaPortIoctlHookAdd(answers7, nullptr), osaIoctl(-1, 0, nullptr)), 7),  // a hook's answer, whatever it is
        ROW(mbusIoctl(foreign, 230, 1, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_BADCTX),
        ROW(mbusListen(foreign, 0), -1), ROW(mbusUnRegister(foreign), -1), ROW(osaIoctl(-1, 1, nullptr), 0),
        ROW(mbusPortWatch(-1, [](void *, int) {}, nullptr), -1), ROW(mbusPortWatch(STDIN_FILENO, nullptr, nullptr), -1),
        ROW(mbusPortPost(1, 1, nullptr, 1, nullptr, 0), -1), ROW(mbusPortPost(1, 1, nullptr, 0, nullptr, 1), -1),
        ROW(mbusPortPost(1, 1, "x", -1, nullptr, 0), -1), ROW(mbusPortPost(1, 1, nullptr, 0, "x", -1), -1),
        ROW(mbusPortPost(1, 1, nullptr, 0, nullptr, 0), 0),  // nothing to carry is no fault
        ROW(sqlitePortBusyTimeoutSet(-1), -1), ROW(mbusPortConnLimitSet(0), -1), ROW(mbusInit(nullptr), 0),
        ROW(mbusPortBusyPollSet(MBUS_PORT_BUSY_POLL_MAX_US + 1), -1), ROW(mbusPortBusyPollSet(MBUS_PORT_BUSY_POLL_MAX_US), 0),
        ROW(mbusPortBusyPollSet(0), 0),
        ROW(osaFileOpen("/dev/null", nullptr) != nullptr, 0), ROW(mbusPortListenAlong(posts, foreign), -1),
        // Serving along goes one level deep only: not along a module that is
        // itself along, nor for one that others are along.
        ROW(mbusPortListenAlong(third, along), -1), ROW(mbusPortListenAlong(posts, third), -1), ROW(mbusPortListenAlong(posts, posts), -1),
    };
#undef ROW
    for (const auto &r : rows) EXPECT_EQ(r.got, r.want) << r.call;
    EXPECT_EQ(mbusRegister(230, 2, nullptr, nullptr), nullptr);
    EXPECT_STREQ(mbusPortLastError(), "no callback");
    mbusPortFailRegister(1);
    EXPECT_EQ(mbusRegister(230, 2, none, nullptr), nullptr);
    EXPECT_STREQ(mbusPortLastError(), "registration refused");
    mbusPortFailRegister(0);
    osaPortIoctlHookRemove(answers7, nullptr);
    EXPECT_EQ(osaListFirst(&list), &a);
    EXPECT_EQ(mbusListen(posts, 0), 1) << "the empty post";
    EXPECT_EQ(mbusListen(posts, 0), 0) << "and nothing refused was posted";
    EXPECT_EQ(mbusUnRegister(third), 0);
    EXPECT_EQ(mbusPortListenAlong(posts, along), -1) << "another module's leaving unhooks nothing";
    for (MbusCtx *c : {along, posts}) mbusUnRegister(c);
    osaFileClose(sink);
    EXPECT_STREQ(out, "/etc/ho") << "the mapped path cut to the buffer, the socket path not written";
}

OsaCmdHook once_ = nullptr;
std::vector<std::string> seen_;

// Hooks answering before the shell, and the fallback after them, are what
// every captured test stands on.
TEST(OsaCmd, AHookMayLeaveWhileCalledAndTheLinePassesOnToTheNext) {
    // A hook that removes itself while called passes the line on to the next.
    seen_.clear();
    once_ = [](void *, const char *, int *) {
        seen_.push_back("once");
        return osaPortCmdHookRemove(once_, nullptr), 0;
    };
    auto next = [](void *, const char *cmd, int *status) {
        seen_.push_back(cmd);
        return *status += 9, 1;  // it starts at 0
    };
    osaPortCmdHookAdd(once_, nullptr), osaPortCmdHookAdd(next, nullptr);
    char none[4] = "xyz";
    EXPECT_EQ(osaCmdExec("b", none, 1), 9);
    EXPECT_STREQ(none, "") << "an answered line has no output, even in room for its terminator alone";
    osaPortCmdHookRemove(next, nullptr);
    EXPECT_EQ(seen_, (std::vector<std::string>{"once", "b"}));
    // The fallback answers after the hooks, also without output.
    osaPortCmdFallbackSet(next, nullptr);
    none[0] = 'x';
    EXPECT_EQ(osaCmdExec("c", none, sizeof none), 9);
    EXPECT_STREQ(none, "");
    osaPortCmdFallbackSet(nullptr, nullptr);
}

TEST(OsaCmd, PlainLinesSpawnDirectlyOthersThroughTheShellWithTheShellsStatuses) {
    swtest::TempDir dir;
    dir.write("noexec", "exit 0\n");
    dir.write("script", "exit 5\n");  // no interpreter line: the shell runs it
    dir.write("selfkill", "#!/bin/sh\nkill -TERM $$\n");
    dir.write("haspwd", "#!/usr/bin/printenv PWD\n");  // one word: spawned directly, without the shell's PWD
    for (const char *f : {"script", "selfkill", "haspwd"}) ::chmod(dir.file(f).c_str(), 0755);
    const std::string d = dir.path() + "/";
    // Under a user-mode emulator a failed exec shows as a child exiting 127
    // rather than as a spawn error, whatever the reason it failed.
    char name[] = "swmgr-no-such-tool";
    char *argv[] = {name, nullptr};
    pid_t pid = 0;
    const bool emulated = posix_spawnp(&pid, name, nullptr, nullptr, argv, environ) == 0;
    if (emulated) waitpid(pid, nullptr, 0);

    // The shell exports PWD to what it runs; a directly spawned program
    // sees the caller's environment as it is.
    const std::string savedPwd = std::getenv("PWD") != nullptr ? std::getenv("PWD") : "";
    ::unsetenv("PWD");

    std::string many = "printenv PWD";  // 65 words: more than are spawned directly
    for (int i = 0; i < 63; ++i) many += " x";
    const long held = swtest::openDescriptors();
    const struct {
        std::string line;
        int status;
        std::string output;  // "*": anything but nothing
        bool execFailure;    // emulated runs report 127 instead
    } cases[] = {
        // Split on blanks, runs of them included, with no shell between.
        {"printf [%s] a  b   c ", 0, "[a][b][c]", false}, {"printenv PWD", 1, "", false},
        {"printenv PWD;", 0, "*", false}, {"printenv PWD \x7f", 1, "*", false}, {many, 1, "*", false},
        // The same words quoted for the shell; a tab is for the shell to split.
        {"printf '[%s]' a  b", 0, "[a][b]", false}, {"printf [%s] a\tb", 0, "[a][b]", false},
        // Assignments and the shell's own words never reach a program.
        {"A=1 printenv A", 0, "1\n", false}, {"exit 7", 7, "", false}, {"#printf x", 0, "", false},
        {"cd " + d, 0, "", false}, {"   ", 0, "", false},
        // Output is cut to the buffer, and may arrive in pieces.
        {"printf 'hello world'", 0, "hello worl", false}, {"printf a; sleep 0.05; printf b", 0, "ab", false},
        // Statuses: missing 127, not executable 126, killed 128+n, no
        // binary run as a script; on both paths.
        {d + "missing arg", 127, "", false}, {"swmgr-no-such-tool arg", 127, "", false},
        {"'" + d + "missing'", 127, "", false}, {d + "noexec", 126, "", true}, {"'" + d + "noexec'", 126, "", false},
        {d + "selfkill", 128 + SIGTERM, "", false}, {d + "selfkill;", 128 + SIGTERM, "", false},
        {d + "script", 5, "", true}, {"'" + d + "script'", 5, "", false}, {d + "haspwd", 1, "", true},
    };
    for (const auto &c : cases) {
        char out[11] = "junk";
        const int status = osaCmdExec(c.line.c_str(), out, sizeof out);
        if (c.execFailure && emulated && status == 127) continue;
        EXPECT_EQ(status, c.status) << c.line;
        EXPECT_EQ(c.output == "*" && out[0] != '\0' ? "*" : std::string(out), c.output) << c.line;
        EXPECT_EQ(osaCmdExec(c.line.c_str(), nullptr, 0), status) << c.line << " without output";
    }
    if (!savedPwd.empty()) ::setenv("PWD", savedPwd.c_str(), 1);
    EXPECT_EQ(swtest::openDescriptors(), held) << "no descriptor left open";
    char head[4];  // more than a pipe holds is drained, never left to block the child
    EXPECT_EQ(osaCmdExec("seq 20000", head, sizeof head), 0);
    // Without a descriptor for its output, a line is not run; nor is a bus
    // request sent without one for its socket.
    ASSERT_EQ((mbusDeInit(), swtest::descriptorsLeft(0)), 0);  // no kept bus connection to give one back
    EXPECT_EQ(osaCmdExec("printf x", head, sizeof head), -1);
    EXPECT_EQ(mbusIoctl(nullptr, 212, 1, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_IO);
    EXPECT_EQ(std::string(mbusPortLastError()).find("cannot create socket for "), 0u) << mbusPortLastError();
    swtest::descriptorsLeft(-1);
    // A caller that lets children go unwaited loses their statuses: unknown, never success.
    const auto old = ::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(osaCmdExec("true", nullptr, 0), -1);
    ::signal(SIGCHLD, old);
}

// What a query returns is what every configuration load reads; here, how
// long it waits for a writer.
TEST(SqliteHelper, WaitsOutABriefWriterAndGivesUpOnAStuckOneWithinOneBound) {
    swtest::TempDir dir;
    const std::string path = swtest::makeDb(dir.file("c.db"), "CREATE TABLE t(a, b); INSERT INTO t VALUES(1, 2);");
    sqlite3 *db = nullptr, *writer = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_open(path.c_str(), &writer), SQLITE_OK);
    int nCols = -1, nRows = -1;
    for (auto [cols, rows] : {std::pair<int *, int *>{nullptr, &nRows}, {&nCols, nullptr}})
        EXPECT_EQ(sqlite3QueryResGet(db, 0, "SELECT 1", cols, rows), nullptr) << "nowhere to answer";
    // A writer holding the database briefly delays the query, not fails it.
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
    });
    char **r = sqlite3QueryResGet(db, 0, "SELECT * from t", &nCols, &nRows);
    release.join();
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r[3], "2");
    sqlite3_free_table(r);
    EXPECT_EQ(sqliteBusyHandler(nullptr, 1 << 20), 0) << "retrying is bounded";
    EXPECT_EQ(sqliteBusyHandler(nullptr, 0), 1) << "a first retry outside a query starts its own wait";

    // Held for good, the query gives up once the bound set here has passed.
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlitePortBusyTimeoutSet(0), 0);  // no wait at all is a bound too
    swtest::Capture cap;
    EXPECT_EQ(sqlite3QueryResGet(db, 0, "SELECT * from t", &nCols, &nRows), nullptr);
    EXPECT_EQ(cap.rawLogs(), std::vector<std::string>{"sqlite: database still locked after 0 ms, query given up: "
                                                      "SELECT * from t\n"});
    const SwLogRecordHeader said{0, 8, "sqlite"};  // an error from no module, tagged by its layer
    EXPECT_EQ(cap.logs.at(0).header, swtest::bytesOf(said));
    sqlitePortBusyTimeoutSet(SQLITE_PORT_BUSY_MS);
    sqlite3_close(writer);  // its transaction rolled back
    sqlite3_close(db);
}

}  // namespace
