/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the benchmarks: a scratch directory and example databases.
#ifndef SWMGR_BENCH_COMMON_H
#define SWMGR_BENCH_COMMON_H

#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "osa_port.h"
#include "swmgr/swconf.h"
#include "swmgr/switch.h"
#include "swmgr/swmgr.h"

extern char **environ;

namespace swbench {

// A directory of its own below `base`, removed with its contents.
struct Scratch {
    std::string dir;
    explicit Scratch(const char *base = "/tmp") {
        std::string tmpl = std::string(base) + "/swmgr-bench-XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) dir = tmpl;
    }
    ~Scratch() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
};

// The example router configuration; with vlans > 0 its VLAN rows are
// replaced by VLANs 1..vlans, alternately on the LAN ports (untagged) and
// on the IPTV port with port 0 tagged.
inline bool makeDb(const std::string &path, int vlans = 0) {
    std::ifstream in(EXAMPLE_SQL);
    std::ostringstream sql;
    sql << in.rdbuf();
    if (vlans > 0) {
        sql << "DELETE FROM vlanEncapIf;\nBEGIN;\n";
        for (int id = 1; id <= vlans; ++id)
            sql << "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap,"
                   " egressMap, fwdMap, untagMap, inSwitchOnly) VALUES ("
                << id << ", 'eth0', 'br" << id << "', '', '', "
                << (id % 2 != 0 ? "'0,1,2,3', '0,1,2,3'" : "'0,4', '4'") << ", 0);\n";
        sql << "COMMIT;\n";
    }
    sqlite3 *db = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, sql.str().c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok && !sql.str().empty();
}

// A bus VLAN request: switch name area (unused for VLANs), then the record.
inline std::vector<uint8_t> vlanRequest(int id) {
    SwitchVlanConf conf{};
    conf.vlanId = id;
    std::snprintf(conf.interfaceName, sizeof conf.interfaceName, "eth0");
    conf.fwdMap = 0x3;
    conf.untagMap = 0x1;
    std::vector<uint8_t> data(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN, 0);
    std::memcpy(data.data() + SW_BUS_NAME_LEN, &conf, SW_VLAN_CONF_LEN);
    return data;
}

inline int send(int cmd, std::vector<uint8_t> &data, int timeoutMs = 2000) {
    return mbusIoctl(nullptr, MBUS_MODULE_SWMGR, cmd, data.data(), static_cast<int>(data.size()), nullptr, nullptr,
                     0, timeoutMs, 0);
}

#ifdef SWMGRD_PATH
// swmgrd on `db` with simulated hardware and `extra` arguments, its
// standard error discarded; once it answers on `bus`, its pid (else -1).
inline pid_t startDaemon(const std::string &db, const std::string &bus, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {SWMGRD_PATH, "--db", db, "--sim", "--bus-dir", bus};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t daemon = -1;
    const int spawned = posix_spawn(&daemon, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return -1;
    mbusPortBusDirSet(bus.c_str());
    // Ready once a request is delivered (a delete of a VLAN nobody has).
    std::vector<uint8_t> probe = vlanRequest(4094);
    for (int i = 0; i < 500; ++i) {
        send(SW_CMD_VLAN_DELETE, probe);
        if (*mbusPortLastError() == '\0') return daemon;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return daemon;
}
#endif

}  // namespace swbench

#endif
