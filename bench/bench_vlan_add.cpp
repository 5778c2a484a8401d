// SPDX-License-Identifier: Apache-2.0
// How long one VLAN add takes: as a bus client sees it through a running
// swmgrd on simulated hardware (the daemon's own process, sockets and all),
// and handled in-process on the same models, which leaves out the bus.
// Each iteration times the add alone; the delete that restores the state
// for the next one is not counted. The state directory (uptime stamps) is on
// a RAM file system, as /var is on the device.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "swmgr/swconf.h"
#include "osa_port.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"
#include "sim_host.h"

namespace {

constexpr int kFirstVlan = 1000;
constexpr int kVlanSpan = 2000;

// Runs one add, timed for the benchmark and kept in `us` for the median.
template <class F> int timed(benchmark::State &state, std::vector<double> &us, F add) {
    auto t0 = std::chrono::steady_clock::now();
    int r = add();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.SetIterationTime(s);
    us.push_back(s * 1e6);
    return r;
}

// The median of the timed adds, in microseconds, beside the mean.
void report(benchmark::State &state, std::vector<double> &us) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    state.counters["median_us"] = us[us.size() / 2];
}

// A vlanEncapIf row matching swbench::vlanRequest(id).
bool insertRow(sqlite3 *db, int id) {
    const std::string sql = "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap,"
                            " fwdMap, untagMap, inSwitchOnly) VALUES (" +
                            std::to_string(id) + ", 'eth0', 'br" + std::to_string(id) + "', '', '', '0,1', '0', 0)";
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::vector<uint8_t> insertEvent(int64_t rowId) {
    DbUpdateEvent ev{};
    std::snprintf(ev.tableName, sizeof ev.tableName, "vlanEncapIf");
    ev.rowId = static_cast<int32_t>(rowId);
    ev.opCode = DB_OP_INSERT;
    std::vector<uint8_t> data(DB_UPDATE_EVENT_LEN);
    std::memcpy(data.data(), &ev, sizeof ev);
    return data;
}

// Arguments: how the add arrives (0: VLAN add request, 1: insert event for
// a row written just before), whether a log reader follows the daemon's
// records on the bus (0: records to standard error, 1: `swmgrctl log`) and
// whether the daemon looks for the next request before it sleeps (1: its
// default, 0: --busy-poll-us 0).
void BM_VlanAddThroughDaemon(benchmark::State &state) {
    const bool byEvent = state.range(0) != 0, follower = state.range(1) != 0, look = state.range(2) != 0;
    swbench::Scratch scratch("/dev/shm");
    const std::string db = scratch.dir + "/router.db", bus = scratch.dir + "/bus";
    if (scratch.dir.empty() || !swbench::makeDb(db)) {
        state.SkipWithError("cannot create the example database");
        return;
    }
    pid_t reader = -1;
    if (follower) {
        const std::string cmd = "exec " SWMGRCTL_PATH " --bus-dir '" + bus + "' log >/dev/null";
        char *argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(cmd.c_str()), nullptr};
        posix_spawn(&reader, "/bin/sh", nullptr, nullptr, argv, environ);
        for (int i = 0; i < 300 && !std::filesystem::exists(bus + "/mod-20.sock"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // With a follower the daemon's records go to it (the default), else to standard error.
    std::vector<std::string> options;
    if (!follower) options.push_back("--foreground");
    if (!look) options.insert(options.end(), {"--busy-poll-us", "0"});
    const pid_t daemon = swbench::startDaemon(db, bus, options);
    sqlite3 *conn = nullptr;
    if (daemon < 0 || *mbusPortLastError() != '\0' || sqlite3_open(db.c_str(), &conn) != SQLITE_OK) {
        state.SkipWithError("swmgrd did not come up on the bus");
    } else {
        sqlite3_busy_timeout(conn, 2000);
        std::vector<double> us;
        int id = kFirstVlan;
        while (state.KeepRunning()) {
            std::vector<uint8_t> req = swbench::vlanRequest(id), ev;
            if (byEvent) {
                if (!insertRow(conn, id)) {
                    state.SkipWithError("cannot insert the VLAN row");
                    break;
                }
                ev = insertEvent(sqlite3_last_insert_rowid(conn));
            }
            int r = timed(state, us, [&] {
                return swbench::send(byEvent ? SW_CMD_DB_EVENT : SW_CMD_VLAN_ADD, byEvent ? ev : req);
            });
            if (r != 0) {
                state.SkipWithError("the daemon refused the VLAN add");
                break;
            }
            if (byEvent) sqlite3_exec(conn, "DELETE FROM vlanEncapIf WHERE vlanId >= 1000", nullptr, nullptr, nullptr);
            swbench::send(SW_CMD_VLAN_DELETE, req);
            id = kFirstVlan + (id - kFirstVlan + 1) % kVlanSpan;
        }
        report(state, us);
    }
    sqlite3_close(conn);
    for (pid_t p : {daemon, reader}) {
        if (p <= 0) continue;
        ::kill(p, SIGTERM);
        ::waitpid(p, nullptr, 0);
    }
}
BENCHMARK(BM_VlanAddThroughDaemon)
    ->ArgNames({"event", "follower", "look"})
    ->ArgsProduct({{0, 1}, {0, 1}, {1, 0}})
    ->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

// Log records are dropped here: with no log service on the bus each one
// would cost a failed connect, which the daemon case does not pay either.
int dropLogs(void *, int module, int, const void *, int, void *, int *, int *result) {
    if (module != MBUS_MODULE_LOG) return 0;
    *result = 0;
    return 1;
}

void BM_VlanAddInProcess(benchmark::State &state) {
    swbench::Scratch scratch("/dev/shm");
    const std::string db = scratch.dir + "/router.db";
    if (scratch.dir.empty() || !swbench::makeDb(db)) {
        state.SkipWithError("cannot create the example database");
        return;
    }
    mbusPortBusDirSet((scratch.dir + "/bus").c_str());
    mbusPortSendHookAdd(dropLogs, nullptr);
    swtool::SimHost sim;
    std::string err;
    if (!sim.start(db, scratch.dir + "/state", err) || swMgrInit(db.c_str()) != 0) {
        state.SkipWithError(("cannot start in-process: " + err).c_str());
        mbusPortSendHookRemove(dropLogs, nullptr);
        return;
    }
    MbusMsgHeader header{};
    header.srcModule = 42;
    header.isRequest = 1;
    int id = kFirstVlan;
    std::vector<double> us;
    for (auto _ : state) {
        std::vector<uint8_t> req = swbench::vlanRequest(id);
        int r = timed(state, us, [&] {
            return swMgrIoctlHandler(nullptr, &header, SW_CMD_VLAN_ADD, req.data(), static_cast<int>(req.size()),
                                     nullptr, nullptr);
        });
        if (r != 0) {
            state.SkipWithError("the VLAN add was refused");
            break;
        }
        swMgrIoctlHandler(nullptr, &header, SW_CMD_VLAN_DELETE, req.data(), static_cast<int>(req.size()), nullptr,
                          nullptr);
        id = kFirstVlan + (id - kFirstVlan + 1) % kVlanSpan;
    }
    report(state, us);
    swMgrDeinit();
    sim.stop();
    mbusPortSendHookRemove(dropLogs, nullptr);
}
BENCHMARK(BM_VlanAddInProcess)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
