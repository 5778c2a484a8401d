// SPDX-License-Identifier: Apache-2.0
// Start-up (swMgrInit: load and apply) of the example topology with 1000,
// 2000 and 4094 VLANs, all hardware served by the models, the state
// directory on a RAM file system and log records dropped. Reports the time
// per VLAN and, at the end, how start-up grows: t(4094) / t(1000).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>

#include "bench_common.h"
#include "osa_port.h"
#include "swmgr/swmgr.h"
#include "sim_host.h"

namespace {

std::map<int, double> meanSeconds;  // VLANs -> mean start-up time

int dropLogs(void *, int module, int, const void *, int, void *, int *, int *result) {
    if (module != MBUS_MODULE_LOG) return 0;
    *result = 0;
    return 1;
}

void BM_StartUp(benchmark::State &state) {
    const int vlans = static_cast<int>(state.range(0));
    swbench::Scratch scratch("/dev/shm");
    const std::string db = scratch.dir + "/router.db";
    if (scratch.dir.empty() || !swbench::makeDb(db, vlans)) {
        state.SkipWithError("cannot create the database");
        return;
    }
    mbusPortBusDirSet((scratch.dir + "/bus").c_str());
    mbusPortSendHookAdd(dropLogs, nullptr);
    double total = 0;
    int runs = 0;
    for (auto _ : state) {
        swtool::SimHost sim;
        std::string err;
        if (!sim.start(db, scratch.dir + "/state", err)) {
            state.SkipWithError(("cannot attach the models: " + err).c_str());
            break;
        }
        auto t0 = std::chrono::steady_clock::now();
        int r = swMgrInit(db.c_str());
        auto t1 = std::chrono::steady_clock::now();
        swMgrDeinit();
        sim.stop();
        if (r != 0) {
            state.SkipWithError("swMgrInit failed");
            break;
        }
        const double s = std::chrono::duration<double>(t1 - t0).count();
        state.SetIterationTime(s);
        total += s;
        ++runs;
    }
    mbusPortSendHookRemove(dropLogs, nullptr);
    if (runs > 0) {
        meanSeconds[vlans] = total / runs;
        state.counters["us_per_vlan"] = total / runs * 1e6 / vlans;
    }
}
BENCHMARK(BM_StartUp)->Arg(1000)->Arg(2000)->Arg(4094)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (meanSeconds.count(1000) != 0 && meanSeconds.count(4094) != 0)
        std::printf("growth t(4094)/t(1000) = %.2f\n", meanSeconds[4094] / meanSeconds[1000]);
    return 0;
}
