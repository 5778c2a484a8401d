// SPDX-License-Identifier: Apache-2.0
#include "swmgr_test.h"

#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace swtest {

// ---------------------------------------------------------------- Capture

Capture::Capture() {
    osaPortCmdHookAdd(onCommand, this);
    osaPortCmdFallbackSet(onFallback, this);
    osaPortSystemHookSet(onSystem, this);
    osaPortIoctlHookAdd(onIoctl, this);
    mbusPortSendHookAdd(onSend, this);
}

Capture::~Capture() {
    osaPortCmdHookRemove(onCommand, this);
    osaPortCmdFallbackSet(nullptr, nullptr);
    osaPortSystemHookSet(nullptr, nullptr);
    osaPortIoctlHookRemove(onIoctl, this);
    mbusPortSendHookRemove(onSend, this);
}

int Capture::onCommand(void *ctx, const char *command, int *status) {
    auto *self = static_cast<Capture *>(ctx);
    self->commands.emplace_back(command);
    for (auto &s : self->cmdScripts_) {
        if (s.times == 0) continue;
        std::string_view c(command);
        if (s.prefix ? c.substr(0, s.match.size()) != s.match : c != s.match) continue;
        if (s.times > 0) --s.times;
        *status = s.result;
        return 1;
    }
    return 0;
}

int Capture::onFallback(void *ctx, const char *, int *status) {
    *status = static_cast<Capture *>(ctx)->unhandledCommandStatus;
    return 1;
}

int Capture::onSystem(void *ctx, const char *command, int *status) {
    auto *self = static_cast<Capture *>(ctx);
    self->systemCommands.emplace_back(command);
    *status = self->systemStatus;
    return 1;
}

int Capture::onIoctl(void *ctx, int, unsigned request, void *arg, int *) {
    auto *self = static_cast<Capture *>(ctx);
    const unsigned size = arg != nullptr ? osaPortIoctlArgSize(request) : 0;
    const auto *p = static_cast<const uint8_t *>(arg);
    self->ioctls.push_back({request, Bytes(p, p + size), size == 0 ? reinterpret_cast<uintptr_t>(arg) : 0});
    return 0;
}

int Capture::onSend(void *ctx, int module, int cmd, const void *data, int dataLen, void *aux,
                    int *auxLen, int *result) {
    if (module != MBUS_MODULE_LOG || cmd != MBUS_LOG_CMD) return 0;
    auto *self = static_cast<Capture *>(ctx);
    LogLine l;
    const auto *p = static_cast<const uint8_t *>(data);
    if (p != nullptr && dataLen > 0) l.header.assign(p, p + dataLen);
    if (l.header.size() >= 8) std::memcpy(&l.level, l.header.data() + 4, sizeof l.level);  // the u32 level
    if (auxLen != nullptr) l.length = *auxLen;
    if (aux != nullptr && auxLen != nullptr && *auxLen > 0)
        l.raw.assign(static_cast<const char *>(aux), strnlen(static_cast<const char *>(aux), *auxLen));
    l.text = l.raw;
    if (l.level == SW_LOG_DEV) {
        static const std::regex dev(R"(([A-Za-z_][A-Za-z0-9_]*):-?[0-9]+:)");
        std::smatch m;
        if (std::regex_search(l.raw, m, dev))
            l.prefix = m.prefix().str(), l.func = m[1].str(), l.text = m.suffix().str();
    }
    self->logs.push_back(std::move(l));
    *result = 0;
    return 1;
}

std::vector<std::string> Capture::rawLogs() const {
    std::vector<std::string> out;
    for (const auto &l : logs) out.push_back(l.raw);
    return out;
}

int Capture::countLog(std::string_view raw) const {
    return static_cast<int>(std::count_if(logs.begin(), logs.end(),
                                          [&](const LogLine &l) { return l.prefix + l.text == raw; }));
}

::testing::AssertionResult Capture::logsAre(const Logs &expected) const {
    std::ostringstream want;
    for (const auto &e : expected) {
        if (!swMgrDevDebug && e.level < 0) continue;
        want << "[" << (swMgrDevDebug ? SW_LOG_DEV : e.level) << "] " << (swMgrDevDebug ? e.func + ": " : "")
             << e.text;
    }
    std::ostringstream got;
    for (const auto &l : logs)
        got << "[" << l.level << "] " << (swMgrDevDebug ? l.func + ": " : "") << l.prefix << l.text;
    if (want.str() != got.str())
        return ::testing::AssertionFailure() << "logs differ\nexpected:\n" << want.str() << "actual:\n" << got.str();
    return ::testing::AssertionSuccess();
}

// -------------------------------------------------------- RecordingDriver

RecordingDriver *RecordingDriver::current_ = nullptr;

RecordingDriver::RecordingDriver(const char *name) {
    current_ = this;
    SwitchDriverEntry &spare = switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1];
    std::snprintf(spare.name, sizeof spare.name, "%s", name);
    spare.registerFn = reg, spare.unregisterFn = unreg;
}

RecordingDriver::~RecordingDriver() {
    SwitchDriverEntry &spare = switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1];
    std::memset(spare.name, 0, sizeof spare.name);
    spare.registerFn = nullptr, spare.unregisterFn = nullptr, current_ = nullptr;
}

std::vector<int> RecordingDriver::cmds(const Switch *only) const {
    std::vector<int> out;
    for (const auto &c : calls)
        if (only == nullptr || c.sw == only) out.push_back(c.cmd);
    return out;
}

int RecordingDriver::reg(Switch *sw) {
    sw->switchConfigFunc = config;
    return current_->registerResult;
}

int RecordingDriver::confAdd(const char *name, int level, SwitchConf c) {
    std::snprintf(switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1].name, SW_NAME_LEN, "%s", name);
    std::snprintf(c.switchName, sizeof c.switchName, "%s", name);
    c.switchLevel = level;
    return switchConfAdd(&c);
}

namespace {
// How many bytes of a command's argument are the command's record. Command
// 33 passes one word in place with the 1300-byte length of a bus argument.
size_t recordBytes(int cmd, int argLen) {
    size_t len = argLen > 0 ? static_cast<size_t>(argLen) : 0;
    switch (cmd) {
        case SW_CMD_VLAN_ENABLE: return std::min<size_t>(len, 4);
        case SW_CMD_VLAN_MEMBERSHIP_UPDATE:
        case SW_CMD_VLAN_MEMBERSHIP_APPLY:
        case SW_CMD_PORT_VLAN_CONFIG:
        case SW_CMD_PORT_VLAN_REMOVE: return std::min(len, sizeof(SwitchVlan));
        case SW_CMD_PORT_CONFIG_SET: return std::min(len, sizeof(SwitchPort));
        default: return len;
    }
}
}  // namespace

int RecordingDriver::config(Switch *sw, int cmd, void *arg, int argLen, void *, int *replyLen) {
    RecordingDriver *self = current_;
    if (self == nullptr) return -1;
    Call c{sw, cmd, argLen, replyLen != nullptr ? *replyLen : -1, arg, {}};
    const auto *p = static_cast<const uint8_t *>(arg);
    if (arg != nullptr) c.arg.assign(p, p + recordBytes(cmd, argLen));
    self->calls.push_back(std::move(c));
    auto it = self->results.find(cmd);
    return it != self->results.end() ? it->second : 0;
}

// ------------------------------------------------------------------ TempDir

TempDir::TempDir() {
    const char *base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base ? base : "/tmp") + "/swmgr-test-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void TempDir::write(const std::string &name, const std::string &content) const {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(file(name)).parent_path(), ec);
    std::ofstream(file(name)) << content;
}

std::string readFile(const std::string &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

long openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

int descriptorsLeft(int n) {
    static rlimit was{};
    static const int known = ::getrlimit(RLIMIT_NOFILE, &was);
    const int lowestFree = ::dup(2);
    ::close(lowestFree);
    const rlimit low{n < 0 ? was.rlim_cur : static_cast<rlim_t>(lowestFree + n), was.rlim_max};
    return known == 0 ? ::setrlimit(RLIMIT_NOFILE, &low) : -1;
}

std::string makeDb(const std::string &path, const std::string &sql) {
    sqlite3 *db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK) << path;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    sqlite3_close(db);
    return path;
}

// ----------------------------------------------------------------- Registry

namespace {
// Frees every record of a list whose nodes start with their linkage.
template <typename Each>
void freeAll(OsaList *list, Each each) {
    for (void *n = osaListFirst(list); n != nullptr;) {
        void *next = osaListNext(n);
        each(n);
        std::free(n);
        n = next;
    }
}
}  // namespace

void resetRegistry() {
    freeAll(&switchTbl, [](void *s) {
        auto *sw = static_cast<Switch *>(s);
        freeAll(&sw->lowerLvlSwitchList, [](void *) {});
        freeAll(&sw->portList, [](void *p) { freeAll(&static_cast<SwitchPort *>(p)->mappedPorts, [](void *) {}); });
        freeAll(&sw->vlanList, [](void *) {});
    });
    switchLibInit();  // forgets the VLAN indexes of the switches freed here too
    switchMaxLevel = 0;
}

Switch *addSwitch(const char *name, int level) {
    auto *sw = static_cast<Switch *>(std::calloc(1, sizeof(Switch)));
    std::snprintf(sw->switchName, sizeof sw->switchName, "%s", name);
    sw->switchLevel = level, sw->lowerLvlForward = 1, sw->switchId = ++switchCount;
    for (OsaList *l : {&sw->lowerLvlSwitchList, &sw->portList, &sw->vlanList}) osaListInit(l);
    switchMaxLevel = std::max(switchMaxLevel, level);
    osaListNodeAppend(&switchTbl, sw);
    return sw;
}

// ---------------------------------------------------------------- Bus dir

namespace {
// Registering a module binds a socket in the bus directory. Each test
// process gets a directory of its own, so parallel test runs never meet
// and nothing is created under /run. Forked children leave with _exit, so
// only the parent removes it.
struct PrivateBusDir {
    TempDir dir;
    PrivateBusDir() { mbusPortBusDirSet((dir.path() + "/bus").c_str()); }
};
PrivateBusDir privateBusDir;
}  // namespace

// ------------------------------------------------------------------ Fixture

void SwmgrTest::SetUp() {
    swMgrDevDebug = swMgrForeground = 0;
    resetRegistry();
    root = std::make_unique<TempDir>();
    osaPortFileRootSet(root->path().c_str());
    cap = std::make_unique<Capture>();
}

void SwmgrTest::TearDown() {
    cap.reset();
    resetRegistry();
    osaPortFileRootSet(nullptr);
    root.reset();
    swMgrDevDebug = swMgrForeground = 0;
}

}  // namespace swtest
