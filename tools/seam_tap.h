/* SPDX-License-Identifier: Apache-2.0 */
// Watches what the system does to the outside world through the host
// port's seams: every command line, every system() line and every device
// request, each reported once it has run, with its status. The tap hands
// each one on to the hooks and models behind it, so it changes nothing.
#ifndef SWMGR_TOOLS_SEAM_TAP_H
#define SWMGR_TOOLS_SEAM_TAP_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "osa_port.h"

namespace swtool {

// The socket request that reads an interface's hardware address.
constexpr unsigned kSiocgifhwaddr = 0x8927;

struct TapEvent {
    enum Kind { kCommand, kSystem, kIoctl } kind;
    std::string_view line;      // command and system() lines, valid during the call
    unsigned request = 0;       // ioctl
    std::vector<uint8_t> arg;   // ioctl: the argument record as sent
    uintptr_t value = 0;        // ioctl: the integer of requests that carry no record
    int status = 0;             // exit status, system() result or the request's result
};

class SeamTap {
public:
    using Sink = std::function<void(const TapEvent &)>;
    explicit SeamTap(Sink sink) : sink_(std::move(sink)) {}
    ~SeamTap();
    SeamTap(const SeamTap &) = delete;
    SeamTap &operator=(const SeamTap &) = delete;

    // Command lines and device requests: call before any model attaches, so
    // the tap is the first to see them.
    void watchCommands();
    // system() lines: call after the models set their own system() hook;
    // the tap goes in front of it.
    void watchSystem();

private:
    static int onCommand(void *ctx, const char *command, int *status);
    static int onSystem(void *ctx, const char *command, int *status);
    static int onIoctl(void *ctx, int fd, unsigned request, void *arg, int *result);

    Sink sink_;
    bool commands_ = false, system_ = false;
    bool inside_ = false;  // the tap's own re-run of a line passes through it
    OsaCmdHook nextSystem_ = nullptr;
    void *nextSystemCtx_ = nullptr;
};

}  // namespace swtool

#endif
