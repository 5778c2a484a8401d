/* SPDX-License-Identifier: Apache-2.0 */
// The simulated hardware of swmgrd --sim: the switch chip behind its device
// path, the packet engine behind its tools, the host's VLAN interfaces, and
// a file root so nothing is written outside the state directory. Anything
// else the system tries to run is refused and remembered, never executed.
#ifndef SWMGR_TOOLS_SIM_HOST_H
#define SWMGR_TOOLS_SIM_HOST_H

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "bcm_chip.h"
#include "host_vlan.h"
#include "pse_engine.h"

namespace swtool {

class SimHost {
public:
    SimHost() = default;
    ~SimHost();
    SimHost(const SimHost &) = delete;
    SimHost &operator=(const SimHost &) = delete;

    // Reads the chip's device path and the VLANs' parent interfaces from
    // the database, attaches the models and sets the file root. False with
    // the reason in `err` when something cannot be set up.
    bool start(const std::string &dbPath, const std::string &stateDir, std::string &err);
    // Only the switch chip and the file root: command lines run for real,
    // with the PATH the process has (swmgrd --sim-devices-only). text() and
    // json() then have nothing to tell.
    bool startDevicesOnly(const std::string &dbPath, const std::string &stateDir, std::string &err);
    void stop();

    std::string text() const;
    nlohmann::json json() const;

    // Lines each model keeps (also from $SWMGR_SIM_HISTORY at start).
    void setHistoryLimit(size_t n);

    const std::string &device() const { return device_; }
    const std::string &fileRoot() const { return root_; }

private:
    static int refuseCommand(void *ctx, const char *command, int *status);
    static int systemLine(void *ctx, const char *command, int *status);
    void remember(const char *command);

    std::unique_ptr<swsim::BcmChip> chip_;
    std::unique_ptr<swsim::PseEngine> engine_;
    std::unique_ptr<swsim::HostVlanModel> host_;
    std::string device_;
    std::string root_;
    swsim::History refused_;  // the latest lines no model took
    size_t historyLimit_ = swsim::History::kDefaultLimit;
    OsaCmdHook engineSystem_ = nullptr;
    void *engineSystemCtx_ = nullptr;
    bool started_ = false;
    bool devicesOnly_ = false;
};

}  // namespace swtool

#endif
