// SPDX-License-Identifier: Apache-2.0
// One command line: osaCmdExec against the C library's system() and a bare
// posix_spawn of the same static stub program.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>

#include "bench_stub.h"
#include "swmgr/platform/osa.h"

extern char **environ;

namespace {

const std::string stub = swbench::stubPath();

void BM_OsaCmdExec(benchmark::State &state) {
    for (auto _ : state)
        if (osaCmdExec(stub.c_str(), nullptr, 0) != 0) state.SkipWithError("the stub failed");
}
BENCHMARK(BM_OsaCmdExec)->Unit(benchmark::kMicrosecond);

void BM_System(benchmark::State &state) {
    for (auto _ : state)
        if (std::system(stub.c_str()) != 0) state.SkipWithError("the stub failed");
}
BENCHMARK(BM_System)->Unit(benchmark::kMicrosecond);

void BM_BarePosixSpawn(benchmark::State &state) {
    std::string path = stub;
    char *argv[] = {path.data(), nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        int st = 0;
        if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &st, 0) != pid ||
            st != 0)
            state.SkipWithError("the stub failed");
    }
}
BENCHMARK(BM_BarePosixSpawn)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
