// Lookups of ports and VLANs within a switch, and their log prefixes.
#include <cstring>

#include "common/text.h"
#include "portvlan/portvlan.h"

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
    for (auto *p = static_cast<SwitchPort *>(osaListFirst(&sw->portList)); p != nullptr;
         p = static_cast<SwitchPort *>(osaListNext(p))) {
        if (p->portNumber == portNumber) return p;
    }
    return nullptr;
}

extern "C" SwitchVlan *switchVlanByIdGet(Switch *sw, int vlanId) {
    if (sw == nullptr) return nullptr;
    for (auto *v = static_cast<SwitchVlan *>(osaListFirst(&sw->vlanList)); v != nullptr;
         v = static_cast<SwitchVlan *>(osaListNext(v))) {
        if (v->vlanId == vlanId) return v;
    }
    return nullptr;
}

extern "C" SwitchVlan *switchVlanByNameGet(Switch *sw, const char *name) {
    if (sw == nullptr || name == nullptr) return nullptr;
    for (auto *v = static_cast<SwitchVlan *>(osaListFirst(&sw->vlanList)); v != nullptr;
         v = static_cast<SwitchVlan *>(osaListNext(v))) {
        if (std::strncmp(v->vlanName, name, sizeof v->vlanName) == 0) return v;
    }
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
