// SPDX-License-Identifier: Apache-2.0
// One command line: osaCmdExec against the C library's system() and a bare
// posix_spawn of the same static stub program.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>

#include "swmgr/platform/osa.h"

extern char **environ;

namespace {

void BM_OsaCmdExec(benchmark::State &state) {
    for (auto _ : state)
        if (osaCmdExec(STUB_PATH, nullptr, 0) != 0) state.SkipWithError("the stub failed");
}
BENCHMARK(BM_OsaCmdExec)->Unit(benchmark::kMicrosecond);

void BM_System(benchmark::State &state) {
    for (auto _ : state)
        if (std::system(STUB_PATH) != 0) state.SkipWithError("the stub failed");
}
BENCHMARK(BM_System)->Unit(benchmark::kMicrosecond);

void BM_BarePosixSpawn(benchmark::State &state) {
    char path[] = STUB_PATH;
    char *argv[] = {path, nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        int st = 0;
        if (posix_spawn(&pid, path, nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &st, 0) != pid ||
            st != 0)
            state.SkipWithError("the stub failed");
    }
}
BENCHMARK(BM_BarePosixSpawn)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
