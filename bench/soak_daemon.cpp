// SPDX-License-Identifier: Apache-2.0
// Soak: VLAN add/delete pairs through a running swmgrd --sim, with the
// daemon's resident memory and open descriptors at the start, the middle
// and the end. Flat is the goal. Not a test: it prints figures.
//   soak_daemon [pairs]   (default 100000)
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "swmgr/swconf.h"
#include "osa_port.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"

extern char **environ;

namespace {

std::vector<uint8_t> vlanRequest(int id) {
    SwitchVlanConf conf{};
    conf.vlanId = id;
    std::snprintf(conf.interfaceName, sizeof conf.interfaceName, "eth0");
    conf.fwdMap = 0x3;
    conf.untagMap = 0x1;
    std::vector<uint8_t> data(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN, 0);
    std::memcpy(data.data() + SW_BUS_NAME_LEN, &conf, SW_VLAN_CONF_LEN);
    return data;
}

int send(int cmd, std::vector<uint8_t> &data) {
    return mbusIoctl(nullptr, MBUS_MODULE_SWMGR, cmd, data.data(), static_cast<int>(data.size()), nullptr, nullptr,
                     0, 5000, 0);
}

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
    char tmpl[] = "/tmp/swmgr-soak-XXXXXX";
    if (pairs <= 0 || ::mkdtemp(tmpl) == nullptr) return 2;
    const std::string dir = tmpl, db = dir + "/router.db", bus = dir + "/bus";
    std::ifstream in(EXAMPLE_SQL);
    std::ostringstream sql;
    sql << in.rdbuf();
    sqlite3 *h = nullptr;
    if (sqlite3_open(db.c_str(), &h) != SQLITE_OK || sqlite3_exec(h, sql.str().c_str(), nullptr, nullptr, nullptr))
        return 2;
    sqlite3_close(h);

    // Default log target (the bus's log service, absent here) and default
    // state directory (a RAM file system when there is one).
    std::vector<std::string> args = {SWMGRD_PATH, "--db", db, "--sim", "--bus-dir", bus};
    std::vector<char *> av;
    for (auto &a : args) av.push_back(a.data());
    av.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t daemon = -1;
    if (posix_spawn(&daemon, av[0], &actions, nullptr, av.data(), environ) != 0) return 2;
    posix_spawn_file_actions_destroy(&actions);
    mbusPortBusDirSet(bus.c_str());
    std::vector<uint8_t> probe = vlanRequest(4000);
    for (int i = 0; i < 500 && send(SW_CMD_VLAN_DELETE, probe) == MBUS_PORT_ERR_NOMODULE; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

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
        std::vector<uint8_t> req = vlanRequest(1000 + static_cast<int>(i % 2000));
        if (send(SW_CMD_VLAN_ADD, req) != 0 || send(SW_CMD_VLAN_DELETE, req) != 0) ++failures;
        if (i + 1 == pairs / 2) report("middle", i + 1);
    }
    report("end", pairs);
    std::printf("failed requests: %d\n", failures);
    ::kill(daemon, SIGTERM);
    int st = 0;
    ::waitpid(daemon, &st, 0);
    std::filesystem::remove_all(dir);
    return failures == 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0 ? 0 : 1;
}
