// SPDX-License-Identifier: Apache-2.0
// Soak: VLAN add/delete pairs through a running swmgrd --sim, with the
// daemon's resident memory and open descriptors at the start, the middle
// and the end. Flat is the goal. Not a test: it prints figures.
//   soak_daemon [pairs]   (default 100000)
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_common.h"

namespace {

long rssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

long fdCount(pid_t pid) {
    long n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

}  // namespace

int main(int argc, char **argv) {
    const long pairs = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 100000;
    swbench::Scratch scratch;
    const std::string db = scratch.dir + "/router.db", bus = scratch.dir + "/bus";
    if (pairs <= 0 || scratch.dir.empty() || !swbench::makeDb(db)) return 2;
    // Default log target (the bus's log service, absent here) and default
    // state directory (a RAM file system when there is one).
    const pid_t daemon = swbench::startDaemon(db, bus);
    if (daemon < 0) return 2;

    auto t0 = std::chrono::steady_clock::now();
    auto report = [&](const char *when, long done) {
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        std::printf("%-6s pairs=%-7ld rss=%ld kB fds=%ld elapsed=%.1f s\n", when, done, rssKb(daemon),
                    fdCount(daemon), s);
        std::fflush(stdout);
    };
    report("start", 0);
    int failures = 0;
    for (long i = 0; i < pairs; ++i) {
        std::vector<uint8_t> req = swbench::vlanRequest(1000 + static_cast<int>(i % 2000));
        if (swbench::send(SW_CMD_VLAN_ADD, req, 5000) != 0 || swbench::send(SW_CMD_VLAN_DELETE, req, 5000) != 0)
            ++failures;
        if (i + 1 == pairs / 2) report("middle", i + 1);
    }
    report("end", pairs);
    std::printf("failed requests: %d\n", failures);
    ::kill(daemon, SIGTERM);
    int st = 0;
    ::waitpid(daemon, &st, 0);
    return failures == 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0 ? 0 : 1;
}
