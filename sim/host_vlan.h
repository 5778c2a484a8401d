/* SPDX-License-Identifier: Apache-2.0 */
// Model of the host's 802.1Q sub-interfaces as vconfig and ifconfig see
// them. While attached it takes those command lines from the command seam,
// keeps the interfaces and their priority maps, and fails the way the tools
// do; optionally it also answers hardware-address requests for its
// interfaces so that MAC lookups are deterministic.
//
// Lines are read as the device's shell reads them (shell.h); a line whose
// first program is vconfig or ifconfig is the model's. Of the tools it
// assumes: vconfig knows add, rem, set_ingress_map and set_egress_map with
// exactly their arguments; ifconfig takes a device and up or down (the
// device alone only shows it). Too few or too many arguments, or another
// operation, is a usage error (status 1, nothing changed); a request the
// tool refuses (no such device, a VLAN device that exists) is status 1 too.
// Each refusal is noted in the history after the line.
#ifndef SWMGR_SIM_HOST_VLAN_H
#define SWMGR_SIM_HOST_VLAN_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "shell.h"

namespace swsim {

class HostVlanModel {
public:
    using Mac = std::array<uint8_t, 6>;

    // Status the tools exit with when they refuse a request.
    static constexpr int kVconfigFailure = 1;
    static constexpr int kIfconfigFailure = 1;
    // Interface names are cut here, as the kernel does.
    static constexpr std::size_t kIfNameMax = 15;
    static constexpr unsigned kHwAddrRequest = 0x8927;

    struct Parent {
        std::string name;
        bool up = true;
    };

    struct SubInterface {
        std::string name;  // "<parent>.<vlanId>", cut at kIfNameMax
        std::string parent;
        int vlanId = 0;
        bool up = false;
        // 802.1p priority of a received frame -> packet priority.
        std::array<uint32_t, 8> ingressMap{};
        // Packet priority -> 802.1p priority of a sent frame; unset entries
        // send priority 0.
        std::map<uint32_t, uint32_t> egressMap;
    };

    explicit HostVlanModel(std::vector<std::string> parents = {"eth0", "eth1"});
    ~HostVlanModel();
    HostVlanModel(const HostVlanModel &) = delete;
    HostVlanModel &operator=(const HostVlanModel &) = delete;

    // Command lines reach the model only while it is attached.
    void attach();
    void detach();
    bool attached() const { return attached_; }

    // Answers SIOCGIFHWADDR for the model's interfaces (ENODEV for others).
    void enableHwAddr();
    void disableHwAddr();

    // Parents get 02:00:00:00:00:<n> by list position (from 1); a
    // sub-interface shares its parent's address, as on Linux. setMac
    // overrides either, also for names that do not exist yet.
    void setMac(const std::string &ifName, const Mac &mac);
    std::optional<Mac> mac(const std::string &ifName) const;

    // A line equal to `match` (or starting with it when `prefix`) returns
    // `status` and changes nothing; `times` < 0 for every occurrence.
    void failCommand(const std::string &match, int status, bool prefix = false, int times = -1);
    void clearFailures();

    void addParent(const std::string &name);
    // Taking a parent down takes its sub-interfaces down with it.
    bool setParentUp(const std::string &name, bool up);
    // Drops every sub-interface; parents stay.
    void reset();

    const std::vector<Parent> &parents() const { return parents_; }
    // Ordered by parent (list order), then VLAN id.
    std::vector<SubInterface> subInterfaces() const;
    const SubInterface *find(const std::string &name) const;
    bool exists(const std::string &name) const;
    // The most recent lines the model took (failed ones included), each
    // followed by what its tools refused and what was not found.
    const History &history() const { return history_; }
    void setHistoryLimit(std::size_t n) { history_.setLimit(n); }

    // One line per interface, each parent followed by its sub-interfaces:
    //   "eth0 up"
    //   "eth0.100 vlan 100 on eth0 up ingress 0:0 ... 7:7 egress 0:0 ... 7:7"
    // ("down" when not up, "egress -" when no egress entry is set).
    std::string dump() const;

    // Runs one command line as the hook would; returns true when the model
    // took it, with the exit status in *status.
    bool run(std::string_view line, int *status);

private:
    struct Failure {
        std::string match;
        bool prefix;
        int status;
        int times;
    };

    int vconfig(const Words &args);
    int ifconfig(const Words &args);
    Parent *findParent(const std::string &name);
    const Parent *findParent(const std::string &name) const;
    int parentIndex(const std::string &name) const;

    static int onCommand(void *ctx, const char *command, int *status);
    static int onIoctl(void *ctx, int fd, unsigned request, void *arg, int *result);

    std::vector<Parent> parents_;
    std::map<std::string, SubInterface> subs_;
    std::map<std::string, Mac> macs_;
    std::vector<Failure> failures_;
    History history_;
    ToolBox tools_{history_};
    bool attached_ = false;
    bool hwAddr_ = false;
};

}  // namespace swsim

#endif
