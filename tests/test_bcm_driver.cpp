// SPDX-License-Identifier: Apache-2.0
// The BCM driver on the chip model: binding, its command entry, VLAN and QoS
// programming and the read-only operations.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>

#include "bcm_chip.h"
#include "data_lines.h"
#include "drivers/bcm/bcm.h"

namespace {
using swtest::Bytes;
using Lines = std::vector<std::string>;
const char *const kData = "bcm/expected.txt";

// A BCM switch bound to the driver, with the chip model behind its device.
class BcmTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        ASSERT_TRUE(chip.attach(root->file("bcm-switch")));
        sw = swtest::addSwitch("BCM", 1);
        std::snprintf(sw->switchDevice, sizeof sw->switchDevice, "%s", root->file("bcm-switch").c_str());
        ASSERT_EQ(0, bcmSwitchRegister(sw));
    }
    void TearDown() override {
        if (fd > 0) osaClose(std::exchange(fd, 0));
        chip.detach();
        SwmgrTest::TearDown();
    }
    void addPort(int number, int pvid = 1) {
        auto *p = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
        *p = SwitchPort{{}, static_cast<uint32_t>(number + 100), number, sw, pvid, 0, 0, {}, 0, 0, {}, {}};
        osaListNodeAppend(&sw->portList, p);
    }
    SwitchVlan *addVlan(int id, uint32_t fwd, uint32_t untag, const char *ifName = "eth0") {
        auto *v = static_cast<SwitchVlan *>(std::calloc(1, sizeof(SwitchVlan)));
        *v = SwitchVlan{{}, id, 0, {}, {}, {}, {}, {}, fwd, untag, 0, sw};
        std::snprintf(v->interfaceName, sizeof v->interfaceName, "%s", ifName);
        osaListNodeAppend(&sw->vlanList, v);
        return v;
    }
    int config(int cmd, void *arg, int len) { return bcmSwitchConfig(sw, cmd, arg, len, nullptr, nullptr); }
    // The requests sent (those with code `only`, if given), each as its code
    // and argument bytes in hex.
    Lines requests(unsigned only = 0) const {
        Lines out;
        for (const auto &c : cap->ioctls) {
            if (only != 0 && c.code != only) continue;
            std::ostringstream line;
            line << std::hex << std::setfill('0') << std::setw(8) << c.code;
            for (uint8_t b : c.arg) line << ' ' << std::setw(2) << int(b);
            out.push_back(line.str());
        }
        return out;
    }
    template <typename F>
    std::string printed(F fn) {  // what fn printed on standard output
        testing::internal::CaptureStdout();
        fn();
        return testing::internal::GetCapturedStdout();
    }
    swsim::BcmChip chip;
    Switch *sw = nullptr;
};
SWTEST_BOTH_FORMS(BcmForms, BcmTest);

constexpr unsigned kQos = 0xc0045320u, kPause = 0xc0045321u, kRate = 0xc0075322u, kTrust = 0xc006531eu,
                   kSched = 0xc008531fu, kCos = 0xc0055323u, kClear = 0x80055310u, kEntry = 0x80075312u,
                   kTagSet = 0x80065307u, kNon8021q = 0x80065311u, kPairAdd = 0x80045304u, kPairDelete = 0x80045305u;

TEST_P(BcmForms, CommandEntryChecksExactSizesReadOnlyQueriesAndBindingKeepsDescriptors) {
    Bytes arg(2000, 0);
    for (const swtest::Row &s : swtest::dataRows(kData, "served")) {
        const int cmd = std::stoi(s.at(0)), size = std::stoi(s.at(1));
        for (int len : {size - 1, size + 1}) {
            cap->clear();
            EXPECT_EQ(SW_EINVAL, config(cmd, arg.data(), len));
            const std::string bad = "(switch=BCM) (" + s[0] + ") processing returned -22 \n";
            EXPECT_TRUE(cap->logsAre({{64, "bcmSwitchConfig", s.at(2)}, {8, "bcmSwitchConfig", bad}})) << len;
            EXPECT_TRUE(cap->ioctls.empty());
        }
    }
    cap->clear();
    EXPECT_EQ(std::make_pair(-1, -22), std::make_pair(bcmVlanEnable(2), config(33, nullptr, SW_VLAN_ENABLE_ARG_LEN)));
    EXPECT_EQ(0, bcmVlanEnable(0));
    EXPECT_EQ(requests(), Lines{"20005302"});

    // The read-only queries and dumps.
    chip.port(2).link = 1;
    // Port 9 is not on the chip and leaves the answer alone; a link that is down is an answer too.
    uint32_t status = 7;
    for (auto [port, result, link] : {std::tuple{2, 0, 1u}, {9, -1, 1u}, {3, 0, 0u}}) {
        EXPECT_EQ(result, bcmLinkStatusGet(port, &status));
        EXPECT_EQ(link, status) << port;
    }

    for (size_t i = 0; i < chip.port(3).counters.size(); ++i) chip.port(3).counters[i] = uint8_t(i + 1);
    uint8_t buf[BCM_PORT_STATS_LEN + 1] = {};
    EXPECT_EQ(0, bcmPortStatsGet(3, buf + 1));  // needs no alignment
    EXPECT_EQ(Bytes({3, 0}), Bytes(buf + 1, buf + 3));
    EXPECT_EQ(0, std::memcmp(buf + 3, chip.port(3).counters.data(), 48));
    chip.failRequest(0xc0325314u, -5);
    EXPECT_EQ(-1, bcmPortStatsGet(0x103, buf));
    EXPECT_EQ(Bytes({3, 1}), Bytes(buf, buf + 2)) << "the port goes out in 16 bits";

    // The dumps print question marks for failed queries; the VLAN dump fails
    // whatever the chip answers.
    const Lines dumps = swtest::dataLines(kData, "dumps");
    chip.port(2).tag = {4000, 3, 1};
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }), dumps.at(0));
    chip.failRequest(0xc0065306u, -5, 4);  // ports 0 to 3
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }), dumps.at(1));
    chip.failRequest(0xc0065306u, -5);
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmTagsShow()); }), dumps.at(2));
    chip.state().vlans[10] = {0x13, 0x01};
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }), dumps.at(3));
    chip.failRequest(0x8005530bu, -5, 1);
    chip.failRequest(0x80055308u, 2, 2);  // answers other than 0 and 1
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }), dumps.at(4));
    EXPECT_EQ(-1, bcmIsPortInVlanFwdMap(0, 5000));  // a refused query is no answer
    chip.failRequest(kClear, 2, 1);
    EXPECT_EQ(0, bcmVlanMembershipClear(10)) << "whatever the chip answers but a failure";

    // Descriptor 0 is never closed; a device that cannot be opened leaves
    // the driver bound, so commands arrive and fail on the bad descriptor.
    EXPECT_EQ(std::make_tuple(bcmSwitchUnRegister(nullptr), bcmCPUPortNumberGet(nullptr),
                              bcmVlanMembershipUpdate(sw, nullptr), bcmPortStatsGet(3, nullptr)),
              std::make_tuple(int{SW_EINVAL}, 0, int{SW_EINVAL}, -1));
    const int opened = std::exchange(fd, 0);
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(nullptr, sw->switchConfigFunc);
    EXPECT_EQ(0, chip.closes());
    fd = opened;
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(1, chip.closes());
    std::snprintf(sw->switchDevice, sizeof sw->switchDevice, "/nonexistent/bcm0");
    EXPECT_EQ(SW_EINVAL, bcmSwitchRegister(sw));
    EXPECT_EQ(1, cap->countLog("(switch=BCM) Failed to open the device /nonexistent/bcm0 \n"));
    EXPECT_LT(fd, 0);
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
}

TEST_P(BcmForms, QosRecordsAndTheirResults) {
    uint32_t on = 1;
    SwitchRateLimitArg rate{3, 1, {0xee, 0xee, 0xee}, 100000};
    SwitchTrustModeArg trust{2, 0x01020304};
    EXPECT_EQ(0, bcmQoSConfigure(sw, &on));
    EXPECT_EQ(0, bcmPauseFrameConfigure(sw, &on));
    EXPECT_EQ(0, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));  // no such mode: the bytes still show the layout
    EXPECT_EQ(requests(), swtest::dataLines(kData, "qos-requests"));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "qos")));

    cap->clear(), trust.trustMode = 4;
    EXPECT_EQ(0, bcmTrustModeConfigure(sw, &trust));
    rate.portNumber = trust.portNumber = 9;  // the chip refuses
    EXPECT_EQ(-22, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));
    // A positive status is passed up, but reported as a failure.
    for (auto [code, status, f] : {std::tuple{kPause, -5, &bcmPauseFrameConfigure}, {kQos, 3, &bcmQoSConfigure},
                                   {kQos, -5, &bcmQoSConfigure}, {kPause, 3, &bcmPauseFrameConfigure}}) {
        chip.failRequest(code, status, 1);
        EXPECT_EQ(status, f(sw, &on));
    }
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "qos-failures")));
    for (auto f : {bcmQoSConfigure, bcmPauseFrameConfigure, bcmRateLimitConfigure, bcmTrustModeConfigure,
                   bcmQueueSchedConfigure, bcmCosQueueMapConfigure})
        EXPECT_EQ(std::make_pair(-1, -1), std::make_pair(f(nullptr, &on), f(sw, nullptr)));
    EXPECT_EQ((std::vector<int>{bcmSwitchPortConfigure(nullptr, nullptr), bcmPortVlanConfig(nullptr, nullptr),
                                bcmPortVlanDeConfig(nullptr, nullptr), bcmVlanMembershipSet(nullptr, nullptr)}),
              std::vector<int>(4, SW_EINVAL));

    // Queue scheduling and CoS maps walk the matching ports.
    for (int n : {2, 0, 1}) addPort(n);
    SwitchQueueSchedArg arg{1, 9, 2, 1, 2, 3, 0x104};  // queue count not sent; weights are bytes
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    arg.portNumber = -1;
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(requests(kSched), swtest::dataLines(kData, "sched-requests"));
    cap->clear(), arg.portNumber = 7;  // no such port
    EXPECT_EQ(-1, bcmQueueSchedConfigure(sw, &arg));
    arg.portNumber = -1, chip.failRequest(kSched, -5, 1);
    EXPECT_EQ(-5, bcmQueueSchedConfigure(sw, &arg));

    BcmCosQueueMapArg cos{1, 0x105, 99, 2};
    EXPECT_EQ(0, bcmCosQueueMapConfigure(sw, &cos));
    EXPECT_EQ(requests(kCos), Lines{"c0055323 01 00 05 00 02"});
    EXPECT_EQ(-1, (cos.portNumber = 7, bcmCosQueueMapConfigure(sw, &cos))) << "no such port";
    cos.portNumber = -1;
    chip.failRequest(kCos, -5);
    EXPECT_EQ(-5, bcmCosQueueMapConfigure(sw, &cos));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "sched-failures")));
}

TEST_P(BcmForms, PortConfigWidensOnceVlansExistEntriesGetTheCpuPortOnlyWithMembersAndPortBasedVlansAddIt) {
    for (int n = 0; n < 5; ++n) addPort(n, n == 2 ? 7 : 1);
    SwitchPort *p2 = switchPortByNumberGet(sw, 2);
    // Without VLANs only the given port is written.
    EXPECT_EQ(0, config(41, p2, SW_PORT_REC_LEN));
    EXPECT_EQ(requests(), (Lines{"80065307 02 00 07 00 00 00", "80065311 02 00 01 00 00 00"}));

    addVlan(10, 0x03, 0x01, "eth0");
    addVlan(11, 0x00, 0x00, "eth0");
    addVlan(12, 0x02, 0x00, "eth0")->inSwitchOnly = 1;  // port 0 in place of the CPU port
    addVlan(13, 0x04, 0x00, "eth1");                    // no CPU port outside the LAN zone
    addVlan(14, 0x08, 0x00, "eth0.100");                // nor for a sub-interface

    chip.failRequest(kClear, -5, 1);
    EXPECT_EQ(-5, bcmVlanMembershipClear(10));
    // The whole list: a failed clear does not stop the write, a failed write stops the walk.
    chip.failRequest(kClear, -5, 1);
    EXPECT_EQ(0, config(35, nullptr, SW_VLAN_REC_LEN));
    EXPECT_EQ(0, bcmVlanMembershipConfigure(15, 0x02, 0x00, 32));  // a CPU port past the map adds no bit
    EXPECT_EQ(chip.state().vlans, (std::map<uint16_t, swsim::BcmChip::VlanEntry>{{10, {0x13, 0x01}}, {11, {0, 0}},
                                      {12, {0x03, 0}}, {13, {0x05, 0}}, {14, {0x09, 0}}, {15, {0x02, 0}}}));
    chip.state().vlans.clear(), cap->clear();
    chip.failRequest(kEntry, -5, 1);
    EXPECT_EQ(-5, config(35, nullptr, SW_VLAN_REC_LEN));
    EXPECT_TRUE(chip.state().vlans.empty());
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "entry-refused")));

    // Once a VLAN exists, one port's record writes every port from the first:
    // a refused write ends the walk on that port, with its line.
    for (auto [code, what] : {std::pair{kTagSet, "PVID"}, {kNon8021q, "Non-8021q Frame status"}}) {
        EXPECT_EQ(-5, (chip.failRequest(code, -5, 1), config(41, p2, SW_PORT_REC_LEN)));
        EXPECT_EQ(1, cap->countLog("(switch=BCM) (port:0) Failed to set " + std::string(what) + " for port 0\n"));
    }

    // Port-based VLANs: each member's forward map gets the other members and the CPU port.
    cap->clear();
    SwitchVlan *v = addVlan(30, 0x09, 0x00);
    EXPECT_EQ(0, bcmPortVlanConfig(nullptr, v));
    for (int n = 0; n < 5; ++n) EXPECT_EQ(n == 0 || n == 3 ? 0x19 : 0x1f, chip.port(n).fwdMap) << n;
    EXPECT_EQ(requests(kPairAdd), swtest::dataLines(kData, "pair-adds"));
    EXPECT_EQ(0x11, (bcmPortVlanConfig(nullptr, addVlan(31, 0x10, 0x00)), chip.port(4).fwdMap)) << "port 0 added for 4";
    cap->clear(), chip.port(0).fwdMap = 0x1b;  // a member from outside the VLAN is kept, not added again
    EXPECT_EQ(0, bcmPortVlanDeConfig(nullptr, v));
    EXPECT_EQ(requests(), swtest::dataLines(kData, "deconfig"));
    EXPECT_EQ(0, bcmIGMPSnoopSet(sw) + bcmMLDSnoopSet(sw));  // no request, only their lines
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "deconfig-logs")));
    cap->clear(), chip.failRequest(kPairDelete, -5, 1);  // a refused delete ends the walk
    EXPECT_EQ(std::make_pair(-5, 0), std::make_pair(bcmPortVlanDeConfig(nullptr, v), bcmSwitchPortPVIDSet(2, 10)));
    EXPECT_TRUE(cap->logsAre({{64, "bcmPortVlanDeConfig", "De-configuring Port VLAN #0: [PMAP:19 FWD 9]\n"},
                              {8, "bcmPortVlanDeConfig", "ERROR#-5 de-configuring Port VLAN #0: [FWD 19]\n"}}));

    // The CPU port's default port-based VLAN touches member 0 only.
    cap->clear(), chip.port(4).fwdMap = 0x1e;
    EXPECT_EQ(0, bcmDefPortVlanConfig(4));
    EXPECT_EQ(0x1f, chip.port(4).fwdMap);
    EXPECT_EQ(requests(), (Lines{"80045303 04 00 00 00", "80045304 04 00 00 00"}));
    chip.port(4).fwdMap = 0x1e;
    chip.failRequest(kPairAdd, -5, 1);  // a refused add ends the default configuration
    EXPECT_EQ(-5, bcmDefPortVlanConfig(4));
    EXPECT_EQ(1, cap->countLog("ERROR#-5 adding Port 0 in forward map of port:4\n"));
    chip.failRequest(kPairDelete, -5, 1), cap->clear();  // a reset logs and carries on
    EXPECT_EQ(0, bcmPortVlanReset(3));
    EXPECT_EQ(0x01, chip.port(3).fwdMap);
    EXPECT_TRUE(cap->logsAre({{64, "bcmPortVlanReset", "Resetting port VLAN for #3\n"},
                              {8, "bcmPortVlanReset", "ERROR#-5 deleting Port 0 in forward map of port:3\n"}}));
}

}  // namespace

// The driver's walks see the VLAN list as the VLAN layer left it: a record
// moved by an update counts from its new place, a deleted one is gone.
TEST_P(BcmForms, PvidsFollowTheListAsUpdatesAndDeletesLeaveIt) {
    for (int n = 0; n < 3; ++n) addPort(n);
    std::vector<SwitchVlan *> v;
    for (auto [id, untag] : {std::pair{10, 0x01u}, {20, 0x02u}, {30, 0x05u}}) {  // 30 takes port 0 from 10
        SwitchVlan proto{{}, id, 0, {}, {}, {}, {}, {}, 0x07, untag, 0, sw};
        ASSERT_EQ(0, switchVlanCreate(sw, &proto));
        v.push_back(switchVlanByIdGet(sw, id));
    }
    ASSERT_EQ(0, switchVlanUpdate(v[1], v[1]));    // 20 is listed last now
    v[0]->untagMap = v[1]->untagMap = 0x06;        // port 2 untagged in all three: the last listed wins
    EXPECT_EQ(0, (cap->clear(), config(41, nullptr, SW_PORT_REC_LEN)));
    std::vector<int> walked;  // the developer form traces each VLAN of the walk
    for (const auto &l : cap->logs)
        if (size_t at = l.text.find("After vlan iteration ("); at != std::string::npos) walked.push_back(std::stoi(l.text.substr(at + 22)));
    EXPECT_EQ(walked, swMgrDevDebug ? (std::vector<int>{10, 30, 20}) : std::vector<int>{});
    auto pvids = [this] { return std::vector<int>{chip.port(0).tag.vid, chip.port(1).tag.vid, chip.port(2).tag.vid}; };
    EXPECT_EQ(pvids(), (std::vector<int>{30, 20, 20}));
    ASSERT_EQ(0, switchVlanDelete(v[1]));
    EXPECT_EQ(pvids(), (std::vector<int>{30, 10, 30}));
}
