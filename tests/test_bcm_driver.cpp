// SPDX-License-Identifier: Apache-2.0
// The BCM driver on the chip model: binding, its command entry, VLAN and QoS
// programming, the read-only operations, and the model's own refusals.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "bcm_chip.h"
#include "data_lines.h"
#include "drivers/bcm/bcm.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {
using swtest::Bytes;
using Requests = std::vector<std::pair<unsigned, Bytes>>;
using Entry = swsim::BcmChip::VlanEntry;
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
        if (fd > 0) osaClose(fd);
        fd = 0;
        chip.detach();
        SwmgrTest::TearDown();
    }
    SwitchPort *addPort(int number, int pvid = 1) {
        auto *p = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
        *p = SwitchPort{{}, static_cast<uint32_t>(number + 100), number, sw, pvid, 0, 0, {}, 0, 0, {}, {}};
        osaListNodeAppend(&sw->portList, p);
        return p;
    }
    SwitchVlan *addVlan(int id, uint32_t fwd, uint32_t untag, const char *ifName = "eth0") {
        auto *v = static_cast<SwitchVlan *>(std::calloc(1, sizeof(SwitchVlan)));
        *v = SwitchVlan{{}, id, 0, {}, {}, {}, {}, {}, fwd, untag, 0, sw};
        std::snprintf(v->interfaceName, sizeof v->interfaceName, "%s", ifName);
        osaListNodeAppend(&sw->vlanList, v);
        return v;
    }
    int config(int cmd, void *arg, int len) { return bcmSwitchConfig(sw, cmd, arg, len, nullptr, nullptr); }
    Requests requests() const {
        Requests out;
        for (const auto &c : cap->ioctls) out.emplace_back(c.code, c.arg);
        return out;
    }
    std::vector<Bytes> argsOf(unsigned code) const {
        std::vector<Bytes> out;
        for (const auto &c : cap->ioctls) if (c.code == code) out.push_back(c.arg);
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
using BcmForms = swtest::BothForms<BcmTest>;
SWTEST_BOTH_FORMS(BcmForms);

constexpr unsigned kQos = 0xc0045320u, kPause = 0xc0045321u, kRate = 0xc0075322u, kTrust = 0xc006531eu,
                   kSched = 0xc008531fu, kCos = 0xc0055323u, kClear = 0x80055310u, kEntry = 0x80075312u,
                   kTagSet = 0x80065307u, kNon8021q = 0x80065311u, kPairQuery = 0x80045303u,
                   kPairAdd = 0x80045304u, kPairDelete = 0x80045305u;

TEST_P(BcmForms, CommandEntryChecksExactSizesAndBindingKeepsDescriptors) {
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
    arg[0] = 1;
    EXPECT_EQ(0, config(33, arg.data(), 1300));
    EXPECT_EQ(-1, bcmVlanEnable(2));
    EXPECT_EQ(0, bcmVlanEnable(0));
    EXPECT_EQ(requests(), (Requests{{0x20005301u, {}}, {0x20005302u, {}}}));

    // Codes the driver does not serve are reported and succeed.
    cap->clear();
    EXPECT_EQ(0, config(36, nullptr, 1300));
    EXPECT_TRUE(cap->logsAre({{8, "bcmSwitchConfig", "(switch=BCM) Invalid command (36)\n"},
                            {8, "bcmSwitchConfig", "(switch=BCM) (36) processing returned 0 \n"}}));

    // Descriptor 0 is never closed; a device that cannot be opened leaves
    // the driver bound, so commands arrive and fail on the bad descriptor.
    const int opened = fd;
    fd = 0;
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(nullptr, sw->switchConfigFunc);
    EXPECT_EQ(0, chip.closes());
    fd = opened;
    EXPECT_EQ(0, bcmSwitchUnRegister(sw));
    EXPECT_EQ(1, chip.closes());
    std::snprintf(sw->switchDevice, sizeof sw->switchDevice, "/nonexistent/bcm0");
    cap->clear();
    EXPECT_EQ(SW_EINVAL, bcmSwitchRegister(sw));
    EXPECT_LT(fd, 0);
    EXPECT_TRUE(
        cap->logsAre({{8, "bcmSwitchRegister", "(switch=BCM) Failed to open the device /nonexistent/bcm0 \n"}}));
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
}

TEST_P(BcmForms, ReadOnlyQueriesAndDumps) {
    chip.port(2).link = 1;
    uint32_t status = 7;
    EXPECT_EQ(0, bcmLinkStatusGet(2, &status));
    EXPECT_EQ(1u, status);
    EXPECT_EQ(2u, cap->ioctls.at(0).value);  // the port itself, not a pointer
    EXPECT_EQ(-1, bcmLinkStatusGet(9, &status));  // no such port on the chip
    EXPECT_EQ(1u, status);

    for (size_t i = 0; i < chip.port(3).counters.size(); ++i) chip.port(3).counters[i] = uint8_t(i + 1);
    uint8_t buf[BCM_PORT_STATS_LEN + 1] = {};
    EXPECT_EQ(0, bcmPortStatsGet(3, buf + 1));  // needs no alignment
    EXPECT_EQ(Bytes({3, 0}), Bytes(buf + 1, buf + 3));
    EXPECT_EQ(0, std::memcmp(buf + 3, chip.port(3).counters.data(), 48));
    chip.failRequest(0xc0325314u, -5);
    EXPECT_EQ(-1, bcmPortStatsGet(3, buf));

    // The dumps print question marks for failed queries.
    chip.port(2).tag = {100, 3, 1};
    const std::string tags = "802.1Q tags\n-----------\nPORT\tVID\tPRI\tCFI\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }),
              tags + "0 \t1 \t0 \t0\n1 \t1 \t0 \t0\n2 \t100 \t3 \t1\n3 \t1 \t0 \t0\n4 \t1 \t0 \t0\n\n");
    chip.failRequest(0xc0065306u, -5, 4);  // ports 0 to 3
    EXPECT_EQ(printed([] { EXPECT_EQ(0, bcmTagsShow()); }),
              tags + "0\t ?\t?\t?1\t ?\t?\t?2\t ?\t?\t?3\t ?\t?\t?4 \t1 \t0 \t0\n\n");
    chip.failRequest(0xc0065306u, -5);
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmTagsShow()); }),
              tags + "0\t ?\t?\t?1\t ?\t?\t?2\t ?\t?\t?3\t ?\t?\t?4\t ?\t?\t?\n");

    // The VLAN dump fails whatever the chip answers.
    chip.state().vlans[10] = {0x13, 0x01};
    const std::string vlan = "802.1Q VLAN\n-----------\nVlan ID 10\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }),
              vlan + "\tForward map: \t0 1 4 \n\tUntag map: \t0 \n\n");
    chip.failRequest(0x8005530bu, -5, 1);
    cap->scriptIoctl(0x80055308u, 2, 2);  // answers other than 0 and 1
    EXPECT_EQ(printed([] { EXPECT_EQ(-1, bcmVlanShow(nullptr, 10)); }),
              vlan + "\tForward map: \t0? 1? 4 \n\tUntag map: \t0? \n\n");
    EXPECT_EQ(-1, bcmIsPortInVlanFwdMap(0, 5000));  // a refused query is no answer
}

// The chip holds every field to its definition and to what the driver
// sends; anything else is -EINVAL (or -ENOTTY, -EFAULT) with nothing changed.
TEST(BcmChipModel, RefusesEveryFieldOutsideWhatTheDriverSends) {
    swsim::BcmChip chip;
    const std::string fresh = chip.describe();
    std::vector<std::string> expected;
    // Each request: code, argument bytes (or "=" and the integer argument), result, and why it is refused.
    for (const swtest::Row &c : swtest::dataRows(kData, "chip-requests")) {
        const unsigned code = std::stoul(c.at(0), nullptr, 16);
        Bytes arg;
        std::istringstream in(c.at(1));
        for (unsigned b; in >> std::hex >> b;) arg.push_back(uint8_t(b));
        void *p = c[1][0] == '=' ? reinterpret_cast<void *>(std::stoul(c[1].substr(1))) : arg.data();
        EXPECT_EQ(std::stoi(c.at(2)), chip.handle(code, p)) << c[0] << " " << c[1];
        if (c.size() < 4) continue;
        EXPECT_EQ(fresh, chip.describe()) << c[0] << " " << c[1];
        expected.push_back("request " + c[0] + " refused (" + c[2] + "): " + c[3]);
    }
    EXPECT_EQ(std::vector<std::string>(chip.history().entries().begin(), chip.history().entries().end()), expected);

    // Opens: read-write with no mode is what the driver sends; the rest is refused.
    const std::string dev = "/dev/swmgr-test-open-" + std::to_string(::getpid());
    ASSERT_TRUE(chip.attach(dev));
    for (const auto &[flags, mode] : {std::pair{O_RDONLY, 0}, std::pair{O_RDWR | O_CREAT, 0644}}) {
        errno = 0;
        EXPECT_EQ(osaOpen(dev.c_str(), flags, mode), -1);
        EXPECT_EQ(errno, EINVAL);
        char why[64];  // the flags' values differ between architectures
        std::snprintf(why, sizeof why, "open refused (-22): flags 0x%x mode 0%o", static_cast<unsigned>(flags),
                      static_cast<unsigned>(mode));
        expected.push_back(why);
    }
    const int fd = osaOpen(dev.c_str(), O_RDWR, 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(osaClose(fd), 0);
    chip.detach();
    EXPECT_EQ(std::vector<std::string>(chip.history().entries().begin(), chip.history().entries().end()), expected);
    EXPECT_TRUE(chip.state().vlanEnabled);
    EXPECT_EQ(chip.port(1).tag, (swsim::BcmChip::Tag{10, 0, 0}));
    EXPECT_EQ(chip.vlan(10), (swsim::BcmChip::VlanEntry{0x1f, 0x01}));
    EXPECT_EQ(chip.port(1).rate, (swsim::BcmChip::RateLimit{1, 100000}));
    EXPECT_EQ(chip.port(1).cosQueue, (std::map<uint8_t, uint8_t>{{7, 3}}));
}

TEST_P(BcmForms, QosRecordsAndTheirResults) {
    uint32_t on = 1;
    SwitchRateLimitArg rate{3, 1, {0xee, 0xee, 0xee}, 100000};
    SwitchTrustModeArg trust{2, 0x01020304};
    EXPECT_EQ(0, bcmQoSConfigure(sw, &on));
    EXPECT_EQ(0, bcmPauseFrameConfigure(sw, &on));
    EXPECT_EQ(0, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));  // no such mode: the bytes still show the layout
    EXPECT_EQ(requests(), (Requests{{kQos, {1, 0, 0, 0}}, {kPause, {1, 0, 0, 0}},
                                    {kRate, {3, 0, 1, 0xa0, 0x86, 0x01, 0x00}}, {kTrust, {2, 0, 4, 3, 2, 1}}}));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "qos")));

    cap->clear();
    trust.trustMode = 4;
    rate.portNumber = trust.portNumber = 9;  // the chip refuses
    EXPECT_EQ(-22, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));
    chip.failRequest(kPause, -5, 1);
    EXPECT_EQ(-5, bcmPauseFrameConfigure(sw, &on));
    chip.failRequest(kQos, 3, 1);  // passed up, but reported as a failure
    EXPECT_EQ(3, bcmQoSConfigure(sw, &on));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "qos-failures")));
    for (auto f : {bcmQoSConfigure, bcmPauseFrameConfigure, bcmRateLimitConfigure, bcmTrustModeConfigure,
                   bcmQueueSchedConfigure, bcmCosQueueMapConfigure})
        EXPECT_EQ(std::make_pair(-1, -1), std::make_pair(f(nullptr, &on), f(sw, nullptr)));

    // Queue scheduling and CoS maps walk the matching ports.
    for (int n : {2, 0, 1}) addPort(n);
    SwitchQueueSchedArg arg{1, 9, 2, 1, 2, 3, 0x104};  // queue count not sent; weights are bytes
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    arg.portNumber = -1;
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(argsOf(kSched), (std::vector<Bytes>{{1, 0, 0, 2, 1, 2, 3, 4}, {2, 0, 0, 2, 1, 2, 3, 4},
                                                  {0, 0, 0, 2, 1, 2, 3, 4}, {1, 0, 0, 2, 1, 2, 3, 4}}));
    cap->clear();
    arg.portNumber = 7;  // no such port
    EXPECT_EQ(-1, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_TRUE(cap->ioctls.empty());
    arg.portNumber = -1;
    chip.failRequest(kSched, -5, 1);
    EXPECT_EQ(-5, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(1u, argsOf(kSched).size());

    BcmCosQueueMapArg cos{1, 0x105, 99, 2};
    EXPECT_EQ(0, bcmCosQueueMapConfigure(sw, &cos));
    EXPECT_EQ(argsOf(kCos), (std::vector<Bytes>{{1, 0, 5, 0, 2}}));
    cos.portNumber = -1;
    chip.failRequest(kCos, -5);
    EXPECT_EQ(-5, bcmCosQueueMapConfigure(sw, &cos));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "sched-failures")));
}

TEST_P(BcmForms, EntryGetsCpuPortOnlyWhenItHasMembers) {
    EXPECT_EQ(0, config(35, addVlan(10, 0x03, 0x01, "eth0"), SW_VLAN_REC_LEN));
    EXPECT_EQ(0, config(35, addVlan(11, 0x00, 0x00, "eth0"), SW_VLAN_REC_LEN));
    EXPECT_EQ(requests(), (Requests{{kClear, {10, 0, 0, 0, 0}}, {kEntry, {10, 0, 0x13, 0, 0x01, 0, 0}},
                                    {kClear, {11, 0, 0, 0, 0}}, {kEntry, {11, 0, 0, 0, 0, 0, 0}}}));
    addVlan(12, 0x02, 0x00, "eth0")->inSwitchOnly = 1;  // port 0 in place of the CPU port
    addVlan(13, 0x04, 0x00, "eth1");                    // no CPU port outside the LAN zone
    addVlan(14, 0x08, 0x00, "eth0.100");                // nor for a sub-interface

    chip.failRequest(kClear, -5, 1);
    EXPECT_EQ(-5, bcmVlanMembershipClear(10));
    // The whole list: a failed clear does not stop the write, a failed write stops the walk.
    chip.state().vlans.clear();
    chip.failRequest(kClear, -5, 1);
    EXPECT_EQ(0, config(35, nullptr, SW_VLAN_REC_LEN));
    EXPECT_EQ(chip.state().vlans, (std::map<uint16_t, Entry>{{10, {0x13, 0x01}}, {11, {0, 0}}, {12, {0x03, 0}},
                                                             {13, {0x05, 0}}, {14, {0x09, 0}}}));
    chip.state().vlans.clear();
    chip.failRequest(kEntry, -5, 1);
    EXPECT_EQ(-5, config(35, nullptr, SW_VLAN_REC_LEN));
    EXPECT_TRUE(chip.state().vlans.empty());
    EXPECT_EQ(1, cap->countLog("(switch=BCM) (vlan:10) Failed to configure membership for vlan10\n"));
}

TEST_P(BcmForms, UpdateKeepsEachPortUntaggedInOneVlan) {
    SwitchVlan *v10 = addVlan(10, 0x07, 0x03);
    SwitchVlan *v20 = addVlan(20, 0x01, 0x00);
    SwitchVlan *v30 = addVlan(30, 0x06, 0x06);
    SwitchVlan update = *v20;
    update.fwdMap = 0x0f;
    update.untagMap = 0x02;
    EXPECT_EQ(0, config(34, &update, SW_VLAN_REC_LEN));
    EXPECT_EQ((std::vector<uint32_t>{v10->untagMap, v10->fwdMap, v20->untagMap, v20->fwdMap, v30->untagMap}),
              (std::vector<uint32_t>{0x01, 0x07, 0x02, 0x0f, 0x04}));
    EXPECT_TRUE(cap->ioctls.empty());
}

TEST_P(BcmForms, PortConfigTakesPvidFromLastUntaggedVlanAndWidens) {
    SwitchPort *p0 = addPort(0), *p1 = addPort(1), *p2 = addPort(2, 7);
    addPort(3), addPort(4);
    // Without VLANs only the given port is written.
    EXPECT_EQ(0, config(41, p2, SW_PORT_REC_LEN));
    EXPECT_EQ(requests(), (Requests{{kTagSet, {2, 0, 7, 0, 0, 0}}, {kNon8021q, {2, 0, 1, 0, 0, 0}}}));

    addVlan(10, 0x03, 0x01);
    addVlan(20, 0x01, 0x01);
    EXPECT_EQ(0, config(41, nullptr, SW_PORT_REC_LEN));
    EXPECT_EQ((std::vector<int>{p0->PVID, p0->non8021qFramesStatus, p1->PVID, p1->non8021qFramesStatus}),
              (std::vector<int>{20, 0, 1, 1}));
    EXPECT_EQ(chip.port(0).tag, (swsim::BcmChip::Tag{20, 0, 0}));
    for (int n = 0; n < 5; ++n) EXPECT_EQ(n == 0 ? 0u : 1u, chip.port(n).non8021q) << n;

    // Once a VLAN exists, one port's record writes every port.
    cap->clear();
    EXPECT_EQ(0, config(41, p2, SW_PORT_REC_LEN));
    EXPECT_EQ(5u, argsOf(kNon8021q).size());
    // A refused write ends the walk on that port, with its line.
    chip.failRequest(kTagSet, -5, 1);
    EXPECT_EQ(-5, config(41, p2, SW_PORT_REC_LEN));
    chip.failRequest(kNon8021q, -5, 1);
    EXPECT_EQ(-5, config(41, p2, SW_PORT_REC_LEN));
    const std::string port0 = "(switch=BCM) (port:0) ";
    EXPECT_EQ(1, cap->countLog(port0 + "Failed to set PVID for port 0\n"));
    EXPECT_EQ(1, cap->countLog(port0 + "Failed to set Non-8021q Frame status for port 0\n"));
}

TEST_P(BcmForms, PortBasedVlansAddTheCpuPort) {
    SwitchVlan *v = addVlan(10, 0x05, 0x00);
    EXPECT_EQ(0, bcmPortVlanConfig(nullptr, v));
    for (int n = 0; n < 5; ++n) EXPECT_EQ(n == 0 || n == 2 ? 0x15 : 0x1f, chip.port(n).fwdMap) << n;
    EXPECT_EQ(argsOf(kPairAdd), (std::vector<Bytes>{{0, 0, 0, 0}, {0, 0, 2, 0}, {0, 0, 4, 0},
                                                    {2, 0, 0, 0}, {2, 0, 2, 0}, {2, 0, 4, 0}}));
    EXPECT_EQ(0, bcmPortVlanDeConfig(nullptr, v));
    EXPECT_EQ(0x1f, chip.port(0).fwdMap);  // default map restored

    // The CPU port's default port-based VLAN touches member 0 only.
    cap->clear();
    chip.port(4).fwdMap = 0x1e;
    EXPECT_EQ(0, bcmDefPortVlanConfig(4));
    EXPECT_EQ(0x1f, chip.port(4).fwdMap);
    EXPECT_EQ(requests(), (Requests{{kPairQuery, {4, 0, 0, 0}}, {kPairAdd, {4, 0, 0, 0}}}));
    chip.port(4).fwdMap = 0x1e;
    chip.failRequest(kPairAdd, -5, 1);  // a refused add ends the default configuration
    EXPECT_EQ(-5, bcmDefPortVlanConfig(4));
    EXPECT_EQ(1, cap->countLog("ERROR#-5 adding Port 0 in forward map of port:4\n"));
    chip.failRequest(kPairDelete, -5, 1);  // a reset logs and carries on
    EXPECT_EQ(0, bcmPortVlanReset(3));
    EXPECT_EQ(0x01, chip.port(3).fwdMap);
    EXPECT_EQ(1, cap->countLog("ERROR#-5 deleting Port 0 in forward map of port:3\n"));
}

}  // namespace
