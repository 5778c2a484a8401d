// Shell commands: /bin/sh -c through posix_spawn, unless a hook takes them.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "osa_port.h"

extern char **environ;

namespace {
struct CmdHookEntry {
    OsaCmdHook hook;
    void *ctx;
};
std::vector<CmdHookEntry> &cmdHooks() {
    static std::vector<CmdHookEntry> h;
    return h;
}
CmdHookEntry fallback{nullptr, nullptr};

int waitStatus(pid_t pid) {
    int st = 0;
    while (::waitpid(pid, &st, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return -1;
}
}  // namespace

extern "C" int osaPortCmdHookAdd(OsaCmdHook hook, void *ctx) {
    if (hook == nullptr) return -1;
    cmdHooks().push_back({hook, ctx});
    return 0;
}

extern "C" int osaPortCmdHookRemove(OsaCmdHook hook, void *ctx) {
    auto &h = cmdHooks();
    auto it = std::find_if(h.begin(), h.end(),
                           [&](const CmdHookEntry &e) { return e.hook == hook && e.ctx == ctx; });
    if (it == h.end()) return -1;
    h.erase(it);
    return 0;
}

extern "C" int osaPortCmdFallbackSet(OsaCmdHook hook, void *ctx) {
    fallback = {hook, ctx};
    return 0;
}

extern "C" int osaCmdExec(const char *command, char *output, int outputLen) {
    if (command == nullptr) return -1;
    auto hooks = cmdHooks();
    for (const auto &h : hooks) {
        int status = 0;
        if (h.hook(h.ctx, command, &status)) {
            if (output != nullptr && outputLen > 0) output[0] = '\0';
            return status;
        }
    }
    if (fallback.hook != nullptr) {
        int status = 0;
        if (fallback.hook(fallback.ctx, command, &status)) {
            if (output != nullptr && outputLen > 0) output[0] = '\0';
            return status;
        }
    }

    const bool capture = output != nullptr && outputLen > 0;
    int pipeFd[2] = {-1, -1};
    if (capture && ::pipe2(pipeFd, O_CLOEXEC) != 0) return -1;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (capture) posix_spawn_file_actions_adddup2(&actions, pipeFd[1], STDOUT_FILENO);

    char sh[] = "/bin/sh";
    char dashC[] = "-c";
    char *argv[] = {sh, dashC, const_cast<char *>(command), nullptr};
    pid_t pid = 0;
    int rc = ::posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);

    if (capture) {
        ::close(pipeFd[1]);
        if (rc == 0) {
            int used = 0;
            while (used < outputLen - 1) {
                ssize_t n = ::read(pipeFd[0], output + used, static_cast<size_t>(outputLen - 1 - used));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                used += static_cast<int>(n);
            }
            output[used] = '\0';
            // Drain the rest so the child never blocks on a full pipe.
            char sink[256];
            while (::read(pipeFd[0], sink, sizeof sink) > 0) {
            }
        } else {
            output[0] = '\0';
        }
        ::close(pipeFd[0]);
    }
    if (rc != 0) return -1;
    return waitStatus(pid);
}
