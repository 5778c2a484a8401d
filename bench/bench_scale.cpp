// SPDX-License-Identifier: Apache-2.0
// The whole configuration with every command line really spawned: the
// example topology with 4094 VLANs (or the count given), the tools replaced
// by a static stub on PATH, the chip model attached through the device
// seam, no command hooks. Where it may (root, mount namespaces), it also
// puts the stub behind /sbin in a mount namespace of its own, so the lines
// that name /sbin/vconfig run it too; else they fail with 127 as they would
// on a host without it. Prints the start-up time.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bcm_chip.h"
#include "bench_common.h"
#include "bench_stub.h"
#include "osa_port.h"
#include "swmgr/swmgr.h"

namespace {

int dropLogs(void *, int module, int, const void *, int, void *, int *, int *result) {
    if (module != MBUS_MODULE_LOG) return 0;
    *result = 0;
    return 1;
}

bool stubSbin(const std::string &tools) {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount(tools.c_str(), std::filesystem::canonical("/sbin").c_str(), nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace

int main(int argc, char **argv) {
    const int vlans = argc > 1 ? std::atoi(argv[1]) : 4094;
    swbench::Scratch scratch("/dev/shm");
    const std::string db = scratch.dir + "/router.db", tools = scratch.dir + "/tools";
    std::error_code ec;
    std::filesystem::create_directories(tools, ec);
    std::filesystem::create_directories(scratch.dir + "/root/var", ec);
    if (scratch.dir.empty() || ec || !swbench::makeDb(db, vlans)) {
        std::fprintf(stderr, "cannot set up the scratch directory\n");
        return 1;
    }
    for (const char *name : {"vconfig", "ifconfig", "vlan_table_func", "arl_table_func", "tc_func",
                             "queue_weight_func", "rate_limit_func", "pri_ctl_func"})
        std::filesystem::copy_file(swbench::stubPath(), tools + "/" + name, ec);
    const std::string path = tools + ":" + (std::getenv("PATH") != nullptr ? std::getenv("PATH") : "");
    ::setenv("PATH", path.c_str(), 1);
    const bool sbin = stubSbin(tools);

    swsim::BcmChip chip;
    if (!chip.attach("/dev/bcmsw")) {
        std::fprintf(stderr, "cannot attach the chip model\n");
        return 1;
    }
    osaPortFileRootSet((scratch.dir + "/root").c_str());
    mbusPortBusDirSet((scratch.dir + "/bus").c_str());
    mbusPortSendHookAdd(dropLogs, nullptr);
    auto t0 = std::chrono::steady_clock::now();
    int r = swMgrInit(db.c_str());
    auto t1 = std::chrono::steady_clock::now();
    swMgrDeinit();
    mbusPortSendHookRemove(dropLogs, nullptr);
    chip.detach();
    std::printf("start-up with %d VLANs, every command line spawned%s: %.2f s (swMgrInit %d)\n", vlans,
                sbin ? "" : " (/sbin/vconfig not stubbed: those lines fail with 127)",
                std::chrono::duration<double>(t1 - t0).count(), r);
    return r == 0 ? 0 : 1;
}
