/* SPDX-License-Identifier: Apache-2.0 */
// The stand-in tool the spawn benchmarks run.
#ifndef SWMGR_BENCH_STUB_H
#define SWMGR_BENCH_STUB_H

#include <cstdlib>
#include <string>

namespace swbench {

// SWMGR_BENCH_STUB names another, to compare with a program that has a
// start-up of its own.
inline std::string stubPath() {
    const char *other = std::getenv("SWMGR_BENCH_STUB");
    return other != nullptr && *other != '\0' ? other : STUB_PATH;
}

}  // namespace swbench

#endif
