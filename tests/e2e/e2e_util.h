/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the end-to-end tests: shell command lines run to completion or
// in the background, and a fixture with a private directory holding copies
// of the example database. Long expected outputs are transcripts under
// tests/data/e2e: each command line, what it printed, its exit status.
#ifndef SWMGR_TESTS_E2E_E2E_UTIL_H
#define SWMGR_TESTS_E2E_E2E_UTIL_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace e2e {

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

inline std::string readFile(const std::string &path) { return sh("cat " + quote(path)).out; }
inline bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

// Polls `done` every 10 ms, at most `tries` times.
template <class F> bool waitFor(F done, int tries = 500) {
    for (int i = 0; i < tries; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (done()) return true;
    return false;
}

inline bool exitedWith(int st, int code) { return st != -1 && WIFEXITED(st) && WEXITSTATUS(st) == code; }

class Test : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v sqlite3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs the sqlite3 program";
        const char *tmp = std::getenv("TMPDIR");
        std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/swmgr-e2e-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        bus_ = dir_ + "/bus";
    }
    void TearDown() override {
        for (pid_t p : pids_) {
            ::kill(p, SIGKILL);
            ::waitpid(p, nullptr, 0);
        }
        if (!dir_.empty()) sh("rm -rf " + quote(dir_));
    }
    // The example database with `sql` applied to it.
    std::string db(const std::string &name, const std::string &sql = "") {
        const std::string path = dir_ + "/" + name;
        EXPECT_EQ(sh("sqlite3 " + quote(path) + " < " + quote(ROUTER_SQL_PATH)).status, 0);
        if (!sql.empty()) {
            EXPECT_EQ(sh("sqlite3 " + quote(path) + " " + quote(sql)).out, "");
        }
        return path;
    }
    std::string ctlLine() { return std::string(SWMGRCTL_PATH) + " --bus-dir " + quote(bus_) + " "; }
    Proc ctl(const std::string &args) { return sh(ctlLine() + args); }
    // A transcript entry, with the programs and this test's directory as the
    // expected transcripts name them.
    std::string run(const std::string &cmd) {
        const Proc r = sh(cmd);
        std::string t = "$ " + cmd + "\n" + r.out + "[exit " + std::to_string(r.status) + "]\n";
        for (const auto &[from, to] : {std::pair<std::string, std::string>{SWMGRD_PATH, "swmgrd"},
                                       {SWMGRCTL_PATH, "swmgrctl"}, {dir_, "$DIR"}})
            for (size_t at = 0; (at = t.find(from, at)) != std::string::npos; at += to.size())
                t.replace(at, from.size(), to);
        return t;
    }
    static std::string expected(const std::string &name) { return readFile(std::string(E2E_DATA_DIR "/") + name); }
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
    // Sends `sig` (0 only waits) and returns the wait status, or -1 when the
    // process did not end within a generous 10 s.
    int stop(pid_t pid, int sig = SIGTERM) {
        int st = -1;
        if (::kill(pid, sig) != 0 || !waitFor([&] { return ::waitpid(pid, &st, WNOHANG) == pid; }, 1000)) return -1;
        std::erase(pids_, pid);
        return st;
    }
    std::string dir_, bus_;
    std::vector<pid_t> pids_;
};

}  // namespace e2e

#endif
