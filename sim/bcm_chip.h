/* SPDX-License-Identifier: Apache-2.0 */
// A model of the five-port BCM switch chip behind the kernel's switch
// device. Attached to a device path, it answers the driver's ioctl requests
// by decoding their argument bytes at the kernel's offsets (independently of
// the driver's own record declarations), so a wrong layout shows up as
// wrong chip state; a field outside its definition, or a value the driver
// never sends, is refused with -EINVAL as the kernel driver refuses it and
// noted in the history.
#ifndef SWMGR_SIM_BCM_CHIP_H
#define SWMGR_SIM_BCM_CHIP_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "shell.h"

namespace swsim {

class BcmChip {
public:
    static constexpr int kPorts = 5;
    static constexpr uint16_t kAllPorts = 0x1f;
    static constexpr int kStatsLen = 50;  // port number (2 bytes) + counters
    static constexpr int kCounterLen = kStatsLen - 2;

    // Results the chip gives for requests it refuses.
    static constexpr int kEinval = -22;
    static constexpr int kEfault = -14;
    static constexpr int kEnotty = -25;

    struct VlanEntry {
        uint16_t fwdMap = 0;
        uint16_t untagMap = 0;
        bool operator==(const VlanEntry &) const = default;
    };
    struct Tag {
        uint16_t vid = 1;
        uint8_t pri = 0;
        uint8_t cfi = 0;
        bool operator==(const Tag &) const = default;
    };
    struct QueueSched {
        uint8_t mode = 0;
        std::array<uint8_t, 4> weight{};
        bool operator==(const QueueSched &) const = default;
    };
    struct RateLimit {
        uint8_t action = 0;
        uint32_t kbps = 0;
        bool operator==(const RateLimit &) const = default;
    };
    struct Port {
        Tag tag;                                // default 802.1Q tag
        uint16_t fwdMap = kAllPorts;            // port-based VLAN: egress ports
        uint32_t non8021q = 0;                  // handling of untagged frames
        QueueSched sched;
        RateLimit rate;
        uint32_t trustMode = 0;
        std::map<uint8_t, uint8_t> cosQueue;    // CoS -> queue
        int32_t link = 0;                       // answered to link-status requests
        std::array<uint8_t, kCounterLen> counters{};  // answered to statistics requests
    };
    // Everything the chip holds; plain data, so it is easy to walk or print.
    struct State {
        bool vlanEnabled = false;
        std::map<uint16_t, VlanEntry> vlans;  // the VLAN table, by VLAN id
        std::array<Port, kPorts> ports{};
        uint32_t qosEnable = 0;
        uint32_t pauseFrames = 0;
    };

    BcmChip() = default;
    ~BcmChip();
    BcmChip(const BcmChip &) = delete;
    BcmChip &operator=(const BcmChip &) = delete;

    // Serves osaOpen/osaIoctl/osaClose on `path` (detached on destruction).
    bool attach(const std::string &path);
    void detach();

    // Answers one request as the kernel driver would.
    int handle(unsigned code, void *arg);

    // The next `times` requests with this code (all when < 0) fail with
    // `result` before they change anything.
    void failRequest(unsigned code, int result, int times = -1);
    void clearFailures() { failures_.clear(); }

    State &state() { return state_; }
    const State &state() const { return state_; }
    Port &port(int n) { return state_.ports.at(static_cast<size_t>(n)); }
    const Port &port(int n) const { return state_.ports.at(static_cast<size_t>(n)); }
    std::optional<VlanEntry> vlan(uint16_t id) const;

    // Requests answered (failed ones included), per code and in all.
    int requests(unsigned code) const;
    int requests() const { return total_; }
    int closes() const { return closes_; }
    // Checks an open's flags and mode as the kernel driver would see them.
    int open(int flags, int mode);

    // The most recent refusals, oldest first.
    const History &history() const { return history_; }
    void setHistoryLimit(std::size_t n) { history_.setLimit(n); }

    // Readable dump of the whole state.
    std::string describe() const;

private:
    struct Failure {
        int result;
        int times;
    };
    int serve(unsigned code, uint8_t *a, uintptr_t value, const char **why);

    State state_;
    std::map<unsigned, Failure> failures_;
    std::map<unsigned, int> counts_;
    int total_ = 0;
    int closes_ = 0;
    History history_;
    std::string path_;
};

}  // namespace swsim

#endif
