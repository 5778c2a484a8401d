// SPDX-License-Identifier: Apache-2.0
// Switch ports: creation from a port row, the mapping of an upper-level port
// onto lower-level ports, and the per-port commands.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/list.h"
#include "common/number.h"
#include "common/text.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"
#include "switch/command.h"

namespace {

uint32_t portSeqNo = 0;

// Why the last switchPortCreate gave no port: a refused mapping is -22,
// anything else the generic failure.
int createStatus;  // set by switchPortCreate before it can give no port

constexpr std::size_t kMapNameLen = 64;
constexpr std::size_t kMapNumberLen = 32;

void mappedPortsFree(SwitchPort *port) {
    for (auto *m : swmgr::listEntriesSafe<SwitchPortMapEntry>(port->mappedPorts)) std::free(m);
    osaListInit(&port->mappedPorts);
}

template <std::size_t N>
void copyView(char (&dst)[N], std::string_view src) {
    swmgr::formatText(dst, "%.*s", static_cast<int>(src.size()), src.data());
}

// The text before / after position `at`, as find gave it (in range, or npos
// for none): substr would check again and bring in the C++ run-time's throw.
std::string_view before(std::string_view s, std::size_t at) { return {s.data(), std::min(at, s.size())}; }
std::string_view after(std::string_view s, std::size_t at) {
    if (at == std::string_view::npos) return {};
    s.remove_prefix(at + 1);
    return s;
}

// One "switch:port" entry of a mapping list.
int portMapEntryAdd(SwitchPort *port, std::string_view entry) {
    const std::size_t colon = entry.find(':');
    if (colon == std::string_view::npos) return -1;
    char name[kMapNameLen];
    char number[kMapNumberLen];
    copyView(name, before(entry, colon));
    copyView(number, after(entry, colon));
    const std::optional<int64_t> parsed = swmgr::parseLeadingInt(number, 0, swmgr::kPortMax);
    if (!parsed) {
        SWMGR_LOG_AS(swPortStrGet(port), SW_LOG_ERR, "switchPortMapInit",
                     "Port number %.16s of %s is out of range\n", number, name);
        return SW_EINVAL;
    }
    const int portNumber = static_cast<int>(*parsed);

    Switch *lowerSw = switchByNameGet(name);
    if (lowerSw == nullptr) {
        SWMGR_LOG_AS(swPortStrGet(port), SW_LOG_ERR, "switchPortMapInit",
                     "Failed to get the switch entry for %s \n", name);
        return -1;
    }
    SwitchPort *lower = switchPortByNumberGet(lowerSw, portNumber);
    if (lower == nullptr) {
        SWMGR_LOG_AS(swPortStrGet(port), SW_LOG_ERR, "switchPortMapInit",
                     "Failed to get the switch port for %d in %s \n", portNumber, name);
        return -1;
    }
    return switchPortMappedListAppend(port, lower);
}

}  // namespace

extern "C" SwitchPort *switchPortCreate(SwitchPortConf *conf) {
    createStatus = -1;
    if (conf == nullptr) return nullptr;
    char swName[sizeof conf->switchName + 1];
    swmgr::copyText(swName, conf->switchName);
    SWMGR_LOG("", SW_LOG_TRACE, "Creating %d port in %s \n", conf->portNumber, swName);

    Switch *sw = switchByNameGet(swName);
    if (sw == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "%s switch is not yet created \n", swName);
        return nullptr;
    }
    if (switchPortByNumberGet(sw, conf->portNumber) != nullptr) {
        // The listed port stays as it is.
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR,
                  "There is a switch port created already for this name\n");
        return nullptr;
    }

    auto *port = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
    if (port == nullptr) return nullptr;
    port->sw = sw;
    port->portNumber = conf->portNumber;
    port->PVID = conf->PVID;
    port->portType = conf->portType;
    port->trustMode = conf->trustMode;
    port->mirroring = conf->mirroring;
    swmgr::copyText(port->interfaceName, conf->interfaceName);
    port->qos = conf->qos;

    // Parsed from a copy: the row's text stays as the caller gave it.
    char phyDevice[sizeof conf->phyDevice + 1];
    swmgr::copyText(phyDevice, conf->phyDevice);
    const int mapped = switchPortMapInit(port, phyDevice);
    if (mapped < 0) {
        createStatus = mapped == SW_EINVAL ? SW_EINVAL : -1;
        SWMGR_LOG(swPortStrGet(port), SW_LOG_ERR, "Failed to initiate port mappings \n");
        mappedPortsFree(port);
        std::free(port);
        return nullptr;
    }
    return port;
}

extern "C" int switchPortConfAdd(SwitchPortConf *conf) {
    SwitchPort *port = switchPortCreate(conf);
    if (port == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to create switch port configuration \n");
        return createStatus;
    }
    port->seqNo = ++portSeqNo;
    osaListNodeAppend(&port->sw->portList, port);

    int r = switchPortCfgApply(port->sw, port);
    if (r < 0) {
        SWMGR_LOG(swPortStrGet(port), SW_LOG_ERR, "Failed to apply switch port configuration \n");
        return r;
    }
    SWMGR_LOG(swPortStrGet(port), SW_LOG_INFO, "Added switch port configuration.\n");
    return 0;
}

extern "C" int switchPortMapInit(SwitchPort *port, char *text) {
    if (port == nullptr) return -1;
    // A list given again replaces the one the port had.
    mappedPortsFree(port);
    if (text == nullptr) return 0;

    std::string_view rest(text);
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        const std::string_view entry = before(rest, comma);
        rest = after(rest, comma);
        if (entry.empty()) continue;
        const int r = portMapEntryAdd(port, entry);
        if (r < 0) {
            SWMGR_LOG(swPortStrGet(port), SW_LOG_ERR,
                      "Failed to update port mapping for port%d in %s \n", port->portNumber,
                      port->sw != nullptr ? port->sw->switchName : "");
            return r;
        }
    }
    return 0;
}

extern "C" int switchPortMappedListAppend(SwitchPort *port, SwitchPort *lower) {
    if (port == nullptr || lower == nullptr) return -1;
    SWMGR_LOG(swPortStrGet(port), SW_LOG_TRACE, "Mapping %s:%d to %s:%d \n",
              lower->sw != nullptr ? lower->sw->switchName : "", lower->portNumber,
              port->sw != nullptr ? port->sw->switchName : "", port->portNumber);
    // A mapping that would close a loop of switches is not recorded at all.
    const int r = switchLowerLvlSwitchListAppend(port->sw, lower->sw);
    if (r < 0) return r;
    auto *entry = static_cast<SwitchPortMapEntry *>(std::calloc(1, sizeof(SwitchPortMapEntry)));
    if (entry == nullptr) return SW_ENOMEM;
    entry->port = lower;
    osaListNodeAppend(&port->mappedPorts, entry);
    return r;
}

extern "C" int switchPortTrustModeConfigure(SwitchPort *port) {
    if (port == nullptr) return SW_EINVAL;
    SwitchTrustModeArg arg{port->portNumber, port->trustMode};
    int r = swmgr::switchCommandSend(port->sw, SW_CMD_PORT_TRUST_MODE, &arg, SW_TRUST_MODE_ARG_LEN);
    if (r < 0)
        SWMGR_LOG(swPortStrGet(port), SW_LOG_ERR, "Failed to configure trustmode on port%d in %s\n",
                  port->portNumber, port->sw != nullptr ? port->sw->switchName : "");
    return r;
}

extern "C" int switchPortCfgApply(Switch *sw, SwitchPort *port) {
    if (sw == nullptr) return SW_EINVAL;
    for (auto *p : swmgr::listEntries<SwitchPort>(sw->portList)) {
        if (port != nullptr && p != port) continue;
        int r = switchPortTrustModeConfigure(p);
        if (r < 0) {
            SWMGR_LOG(swPortStrGet(p), SW_LOG_ERR, "Failed to configure trust mode of port (%d)",
                      p->portNumber);
            return r;
        }
    }
    return 0;
}

extern "C" int switchPortVlanInfoConfigure(Switch *sw, SwitchPort *port) {
    if (sw == nullptr) return SW_EINVAL;
    // A null port stands for all of the switch's ports.
    int r = swmgr::switchCommandSend(sw, SW_CMD_PORT_CONFIG_SET, port, SW_PORT_REC_LEN);
    if (r < 0)
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR, "Failed to configure port%d in %s\n",
                  port != nullptr ? port->portNumber : -1, sw->switchName);
    return r;
}

// Ports are never removed while the manager runs: this lookup finds the
// port only to report it and hands nothing back.
extern "C" SwitchPort *switchPortByNumberAndSwitchNameGet(const char *switchName, int portNumber) {
    Switch *sw = switchByNameGet(switchName);
    if (sw == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "%s switch is not yet created \n",
                  switchName != nullptr ? switchName : "");
        return nullptr;
    }
    if (switchPortByNumberGet(sw, portNumber) != nullptr)
        SWMGR_LOG(switchStrGet(sw), SW_LOG_ERR,
                  "There is a switch port created already for this name\n");
    return nullptr;
}

extern "C" int switchPortDeinit(SwitchPortConf *conf) {
    char swName[sizeof conf->switchName + 1] = {};
    if (conf != nullptr) swmgr::copyText(swName, conf->switchName);
    SwitchPort *port =
        switchPortByNumberAndSwitchNameGet(swName, conf != nullptr ? conf->portNumber : 0);
    if (port == nullptr) {
        SWMGR_LOG("", SW_LOG_ERR, "Failed to find switch profile for %s \n", swName);
        return SW_EINVAL;
    }
    int r = switchPortDestroy(port);
    if (r < 0)
        SWMGR_LOG(swPortStrGet(port), SW_LOG_ERR, "Failed to destroy the port %d in switch %s \n",
                  port->portNumber, swName);
    return r;
}

extern "C" int switchPortDestroy(SwitchPort *port) {
    (void)port;
    return 0;
}
