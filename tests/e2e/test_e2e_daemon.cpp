// swmgrd --sim and swmgrctl as separate processes on a private bus
// directory; the database is changed with the sqlite3 program and the
// simulated hardware is read back after each step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/mbus.h"

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

struct Proc {
    int status = -1;
    std::string out;
};

Proc sh(const std::string &cmd) {
    Proc r;
    FILE *p = ::popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string readFile(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream os;
    os << in.rdbuf();
    return os.str();
}

bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

pid_t spawn(const std::vector<std::string> &args, const std::string &out, const std::string &err) {
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(o, 1);
    ::dup2(e, 2);
    std::vector<char *> argv;
    for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

// Waits for a child to end, at most `limit`. Returns its wait status or -1.
int reap(pid_t pid, std::chrono::milliseconds limit) {
    auto end = Clock::now() + limit;
    int st = 0;
    while (Clock::now() < end) {
        if (::waitpid(pid, &st, WNOHANG) == pid) return st;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

class E2e : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v sqlite3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs the sqlite3 program";
        char tmpl[] = "/tmp/swmgr-e2e-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        db_ = dir_ + "/router.db";
        bus_ = dir_ + "/bus";
        ASSERT_EQ(sh("sqlite3 " + quote(db_) + " < " + quote(ROUTER_SQL_PATH)).status, 0);
        logger_ = spawn({SWMGRCTL_PATH, "--bus-dir", bus_, "log"}, dir_ + "/log.txt", "/dev/null");
        for (int i = 0; i < 200 && !exists(bus_ + "/mod-20.sock"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        startDaemon();
    }

    void TearDown() override {
        for (pid_t *p : {&daemon_, &logger_}) {
            if (*p <= 0) continue;
            ::kill(*p, SIGTERM);
            if (reap(*p, std::chrono::seconds(3)) < 0) {
                ::kill(*p, SIGKILL);
                ::waitpid(*p, nullptr, 0);
            }
            *p = -1;
        }
        if (!dir_.empty()) sh("rm -rf " + quote(dir_));
    }

    void startDaemon() {
        daemon_ = spawn({SWMGRD_PATH, "--db", db_, "--sim", "--bus-dir", bus_}, "/dev/null", dir_ + "/daemon.err");
        for (int i = 0; i < 250; ++i) {
            if (ctl("state").status == 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        FAIL() << "daemon did not come up: " << readFile(dir_ + "/daemon.err");
    }

    Proc ctl(const std::string &args) { return sh(std::string(SWMGRCTL_PATH) + " --bus-dir " + quote(bus_) + " " + args); }
    Proc sql(const std::string &statement) { return sh("sqlite3 " + quote(db_) + " " + quote(statement)); }

    json state() {
        Proc r = ctl("state --json");
        EXPECT_EQ(r.status, 0) << r.out;
        return json::parse(r.out, nullptr, false);
    }
    static std::map<int, std::pair<int, int>> chipVlans(const json &s) {
        std::map<int, std::pair<int, int>> out;
        for (const auto &v : s["chip"]["vlans"]) out[v["vlanId"]] = {v["fwdMap"], v["untagMap"]};
        return out;
    }
    static std::set<int> engineVlans(const json &s) {
        std::set<int> out;
        for (const auto &v : s["engine"]["vlans"]) out.insert(v["vlanId"].get<int>());
        return out;
    }
    static std::map<std::string, bool> hostIfs(const json &s) {
        std::map<std::string, bool> out;
        for (const auto &i : s["host"]["interfaces"]) out[i["name"]] = i["up"];
        return out;
    }
    // Log records reach the follower asynchronously.
    bool logHas(const std::string &line) {
        for (int i = 0; i < 100; ++i) {
            if (readFile(dir_ + "/log.txt").find(line) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    std::string uptimeFile(int vlan) { return bus_ + "/sim/root/var/VLAN." + std::to_string(vlan) + ".Uptime"; }

    std::string dir_, db_, bus_;
    pid_t daemon_ = -1, logger_ = -1;
};

TEST_F(E2e, VlanRowsChangedWithSqliteReachTheHardware) {
    const json start = state();
    const auto vlans0 = chipVlans(start);
    ASSERT_TRUE(vlans0.count(10) && vlans0.count(20)) << start.dump();
    EXPECT_EQ(hostIfs(start), (std::map<std::string, bool>{{"eth0.10", true}, {"eth0.20", true}}));

    Proc ins = sql("INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap, fwdMap, "
                  "untagMap, inSwitchOnly) VALUES (100, 'eth0', 'br-guest', '', '', '0,1', '0', 0); "
                  "SELECT last_insert_rowid();");
    ASSERT_EQ(ins.out, "3\n");
    Proc ev = ctl("dbevent vlanEncapIf 3 insert");
    EXPECT_EQ(ev.status, 0);
    EXPECT_EQ(ev.out, "vlanEncapIf row 3 insert: result 0 (ok)\n");
    json added = state();
    ASSERT_TRUE(chipVlans(added).count(100)) << added.dump();
    EXPECT_TRUE(engineVlans(added).count(100));
    EXPECT_EQ(hostIfs(added)["eth0.100"], true);
    EXPECT_TRUE(exists(uptimeFile(100))) << "the uptime stamp goes below the state directory";

    // swmgrctl sql sends the row's old values with the update.
    Proc upd = ctl("sql --db " + quote(db_) + " " + quote("UPDATE vlanEncapIf SET fwdMap = '1' WHERE vlanId = 100"));
    EXPECT_EQ(upd.out, "vlanEncapIf row 3 update: result 0 (ok)\n");
    EXPECT_EQ(upd.status, 0);

    // Deleted with the sqlite3 program: the old values come from the test.
    ASSERT_EQ(sql("DELETE FROM vlanEncapIf WHERE rowid = 3").status, 0);
    Proc del = ctl("dbevent vlanEncapIf 3 delete --old id=3 --old vlanId=100 --old interfaceName=eth0 "
                  "--old LogicalIfName=br-guest --old ingressMap= --old egressMap= --old fwdMap=1 --old untagMap=0 "
                  "--old inSwitchOnly=0");
    EXPECT_EQ(del.out, "vlanEncapIf row 3 delete: result 0 (ok)\n");
    json gone = state();
    auto left = chipVlans(gone);
    EXPECT_EQ(left[100], std::make_pair(0, 0)) << "the chip's entry is left without members";
    left.erase(100);
    EXPECT_EQ(left, vlans0) << "the other VLANs are as they were";
    EXPECT_EQ(hostIfs(gone), hostIfs(start));
    EXPECT_FALSE(exists(uptimeFile(100)));
}

TEST_F(E2e, BusRequestsProgramTheSimulatedHardware) {
    Proc ifev = ctl("ifevent eth1 22 --bandwidth 100000 --upstream 80");
    EXPECT_EQ(ifev.out, "ifevent eth1 22: result 0 (ok)\n");
    EXPECT_TRUE(logHas("swmgr info: Received interface event=22 on eth1\n"));
    EXPECT_TRUE(logHas("swmgr info: Configure upstream bandwdith limit of eth1 to 80000 kbps (80% of total "
                       "bandwidth(100000))\n"));
    json s = state();
    ASSERT_EQ(s["engine"]["rateLimits"].size(), 1u) << s["engine"].dump();
    EXPECT_EQ(s["engine"]["rateLimits"][0]["port"], 1);
    const int64_t kbps = s["engine"]["rateLimits"][0]["kbps"];
    EXPECT_TRUE(kbps > 79000 && kbps <= 80000) << kbps;

    Proc sched = ctl("cmd PSE queue-sched --queues 4 --mode 3 --weights 1,2,4,8");
    EXPECT_EQ(sched.out, "cmd PSE 48: result 0 (ok)\n");
    s = state();
    EXPECT_EQ(s["engine"]["trafficClass"], 2);
    ASSERT_EQ(s["engine"]["queueWeights"].size(), 2u) << "both engine ports";
    for (const auto &w : s["engine"]["queueWeights"]) {
        EXPECT_EQ(w["mode"], 2);
        EXPECT_EQ(w["exponents"], json({0, 1, 2, 3}));
    }

    EXPECT_EQ(ctl("vlan add --id 200 --ports 0,1 --untagged 0").out, "vlan add 200: result 0 (ok)\n");
    s = state();
    EXPECT_TRUE(chipVlans(s).count(200));
    EXPECT_EQ(hostIfs(s)["eth0.200"], true);
    EXPECT_EQ(ctl("vlan del --id 200").out, "vlan del 200: result 0 (ok)\n");
    s = state();
    EXPECT_EQ(chipVlans(s)[200], std::make_pair(0, 0));
    EXPECT_FALSE(hostIfs(s).count("eth0.200"));
}

TEST_F(E2e, WrongSizeAndMalformedRequestsAreRefusedAndServingGoesOn) {
    std::string hex79, hex1131;
    for (int i = 0; i < 79; ++i) hex79 += "00";
    for (int i = 0; i < 1131; ++i) hex1131 += "00";
    Proc db79 = ctl("raw 4 " + hex79);
    EXPECT_EQ(db79.out, "raw 103 4 (79 bytes): result -1 (failed)\n");
    EXPECT_EQ(db79.status, 1);
    EXPECT_TRUE(logHas("swmgr error: Invalid database event\n"));
    EXPECT_EQ(ctl("raw 5 " + hex1131).out, "raw 103 5 (1131 bytes): result -1 (failed)\n");
    EXPECT_TRUE(logHas("swmgr error: swMgrIoctlHandler: short ifDev event request!\n"));
    EXPECT_EQ(ctl("cmd NOPE 47 --enable 1").out, "cmd NOPE 47: result -1 (failed)\n");

    // A message whose header does not match its size never reaches the service.
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s/mod-103.sock", bus_.c_str());
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    MbusMsgHeader h{MBUS_MSG_MAGIC, 0, MBUS_MODULE_SWMGR, 4, 1, 80, 0, 0};
    ASSERT_EQ(::send(fd, &h, sizeof h, 0), static_cast<ssize_t>(sizeof h));
    MbusMsgHeader reply{};
    EXPECT_EQ(::recv(fd, &reply, sizeof reply, 0), static_cast<ssize_t>(sizeof reply));
    ::close(fd);
    EXPECT_EQ(reply.isRequest, 0u);
    EXPECT_EQ(reply.result, -74);
    EXPECT_NE(readFile(dir_ + "/daemon.err").find("refused a malformed message (32 bytes)"), std::string::npos);

    EXPECT_EQ(::waitpid(daemon_, nullptr, WNOHANG), 0) << "the daemon is still running";
    EXPECT_EQ(ctl("vlan add --id 300 --ports 1").out, "vlan add 300: result 0 (ok)\n");
    EXPECT_TRUE(chipVlans(state()).count(300));
}

TEST_F(E2e, StopSignalsEndTheDaemonWithinASecond) {
    for (int sig : {SIGTERM, SIGINT}) {
        if (sig == SIGINT) startDaemon();
        auto t0 = Clock::now();
        ASSERT_EQ(::kill(daemon_, sig), 0);
        int st = reap(daemon_, std::chrono::milliseconds(1500));
        auto took = Clock::now() - t0;
        daemon_ = -1;
        ASSERT_NE(st, -1) << "still running";
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
        EXPECT_LT(took, std::chrono::milliseconds(1100));
        EXPECT_NE(readFile(dir_ + "/daemon.err").find(sig == SIGTERM ? "swmgrd: stopped (SIGTERM)\n"
                                                                      : "swmgrd: stopped (SIGINT)\n"),
                  std::string::npos);
        EXPECT_FALSE(exists(bus_ + "/mod-103.sock"));
        EXPECT_FALSE(exists(bus_ + "/mod-250.sock"));
    }
    Proc r = ctl("vlan add --id 5");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "swmgrctl: vlan add 5: no module 103 on the bus at " + bus_ + " (-2)\n");
}

TEST(E2eStartup, FailuresExitNonZeroWithTheReason) {
    if (std::system("command -v sqlite3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs the sqlite3 program";
    Proc missing = sh(std::string(SWMGRD_PATH) + " --db /nonexistent/router.db --bus-dir /tmp/none");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "swmgrd: cannot use database /nonexistent/router.db: No such file or directory\n");

    char tmpl[] = "/tmp/swmgr-e2e-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    ASSERT_EQ(sh("sqlite3 " + quote(dir + "/r.db") + " < " + quote(ROUTER_SQL_PATH)).status, 0);
    ASSERT_EQ(::chmod(dir.c_str(), 0777), 0);
    Proc opened = sh(std::string(SWMGRD_PATH) + " --db " + quote(dir + "/r.db") + " --bus-dir " + quote(dir));
    EXPECT_EQ(opened.status, 1);
    EXPECT_EQ(opened.out, "swmgrd: start-up failed (-1): cannot register on the bus: bus directory is writable by "
                        "others: " + dir + "\n");
    sh("rm -rf " + quote(dir));
}

}  // namespace
