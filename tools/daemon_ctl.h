/* SPDX-License-Identifier: Apache-2.0 */
// swmgrd's control module: live answers from the switch registry (switches,
// ports, VLANs) and the daemon's counters (requests per command code,
// commands and device requests per driver), for swmgrctl show and stats.
#ifndef SWMGR_TOOLS_DAEMON_CTL_H
#define SWMGR_TOOLS_DAEMON_CTL_H

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "swmgr/platform/mbus.h"
#include "seam_tap.h"

namespace swtool {

class DaemonCtl {
public:
    // Starts counting command lines and device requests; construct before
    // any simulated hardware attaches, so nothing passes uncounted.
    DaemonCtl();
    ~DaemonCtl();
    DaemonCtl(const DaemonCtl &) = delete;
    DaemonCtl &operator=(const DaemonCtl &) = delete;

    // Once the service is up: counts its requests and serves the control
    // module from the service's own loop. False with the reason in `err`.
    bool serve(std::string &err);

    nlohmann::json switches() const;
    nlohmann::json ports() const;
    nlohmann::json vlans() const;
    nlohmann::json stats() const;

private:
    struct Tally {
        uint64_t count = 0, failures = 0;
        std::chrono::nanoseconds time{0};
    };
    struct DriverTally {
        uint64_t commands = 0, commandFailures = 0, ioctls = 0, ioctlFailures = 0;
    };
    void count(const TapEvent &ev);
    static int onServiceRequest(MbusCtx *ctx, const MbusMsgHeader *header, int cmd, void *data, int dataLen,
                                void *aux, int *auxLen);
    static int onCtlRequest(MbusCtx *ctx, const MbusMsgHeader *header, int cmd, void *data, int dataLen, void *aux,
                            int *auxLen);

    SeamTap tap_;
    MbusCtx *ctl_ = nullptr;
    std::map<int, Tally> requests_;
    std::map<std::string, DriverTally> drivers_;
};

}  // namespace swtool

#endif
