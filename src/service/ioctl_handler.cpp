// SPDX-License-Identifier: Apache-2.0
// The bus command handler: sorts each request by its code.
#include <algorithm>
#include <cstring>

#include "config/checks.h"
#include "swmgr/swconf.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace {

constexpr int kEopnotsupp = -122;  // as the device's Linux numbers it
constexpr uint32_t kUpstreamPort = 1;

int mapResult(int r) { return std::min(r, 0); }

bool handledEvent(uint32_t event) { return event == 22 || event == 25 || event == 26; }

int handleIfDevEvent(const void *data, const void *aux, const int *auxLen) {
    SwIfDevEvent ev;
    std::memcpy(&ev, data, SW_IFDEV_EVENT_LEN);
    char ifName[sizeof ev.ifName + 1] = {};
    std::memcpy(ifName, ev.ifName, sizeof ev.ifName);

    SWMGR_LOG_AS("", SW_LOG_INFO, "swMgrHandleIfDevEvent", "Received interface event=%d on %s\n",
                 static_cast<int>(ev.event), ifName);
    if (!handledEvent(ev.event)) return kEopnotsupp;

    // A bandwidth record too short to hold both words is no record at all.
    if (aux == nullptr || (auxLen != nullptr && *auxLen < SW_IF_BANDWIDTH_LEN)) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrHandleIfDevEvent", "No bandwidth information provided in event\n");
        return -1;
    }
    Switch *top = switchAtTopLevelGet();
    if (top == nullptr || top->switchConfigFunc == nullptr) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrHandleIfDevEvent", "No Switch is yet initialized\n");
        return -1;
    }
    SwIfBandwidth bw;
    std::memcpy(&bw, aux, SW_IF_BANDWIDTH_LEN);
    // Unsigned 32-bit on purpose: the product wraps before the division.
    const uint32_t limit = static_cast<uint32_t>(bw.totalBandwidth * bw.upstreamPercent) / 100u;
    SWMGR_LOG_AS("", SW_LOG_INFO, "swMgrHandleIfDevEvent",
                 "Configure upstream bandwdith limit of %s to %d kbps (%d%% of total bandwidth(%ld))\n",
                 ifName, static_cast<int>(limit), static_cast<int>(bw.upstreamPercent),
                 static_cast<long>(static_cast<int32_t>(bw.totalBandwidth)));

    SwitchRateLimitArg arg{};
    arg.portNumber = kUpstreamPort;
    arg.action = bw.totalBandwidth != 0 ? 1 : 0;
    arg.rate = limit;
    int r = top->switchConfigFunc(top, SW_CMD_PORT_RATE_LIMIT, &arg, SW_RATE_LIMIT_ARG_LEN, nullptr, nullptr);
    if (r < 0) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swMgrHandleIfDevEvent",
                     "Failed to configure rate limiting based on interface bandwidth change \n");
        return r;
    }
    return 0;
}

// A bus command: switch name, then the argument area. Copied into a whole,
// zero-filled record so that a short request is never read past its end.
struct BusCommand {
    char bytes[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = {};
    BusCommand(const void *data, int dataLen) {
        const auto n = static_cast<size_t>(std::max(dataLen, 0));
        if (data != nullptr) std::memcpy(bytes, data, std::min(n, sizeof bytes));
    }
};

}  // namespace

extern "C" int swMgrIoctlHandler(MbusCtx *ctx, const MbusMsgHeader *header, int cmd, void *data,
                                 int dataLen, void *aux, int *auxLen) {
    (void)ctx;
    if (header == nullptr) return -1;
    uint32_t words[5];
    std::memcpy(words, header, sizeof words);
    if (words[4] == 0) {
        SWMGR_LOG("", SW_LOG_ERR, "unexpected reply from %d cmd=%d !\n", static_cast<int>(words[1]), cmd);
        return 0;
    }

    switch (cmd) {
        case SW_CMD_IFDEV_EVENT: {
            if (data == nullptr || dataLen != SW_IFDEV_EVENT_LEN) {
                SWMGR_LOG("", SW_LOG_ERR, "%s: short ifDev event request!\n", "swMgrIoctlHandler");
                return -1;
            }
            int r = handleIfDevEvent(data, aux, auxLen);
            if (r < 0) SWMGR_LOG("", SW_LOG_ERR, "failed to handle interface events\n");
            return r;
        }
        case SW_CMD_DB_EVENT: {
            if (data == nullptr || dataLen != DB_UPDATE_EVENT_LEN) {
                SWMGR_LOG("", SW_LOG_ERR, "Invalid database event\n");
                return -1;
            }
            DbUpdateEvent event;
            std::memcpy(&event, data, sizeof event);
            unsigned oldLen = (aux != nullptr && auxLen != nullptr && *auxLen > 0) ? static_cast<unsigned>(*auxLen) : 0;
            return mapResult(swMgrDBUpdateHandler(&event, DB_UPDATE_EVENT_LEN, static_cast<char *>(aux), oldLen));
        }
        case SW_CMD_VLAN_ADD:
        case SW_CMD_VLAN_DELETE: {
            Switch *top = switchAtTopLevelGet();
            if (top == nullptr) return SW_EINVAL;
            if (data == nullptr) {
                SWMGR_LOG("", SW_LOG_ERR, "%s: empty vlan request!\n", "swMgrIoctlHandler");
                return -1;  // a malformed request, like every other
            }
            BusCommand request(data, dataLen);
            SwitchVlanConf conf;
            std::memcpy(&conf, request.bytes + SW_BUS_NAME_LEN, sizeof conf);
            const int checked = swmgr::vlanConfChecked(
                conf, cmd == SW_CMD_VLAN_ADD ? "VLAN add request" : "VLAN delete request",
                "swMgrIoctlHandler");
            if (checked < 0) return checked;
            return mapResult(switchVlanConfigure(top, cmd, &conf));
        }
        default: {
            if (data == nullptr) return mapResult(switchConfig(nullptr, cmd, aux, auxLen));
            BusCommand request(data, dataLen);
            return mapResult(switchConfig(request.bytes, cmd, aux, auxLen));
        }
    }
}
