/* SPDX-License-Identifier: Apache-2.0 */
// Test support: captures every diagnostic, command line, ioctl and log
// record the system produces, lets a test script results, and provides a
// recording driver and registry clean-up. Every test file builds on these.
#ifndef SWMGR_TESTS_SUPPORT_SWMGR_TEST_H
#define SWMGR_TESTS_SUPPORT_SWMGR_TEST_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/list.h"
#include "osa_port.h"
#include "swmgr/portvlan.h"
#include "swmgr/swconf.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace swtest {

using Bytes = std::vector<uint8_t>;

// One diagnostic as it reached the log service. In developer form (level
// 256) the "func:line:" part is split out; otherwise func is empty and
// text equals raw.
struct LogLine {
    int level = 0, length = 0;  // length: of the text as sent, terminating NUL included
    std::string prefix, func, text, raw;
    Bytes header;  // the 40-byte record header as sent
};

struct IoctlCall {
    unsigned code = 0;
    Bytes arg;            // argument bytes before the request (size from the code)
    uintptr_t value = 0;  // the integer argument of requests without data
};

// One expected diagnostic, written once for both forms: the plain level
// (negative for a trace line, which only the developer form shows), the
// function the developer form names, and the text as the plain form reads
// it (object prefix included).
struct Log {
    int level;
    std::string func, text;
};
using Logs = std::vector<Log>;

// Installs the capture hooks for its lifetime.
class Capture {
public:
    Capture();
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    std::vector<LogLine> logs;
    std::vector<std::string> commands;        // through osaCmdExec
    std::vector<std::string> systemCommands;  // through the C library's system()
    int systemStatus = 0;                     // what system() returns (never runs)
    std::vector<IoctlCall> ioctls;

    // A command equal to `command` (or starting with it when `prefix`)
    // returns `status` without reaching models or the shell; `times` < 0 for
    // every occurrence.
    void scriptCommand(const std::string &command, int status, int times = -1, bool prefix = false) {
        cmdScripts_.push_back({command, prefix, status, times});
    }
    // Status of commands that nothing took (default 0); they never run.
    int unhandledCommandStatus = 0;

    std::vector<std::string> rawLogs() const;  // texts as sent, in the form they were sent
    // Lines whose text, object prefix included, equals `raw` (any level, either form).
    int countLog(std::string_view raw) const;
    // The logs are exactly `expected` in the form swMgrDevDebug selects:
    // plain records at their level, trace lines left out; or level-256
    // records naming the function (source lines are not compared).
    ::testing::AssertionResult logsAre(const Logs &expected) const;
    void clear() { logs.clear(), commands.clear(), systemCommands.clear(), ioctls.clear(); }

private:
    struct Script {
        std::string match;
        bool prefix;
        int result, times;
    };
    std::vector<Script> cmdScripts_;

    static int onCommand(void *ctx, const char *command, int *status);
    static int onFallback(void *ctx, const char *command, int *status);
    static int onSystem(void *ctx, const char *command, int *status);
    static int onIoctl(void *ctx, int fd, unsigned request, void *arg, int *result);
    static int onSend(void *ctx, int module, int cmd, const void *data, int dataLen, void *aux,
                      int *auxLen, int *result);
};

// A driver in the table's spare entry, so switches named after it bind
// through the real registration path. Records every command it receives.
class RecordingDriver {
public:
    struct Call {
        Switch *sw;
        int cmd, argLen, replyLen;  // replyLen: what *replyLen held, -1 for no pointer
        const void *argPtr;
        Bytes arg;  // the bytes the command's record holds (at most argLen)
    };
    explicit RecordingDriver(const char *name = "REC");
    ~RecordingDriver();

    std::vector<Call> calls;
    int registerResult = 0;
    std::map<int, int> results;  // cmd -> result (default 0)

    std::vector<int> cmds(const Switch *only = nullptr) const;  // of every switch, or of `only`
    // Adds switch `name` through switchConfAdd, bound to this driver under that name.
    int confAdd(const char *name, int level, SwitchConf c = {});

private:
    static RecordingDriver *current_;
    static int reg(Switch *sw);
    static int unreg(Switch *sw) { return sw->switchConfigFunc = nullptr, 0; }
    static int config(Switch *sw, int cmd, void *arg, int argLen, void *reply, int *replyLen);
};

// Whole contents of a file, "" when absent.
std::string readFile(const std::string &path);
// How many descriptors this process holds, to show one left open wherever it lands.
long openDescriptors();
// Closes standard input, so that the next descriptor opened is 0; a copy to restore it from.
inline int stdinClosed() { const int saved = ::dup(STDIN_FILENO); return ::close(STDIN_FILENO), saved; }
// Lowers the descriptor limit to leave `n` free; below 0, restores it.
int descriptorsLeft(int n);

// Creates a directory under $TMPDIR, removes it with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    void write(const std::string &name, const std::string &content) const;

private:
    std::string path_;
};

// Frees every record reachable from switchTbl and resets the registry, so
// each test starts empty and the leak checker sees no unreachable records.
void resetRegistry();

// A zero-filled switch record with the given name and level, lists
// initialised, appended to switchTbl (switchMaxLevel raised like
// switchCreate does). Freed by resetRegistry.
Switch *addSwitch(const char *name, int level);

// Base fixture: capture installed, files below a private root, developer
// mode and foreground off, registry empty before and after.
class SwmgrTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::unique_ptr<Capture> cap;
    std::unique_ptr<TempDir> root;
};

// The base fixture with the recording driver in the table.
class DriverTest : public SwmgrTest {
protected:
    void reset() { drv.calls.clear(), cap->clear(); }  // forgets what was sent and logged
    // Adds switch `name` bound to the driver, then forgets what the add sent and logged.
    Switch *add(const char *name, int level) {
        EXPECT_EQ(drv.confAdd(name, level), 0) << name;
        reset();
        return switchByNameGet(name);
    }
    RecordingDriver drv;
};

// Runs each case of a fixture twice, with swMgrDevDebug clear ("plain")
// and set ("dev"): SWTEST_BOTH_FORMS(Suite, Fixture) names the suite and
// instantiates it; declare the cases with TEST_P(Suite, ...) below it.
template <typename Fixture>
class BothForms : public Fixture, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        Fixture::SetUp();
        swMgrDevDebug = this->GetParam() ? 1 : 0;
    }
};
#define SWTEST_BOTH_FORMS(Suite, Fixture)                                         \
    using Suite = ::swtest::BothForms<Fixture>;                                   \
    INSTANTIATE_TEST_SUITE_P(Form, Suite, ::testing::Bool(),                      \
                             [](const ::testing::TestParamInfo<bool> &i) {        \
                                 return std::string(i.param ? "dev" : "plain");   \
                             })

// The values of `field` over a list's records, in list order.
template <typename Node, typename T>
std::vector<T> listed(OsaList *list, T Node::*field) {
    std::vector<T> out;
    for (auto *n : swmgr::listEntries<Node>(*list)) out.push_back(n->*field);
    return out;
}

// Bytes of a value, for comparing recorded arguments.
template <typename T>
Bytes bytesOf(const T &v) {
    const auto *p = reinterpret_cast<const uint8_t *>(&v);
    return Bytes(p, p + sizeof(T));
}

inline Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

// The three configuration tables, without rows.
inline constexpr const char *kConfigSchema =
    "CREATE TABLE swGlobalCfg (switchName, switchDevice, vlanEnable, qosEnable, numPorts,"
    " pauseFrameEnable, igmpSnoopingEnable, mldSnoopingEnable, switchLevel);"
    "CREATE TABLE swPortConfig (switchName, portNumber, PVID, portType, mirroring, trustMode,"
    " interfaceName, phyDevice, rateLimit, schedMode, numQueues, queue1Weight, queue2Weight,"
    " queue3Weight, queue4Weight);"
    "CREATE TABLE vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap,"
    " fwdMap, untagMap, inSwitchOnly);";

// Creates (or extends) the database at `path` with `sql`; returns `path`.
std::string makeDb(const std::string &path, const std::string &sql);

}  // namespace swtest

#endif
