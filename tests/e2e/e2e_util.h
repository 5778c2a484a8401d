/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the end-to-end tests: shell command lines run to completion or
// in the background, and a fixture with a private directory holding copies
// of the example database. Long expected outputs are transcripts under
// tests/data/e2e: each command line, what it printed, its exit status.
#ifndef SWMGR_TESTS_E2E_E2E_UTIL_H
#define SWMGR_TESTS_E2E_E2E_UTIL_H

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <thread>

#include "swmgr_test.h"
#include "swmgr_version.h"

namespace e2e {

using swtest::readFile;

struct Proc {
    int status = -1;
    std::string out;  // standard output and error together
};

inline Proc sh(const std::string &cmd) {
    Proc r;
    FILE *p = ::popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

inline std::string quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

inline std::string replaced(std::string s, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) s.replace(at, from.size(), to);
    return s;
}

// Polls `done` every 10 ms, at most `tries` times.
template <class F> bool waitFor(F done, int tries = 500) {
    for (int i = 0; i < tries; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (done()) return true;
    return false;
}

class Test : public ::testing::Test {
protected:
    void TearDown() override {
        for (pid_t p : pids_) ::kill(p, SIGKILL), ::waitpid(p, nullptr, 0);
    }
    // The example database with `sql` applied to it.
    std::string db(const std::string &name, const std::string &sql = "") {
        return swtest::makeDb(dir_ + "/" + name, readFile(ROUTER_SQL_PATH) + sql);
    }
    std::string ctlLine() { return std::string(SWMGRCTL_PATH) + " --bus-dir " + quote(bus_) + " "; }
    Proc ctl(const std::string &args) { return sh(ctlLine() + args); }
    // A transcript entry, with the programs and this test's directory as the
    // expected transcripts name them.
    std::string run(const std::string &cmd) {
        const Proc r = sh(cmd);
        const std::string t = "$ " + cmd + "\n" + r.out + "[exit " + std::to_string(r.status) + "]\n";
        return replaced(replaced(replaced(t, SWMGRD_PATH, "swmgrd"), SWMGRCTL_PATH, "swmgrctl"), dir_, "$DIR");
    }
    static std::string expected(const std::string &name) {
        return replaced(readFile(std::string(E2E_DATA_DIR "/") + name), "$VERSION", SWMGR_VERSION_TEXT);
    }
    // Runs the transcript `name` again: each "$ " line as a command line, each
    // "-- SQL" line making the next case<N>.db with SQL applied ("as shipped":
    // none). What the command lines print now comes back in the same form.
    std::string replay(const std::string &name) {
        std::istringstream in(expected(name));
        std::string t;
        int cases = 0;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("-- ", 0) == 0) {
                std::filesystem::remove(dir_ + "/case" + std::to_string(cases) + ".db");  // an earlier transcript's
                db("case" + std::to_string(cases++) + ".db", line == "-- as shipped" ? "" : line.substr(3));
                t += line + "\n";
            } else if (line.rfind("$ ", 0) == 0) {
                line = replaced(replaced(line.substr(2), "swmgrd ", SWMGRD_PATH " "), "swmgrctl", SWMGRCTL_PATH);
                t += run(replaced(line, "$DIR", dir_));
            }
        }
        return t;
    }
    // A shell command line in the background (the pid is the command's own),
    // killed at the end of the test unless stopped before.
    pid_t start(const std::string &cmd) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::execl("/bin/sh", "sh", "-c", ("exec " + cmd).c_str(), static_cast<char *>(nullptr));
            ::_exit(127);
        }
        return pids_.emplace_back(pid);
    }
    // swmgrd with `args` on this test's bus directory, its standard error in
    // daemon.err, under a service manager listening on an abstract socket: it
    // announces readiness once it serves the bus.
    pid_t startReady(const std::string &env, const std::string &args) {
        const std::string notify = "@swmgr-e2e-" + std::to_string(::getpid());
        const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{AF_UNIX, {}};
        std::memcpy(addr.sun_path + 1, notify.data() + 1, notify.size() - 1);
        EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&addr),
                         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + notify.size())), 0) << notify;
        const pid_t pid = start("env " + env + " NOTIFY_SOCKET=" + quote(notify) + " " + SWMGRD_PATH + " " + args +
                                " --bus-dir " + quote(bus_) + " >/dev/null 2>" + quote(dir_ + "/daemon.err"));
        pollfd p{fd, POLLIN, 0};
        char buf[64];
        const ssize_t n = ::poll(&p, 1, 10000) == 1 ? ::recv(fd, buf, sizeof buf, 0) : 0;
        ::close(fd);
        EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "READY=1") << readFile(dir_ + "/daemon.err");
        EXPECT_TRUE(std::filesystem::exists(bus_ + "/mod-103.sock")) << "ready before the service registered";
        return pid;
    }
    // Sends `sig` (0 only waits) and returns the exit status, or -1 when the
    // process was killed or did not end within a generous 10 s.
    int stop(pid_t pid, int sig = SIGTERM) {
        int st = -1;
        if (::kill(pid, sig) != 0 || !waitFor([&] { return ::waitpid(pid, &st, WNOHANG) == pid; }, 1000)) return -1;
        std::erase(pids_, pid);
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    swtest::TempDir tmp_;
    const std::string dir_ = tmp_.path(), bus_ = dir_ + "/bus";
    std::vector<pid_t> pids_;
};

}  // namespace e2e

#endif
