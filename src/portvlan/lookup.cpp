// SPDX-License-Identifier: Apache-2.0
// Lookups of ports and VLANs within a switch, and their log prefixes.
#include <cstring>

#include "common/list.h"
#include "common/text.h"
#include "swmgr/portvlan.h"
#include "portvlan/vlan_index.h"

extern "C" {
char swPortStr[SW_STR_LEN];
char swVlanStr[SW_STR_LEN];
}

namespace {
int nameLen(const Switch *sw) { return sw != nullptr ? static_cast<int>(swmgr::fieldLen(sw->switchName)) : 0; }
const char *nameOf(const Switch *sw) { return sw != nullptr ? sw->switchName : ""; }
}  // namespace

extern "C" SwitchPort *switchPortByNumberGet(Switch *sw, int portNumber) {
    if (sw == nullptr) return nullptr;
    for (auto *p : swmgr::listEntries<SwitchPort>(sw->portList))
        if (p->portNumber == portNumber) return p;
    return nullptr;
}

extern "C" SwitchVlan *switchVlanByIdGet(Switch *sw, int vlanId) {
    return swmgr::vlanIndexFind(sw, vlanId);
}

extern "C" SwitchVlan *switchVlanByNameGet(Switch *sw, const char *name) {
    if (sw == nullptr || name == nullptr) return nullptr;
    for (auto *v : swmgr::listEntries<SwitchVlan>(sw->vlanList))
        if (std::strncmp(v->vlanName, name, sizeof v->vlanName) == 0) return v;
    return nullptr;
}

extern "C" char *swPortStrGet(SwitchPort *port) {
    if (port == nullptr) {
        std::memset(swPortStr, 0, sizeof swPortStr);
        return swPortStr;
    }
    swmgr::formatText(swPortStr, "(switch=%.*s) (port:%d) ", nameLen(port->sw), nameOf(port->sw),
                      port->portNumber);
    return swPortStr;
}

extern "C" char *swVlanStrGet(SwitchVlan *vlan) {
    if (vlan == nullptr) {
        std::memset(swVlanStr, 0, sizeof swVlanStr);
        return swVlanStr;
    }
    swmgr::formatText(swVlanStr, "(switch=%.*s) (vlan:%d) ", nameLen(vlan->sw), nameOf(vlan->sw),
                      vlan->vlanId);
    return swVlanStr;
}
