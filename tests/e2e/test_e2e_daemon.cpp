// SPDX-License-Identifier: Apache-2.0
// swmgrd --sim and swmgrctl as separate processes on a private bus
// directory; the database is changed behind the daemon's back and the
// simulated hardware is read back after each step.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "mbus_wire.h"

#include "e2e_util.h"

namespace {

using namespace e2e;
using nlohmann::json;

class E2e : public e2e::Test {
protected:
    void SetUp() override {
        db_ = db("router.db");
        // The log service: records the daemon sends to module 20 end up in log.txt.
        logger_ = start(ctlLine() + "log >" + quote(dir_ + "/log.txt"));
        waitFor([&] { return std::filesystem::exists(bus_ + "/mod-20.sock"); });
        startDaemon();
    }
    void startDaemon(const std::string &options = "") {
        daemon_ = startReady("", options + " --db " + quote(db_) + " --sim --state-dir " + quote(bus_ + "/sim"));
    }
    // The daemon ends on `sig` with status 0, saying so, and unregisters.
    void expectStops(int sig, const std::string &name) {
        EXPECT_EQ(stop(daemon_, sig), 0);
        EXPECT_NE(readFile(dir_ + "/daemon.err").find("swmgrd: stopped (" + name + ")\n"), std::string::npos);
        for (const char *sock : {"/mod-103.sock", "/mod-250.sock", "/mod-251.sock"})
            EXPECT_FALSE(std::filesystem::exists(bus_ + sock)) << sock;
    }
    // Log records reach the log service asynchronously.
    bool logHas(const std::string &line) {
        return waitFor([&] { return readFile(dir_ + "/log.txt").find(line) != std::string::npos; }, 100);
    }
    std::string db_;
    pid_t daemon_ = -1, logger_ = -1;
};

// A row inserted behind the daemon's back and announced, then changed and
// deleted with swmgrctl sql: the hardware follows, and the other VLANs and
// the host's interfaces end as they began. The engine's lines for the row
// carried the MAC text, whose newline ends the shell command: no entry.
TEST_F(E2e, VlanRowsChangedWithSqliteReachTheHardware) {
    swtest::makeDb(db_, "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap, fwdMap, "
        "untagMap, inSwitchOnly) VALUES (100, 'eth0', 'br-guest', '', '', '0,1', '0', 0)");
    EXPECT_EQ(replay("vlan-rows.txt"), expected("vlan-rows.txt"));
}

// Bad requests are refused and the daemon serves on; named commands
// without their options, and port lists out of range, never reach it. The
// registry as it holds it, the hardware's topology, and the counters.
TEST_F(E2e, ShowAndStatsAnswerFromTheRunningDaemonAfterBadRequests) {
    EXPECT_EQ(replay("show.txt"), expected("show.txt"));
    EXPECT_TRUE(logHas("swmgr error: Invalid database event\n"));
    json stats = json::parse(ctl("stats --json").out);
    for (auto &r : stats["requests"]) r.erase("totalUs");
    // The drivers' counts, of start-up and the add: the chip's requests,
    // the engine's tools (which refuse the lines whose address carries its
    // newline) and its address lookups, the host's sub-interfaces (whose
    // stale removal fails once per VLAN).
    EXPECT_EQ(stats, json::parse(expected("stats.json")));
    EXPECT_EQ(ctl("raw --module 251 --aux-len 8 1").out + ctl("raw --module 251 --aux-len 8 9").out,
              "raw 251 1 (0 bytes): result 1 (ok)\nraw 251 9 (0 bytes): result -22 (invalid argument)\n")
        << "cut to fit: said so; no such question";
}

// plan on the daemon's database predicts the hardware the daemon programmed.
TEST_F(E2e, PlanPredictsWhatTheDaemonProgrammed) {
    json plan = json::parse(ctl("plan --json --db " + quote(db_)).out);
    EXPECT_EQ(plan["startup"]["result"], 0);
    json live = json::parse(ctl("state --json").out);
    for (json *j : {&plan["state"], &live}) j->erase("fileRoot");
    live.erase("daemon");
    EXPECT_EQ(plan["state"], live);
    const json &steps = plan["startup"]["steps"];
    for (const char *step : {R"({"kind": "file", "op": "write", "path": "/var/VLAN.10.Uptime", "content": "0\n"})",
                             R"({"kind": "ioctl", "request": "0x80075312", "name": "vlan-entry-add",
                                 "fields": {"vlanId": 10, "fwdMap": "0x1f", "untagMap": "0xf"}, "result": 0})",
                             R"({"kind": "command", "line": "vconfig add eth0 20", "status": 0})"})
        EXPECT_NE(std::find(steps.begin(), steps.end(), json::parse(step)), steps.end()) << step;
}

TEST_F(E2e, IdleConnectionsAndAStalledLogReaderDoNotHoldRequestsUp) {
    // Bare connections to the service's socket, never sending anything.
    std::vector<int> idle;
    std::string err;
    mbusPortBusDirSet(bus_.c_str());
    for (int i = 0; i < 100; ++i) idle.push_back(mbuswire::connectModule(103, 1000, err));
    ASSERT_TRUE(std::none_of(idle.begin(), idle.end(), [](int fd) { return fd < 0; }));
    EXPECT_EQ(ctl("vlan add --id 300 --ports 0,1 --untagged 0").out, "vlan add 300: result 0 (ok)\n");
    for (int fd : idle) ::close(fd);

    // Many records per request, so the reader's queue fills.
    expectStops(SIGINT, "SIGINT");
    startDaemon("--debug");
    // The log reader stops reading (a paused pager): requests are answered
    // within swmgrctl's wait, the records it cannot take are counted, and
    // once it reads again it is told how many it lost.
    ASSERT_EQ(::kill(logger_, SIGSTOP), 0);
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(ctl("vlan " + std::string(i % 2 == 0 ? "add" : "del") + " --id 400 --ports 0,1").status, 0) << i;
    EXPECT_GT(json::parse(ctl("stats --json").out)["logDropped"].get<int>(), 0);
    ASSERT_EQ(::kill(logger_, SIGCONT), 0);
    // The count rides on the first record that gets through, which needs the
    // reader to have drained its backlog first: keep the daemon talking.
    bool told = false;
    for (int i = 0; i < 10 && !told; ++i) {
        EXPECT_EQ(ctl("vlan " + std::string(i % 2 == 0 ? "add" : "del") + " --id 401 --ports 0").status, 0);
        told = logHas("log records dropped while the log reader was behind\n");
    }
    EXPECT_TRUE(told);
}

// The database's wait gives up before swmgrctl's does, so an answer at all
// shows the bound.
TEST_F(E2e, ALockedDatabaseFailsTheRequestInBoundedTimeAndSigtermWaitsForIt) {
    sqlite3 *holder = nullptr;
    ASSERT_EQ(sqlite3_open(db_.c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(ctl("dbevent vlanEncapIf 1 update").out, "vlanEncapIf row 1 update: result -1 (failed)\n");
    EXPECT_EQ(ctl("state").status, 0) << "the next request is answered";
    // The look for a next request after one was served ends in a sleep.
    const std::string wchan = "/proc/" + std::to_string(daemon_) + "/wchan";
    EXPECT_TRUE(waitFor([&] { return readFile(wchan).find("poll_schedule") != std::string::npos; }, 300));
    EXPECT_TRUE(logHas("sqlite: database still locked after 2000 ms, query given up: SELECT * from vlanEncapIf"));

    // SIGTERM while a request waits on the database, asleep (spinning would
    // starve the writer on a single core): the request is answered, then
    // the daemon stops.
    const pid_t request = start(ctlLine() + "dbevent vlanEncapIf 1 update >" + quote(dir_ + "/request.out"));
    ASSERT_TRUE(waitFor([&] { return readFile(wchan).find("nanosleep") != std::string::npos; }, 300));
    expectStops(SIGTERM, "SIGTERM");
    EXPECT_EQ(stop(request, 0), 1);
    EXPECT_EQ(readFile(dir_ + "/request.out"), "vlanEncapIf row 1 update: result -1 (failed)\n");
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
}

TEST_F(E2e, AnotherUsersConnectionIsClosedBeforeItCanSend) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
    struct stat st {};
    ASSERT_EQ(::stat(bus_.c_str(), &st), 0);
    ASSERT_EQ(::chmod(dir_.c_str(), 0711), 0);
    // The bus directory is reached through a descriptor opened here, so the
    // directories above it (a private TMPDIR) need not let the other user by.
    const int busFd = ::open(bus_.c_str(), O_PATH | O_DIRECTORY);
    pid_t pid = ::fork();
    if (pid == 0) {
        // In the bus directory's group, so the socket is reachable; the user
        // is what gets it closed.
        if (::setgid(st.st_gid) != 0 || ::setuid(65534) != 0) ::_exit(2);
        ::prctl(PR_SET_DUMPABLE, 1);  // keeps /proc/self/fd readable after the switch
        mbusPortBusDirSet(("/proc/self/fd/" + std::to_string(busFd)).c_str());
        std::string err;
        const int fd = mbuswire::connectModule(103, 1000, err);
        if (fd < 0 || ::shutdown(fd, SHUT_WR) != 0) ::_exit(3);  // it says nothing: read to its end
        MbusMsgHeader h{};
        const bool refused = mbuswire::waitReadable(fd, 2000) &&
                             ::recv(fd, &h, sizeof h, 0) == static_cast<ssize_t>(sizeof h) && h.result == -13;
        ::_exit(refused && mbuswire::waitReadable(fd, 2000) && ::recv(fd, &h, sizeof h, 0) == 0 ? 0 : 4);
    }
    ::close(busFd);
    pids_.push_back(pid);
    EXPECT_EQ(stop(pid, 0), 0);
    EXPECT_EQ(json::parse(ctl("stats --json").out, nullptr, false)["connectionsRefused"], 1);
}

// A VLAN add or delete request in hex: the switch name area, then the VLAN record.
std::string vlanRequest(int vlanId, const std::string &ifName) {
    std::string rec(64 + 1300, '\0'), out;
    std::memcpy(&rec[64], &vlanId, 4);
    rec.replace(64 + 132, std::min<size_t>(ifName.size(), 64), ifName.substr(0, 64));
    rec[64 + 1284] = 0x3;  // fwdMap: ports 0 and 1
    for (unsigned char c : rec) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 0xf]};
    return out;
}

using E2eUntrusted = e2e::Test;

// The daemon on the real command path (--sim-devices-only): the switch chip
// is the model behind its device path, every command line runs through
// /bin/sh with a PATH whose tools only record their arguments. Texts from
// the database and from bus requests carry shell payloads that would
// create a file in the daemon's working directory; none may run.
TEST_F(E2eUntrusted, NoPayloadRunsAndEachIsRefusedWhileGoodConfigurationIsProgrammed) {
    const std::string bin = dir_ + "/bin";
    tmp_.write("bin/record", "#!/bin/sh\n{ printf '%s' \"${0##*/}\"; for a in \"$@\"; do printf ' [%s]' \"$a\"; done; "
                             "echo; } >> " + quote(dir_ + "/argv.log") + "\n");
    ASSERT_EQ(sh("cd " + quote(bin) + " && chmod +x record && for t in vconfig ifconfig vlan_table_func "
                 "arl_table_func sppe_ioctl rate_limit_func tc_func queue_weight_func pri_ctl_func; do "
                 "ln -s record $t; done").status, 0);
    // Loading stops at the first refused row (and a refused port keeps
    // the VLANs from loading), so the one bad row at start-up is the
    // last VLAN row.
    const std::string dbArg = "--db " + quote(db("router.db", "INSERT INTO vlanEncapIf (vlanId, interfaceName, fwdMap, "
                                                              "untagMap) VALUES (30, 'eth0;touch ran', '0', '0');"));
    startReady("-C " + quote(dir_) + " PATH=" + quote(bin) + ":\"$PATH\"", dbArg + " --sim-devices-only --foreground");
    std::string t;
    // Port rows that would make a switch its own lower-level switch, directly
    // and through the other one.
    for (const std::string row : {"'PSE', 2", "'BCM', 5"})
        t += ctl("sql " + dbArg + " " + quote("INSERT INTO swPortConfig (switchName, portNumber, PVID, interfaceName, "
                                              "phyDevice) VALUES (" + row + ", 1, 'eth2', 'PSE:0')")).out;
    // Each payload in a database row inserted and announced by swmgrctl sql,
    // then in bus requests to add and delete a VLAN, past swmgrctl's own check.
    int vlanId = 40;
    for (const std::string payload : {"eth0;touch ran1", "eth0$(touch ran2)", "eth0`touch ran3`", "eth0\ntouch ran4",
                                      "eth0&&touch ran5", "eth0|touch ran6", "eth0>ran7"}) {
        const std::string sqlText = replaced(payload, "\n", "' || char(10) || '");
        t += ctl("sql " + dbArg + " " + quote("INSERT INTO vlanEncapIf (vlanId, interfaceName, fwdMap, "
                 "untagMap) VALUES (" + std::to_string(++vlanId) + ", '" + sqlText + "', '0', '0')")).out;
        for (const std::string code : {"36 ", "38 "}) t += ctl("raw " + code + vlanRequest(vlanId, payload)).out;
    }
    t += run(ctlLine() + "vlan add --id 99 --if " + quote("eth0;touch ran9"));
    // A good request after all of them is programmed.
    t += ctl("raw 36 " + vlanRequest(60, "eth0")).out;
    // What the daemon refused, the bad row at start-up first.
    std::istringstream err(readFile(dir_ + "/daemon.err"));
    for (std::string line; std::getline(err, line);)
        if (line.find("refused: character") != std::string::npos || line.find("Refusing") != std::string::npos)
            t += line + "\n";
    EXPECT_EQ(t, expected("untrusted.txt"));

    EXPECT_EQ(sh("find " + quote(dir_) + " -name 'ran*'").out, "") << "payloads ran";
    const std::string argv = readFile(dir_ + "/argv.log");
    for (const char *line : {"vconfig [add] [eth0] [60]\nifconfig [eth0.60] [up]\n",
                             "vlan_table_func [edit] [6] [0] [0x6] [0x6] [60] ["})
        EXPECT_NE(argv.find(line), std::string::npos) << line << "\n" << argv;
}

}  // namespace
