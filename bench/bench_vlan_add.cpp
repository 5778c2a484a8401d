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

void BM_VlanAddThroughDaemon(benchmark::State &state) {
    swbench::Scratch scratch("/dev/shm");
    const std::string db = scratch.dir + "/router.db", bus = scratch.dir + "/bus";
    if (scratch.dir.empty() || !swbench::makeDb(db)) {
        state.SkipWithError("cannot create the example database");
        return;
    }
    const pid_t daemon = swbench::startDaemon(db, bus, {"--foreground"});
    if (daemon < 0) {
        state.SkipWithError("cannot start swmgrd");
        return;
    }
    const bool ready = *mbusPortLastError() == '\0';
    int id = kFirstVlan;
    while (ready && state.KeepRunning()) {
        std::vector<uint8_t> req = swbench::vlanRequest(id);
        auto t0 = std::chrono::steady_clock::now();
        int r = swbench::send(SW_CMD_VLAN_ADD, req);
        auto t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        if (r != 0) {
            state.SkipWithError("the daemon refused the VLAN add");
            break;
        }
        swbench::send(SW_CMD_VLAN_DELETE, req);
        id = kFirstVlan + (id - kFirstVlan + 1) % kVlanSpan;
    }
    if (!ready) state.SkipWithError("swmgrd did not come up on the bus");
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
}
BENCHMARK(BM_VlanAddThroughDaemon)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

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
    for (auto _ : state) {
        std::vector<uint8_t> req = swbench::vlanRequest(id);
        auto t0 = std::chrono::steady_clock::now();
        int r = swMgrIoctlHandler(nullptr, &header, SW_CMD_VLAN_ADD, req.data(), static_cast<int>(req.size()),
                                  nullptr, nullptr);
        auto t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        if (r != 0) {
            state.SkipWithError("the VLAN add was refused");
            break;
        }
        swMgrIoctlHandler(nullptr, &header, SW_CMD_VLAN_DELETE, req.data(), static_cast<int>(req.size()), nullptr,
                          nullptr);
        id = kFirstVlan + (id - kFirstVlan + 1) % kVlanSpan;
    }
    swMgrDeinit();
    sim.stop();
    mbusPortSendHookRemove(dropLogs, nullptr);
}
BENCHMARK(BM_VlanAddInProcess)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
