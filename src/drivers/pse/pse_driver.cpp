// SPDX-License-Identifier: Apache-2.0
// Attaching the PSE driver to a switch record, its command entry, the
// forwarding of commands to the lower-level switches and the engine's
// command runner.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "common/list.h"
#include "common/names.h"
#include "common/text.h"
#include "drivers/pse/pse.h"
#include "drivers/pse/pse_internal.h"
#include "swmgr/platform/osa.h"
#include "swmgr/swmgr.h"

namespace swmgr::pse {

int engineCommandRun(const char *func, const char (&cmd)[PSE_CMD_LEN]) {
    int status = osaCmdExec(cmd, nullptr, 0);
    SWMGR_LOG_AS("", SW_LOG_ERR, func, "cmd (%s) returned (%d).\n", cmd, status);
    return status;
}

}  // namespace swmgr::pse

namespace {

constexpr unsigned kSiocGifHwAddr = 0x8927;
constexpr int kHwAddrFamilyPreset = 2;
constexpr int kAnyLength = -1;

static_assert(kSiocGifHwAddr == SIOCGIFHWADDR);

bool isPse(const Switch *sw) {
    return sw != nullptr && std::strncmp(sw->switchName, "PSE", sizeof sw->switchName) == 0;
}

const char *nameOf(const Switch *sw) { return sw != nullptr ? sw->switchName : ""; }

using Handler = int (*)(Switch *sw, void *arg);

struct CommandEntry {
    int cmd;
    const char *info;
    int exactLen;  // kAnyLength: no exact size is required
    int minLen;    // bytes the handler reads from the record
    Handler handler;
};

// The codes with a handler; every other code is forwarded or ignored.
constexpr CommandEntry kCommands[] = {
    {SW_CMD_VLAN_MEMBERSHIP_APPLY, "Processing vlan membership configure request (%d)\n",
     SW_VLAN_REC_LEN, SW_VLAN_REC_LEN,
     [](Switch *sw, void *arg) { return pseVlanMembershipSet(sw, static_cast<SwitchVlan *>(arg)); }},
    {SW_CMD_QOS_CONFIG, "Processing QoS Configuration request (%d)\n", kAnyLength, SW_U32_ARG_LEN,
     [](Switch *sw, void *arg) { return pseQoSConfigure(sw, static_cast<const uint32_t *>(arg)); }},
    {SW_CMD_QUEUE_SCHED, "Processing queue scheduling request (%d)\n", kAnyLength,
     SW_QUEUE_SCHED_ARG_LEN,
     [](Switch *sw, void *arg) {
         return pseQueueSchedConfigure(sw, static_cast<const SwitchQueueSchedArg *>(arg));
     }},
    {SW_CMD_PAUSE_FRAMES, "Processing  pause frames configure request (%d)\n", kAnyLength,
     SW_U32_ARG_LEN,
     [](Switch *sw, void *arg) { return psePauseFrameConfigure(sw, static_cast<const uint32_t *>(arg)); }},
    {SW_CMD_PORT_RATE_LIMIT, "Processing  switch port rate limiting request (%d)\n", kAnyLength,
     SW_RATE_LIMIT_ARG_LEN,
     [](Switch *sw, void *arg) {
         return pseRateLimitConfigure(sw, static_cast<const SwitchRateLimitArg *>(arg));
     }},
    {SW_CMD_PORT_TRUST_MODE, "Processing  switch port trust mode configuration request (%d)\n",
     SW_TRUST_MODE_ARG_LEN, SW_TRUST_MODE_ARG_LEN,
     [](Switch *sw, void *arg) {
         return pseTrustModeConfigure(sw, static_cast<const SwitchTrustModeArg *>(arg));
     }},
};

const CommandEntry *commandFor(int cmd) {
    for (const auto &e : kCommands)
        if (e.cmd == cmd) return &e;
    return nullptr;
}

// One rate-limit record per lower-level port that the PSE port stands for,
// renumbered for the lower switch.
int rateLimitTransfer(Switch *sw, Switch *lower, const SwitchRateLimitArg *limit, void *reply,
                      int *replyLen) {
    SwitchPort *port = switchPortByNumberGet(sw, static_cast<int>(limit->portNumber));
    if (port == nullptr) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "pseConfTransfer", "Failed to find port (%d).\n",
                     static_cast<int>(limit->portNumber));
        return -1;
    }
    int status = -1;
    for (auto *m : swmgr::listEntries<SwitchPortMapEntry>(port->mappedPorts)) {
        if (m->port == nullptr) continue;
        SwitchRateLimitArg rec;
        std::memset(&rec, 0, sizeof rec);
        rec.portNumber = static_cast<uint32_t>(m->port->portNumber);
        rec.action = limit->action;
        rec.rate = limit->rate;
        status = lower->switchConfigFunc(lower, SW_CMD_PORT_RATE_LIMIT, &rec, SW_RATE_LIMIT_ARG_LEN,
                                         reply, replyLen);
        if (status < 0) {
            SWMGR_LOG_AS("", SW_LOG_ERR, "pseConfTransfer",
                         "Failed to process cmd (%d) in lower switch %s\n", SW_CMD_PORT_RATE_LIMIT,
                         nameOf(lower));
            return status;
        }
    }
    return status;
}

}  // namespace

extern "C" int pseSwitchRegister(Switch *sw) {
    if (!isPse(sw)) return SW_EINVAL;
    // The engine is driven by its tools: nothing to open at attach time.
    sw->switchConfigFunc = pseSwitchConfig;
    sw->driverPriv = pseConfTransfer;
    return 0;
}

extern "C" int pseSwitchUnRegister(Switch *sw) {
    if (!isPse(sw)) return SW_EINVAL;
    sw->switchConfigFunc = nullptr;
    sw->driverPriv = nullptr;
    return 0;
}

extern "C" int pseSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                               int *replyLen) {
    if (sw == nullptr) return SW_EINVAL;
    const CommandEntry *entry = commandFor(cmd);
    if (entry == nullptr) {
        if (sw->lowerLvlForward) return pseLowerSwitchConfig(sw, cmd, arg, argLen, reply, replyLen);
        SWMGR_LOG("", SW_LOG_INFO, "handler not defined for command (%d)\n", cmd);
        return 0;
    }

    SWMGR_LOG("", SW_LOG_INFO, entry->info, cmd);
    if (entry->exactLen != kAnyLength && argLen != entry->exactLen) return SW_EINVAL;
    // A record shorter than what the handler reads cannot be taken either.
    if (arg != nullptr && argLen < entry->minLen) return SW_EINVAL;

    int status = entry->handler(sw, arg);
    // Forwarding decides the result: the lower switches are the ones that
    // carry the traffic, so their outcome is what the caller sees.
    if (sw->lowerLvlForward) return pseLowerSwitchConfig(sw, cmd, arg, argLen, reply, replyLen);
    SWMGR_LOG("", SW_LOG_INFO, "handler not defined for command (%d)\n", cmd);
    return status;
}

extern "C" int pseLowerSwitchConfig(Switch *sw, int cmd, void *arg, int argLen, void *reply,
                                    int *replyLen) {
    if (sw == nullptr) return SW_EINVAL;
    SWMGR_LOG("", SW_LOG_INFO, "Sending command=(%d) to lower switches\n", cmd);
    int status = -1;
    for (auto *ref : swmgr::listEntries<SwitchLowerRef>(sw->lowerLvlSwitchList)) {
        if (sw->driverPriv == nullptr) continue;
        status = sw->driverPriv(sw, ref->sw, cmd, arg, argLen, reply, replyLen);
        if (status < 0) return status;
    }
    SWMGR_LOG("", SW_LOG_INFO, "Lower switches processed command=(%d). Result=%s\n", cmd,
              status == 0 ? "Success" : "Failed");
    return 0;
}

extern "C" int pseConfTransfer(Switch *sw, Switch *lower, int cmd, void *arg, int argLen,
                               void *reply, int *replyLen) {
    if (lower == nullptr || lower->switchConfigFunc == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to process cmd (%d) in lower switch %s\n", cmd,
                  nameOf(lower));
        return -1;
    }
    if (cmd == SW_CMD_PORT_RATE_LIMIT) {
        if (sw == nullptr || arg == nullptr || argLen < SW_RATE_LIMIT_ARG_LEN) return -1;
        return rateLimitTransfer(sw, lower, static_cast<const SwitchRateLimitArg *>(arg), reply,
                                 replyLen);
    }
    int status = lower->switchConfigFunc(lower, cmd, arg, argLen, reply, replyLen);
    if (status < 0)
        SWMGR_LOG("", SW_LOG_ERR, "Failed to process cmd (%d) in lower switch %s\n", cmd,
                  nameOf(lower));
    return status;
}

extern "C" int switchMacAddressByIfNameGet(const char *ifName, char *out) {
    if (out == nullptr) return SW_EINVAL;
    // The kernel is asked only about names that could be interfaces.
    const swmgr::NameVerdict v = swmgr::checkName(ifName, IFNAMSIZ);
    if (!v.ok()) {
        char why[128];
        SWMGR_LOG("", SW_LOG_ERR, "Interface name refused for the MAC address lookup: %s\n",
                  swmgr::nameFaultText(why, v));
        return SW_EINVAL;
    }
    // Cleared first, so a failed request yields 00:00:00:00:00:00 rather
    // than stack garbage; the result is still not examined.
    struct ifreq req;
    std::memset(&req, 0, sizeof req);
    swmgr::copyText(req.ifr_name, ifName);
    req.ifr_hwaddr.sa_family = kHwAddrFamilyPreset;

    int sock = ::socket(AF_INET, SOCK_DGRAM, 0);
    osaIoctl(sock, kSiocGifHwAddr, &req);
    osaClose(sock);  // without a socket, closing -1 does nothing

    const auto *hw = reinterpret_cast<const unsigned char *>(req.ifr_hwaddr.sa_data);
    std::snprintf(out, PSE_MAC_TEXT_LEN, "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n", hw[0], hw[1], hw[2],
                  hw[3], hw[4], hw[5]);
    return 0;
}
