// SPDX-License-Identifier: Apache-2.0
// The C library's system(), as the system calls it for the engine's register
// pipelines, with a seam: this port library comes before the C library in
// the process's lookup order, so its definition is the one the system's
// library binds to.
#include <dlfcn.h>

#include <cstdlib>

#include "osa_port.h"

namespace {
OsaCmdHook systemHook = nullptr;
void *systemHookCtx = nullptr;
}  // namespace

extern "C" void osaPortSystemHookSet(OsaCmdHook hook, void *ctx) {
    systemHook = hook;
    systemHookCtx = ctx;
}

extern "C" void osaPortSystemHookGet(OsaCmdHook *hook, void **ctx) {
    if (hook != nullptr) *hook = systemHook;
    if (ctx != nullptr) *ctx = systemHookCtx;
}

extern "C" int system(const char *command) {
    if (command != nullptr && systemHook != nullptr) {
        int status = 0;
        if (systemHook(systemHookCtx, command, &status)) return status;
    }
    using SystemFn = int (*)(const char *);
    static SystemFn real = reinterpret_cast<SystemFn>(dlsym(RTLD_NEXT, "system"));
    return real != nullptr ? real(command) : -1;
}
