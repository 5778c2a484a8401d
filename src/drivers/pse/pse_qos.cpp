// SPDX-License-Identifier: Apache-2.0
// QoS on the packet switch engine: the global switch, queue scheduling,
// pause frames, ingress rate limits and trust modes.
#include <climits>
#include <cmath>
#include <cstdlib>

#include "common/list.h"
#include "common/text.h"
#include "drivers/pse/pse.h"
#include "drivers/pse/pse_internal.h"
#include "swmgr/swmgr.h"

namespace {

using swmgr::pse::engineCommandRun;

const char *outcome(int status) { return status == 0 ? "Success" : "Failed"; }

// Weight to the engine's log2 exponent, truncated toward zero. A weight of
// 0 (log gives -inf) becomes the most negative int, as on the target; a
// negative weight (log gives NaN) becomes 0. Any other 32-bit weight gives
// 0 to 31.
int weightExponent(int32_t weight) {
    const double e = std::log(static_cast<double>(weight)) / 0.6931471805599453;
    if (std::isnan(e)) return 0;
    if (std::isinf(e)) return INT_MIN;
    return static_cast<int>(e);
}

// numQueues -> traffic-class setting, schedMode -> mode code; -1: refused.
int trafficClassOf(int numQueues) {
    switch (numQueues) {
        case 1: return 0;
        case 2: return 1;
        case 4: return 2;
        default: return -1;
    }
}

int schedModeCodeOf(int schedMode) {
    switch (schedMode) {
        case 0: return 1;
        case 1: return 0;
        case 3: return 2;
        default: return -1;
    }
}

// Read-modify-write of one bit of a register with the register tool. The
// new value is printed as "%#x" of the high half followed by "%x" of the
// low half, so a low half below 0x1000 loses its leading zeros.
constexpr const char kPauseSetPipeline[] =
    "/sysx2.0/bin/memrw %#x w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val = lshift(1,%d); reg = %#x ;     res = or (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf (\"%%#x%%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";
constexpr const char kPauseClearPipeline[] =
    "/sysx2.0/bin/memrw %#x w |grep Value | cut -d':' -f 2 |     awk '{rl = $1; val1 = lshift(1,%d); val = val1^0xFFFFFFFF ; reg = %#x ;     res = and (rl, val) ; fh = rshift (res, 16);     sh = and (res, 0xFFFF); final_value = sprintf (\"%%#x%%x\", fh, sh);     cmd = \"/sysx2.0/bin/memrw \"reg\" w \"final_value;  system (cmd);}'";

constexpr unsigned kPauseRegisters[] = {0x7000000C, 0x70000010, 0x70000018};
constexpr int kPauseBit = 31;

// trustMode -> the five priority-control flags.
constexpr int kTrustFlags[5][5] = {
    {1, 0, 0, 0, 0},
    {0, 0, 0, 1, 0},
    {0, 0, 1, 0, 0},
    {0, 0, 0, 0, 1},
    {0, 1, 0, 0, 0},
};

struct RateSetting {
    int value;
    int unit;
};

// The engine holds a 7-bit value in one of three granularities.
bool rateSettingOf(int32_t rateKbps, RateSetting *out) {
    if (rateKbps >= 64 && rateKbps <= 8128) {
        *out = {rateKbps / 64, 0};
    } else if (rateKbps < 64 || (rateKbps >= 8129 && rateKbps <= 130048)) {
        *out = {rateKbps / 1024, 1};
    } else if (rateKbps >= 130049 && rateKbps <= 1300480) {
        *out = {rateKbps / 10240, 2};
    } else {
        return false;
    }
    return true;
}

}  // namespace

extern "C" int pseQoSConfigure(Switch *sw, const uint32_t *enable) {
    if (enable == nullptr) return -1;
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Configuring QoS [Status:%d] \n",
              static_cast<int>(*enable));
    const char *line = nullptr;
    if (*enable == 0)
        line = "sppe_ioctl rl disable";
    else if (*enable == 1)
        line = "sppe_ioctl rl enable";
    else
        return -1;
    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "%s", line);
    int status = engineCommandRun(__func__, cmd);
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "QoS configuration (%s) \n", outcome(status));
    return status;
}

extern "C" int pseQueueSchedConfigure(Switch *sw, const SwitchQueueSchedArg *sched) {
    if (sw == nullptr || sched == nullptr) return -1;
    const int tc = trafficClassOf(sched->numQueues);
    if (tc < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Invalid number of queues  (%d)\n", sched->numQueues);
        return -1;
    }
    const int mode = schedModeCodeOf(sched->schedMode);
    if (mode < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Invalid schedule mode  (%d)\n", sched->schedMode);
        return -1;
    }

    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "tc_func set %d", tc);
    int status = engineCommandRun(__func__, cmd);
    if (status != 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to set number of queues in switch\n");
        return status;
    }

    for (auto *port : swmgr::listEntries<SwitchPort>(sw->portList)) {
        if (sched->portNumber != -1 && port->portNumber != sched->portNumber) continue;
        char cmd[PSE_CMD_LEN];
        swmgr::formatText(cmd, "queue_weight_func set %d %d %d %d %d %d", port->portNumber, mode,
                          weightExponent(sched->queue1Weight), weightExponent(sched->queue2Weight),
                          weightExponent(sched->queue3Weight), weightExponent(sched->queue4Weight));
        status = engineCommandRun(__func__, cmd);
        if (status != 0) {
            SWMGR_LOG(swPortStrGet(port), SW_LOG_ERR, "Port Queues weight configuration failed \n");
            return status;
        }
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Switch ports Queue scheduling configuring %s. \n",
              "Success");
    return 0;
}

extern "C" int psePauseFrameConfigure(Switch *sw, const uint32_t *enable) {
    if (sw == nullptr || enable == nullptr) return -1;
    int status = 0;
    for (unsigned reg : kPauseRegisters) {
        char cmd[PSE_CMD_LEN];
        if (*enable == 1)
            swmgr::formatText(cmd, kPauseSetPipeline, reg, kPauseBit, reg);
        else
            swmgr::formatText(cmd, kPauseClearPipeline, reg, kPauseBit, reg);
        // A pipeline with its own awk program: run by the C library, not
        // logged as an engine command.
        status = std::system(cmd);
        if (status < 0) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Pause Frame configuration failed \n");
            return status;
        }
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Pause Frame configuration %s \n", outcome(status));
    return status;
}

extern "C" int pseRateLimitConfigure(Switch *sw, const SwitchRateLimitArg *limit) {
    if (sw == nullptr || limit == nullptr) return -1;
    const int portNumber = static_cast<int>(limit->portNumber);
    if (switchPortByNumberGet(sw, portNumber) == nullptr) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to find port (%d). \n", portNumber);
        return -1;
    }
    RateSetting setting{0, 0};
    const auto rateKbps = static_cast<int32_t>(limit->rate);
    if (limit->action == 1) {
        if (!rateSettingOf(rateKbps, &setting)) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Switch can't configure this rate (%dkbps) \n",
                      rateKbps);
            return -1;
        }
    } else if (limit->action != 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Invalid cmd (%d) to configure rate limiting\n",
                  limit->action);
        return -1;
    }
    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "rate_limit_func set %d %d %d", portNumber, setting.value,
                      setting.unit);
    int status = engineCommandRun(__func__, cmd);
    if (status != 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "rate limit configuration failed \n");
        return status;
    }
    return 0;
}

extern "C" int pseTrustModeConfigure(Switch *sw, const SwitchTrustModeArg *trust) {
    if (trust == nullptr) return -1;
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Configuring TrustMode\n");
    if (trust->trustMode < 0 || trust->trustMode > 4) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Invalid TrustMode value (%d) ", trust->trustMode);
        return -1;
    }
    const int *f = kTrustFlags[trust->trustMode];
    char cmd[PSE_CMD_LEN];
    swmgr::formatText(cmd, "pri_ctl_func set %d %d %d %d %d %d", trust->portNumber, f[0], f[1],
                      f[2], f[3], f[4]);
    int status = engineCommandRun(__func__, cmd);
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "Trust Mode configuration (%s) \n", outcome(status));
    return status;
}
