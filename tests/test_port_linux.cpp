// The Linux host port: lists, commands, files, device models, SQLite helper
// and the in-process bus.
#include <fcntl.h>
#include <sys/stat.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/sqlite_helpers.h"
#include "swmgr_test.h"

namespace {

struct Item {
    OsaListNode link;
    int value;
};

std::vector<int> values(OsaList &list) {
    std::vector<int> out;
    for (auto *it = static_cast<Item *>(osaListFirst(&list)); it; it = static_cast<Item *>(osaListNext(it)))
        out.push_back(it->value);
    return out;
}

TEST(OsaList, AppendIterateAndRemoveKeepFirstAndLast) {
    OsaList list;
    list.first = list.last = reinterpret_cast<OsaListNode *>(0x1);  // garbage before init
    ASSERT_EQ(osaListInit(&list), 0);
    EXPECT_EQ(osaListFirst(&list), nullptr);

    Item a{{}, 1}, b{{}, 2}, c{{}, 3};
    for (Item *i : {&a, &b, &c}) ASSERT_EQ(osaListNodeAppend(&list, i), 0);
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(osaListFirst(&list), &a) << "the list hands back the record itself";

    EXPECT_EQ(osaListNodeRemove(&list, &b), 0);
    EXPECT_EQ(values(list), (std::vector<int>{1, 3}));
    EXPECT_EQ(osaListNodeRemove(&list, &c), 0);
    EXPECT_EQ(list.last, &a.link);
    ASSERT_EQ(osaListNodeAppend(&list, &b), 0);
    EXPECT_EQ(osaListNodeRemove(&list, &a), 0);
    EXPECT_EQ(values(list), (std::vector<int>{2}));
    EXPECT_EQ(list.first, &b.link);

    // A node that is not in the list is refused and the list stays intact.
    EXPECT_EQ(osaListNodeRemove(&list, &c), -1);
    EXPECT_EQ(values(list), (std::vector<int>{2}));
    EXPECT_EQ(osaListNodeAppend(nullptr, &a), -1);
    EXPECT_EQ(osaListNext(nullptr), nullptr);
}

TEST(OsaCmd, RunsTheLineWithTheShellAndReturnsItsExitStatus) {
    EXPECT_EQ(osaCmdExec("exit 3", nullptr, 0), 3);
    EXPECT_EQ(osaCmdExec("true && test 1 -eq 1", nullptr, 0), 0);
    char out[8];
    EXPECT_EQ(osaCmdExec("printf 'hello world'", out, sizeof out), 0);
    EXPECT_STREQ(out, "hello w") << "output is cut to the buffer";
    EXPECT_EQ(osaCmdExec("/nonexistent/tool --flag", nullptr, 0), 127);
    EXPECT_EQ(osaCmdExec(nullptr, nullptr, 0), -1);
}

TEST(OsaCmd, HooksTakeCommandsBeforeTheShell) {
    swtest::TempDir dir;
    const std::string marker = dir.file("ran");
    auto hook = [](void *ctx, const char *cmd, int *status) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(cmd);
        *status = 42;
        return std::strncmp(cmd, "touch", 5) == 0 ? 1 : 0;
    };
    std::vector<std::string> seen;
    osaPortCmdHookAdd(hook, &seen);
    EXPECT_EQ(osaCmdExec(("touch " + marker).c_str(), nullptr, 0), 42);
    EXPECT_FALSE(dir.exists("ran")) << "a taken command never runs";
    EXPECT_EQ(osaCmdExec("exit 4", nullptr, 0), 4) << "lines the hook leaves go to the shell";
    osaPortCmdHookRemove(hook, &seen);
    EXPECT_EQ(seen.size(), 2u);
}

TEST(OsaFile, RootTakesWritesAndFallsBackForReads) {
    swtest::TempDir root, outside;
    outside.write("uptime", "777.5 1.0\n");
    ::mkdir(root.file("var").c_str(), 0755);
    osaPortFileRootSet(root.path().c_str());

    FILE *f = osaFileOpen("/var/VLAN.9.Uptime", "w+");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(osaFilePrintf(f, "%u\n", 12345u), 6);
    EXPECT_EQ(osaFileClose(f), 0);
    EXPECT_EQ(root.read("var/VLAN.9.Uptime"), "12345\n");

    // Absent below the root: read from the real path.
    const std::string real = outside.file("uptime");
    f = osaFileOpen(real.c_str(), "r");
    ASSERT_NE(f, nullptr);
    unsigned v = 0;
    EXPECT_EQ(std::fscanf(f, "%u\n", &v), 1);
    EXPECT_EQ(v, 777u);
    osaFileClose(f);
    // Present below the root: that one wins.
    root.write(real.substr(1), "5\n");
    f = osaFileOpen(real.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fscanf(f, "%u\n", &v), 1);
    EXPECT_EQ(v, 5u);
    osaFileClose(f);

    EXPECT_EQ(osaUnlink("/var/VLAN.9.Uptime"), 0);
    EXPECT_FALSE(root.exists("var/VLAN.9.Uptime"));
    EXPECT_NE(osaUnlink("/var/VLAN.9.Uptime"), 0);
    EXPECT_EQ(osaFileOpen("/nodir/x", "w"), nullptr);
    osaPortFileRootSet(nullptr);
    EXPECT_EQ(osaPortFileRootGet(), nullptr);
}

struct Model {
    unsigned lastRequest = 0;
    int lastArg = 0;
    int closes = 0;
    static int ioctlFn(void *ctx, unsigned req, void *arg) {
        auto *m = static_cast<Model *>(ctx);
        m->lastRequest = req;
        if (arg != nullptr && osaPortIoctlArgSize(req) >= 4) std::memcpy(&m->lastArg, arg, 4);
        return 17;
    }
    static void closeFn(void *ctx) { ++static_cast<Model *>(ctx)->closes; }
};

TEST(OsaDevice, ModelAnswersRequestsOnItsDescriptor) {
    Model model;
    OsaDeviceModel m{&model, Model::ioctlFn, Model::closeFn};
    ASSERT_EQ(osaPortDeviceAttach("/dev/test-switch", &m), 0);
    int d = osaOpen("/dev/test-switch", 2, 0);
    ASSERT_GT(d, 0);
    int arg = 0x01020304;
    EXPECT_EQ(osaIoctl(d, 0xc0045320u, &arg), 17);
    EXPECT_EQ(model.lastRequest, 0xc0045320u);
    EXPECT_EQ(model.lastArg, 0x01020304);
    EXPECT_EQ(osaPortIoctlArgSize(0xc0325314u), 50u);
    EXPECT_EQ(osaPortIoctlArgSize(0x20005319u), 0u);
    EXPECT_EQ(osaClose(d), 0);
    EXPECT_EQ(model.closes, 1);

    ASSERT_EQ(osaPortDeviceDetach("/dev/test-switch"), 0);
    EXPECT_LT(osaOpen("/dev/test-switch", 2, 0), 0) << "without its model the path is the kernel's";
}

TEST(SqliteHelper, ReturnsTheTableLayoutAndWaitsOutAWriter) {
    swtest::TempDir dir;
    const std::string path = dir.file("c.db");
    sqlite3 *db = nullptr, *writer = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(a, b); INSERT INTO t VALUES(1, NULL), ('x', 2);",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    int nCols = -1, nRows = -1;
    char **r = sqlite3QueryResGet(db, 0, "SELECT * from t", &nCols, &nRows);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(nCols, 2);
    EXPECT_EQ(nRows, 2);
    EXPECT_STREQ(r[0], "a");
    EXPECT_STREQ(r[1], "b");
    EXPECT_STREQ(r[2], "1");
    EXPECT_EQ(r[3], nullptr);
    EXPECT_STREQ(r[4], "x");
    sqlite3_free_table(r);
    EXPECT_EQ(sqlite3QueryResGet(db, 0, "SELECT * from missing", &nCols, &nRows), nullptr);

    // A writer holding the database briefly delays the query, not fails it.
    ASSERT_EQ(sqlite3_open(path.c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
    });
    r = sqlite3QueryResGet(db, 0, "SELECT * from t", &nCols, &nRows);
    release.join();
    EXPECT_NE(r, nullptr);
    sqlite3_free_table(r);
    EXPECT_EQ(sqliteBusyHandler(nullptr, 0), 1);
    EXPECT_EQ(sqliteBusyHandler(nullptr, 1 << 20), 0) << "retrying is bounded";
    sqlite3_close(writer);
    sqlite3_close(db);
}

struct Received {
    uint32_t src = 0, isRequest = 0;
    int cmd = 0;
    std::string data;
    int calls = 0;
};
Received received;

int onRequest(MbusCtx *, const MbusMsgHeader *h, int cmd, void *data, int dataLen, void *, int *) {
    uint32_t words[5];
    std::memcpy(words, h, sizeof words);
    received.src = words[1];
    received.isRequest = words[4];
    received.cmd = cmd;
    received.data.assign(static_cast<char *>(data), static_cast<size_t>(dataLen));
    ++received.calls;
    return 0;
}

TEST(InProcessBus, ListenDispatchesPostedRequestsAndTimesOut) {
    ASSERT_EQ(mbusInit("test"), 0);
    mbusPortFailRegister(1);
    EXPECT_EQ(mbusRegister(103, 2, onRequest, nullptr), nullptr);
    mbusPortFailRegister(0);
    MbusCtx *ctx = mbusRegister(103, 2, onRequest, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(mbusPortCallbackGet(), &onRequest);

    received = {};
    ASSERT_EQ(mbusPortPost(7, 37, "abc", 3, nullptr, 0), 0);
    EXPECT_EQ(mbusListen(ctx, 1000000), 1);
    EXPECT_EQ(received.calls, 1);
    EXPECT_EQ(received.src, 7u);
    EXPECT_EQ(received.isRequest, 1u);
    EXPECT_EQ(received.cmd, 37);
    EXPECT_EQ(received.data, "abc");

    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(mbusListen(ctx, 50000), 0);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::milliseconds(40));
    EXPECT_EQ(received.calls, 1);

    EXPECT_EQ(mbusUnRegister(ctx), 0);
    EXPECT_EQ(mbusPortCallbackGet(), nullptr);
    EXPECT_EQ(mbusDeInit(), 0);
}

}  // namespace
