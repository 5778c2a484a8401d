// SPDX-License-Identifier: Apache-2.0
// Host 802.1Q sub-interfaces: one "<parent>.<vlan>" interface per VLAN,
// made with vconfig/ifconfig, with identity priority maps and an uptime
// stamp file.
#include "common/names.h"
#include "common/text.h"
#include "swmgr/platform/osa.h"
#include "swmgr/portvlan.h"
#include "swmgr/swmgr.h"

namespace {
constexpr int kCmdLen = 512;
constexpr int kSubIfLen = 64;
constexpr int kUptimePathLen = 64;
constexpr int kPriorities = 8;

// Every run is logged whatever its status: the sub-interface tools are the
// only trace of what the host was asked to do.
int runLogged(const char *cmd, const char *fname) {
    int status = osaCmdExec(cmd, nullptr, 0);
    SWMGR_LOG_AS("", SW_LOG_ERR, fname, "cmd (%s) returned (%d).\n", cmd, status);
    return status;
}

void uptimePath(char (&path)[kUptimePathLen], int vlanId) {
    swmgr::formatText(path, "/var/VLAN.%d.Uptime", vlanId);
}

// The name goes into shell command lines: whatever the caller checked, a
// name outside the rule never gets that far.
bool unusableName(const char *ifName, int vlanId, const char *fname) {
    if (ifName == nullptr) {
        SWMGR_LOG_AS("", SW_LOG_ERR, fname, "No parent interface for VLAN %d\n", vlanId);
        return true;
    }
    const swmgr::NameVerdict v = swmgr::checkName(ifName, kCmdLen);
    if (v.ok()) return false;
    char why[128];
    SWMGR_LOG_AS("", SW_LOG_ERR, fname, "Parent interface of VLAN %d refused: %s\n", vlanId,
                 swmgr::nameFaultText(why, v));
    return true;
}

int ingressCoSMapConfig(const char *subIf, int from, int to) {
    char cmd[kCmdLen];
    swmgr::formatText(cmd, "/sbin/vconfig set_ingress_map %s %d %d", subIf, from, to);
    return runLogged(cmd, "switchVlanEncapIngressCoSMapConfig");
}

int egressCoSMapConfig(const char *subIf, int from, int to) {
    char cmd[kCmdLen];
    swmgr::formatText(cmd, "/sbin/vconfig set_egress_map %s %d %d", subIf, from, to);
    return runLogged(cmd, "switchVlanEncapEgressCoSMapConfig");
}
}  // namespace

extern "C" int switchVlanEncapDestroy(char *ifName, int vlanId) {
    if (unusableName(ifName, vlanId, "switchVlanEncapDestroy")) return SW_EINVAL;
    char cmd[kCmdLen];
    swmgr::formatText(cmd, "vconfig rem %s.%d", ifName, vlanId);
    int status = runLogged(cmd, "switchVlanEncapDestroy");

    // The stamp goes with the interface, whether or not the tool found it.
    char path[kUptimePathLen];
    uptimePath(path, vlanId);
    osaUnlink(path);
    return status;
}

extern "C" int switchVlanEncapCreate(char *ifName, int vlanId) {
    if (unusableName(ifName, vlanId, "switchVlanEncapCreate")) return SW_EINVAL;

    // A sub-interface left by an earlier run would make the add fail.
    switchVlanEncapDestroy(ifName, vlanId);

    char cmd[kCmdLen];
    swmgr::formatText(cmd, "vconfig add %s %d", ifName, vlanId);
    int status = runLogged(cmd, "switchVlanEncapCreate");
    if (status != 0) return status;

    swmgr::formatText(cmd, "ifconfig %s.%d up", ifName, vlanId);
    runLogged(cmd, "switchVlanEncapCreate");

    char path[kUptimePathLen];
    uptimePath(path, vlanId);
    timeEventRecord(path);

    char subIf[kSubIfLen];
    swmgr::formatText(subIf, "%s.%d", ifName, vlanId);

    // Identity maps of the eight 802.1p priorities in both directions; the
    // tool reports each, and only the final egress run decides the result.
    for (int p = 0; p < kPriorities; ++p) {
        ingressCoSMapConfig(subIf, p, p);
        status = egressCoSMapConfig(subIf, p, p);
    }
    if (status < 0)
        SWMGR_LOG("", SW_LOG_ERR, "Failed to update QoS Mapping for VLAN %s\n", subIf);
    return status;
}
