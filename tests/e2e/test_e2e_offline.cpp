// SPDX-License-Identifier: Apache-2.0
// swmgrctl check and plan: the switch manager run offline inside swmgrctl on
// simulated hardware, one broken database per reason and a planned change.
#include <string>
#include <utility>

#include "e2e_util.h"

namespace {

using namespace e2e;
using Offline = e2e::Test;

const std::string kSwitchRow =
    "INSERT INTO swGlobalCfg (switchName, switchDevice, vlanEnable, qosEnable, numPorts, pauseFrameEnable, "
    "igmpSnoopingEnable, mldSnoopingEnable, switchLevel) VALUES ";

TEST_F(Offline, CheckReportsEveryRowTheServiceWouldRefuseCutOrTripOver) {
    // What each database changes, and check's options for it.
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {kSwitchRow + "('XYZ', '', 0, 0, 4, 0, 0, 0, 0)", ""},
        {kSwitchRow + "('BCM', '/dev/b2', 0, 0, 4, 0, 0, 0, 0)", ""},
        {kSwitchRow + "('', '', 0, 0, 4, 0, 0, 0, 0)", ""},
        {"DELETE FROM swGlobalCfg; DELETE FROM swPortConfig; DELETE FROM vlanEncapIf", ""},
        {"UPDATE swGlobalCfg SET switchLevel = 2 WHERE switchName = 'BCM'", ""},
        {"UPDATE swGlobalCfg SET switchLevel = 2 WHERE switchName = 'BCM'", " --strict"},
        // The port is refused on its own; the service then trips over the
        // mapping that names it.
        {"UPDATE swGlobalCfg SET numPorts = 4 WHERE switchName = 'BCM'", ""},
        {"UPDATE swPortConfig SET phyDevice = 'FOO:1' WHERE id = 6", ""},
        {"UPDATE swPortConfig SET phyDevice = 'BCM:7' WHERE id = 6", ""},
        {"UPDATE swPortConfig SET phyDevice = 'BCM:0,PSE:0' WHERE id = 7", ""},
        {"UPDATE swPortConfig SET phyDevice = 'PSE:0' WHERE id = 1", ""},
        {"UPDATE vlanEncapIf SET vlanId = 5000 WHERE id = 2", ""},
        {"INSERT INTO vlanEncapIf (vlanId, interfaceName, fwdMap, untagMap) VALUES (10, 'eth0', '1', '1')", ""},
        {"UPDATE vlanEncapIf SET fwdMap = '4,9' WHERE id = 2", ""},
        {"UPDATE vlanEncapIf SET untagMap = '3,4' WHERE id = 2", ""},
        {"UPDATE vlanEncapIf SET fwdMap = '4,40,70', untagMap = NULL WHERE id = 2", ""},
        {"UPDATE vlanEncapIf SET interfaceName = 'eth0;touch /tmp/x' WHERE id = 2", ""},
        {"UPDATE vlanEncapIf SET interfaceName = 'eth0abcdefghij' WHERE id = 2", ""},
        {"UPDATE swPortConfig SET interfaceName = 'lan1" + std::string(60, 'x') + "' WHERE id = 1", ""},
        {"UPDATE swPortConfig SET PVID = 'abc', queue1Weight = '99999999999' WHERE id = 6", ""},
        {"UPDATE swPortConfig SET PVID = NULL, queue2Weight = 256 WHERE id = 6", ""},
    };
    std::string t;
    int i = 0;
    for (const auto &[sql, flags] : cases) {
        const std::string path = db("case" + std::to_string(i++) + ".db", sql);
        t.append("-- ").append(sql.empty() ? "as shipped" : sql).append("\n").append(run(ctlLine() + "check --db " + quote(path) + flags));
    }
    t += run(ctlLine() + "check --json --db " + quote(db("json.db", cases[12].first)));
    t += run(ctlLine() + "check --db " + quote(dir_ + "/none.db"));
    t += run("TMPDIR=" + quote(dir_ + "/none") + " " + SWMGRCTL_PATH + " check --db " + quote(db("t.db")));
    EXPECT_EQ(t, expected("check.txt"));
}

// A planned change, a database the service would recurse on, and no change.
TEST_F(Offline, PlanFromOldDatabaseShowsOnlyWhatTheChangeDoes) {
    const std::string from = db("old.db");
    const std::string to = db("new.db",
                              "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap, "
                              "fwdMap, untagMap, inSwitchOnly) VALUES (30, 'eth0', 'br-guest', '', '', '0,1', '0', 0);"
                              "DELETE FROM vlanEncapIf WHERE vlanId = 20;"
                              "UPDATE swPortConfig SET phyDevice = 'BCM:0,BCM:1,BCM:2' WHERE id = 7;");
    std::string t = run(ctlLine() + "plan --from " + quote(from) + " --db " + quote(to));
    // The models' own history of handled lines follows; it is theirs to word.
    const size_t cut = t.find("-   pri_ctl_func set 0 0 0 0 1 0\n"), end = t.rfind("[exit ");
    if (cut < end) t.erase(cut, end - cut);
    const std::string loop = db("loop.db", "UPDATE swPortConfig SET phyDevice = 'BCM:0,PSE:0' WHERE id = 7");
    t += run(ctlLine() + "plan --db " + quote(loop));
    t += run(ctlLine() + "plan --from " + quote(from) + " --db " + quote(from));
    EXPECT_EQ(t, expected("plan.txt"));
}

}  // namespace
