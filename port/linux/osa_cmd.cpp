// SPDX-License-Identifier: Apache-2.0
// Shell commands, unless a hook takes them: a line without shell syntax is
// split on blanks and spawned as it stands (PATH lookup), so it costs one
// process instead of two; any other line runs with /bin/sh -c. A program
// that cannot be spawned gives the shell's status: 127 when it is missing,
// 126 when it may not be executed; one that is no binary runs as the shell
// would run it, as a script.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "hook_list.h"
#include "osa_port.h"

extern char **environ;

namespace {
swport::HookList<OsaCmdHook> &cmdHooks() {
    static swport::HookList<OsaCmdHook> h;
    return h;
}
struct {
    OsaCmdHook hook;
    void *ctx;
} fallback{nullptr, nullptr};

int waitStatus(pid_t pid) {
    int st;
    while (::waitpid(pid, &st, 0) == -1) {
        if (errno != EINTR) return -1;
    }
    // Without WUNTRACED a child is only ever reported exited or killed.
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// Words a shell would take as its own (reserved words, builtins without a
// program of the same name, assignments) keep a line in the shell.
bool shellWord(const char *word, std::size_t len) {
    static const char *const kWords[] = {
        "!",      "{",       "}",     "[[",       "]]",     ".",      ":",     "alias",
        "bg",     "break",   "case",  "cd",       "command", "continue", "do",  "done",
        "elif",   "else",    "esac",  "eval",     "exec",   "exit",   "export", "fc",
        "fg",     "fi",      "for",   "function", "getopts", "hash",  "if",    "in",
        "jobs",   "local",   "read",  "readonly", "return", "select", "set",   "shift",
        "then",   "time",    "times", "trap",     "type",   "ulimit", "umask", "unalias",
        "unset",  "until",   "wait",  "while"};
    if (std::memchr(word, '=', len) != nullptr) return true;
    for (const char *w : kWords)
        if (std::strlen(w) == len && std::memcmp(w, word, len) == 0) return true;
    return false;
}

constexpr int kStatusNotFound = 127;
constexpr int kStatusNotExecutable = 126;
constexpr std::size_t kDirectLineMax = 1024;
constexpr std::size_t kDirectArgsMax = 64;

// A command line split for a direct spawn: words in `text`, argv into it.
struct DirectLine {
    char text[kDirectLineMax];
    char *argv[kDirectArgsMax + 1];
};

// Splits `command` into `out` when nothing in it needs a shell; false
// sends the line to the shell.
bool directSplit(const char *command, DirectLine &out) {
    static constexpr char kShellChars[] = "\"'`$;&|<>(){}[]*?~#\\";
    const std::size_t len = strnlen(command, sizeof out.text);
    if (len == sizeof out.text) return false;  // no room for its terminator
    for (std::size_t i = 0; i < len; ++i) {
        const auto c = static_cast<unsigned char>(command[i]);
        if (c < 0x20 || c == 0x7f || std::strchr(kShellChars, c) != nullptr) return false;
    }
    std::memcpy(out.text, command, len + 1);
    std::size_t argc = 0;
    for (char *p = out.text; *p != '\0';) {
        if (*p == ' ') {
            *p++ = '\0';
            continue;
        }
        if (argc == kDirectArgsMax) return false;
        out.argv[argc++] = p;
        while (*p != '\0' && *p != ' ') ++p;
    }
    out.argv[argc] = nullptr;
    return argc > 0 && !shellWord(out.argv[0], std::strlen(out.argv[0]));
}
}  // namespace

extern "C" int osaPortCmdHookAdd(OsaCmdHook hook, void *ctx) { return cmdHooks().add(hook, ctx); }

extern "C" int osaPortCmdHookRemove(OsaCmdHook hook, void *ctx) { return cmdHooks().remove(hook, ctx); }

extern "C" void osaPortCmdFallbackSet(OsaCmdHook hook, void *ctx) {
    fallback = {hook, ctx};
}

extern "C" int osaCmdExec(const char *command, char *output, int outputLen) {
    // Room without a buffer is a caller's mistake, not a request for no output.
    if (command == nullptr || (output == nullptr && outputLen > 0)) return -1;
    int status = 0;
    if (cmdHooks().anyTakes([&](OsaCmdHook hook, void *ctx) { return hook(ctx, command, &status) != 0; }) ||
        (fallback.hook != nullptr && fallback.hook(fallback.ctx, command, &status) != 0)) {
        if (outputLen > 0) output[0] = '\0';
        return status;
    }

    const bool capture = outputLen > 0;
    int pipeFd[2];
    if (capture) output[0] = '\0';  // all that a line which never ran leaves
    if (capture && ::pipe2(pipeFd, O_CLOEXEC) != 0) return -1;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (capture) posix_spawn_file_actions_adddup2(&actions, pipeFd[1], STDOUT_FILENO);

    pid_t pid;  // set by a spawn that succeeds, the only one waited for
    int rc = -1;
    DirectLine line;
    if (directSplit(command, line)) {
        rc = ::posix_spawnp(&pid, line.argv[0], &actions, nullptr, line.argv, environ);
        if (rc == ENOENT || rc == EACCES) {
            posix_spawn_file_actions_destroy(&actions);
            if (capture) {
                ::close(pipeFd[0]);
                ::close(pipeFd[1]);
            }
            return rc == ENOENT ? kStatusNotFound : kStatusNotExecutable;
        }
    }
    if (rc != 0) {
        char sh[] = "/bin/sh";
        char dashC[] = "-c";
        char *argv[] = {sh, dashC, const_cast<char *>(command), nullptr};
        rc = ::posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
    }
    posix_spawn_file_actions_destroy(&actions);

    if (capture) {
        ::close(pipeFd[1]);
        if (rc == 0) {
            const int room = outputLen - 1;  // the terminator's byte kept
            int used = 0;
            while (used != room) {  // each read asks for at most what is left
                ssize_t n = ::read(pipeFd[0], output + used, static_cast<size_t>(room - used));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                used += static_cast<int>(n);
            }
            output[used] = '\0';
            // Drain the rest so the child never blocks on a full pipe.
            char sink[256];
            while (::read(pipeFd[0], sink, sizeof sink) > 0) {
            }
        }
        ::close(pipeFd[0]);
    }
    if (rc != 0) return -1;
    return waitStatus(pid);
}
