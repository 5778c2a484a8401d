/* SPDX-License-Identifier: Apache-2.0 */
// Model of the packet switch engine as its command-line tools see it. While
// attached it takes the tools' command lines from the command seam and the
// register pipelines from the C library's system(), reads each line as the
// device's shell does (shell.h), keeps the engine's tables and registers,
// and passes every line that is not the engine's on.
//
// What the model assumes of the engine's tools (each refusal is status 1,
// changes nothing and is noted in the history):
// - Each tool takes exactly the arguments shown with its handler below;
//   fewer or more, or a value out of range, is a usage error.
// - vlan_table_func edit reads a MAC address only when it is given seven
//   values after "edit"; with six (the shell drops the empty field of a
//   VLAN no port joins) the entry has none. The MAC text's newline ends
//   the shell command, so a line carrying it runs the tool with too few
//   values, and what follows the newline runs as a command of its own
//   (not found, 127).
// - /sysx2.0/bin/memrw <address> w prints "Value: 0x%08x"; given a third
//   argument it writes that value. Both numbers are read as C's strtoul
//   with base 0 reads them (0x hexadecimal, a leading 0 octal, otherwise
//   decimal), the whole word or nothing.
// - The pipelines' grep (a fixed word), cut (-d, -f) and awk (awk.h) act
//   as their usual namesakes; a tool's own usage error there is status 2.
// - system() reports the pipeline's status as a wait status (status << 8).
#ifndef SWMGR_SIM_PSE_ENGINE_H
#define SWMGR_SIM_PSE_ENGINE_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "osa_port.h"
#include "shell.h"

namespace swsim {

class PseEngine {
public:
    // Exit status of a tool given arguments it cannot take.
    static constexpr int kUsageStatus = ToolBox::kUsage;
    static constexpr const char *kMemrwPath = "/sysx2.0/bin/memrw";
    // The registers that pause frames live in (bit 31 of each).
    static constexpr std::array<uint32_t, 3> kPauseRegisters{0x7000000Cu, 0x70000010u,
                                                             0x70000018u};

    struct VlanEntry {
        int index = 0;
        int isWan = 0;
        uint32_t etagMap = 0;
        uint32_t mbMap = 0;
        int vlanId = 0;
        std::string mac;  // lower case, no newline; "" when the line gave none
        int valid = 0;
    };

    struct ArlEntry {
        std::string mac;  // lower case
        int vlanId = 0;
        uint32_t portMap = 0;
        uint32_t flags = 0;
    };

    // value in the unit's granularity: 64, 1024 or 10240 kbps; 0 = no limit.
    struct RateLimit {
        int value = 0;
        int unit = 0;
        int64_t kbps() const;
    };

    struct QueueWeights {
        int mode = 0;
        std::array<int, 4> exponents{};
    };

    using TrustFlags = std::array<int, 5>;

    PseEngine();
    ~PseEngine();
    PseEngine(const PseEngine &) = delete;
    PseEngine &operator=(const PseEngine &) = delete;

    // Hooks in after whatever already watches the seams (attach once the
    // test's capture is in place, so it still records every line). The
    // system() hook in place before attach sees every pipeline too and
    // takes what the engine does not.
    void attach();
    void detach();
    bool attached() const { return attached_; }

    // A taken line equal to `match` (or starting with it when `prefix`)
    // returns `status` and changes nothing; `times` < 0 for every occurrence.
    void failCommand(const std::string &match, int status, bool prefix = false, int times = -1);
    void clearFailures();

    // Runs one line as the hooks would: true when it is the engine's (a
    // tool line or a register pipeline), with the exit status in *status.
    bool run(std::string_view line, int *status);

    // Empties the tables and clears the registers; failures stay.
    void reset();

    // --- state ---------------------------------------------------------
    std::optional<bool> qosEnabled() const { return qos_; }
    std::optional<int> trafficClass() const { return trafficClass_; }
    const std::map<int, VlanEntry> &vlanTable() const { return vlans_; }
    const VlanEntry *vlanEntry(int index) const;
    // In the order the entries were first added.
    const std::vector<ArlEntry> &arlTable() const { return arl_; }
    const std::map<int, RateLimit> &rateLimits() const { return rateLimits_; }
    const RateLimit *rateLimit(int port) const;
    const std::map<int, QueueWeights> &queueWeights() const { return weights_; }
    const std::map<int, TrustFlags> &trustFlags() const { return trust_; }
    const TrustFlags *trust(int port) const;
    uint32_t reg(uint32_t addr) const;
    void setReg(uint32_t addr, uint32_t value);
    const std::map<uint32_t, uint32_t> &registers() const { return regs_; }
    // The most recent lines the engine took (refused and failed ones
    // included), each followed by what its tools refused and what was not
    // found.
    const History &history() const { return history_; }
    void setHistoryLimit(std::size_t n) { history_.setLimit(n); }

    // Readable state, one item a line:
    //   "qos enabled" ("disabled", "unset")
    //   "traffic-class 2" ("unset")
    //   "vlan 1 vid 100 wan 0 etag 0x24 mb 0x24 mac 00:1a:2b:3c:4d:5e valid 1" (mac "-" when empty)
    //   "arl 00:1a:2b:3c:4d:5e vid 100 ports 0x4 flags 0x1"
    //   "rate-limit port 3 value 1 unit 0"
    //   "queue-weight port 1 mode 2 exp 0 1 2 3"
    //   "trust port 3 flags 0 1 0 0 0"
    //   "reg 0x7000000c 0x80000000"
    std::string dump() const;

private:
    struct Failure {
        std::string match;
        bool prefix;
        int status;
        int times;
    };
    using Args = Words;

    void addTools();
    int sppeIoctl(const Args &args);
    int vlanTable(const Args &args);
    int arlTable(const Args &args);
    int rateLimitSet(const Args &args);
    int tcSet(const Args &args);
    int queueWeightSet(const Args &args);
    int priCtlSet(const Args &args);
    int memrw(const Args &args, ToolBox::Io &io);
    int grep(const Args &args, ToolBox::Io &io);
    int cut(const Args &args, ToolBox::Io &io);
    int awk(const Args &args, ToolBox::Io &io);
    bool failureFor(std::string_view line, int *status);

    static int onCommand(void *ctx, const char *command, int *status);
    static int onSystem(void *ctx, const char *command, int *status);

    std::optional<bool> qos_;
    std::optional<int> trafficClass_;
    std::map<int, VlanEntry> vlans_;
    std::vector<ArlEntry> arl_;
    std::map<int, RateLimit> rateLimits_;
    std::map<int, QueueWeights> weights_;
    std::map<int, TrustFlags> trust_;
    std::map<uint32_t, uint32_t> regs_;
    std::vector<Failure> failures_;
    History history_;
    ToolBox tools_{history_};
    bool attached_ = false;
    OsaCmdHook prevSystem_ = nullptr;
    void *prevSystemCtx_ = nullptr;
};

}  // namespace swsim

#endif
