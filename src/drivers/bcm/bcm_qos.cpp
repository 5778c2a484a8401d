// SPDX-License-Identifier: Apache-2.0
// QoS programming of the BCM chip: QoS and pause frames for the whole chip,
// queue scheduling, rate limits, trust modes and CoS maps per port.
#include <cstring>

#include "drivers/bcm/bcm.h"
#include "drivers/bcm/bcm_ioctl.h"
#include "swmgr/swmgr.h"

namespace {
using namespace swmgr::bcm;

// The argument records are arrays of 32-bit words in host order; they may
// come from a bus request, so they are read without assuming alignment.
uint32_t word(const void *arg, std::size_t offset) {
    uint32_t v;
    std::memcpy(&v, static_cast<const uint8_t *>(arg) + offset, sizeof v);
    return v;
}

const char *outcome(int r) { return r == 0 ? "Success" : "Failed"; }

bool portMatches(int32_t requested, const SwitchPort *p) {
    return requested == -1 || requested == p->portNumber;
}

int chipValue(unsigned code, uint32_t value) {
    U32Rec rec{};
    putLe32(rec.value, value);
    return request(code, rec);
}
}  // namespace

extern "C" int bcmQoSConfigure(Switch *sw, void *arg) {
    if (sw == nullptr || arg == nullptr) return -1;
    const uint32_t enable = word(arg, 0);
    SWMGR_LOG(switchStrGet(sw), SW_LOG_INFO, "QoS Enable status %d\n", static_cast<int>(enable));
    int r = chipValue(kIocQosEnable, enable);
    if (r < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "configuring QoS in switch failed (%d).\n", r);
        return r;
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "QoS Enable configuration (%s).\n", outcome(r));
    return r;
}

extern "C" int bcmPauseFrameConfigure(Switch *sw, void *arg) {
    if (sw == nullptr || arg == nullptr) return -1;
    int r = chipValue(kIocPauseFrames, word(arg, 0));
    if (r < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "configuring  pause frames failed.\n");
        return r;
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Pause Frame configuration (%s) \n", outcome(r));
    return r;
}

extern "C" int bcmRateLimitConfigure(Switch *sw, void *arg) {
    if (sw == nullptr || arg == nullptr) return -1;
    const uint32_t port = word(arg, 0);
    const uint32_t rate = word(arg, 8);
    RateRec rec{};
    putLe16(rec.port, port);
    rec.action = static_cast<uint8_t>(word(arg, 4));
    putLe32(rec.rate, rate);
    int r = request(kIocRateLimit, rec);
    if (r < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "failed to configure rate limit rule on %d \n",
                  static_cast<int>(port));
        return r;
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Rate Limit(%d kbps) port(%d) returned (%s) \n",
              static_cast<int>(rate), static_cast<int>(port), outcome(r));
    return r;
}

extern "C" int bcmTrustModeConfigure(Switch *sw, void *arg) {
    if (sw == nullptr || arg == nullptr) return -1;
    const uint32_t port = word(arg, 0);
    PortValueRec rec{};
    putLe16(rec.port, port);
    putLe32(rec.value, word(arg, 4));
    int r = request(kIocTrustMode, rec);
    if (r < 0) {
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "failed to configure trust mode for %d \n",
                  static_cast<int>(port));
        return r;
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Trust mode Configuration returning status (%s) \n",
              outcome(r));
    return r;
}

extern "C" int bcmQueueSchedConfigure(Switch *sw, void *arg) {
    if (sw == nullptr || arg == nullptr) return -1;
    const auto requested = static_cast<int32_t>(word(arg, 0));
    int result = -1;
    for (auto *p : listEntries<SwitchPort>(sw->portList)) {
        if (!portMatches(requested, p)) continue;
        QueueSchedRec rec{};
        putLe16(rec.port, static_cast<uint32_t>(p->portNumber));
        rec.schedMode = static_cast<uint8_t>(word(arg, 8));
        std::size_t q = 0;  // the weights follow the port number, queue count and mode
        for (auto &w : rec.weight) w = static_cast<uint8_t>(word(arg, 12 + 4 * q++));
        result = request(kIocQueueSched, rec);
        if (result < 0) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "configuring Scheduling on port%d failed.\n",
                      requested);
            return result;
        }
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Queue Schedule configuration (%s) \n",
              outcome(result));
    return result;
}

extern "C" int bcmCosQueueMapConfigure(Switch *sw, void *arg) {
    if (sw == nullptr || arg == nullptr) return -1;
    const auto requested = static_cast<int32_t>(word(arg, 0));
    int result = -1;
    for (auto *p : listEntries<SwitchPort>(sw->portList)) {
        if (!portMatches(requested, p)) continue;
        CosMapRec rec{};
        putLe16(rec.port, static_cast<uint32_t>(p->portNumber));
        rec.cos = static_cast<uint8_t>(word(arg, 4));
        rec.queue = static_cast<uint8_t>(word(arg, 12));
        result = request(kIocCosQueueMap, rec);
        if (result < 0) {
            SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "failed to configure cos queue mapping for %d \n",
                      p->portNumber);
            return result;
        }
    }
    SWMGR_LOG(switchStrGet(sw), SW_LOG_RESULT, "Trust mode Configuration (%s) \n", outcome(result));
    return result;
}
