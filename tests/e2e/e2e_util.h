/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the end-to-end tests: run a shell command line and take its
// output and exit status, quote for the shell, read a file.
#ifndef SWMGR_TESTS_E2E_E2E_UTIL_H
#define SWMGR_TESTS_E2E_E2E_UTIL_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace e2e {

struct Proc {
    int status = -1;
    std::string out;
};

inline Proc sh(const std::string &cmd) {
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

inline std::string quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

inline std::string readFile(const std::string &path) { return sh("cat " + quote(path)).out; }

inline bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace e2e

#endif
