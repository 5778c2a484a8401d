// SPDX-License-Identifier: Apache-2.0
// swmgrctl check and plan: the switch manager run offline inside swmgrctl on
// simulated hardware, one broken database per reason and a planned change.
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

using namespace e2e;
using Offline = e2e::Test;

const std::string kSwitchRow =
    "INSERT INTO swGlobalCfg (switchName, switchDevice, vlanEnable, qosEnable, numPorts, pauseFrameEnable, "
    "igmpSnoopingEnable, mldSnoopingEnable, switchLevel) VALUES ";

// check's last line: how many findings of each severity.
std::string summary(const std::string &findings) {
    std::string out;
    for (const std::string what : {"error", "warning"}) {
        int n = 0;
        for (size_t at = 0; (at = findings.find(": " + what + ": ", at)) != std::string::npos; ++at) ++n;
        out += (out.empty() ? "" : ", ") + std::to_string(n) + " " + what + (n == 1 ? "" : "s");
    }
    return out + "\n";
}

TEST_F(Offline, CheckReportsEveryRowTheServiceWouldRefuseCutOrTripOver) {
    const struct {
        std::string sql, flags, findings;
        int status;
    } cases[] = {
        {"", "", "", 0},
        {kSwitchRow + "('XYZ', '', 0, 0, 4, 0, 0, 0, 0)", "",
         "swGlobalCfg row 3 switchName: error: no driver for switch \"XYZ\" (BCM or PSE)\n", 1},
        {kSwitchRow + "('BCM', '/dev/b2', 0, 0, 4, 0, 0, 0, 0)", "",
         "swGlobalCfg row 3 switchName: error: switch BCM is already row 2\n", 1},
        {kSwitchRow + "('', '', 0, 0, 4, 0, 0, 0, 0)", "", "swGlobalCfg row 3 switchName: error: empty switch name\n", 1},
        {"DELETE FROM swGlobalCfg; DELETE FROM swPortConfig; DELETE FROM vlanEncapIf", "",
         "swGlobalCfg: error: no switch: the service has no top-level switch\n", 1},
        {"UPDATE swGlobalCfg SET switchLevel = 2 WHERE switchName = 'BCM'", "",
         "swGlobalCfg row 2 switchLevel: warning: shares the top level 2 with row 1, which the service takes as the "
         "top-level switch\n", 0},
        {"UPDATE swGlobalCfg SET switchLevel = 2 WHERE switchName = 'BCM'", "--strict",
         "swGlobalCfg row 2 switchLevel: warning: shares the top level 2 with row 1, which the service takes as the "
         "top-level switch\n", 1},
        // The port is refused on its own; the service then trips over the
        // mapping that names it.
        {"UPDATE swGlobalCfg SET numPorts = 4 WHERE switchName = 'BCM'", "",
         "swPortConfig row 5 portNumber: error: port 4 is beyond BCM's 4 ports\n"
         "swPortConfig row 7: error: the service refuses it (-1): (switch=PSE) (port:1) Failed to get the switch port "
         "for 4 in BCM; start-up stops loading here (no later row of this table or the next ones)\n", 1},
        {"UPDATE swPortConfig SET phyDevice = 'FOO:1' WHERE id = 6", "",
         "swPortConfig row 6 phyDevice: error: \"FOO:1\" names switch \"FOO\", which is not in swGlobalCfg\n", 1},
        {"UPDATE swPortConfig SET phyDevice = 'BCM:7' WHERE id = 6", "",
         "swPortConfig row 6 phyDevice: error: \"BCM:7\" names a port that has no row in swPortConfig\n", 1},
        {"UPDATE swPortConfig SET phyDevice = 'BCM:0,PSE:0' WHERE id = 7", "",
         "swPortConfig row 7 phyDevice: error: makes PSE a lower-level switch of itself (PSE -> PSE)\n", 1},
        {"UPDATE swPortConfig SET phyDevice = 'PSE:0' WHERE id = 1", "",
         "swPortConfig row 1 phyDevice: error: \"PSE:0\" is loaded after this port (row 6), so the service cannot map "
         "it yet\n"
         "swPortConfig row 1 phyDevice: error: makes BCM a lower-level switch of itself (BCM -> PSE -> BCM)\n"
         "swPortConfig row 7 phyDevice: error: makes PSE a lower-level switch of itself (PSE -> BCM -> PSE)\n", 1},
        {"UPDATE vlanEncapIf SET vlanId = 5000 WHERE id = 2", "",
         "vlanEncapIf row 2 vlanId: error: 5000 is outside 1..4094\n", 1},
        {"INSERT INTO vlanEncapIf (vlanId, interfaceName, fwdMap, untagMap) VALUES (10, 'eth0', '1', '1')", "",
         "vlanEncapIf row 3 vlanId: error: VLAN 10 is already row 1\n", 1},
        {"UPDATE vlanEncapIf SET fwdMap = '4,9' WHERE id = 2", "",
         "vlanEncapIf row 2 fwdMap: error: port 9 exists on no switch\n", 1},
        {"UPDATE vlanEncapIf SET untagMap = '3,4' WHERE id = 2", "",
         "vlanEncapIf row 2 untagMap: error: port 3 is untagged but not in fwdMap\n", 1},
        {"UPDATE vlanEncapIf SET fwdMap = '4,40,70', untagMap = NULL WHERE id = 2", "",
         "vlanEncapIf row 2 fwdMap: warning: port 40 is ignored: the map holds ports 0 to 31\n"
         "vlanEncapIf row 2 fwdMap: error: port 70 is taken as port 6\n"
         "vlanEncapIf row 2 untagMap: warning: NULL: the service takes the untagged ports from what is left of "
         "fwdMap\n", 1},
        {"UPDATE vlanEncapIf SET interfaceName = 'eth0;touch /tmp/x' WHERE id = 2", "",
         "vlanEncapIf row 2 interfaceName: error: refused: interface name has ';'\n", 1},
        {"UPDATE vlanEncapIf SET interfaceName = 'eth0abcdefghij' WHERE id = 2", "",
         "vlanEncapIf row 2 interfaceName: warning: the kernel cuts the sub-interface \"eth0abcdefghij.20\" to "
         "\"eth0abcdefghij.\"\n", 0},
        {"UPDATE swPortConfig SET interfaceName = 'lan1" + std::string(60, 'x') + "' WHERE id = 1", "",
         "swPortConfig row 1 interfaceName: warning: cut to 63 characters: \"lan1" + std::string(59, 'x') + "\"\n", 0},
        {"UPDATE swPortConfig SET PVID = 'abc', queue1Weight = '99999999999' WHERE id = 6", "",
         "swPortConfig row 6 PVID: error: \"abc\" is not a number; the service reads 0, outside 1..4094\n"
         "swPortConfig row 6 queue1Weight: error: \"99999999999\" is out of range for a 32-bit number\n", 1},
        {"UPDATE swPortConfig SET PVID = NULL, queue2Weight = 256 WHERE id = 6", "",
         "swPortConfig row 6 PVID: error: empty; the service reads 0, outside 1..4094\n"
         "swPortConfig row 6 queue2Weight: error: 256 is outside 0..255\n", 1},
    };
    int i = 0;
    for (const auto &c : cases) {
        const std::string path = db("case" + std::to_string(i++) + ".db", c.sql);
        Proc r = ctl("check --db " + quote(path) + " " + c.flags);
        EXPECT_EQ(r.out, c.findings + path + ": " +
                             (c.findings.empty() ? "clean (2 switches, 7 ports, 2 VLANs)\n" : summary(c.findings)))
            << c.sql;
        EXPECT_EQ(r.status, c.status) << c.sql;
    }
    EXPECT_EQ(ctl("check --json --db " + quote(db("json.db", cases[12].sql))).out,
              "{\n  \"database\": \"" + dir_ + "/json.db\",\n  \"errors\": 1,\n  \"findings\": [\n    {\n"
              "      \"column\": \"vlanId\",\n      \"reason\": \"5000 is outside 1..4094\",\n"
              "      \"row\": 2,\n      \"severity\": \"error\",\n      \"table\": \"vlanEncapIf\"\n    }\n"
              "  ],\n  \"warnings\": 0\n}\n");
    EXPECT_EQ(ctl("check --db " + quote(dir_ + "/none.db")).status, 1);
    Proc noTmp = sh("TMPDIR=" + quote(dir_ + "/none") + " " + SWMGRCTL_PATH + " check --db " + quote(db("t.db")));
    EXPECT_EQ(noTmp.out, "swmgrctl: cannot create a temporary directory: No such file or directory\n");
    EXPECT_EQ(noTmp.status, 1);
}

// The five chip ports' default tags as a VLAN's programming writes them.
std::string portTags(const std::vector<int> &vids, const std::vector<int> &untaggedNone) {
    std::string out;
    for (size_t p = 0; p < vids.size(); ++p)
        out += "  ioctl tag-set port=" + std::to_string(p) + " vid=" + std::to_string(vids[p]) +
               " pri=0 cfi=0\n  ioctl non8021q-state port=" + std::to_string(p) +
               " state=" + std::to_string(untaggedNone[p]) + "\n";
    return out;
}

std::string priorityMaps(const std::string &subIf) {
    std::string out;
    for (int p = 0; p < 8; ++p)
        for (const std::string dir : {"ingress", "egress"})
            out += "  run: /sbin/vconfig set_" + dir + "_map " + subIf + " " + std::to_string(p) + " " +
                   std::to_string(p) + "\n";
    return out;
}

TEST_F(Offline, PlanFromOldDatabaseShowsOnlyWhatTheChangeDoes) {
    const std::string from = db("old.db");
    const std::string to = db("new.db",
                              "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap, "
                              "fwdMap, untagMap, inSwitchOnly) VALUES (30, 'eth0', 'br-guest', '', '', '0,1', '0', 0);"
                              "DELETE FROM vlanEncapIf WHERE vlanId = 20;"
                              "UPDATE swPortConfig SET phyDevice = 'BCM:0,BCM:1,BCM:2' WHERE id = 7;");
    Proc r = ctl("plan --from " + quote(from) + " --db " + quote(to));
    // The models' own history of handled lines follows; it is theirs to word.
    r.out = r.out.substr(0, r.out.find("-   pri_ctl_func set 0 0 0 0 1 0\n"));
    const std::string disable20 =
        "  run: vlan_table_func edit 5 0 0x0 0x0 20  1\n  run: arl_table_func del  20  [status 1]\n";
    const std::string clear20 = "  ioctl vlan-clear vlanId=20\n  ioctl vlan-entry-add vlanId=20 fwdMap=0x0 untagMap=0x0\n";
    // Port changes are not followed while the service runs: refused, nothing done.
    EXPECT_EQ(r.out,
              "== swPortConfig row 7 update: result -1 (failed)\n"
              "== vlanEncapIf row 2 delete: result 0 (ok)\n"
              "  error logged: (switch=PSE) (vlan:20) Disabling Vlan20 in PSE\n" +
                  disable20 + portTags({10, 10, 10, 10, 20}, {0, 0, 0, 0, 0}) + disable20 + clear20 +
                  "  error logged: (switch=BCM) (vlan:20) Disabling Vlan20 in BCM\n" + clear20 +
                  portTags({10, 10, 10, 10, 20}, {0, 0, 0, 0, 1}) + clear20 +
                  "  run: vconfig rem eth0.20\n"
                  "  remove /var/VLAN.20.Uptime\n"
                  "== vlanEncapIf row 3 insert: result 0 (ok)\n"
                  "  ioctl get-hw-address interface=eth0\n"
                  "  run: vlan_table_func edit 6 0 0x6 0x6 30 02:00:00:00:00:01\\n 1  [status 127]\n"
                  "  run: arl_table_func add 02:00:00:00:00:01\\n 30 0x4 0x1  [status 127]\n" +
                  portTags({30, 10, 10, 10, 20}, {0, 0, 0, 0, 1}) +
                  "  ioctl vlan-clear vlanId=30\n"
                  "  ioctl vlan-entry-add vlanId=30 fwdMap=0x13 untagMap=0x1\n"
                  "  run: vconfig rem eth0.30  [status 1]\n"
                  "  run: vconfig add eth0 30\n"
                  "  run: ifconfig eth0.30 up\n"
                  "  write /var/VLAN.30.Uptime: 0\n" +
                  priorityMaps("eth0.30") +
                  "== hardware state difference\n"
                  "- vlan table: 2 entries\n"
                  "+ vlan table: 3 entries\n"
                  "-   vlan 20: fwd 0x10 untag 0x10\n"
                  "- port 0: tag vid 10 pri 0 cfi 0, fwd 0x1f, non8021q 0, trust 0, link 0\n"
                  "+   vlan 20: fwd 0x00 untag 0x00\n"
                  "+   vlan 30: fwd 0x13 untag 0x01\n"
                  "+ port 0: tag vid 30 pri 0 cfi 0, fwd 0x1f, non8021q 0, trust 0, link 0\n"
                  "- port 4: tag vid 20 pri 0 cfi 0, fwd 0x1f, non8021q 0, trust 0, link 0\n"
                  "+ port 4: tag vid 20 pri 0 cfi 0, fwd 0x1f, non8021q 1, trust 0, link 0\n"
                  "- eth0.20 vlan 20 on eth0 up ingress 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7 egress 0:0 1:1 2:2 3:3 4:4 "
                  "5:5 6:6 7:7\n"
                  "+ eth0.30 vlan 30 on eth0 up ingress 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7 egress 0:0 1:1 2:2 3:3 4:4 "
                  "5:5 6:6 7:7\n");
    EXPECT_EQ(r.status, 1) << "a refused change fails the plan";
    const std::string loop = db("loop.db", "UPDATE swPortConfig SET phyDevice = 'BCM:0,PSE:0' WHERE id = 7");
    Proc refused = ctl("plan --db " + quote(loop));
    EXPECT_EQ(refused.out, "swmgrctl: " + loop + ": swPortConfig row 7 makes PSE a lower-level switch of itself "
                           "(PSE -> PSE); the service would recurse without end (see swmgrctl check)\n");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(ctl("plan --from " + quote(from) + " --db " + quote(from)).out,
              "no row differs between " + from + " and " + from + "\n== hardware state difference\n");
}

}  // namespace
