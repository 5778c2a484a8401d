// VLAN records on every switch: index, add, update, disable, delete, and the
// host sub-interface that goes with each VLAN.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "config/swconf.h"
#include "host_vlan.h"
#include "portvlan/portvlan.h"
#include "swmgr_test.h"

namespace {

using Cmds = std::vector<int>;
using Lines = std::vector<std::string>;

SwitchVlanConf vlanConf(int id, uint32_t fwd = 0x6, uint32_t untag = 0x2, int inSwitchOnly = 0) {
    SwitchVlanConf c{};
    c.vlanId = id;
    c.fwdMap = fwd;
    c.untagMap = untag;
    c.inSwitchOnly = inSwitchOnly;
    std::snprintf(c.interfaceName, sizeof c.interfaceName, "eth0");
    std::snprintf(c.LogicalIfName, sizeof c.LogicalIfName, "lan");
    std::snprintf(c.vlanName, sizeof c.vlanName, "video");
    return c;
}

// The VLAN record as the driver saw it.
SwitchVlan seen(const swtest::RecordingDriver::Call &call) {
    SwitchVlan v{};
    std::memcpy(&v, call.arg.data(), std::min(call.arg.size(), sizeof v));
    return v;
}

std::vector<int> ids(Switch *sw) {
    std::vector<int> out;
    for (auto *v = static_cast<SwitchVlan *>(osaListFirst(&sw->vlanList)); v != nullptr;
         v = static_cast<SwitchVlan *>(osaListNext(v)))
        out.push_back(v->vlanId);
    return out;
}

// Two switches bound to the recording driver: TOP (level 2), then LOW.
class Vlans : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        ::mkdir((root->path() + "/var").c_str(), 0755);
        top = add("TOP", 2);
        low = add("LOW", 1);
        // Each command also notes whether the switch was forwarding then.
        drv.onCall = [this](Switch *sw, int cmd, void *, int) {
            forwarding.push_back(sw->lowerLvlForward);
            auto it = drv.results.find(cmd);
            return it != drv.results.end() && (failOn == nullptr || failOn == sw) ? it->second : 0;
        };
        reset();
    }
    Switch *add(const char *name, int level) {
        std::snprintf(switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1].name, SW_NAME_LEN, "%s", name);
        SwitchConf c{};
        std::snprintf(c.switchName, sizeof c.switchName, "%s", name);
        c.switchLevel = level;
        EXPECT_EQ(switchConfAdd(&c), 0);
        return switchByNameGet(name);
    }
    void reset() {
        drv.calls.clear();
        forwarding.clear();
        cap->clear();
    }
    Cmds cmdsTo(Switch *sw) const {
        Cmds out;
        for (const auto &c : drv.calls)
            if (c.sw == sw) out.push_back(c.cmd);
        return out;
    }

    swtest::RecordingDriver drv;
    Switch *top = nullptr;
    Switch *low = nullptr;
    Switch *failOn = nullptr;  // when set, scripted results apply to this switch only
    std::vector<int> forwarding;
};

}  // namespace

// Kept first: the counter lives as long as the process.
TEST_F(Vlans, IndexStartsAtFourAndOnlySuccessfulAddsConsumeIt) {
    EXPECT_EQ(switchNextVlanIndexGet(), 4);
    SwitchVlanConf a = vlanConf(100);
    ASSERT_EQ(switchVlanConfAdd(&a), 0);
    EXPECT_EQ(switchVlanByIdGet(top, 100)->vlanIndex, 4);
    EXPECT_EQ(switchVlanByIdGet(low, 100)->vlanIndex, 4);

    SwitchVlanConf again = vlanConf(100);
    EXPECT_EQ(switchVlanConfAdd(&again), -1);
    cap->scriptCommand("vconfig add eth0 200", -3, 1);  // a failing host interface
    SwitchVlanConf failing = vlanConf(200);
    EXPECT_EQ(switchVlanConfAdd(&failing), -3);
    EXPECT_EQ(cap->countLog("Failed to apply configuration in  \n"), 1) << cap->dump();
    EXPECT_EQ(switchNextVlanIndexGet(), 5);

    SwitchVlanConf b = vlanConf(300);
    ASSERT_EQ(switchVlanConfAdd(&b), 0);
    EXPECT_EQ(switchVlanByIdGet(low, 300)->vlanIndex, 5);
}

TEST_F(Vlans, AddProgramsEachSwitchWithForwardingPausedThenTheHost) {
    SwitchVlanConf c = vlanConf(100);
    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    SwitchVlan *onTop = switchVlanByIdGet(top, 100);
    ASSERT_NE(onTop, nullptr);
    EXPECT_EQ(onTop->sw, top);
    EXPECT_STREQ(onTop->vlanName, "video");
    EXPECT_STREQ(onTop->LogicalIfName, "lan");

    ASSERT_EQ(drv.cmds(), (Cmds{34, 41, 35, 34, 41, 35}));
    EXPECT_EQ(cmdsTo(top), (Cmds{34, 41, 35}));
    const int lens[] = {SW_VLAN_REC_LEN, SW_PORT_REC_LEN, SW_VLAN_REC_LEN};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(drv.calls[i].argLen, lens[i % 3]) << i;
        EXPECT_TRUE(drv.calls[i].replyLenZero) << i;
    }
    const SwitchVlan sent = seen(drv.calls[0]);
    EXPECT_EQ(sent.vlanId, 100);
    EXPECT_EQ(sent.fwdMap, 0x6u);
    EXPECT_EQ(sent.untagMap, 0x2u);
    EXPECT_EQ(sent.vlanIndex, c.vlanIndex);
    EXPECT_STREQ(sent.interfaceName, "eth0");
    EXPECT_EQ(drv.calls[1].argPtr, nullptr);
    EXPECT_EQ(drv.calls[2].argPtr, onTop);
    EXPECT_EQ(forwarding, std::vector<int>(6, 0));
    EXPECT_EQ(top->lowerLvlForward, 1);
    EXPECT_EQ(low->lowerLvlForward, 1);

    ASSERT_EQ(cap->commands.size(), 19u);
    EXPECT_EQ(cap->commands[1], "vconfig add eth0 100");
    EXPECT_TRUE(root->exists("var/VLAN.100.Uptime"));
    int applying = cap->findLog("(switch=TOP) (vlan:100) Applying VLAN Configuration.\n");
    ASSERT_GE(applying, 0) << cap->dump();
    EXPECT_EQ(cap->logs[applying].level, SW_LOG_RESULT);
    EXPECT_EQ(cap->countLog("(switch=LOW) Created switch vlan (ID=100)\n"), 1);
}

TEST_F(Vlans, DuplicateOnTheFirstSwitchFailsBeforeAnyHostInterface) {
    SwitchVlanConf c = vlanConf(100);
    ASSERT_EQ(switchVlanByConfCreate(top, &c), 0);
    reset();
    EXPECT_EQ(switchVlanConfAdd(&c), -1);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=TOP) This VLAN Id is already exists \n",
                                     "(switch=TOP) Failed to create vlan (ID=100)\n"}));
    EXPECT_TRUE(cap->commands.empty());
    EXPECT_TRUE(drv.calls.empty());
    EXPECT_EQ(ids(top), std::vector<int>{100});
    EXPECT_TRUE(ids(low).empty());
    EXPECT_EQ(top->lowerLvlForward, 1);
}

TEST_F(Vlans, PortBasedVlanOnlyWithInSwitchOnly) {
    for (int only : {0, 1}) {
        const int id = 10 + only;
        const Cmds add = only ? Cmds{34, 58, 41, 35} : Cmds{34, 41, 35};
        const Cmds update = only ? Cmds{59, 34, 58, 41, 35} : Cmds{34, 41, 35};
        const Cmds remove = only ? Cmds{59, 34, 35, 41, 35} : Cmds{34, 35, 41, 35};
        reset();
        SwitchVlanConf c = vlanConf(id, 0x3, 0x1, only);
        ASSERT_EQ(switchVlanConfAdd(&c), 0);
        EXPECT_EQ(cmdsTo(top), add) << only;
        EXPECT_EQ(cmdsTo(low), add) << only;
        EXPECT_EQ(seen(drv.calls[only]).vlanId, id);  // 34, or 58 right after it
        reset();
        SwitchVlanConf next = vlanConf(id, 0x7, 0x1, only);
        ASSERT_EQ(switchVlanConfUpdate(&next, &c), 0);
        EXPECT_EQ(cmdsTo(top), update) << only;
        reset();
        ASSERT_EQ(switchVlanConfDelete(&next), 0);
        EXPECT_EQ(cmdsTo(low), remove) << only;
    }
    SwitchVlan rec{};
    rec.inSwitchOnly = 1;
    rec.sw = top;
    EXPECT_EQ(switchPortVlanConfigure(&rec, 37), -1);
    drv.results[SW_CMD_PORT_VLAN_CONFIG] = -2;
    reset();
    EXPECT_EQ(switchPortVlanConfigure(&rec, SW_CMD_VLAN_ADD), -1);
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=TOP) (vlan:0) Failed to configure port vlan for ID=0\n"});
}

TEST_F(Vlans, UpdateFindsTheOldIdStoresTheNewOneAndMovesItLast) {
    SwitchVlanConf a = vlanConf(100);
    SwitchVlanConf b = vlanConf(200);
    ASSERT_EQ(switchVlanConfAdd(&a) | switchVlanConfAdd(&b), 0);
    SwitchVlan *rec = switchVlanByIdGet(top, 100);
    const int index = rec->vlanIndex;
    reset();

    SwitchVlanConf moved = vlanConf(150, 0xf0, 0x10);
    ASSERT_EQ(switchVlanConfUpdate(&moved, &a), 0);
    EXPECT_EQ(ids(top), (std::vector<int>{200, 150}));
    EXPECT_EQ(ids(low), (std::vector<int>{200, 150}));
    EXPECT_EQ(switchVlanByIdGet(top, 150), rec);
    EXPECT_EQ(rec->fwdMap, 0xf0u);
    EXPECT_EQ(rec->vlanIndex, index);
    EXPECT_EQ(seen(drv.calls[0]).vlanId, 150);
    EXPECT_TRUE(cap->commands.empty());  // the host interface is left alone
    EXPECT_EQ(cap->countLog("(switch=TOP) (vlan:150) Successfully processed DB Update on  VLAN configuration.\n"), 1);
    EXPECT_EQ(cap->countLog("(switch=LOW) updated switch vlan (150) configuration.\n"), 1);

    // A switch without the VLAN is left with forwarding off.
    SwitchVlanConf only = vlanConf(300);
    SwitchVlanConf renamed = vlanConf(301);
    ASSERT_EQ(switchVlanByConfCreate(top, &only), 0);
    ASSERT_EQ(switchVlanConfUpdate(&renamed, &only), 0);
    EXPECT_EQ(top->lowerLvlForward, 1);
    EXPECT_EQ(low->lowerLvlForward, 0);

    // A rejected membership keeps the record as it was.
    reset();
    failOn = top;
    drv.results[SW_CMD_VLAN_MEMBERSHIP_UPDATE] = -3;
    SwitchVlanConf bad = vlanConf(160);
    EXPECT_EQ(switchVlanConfUpdate(&bad, &moved), -1);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=TOP) (vlan:160) Failed to update vlan160 membership in TOP\n",
                                     "(switch=TOP) (vlan:150) Failed to configure initial configuration of vlan.\n",
                                     "(switch=TOP) Failed to update switch vlan configuration \n"}));
    EXPECT_EQ(rec->vlanId, 150);
    EXPECT_EQ(top->lowerLvlForward, 1);
}

TEST_F(Vlans, DisableClearsMapsAndSendsMembershipThenApply) {
    SwitchVlanConf c = vlanConf(100);
    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    SwitchVlan *v = switchVlanByIdGet(top, 100);
    reset();

    EXPECT_EQ(switchVlanDisable(v), 0);
    EXPECT_EQ(cmdsTo(top), (Cmds{34, 35}));
    EXPECT_EQ(drv.calls.size(), 2u);
    for (const auto &call : drv.calls) {
        EXPECT_EQ(seen(call).fwdMap, 0u);
        EXPECT_EQ(seen(call).untagMap, 0u);
    }
    EXPECT_EQ(forwarding, (std::vector<int>{0, 0}));
    EXPECT_EQ(top->lowerLvlForward, 1);
    EXPECT_EQ(switchVlanByIdGet(top, 100), v);
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=TOP) (vlan:100) Disabling Vlan100 in TOP\n"});
    EXPECT_EQ(cap->logs[0].level, SW_LOG_ERR);

    const struct {
        int cmd;
        const char *message;
    } cases[] = {{34, "(switch=TOP) (vlan:100) Failed to update vlan membership in TOP for ID=100\n"},
                 {35, "(switch=TOP) (vlan:100) Failed to configure vlan membership in TOP for ID=100\n"}};
    for (const auto &k : cases) {
        reset();
        drv.results = {{k.cmd, -7}};
        EXPECT_EQ(switchVlanDisable(v), -7);
        EXPECT_EQ(cap->countLog(k.message), 1) << cap->dump();
        EXPECT_EQ(top->lowerLvlForward, 1);
    }
    // Disabling the configuration touches the top-level switch only.
    drv.results.clear();
    reset();
    EXPECT_EQ(switchCfgDisable(nullptr), 0);
    EXPECT_EQ(drv.cmds(), (Cmds{34, 35}));
    EXPECT_EQ(drv.calls[0].sw, top);
}

TEST_F(Vlans, DeleteRemovesTheVlanEverywhereAndRefusalsKeepIt) {
    SwitchVlanConf c = vlanConf(100);
    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    reset();
    EXPECT_EQ(switchVlanConfDelete(&c), 0);
    EXPECT_TRUE(ids(top).empty());
    EXPECT_TRUE(ids(low).empty());
    EXPECT_EQ(cap->commands, Lines{"vconfig rem eth0.100"});
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
    EXPECT_EQ(cap->countLog("(switch=LOW) Deleted vlan (ID=100).\n"), 1);

    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    cap->scriptCommand("vconfig rem eth0.100", -2, 1);
    EXPECT_EQ(switchVlanConfDelete(&c), -2);
    EXPECT_EQ(cap->countLog("Failed to delete encap interface for vlan ID=100\n"), 1);

    // A switch that refuses keeps its VLAN; the one without it stays paused.
    SwitchVlanConf d = vlanConf(200);
    ASSERT_EQ(switchVlanByConfCreate(low, &d), 0);
    reset();
    drv.results[SW_CMD_VLAN_MEMBERSHIP_APPLY] = -4;
    EXPECT_EQ(switchVlanConfDelete(&d), -1);
    EXPECT_EQ(ids(low), std::vector<int>{200});
    EXPECT_EQ(cap->countLog("(switch=LOW) (vlan:200) Failed to disable VLAN in switch \n"), 1);
    EXPECT_EQ(cap->countLog("(switch=LOW) Failed to delete vlan (ID=200)\n"), 1);
    EXPECT_EQ(top->lowerLvlForward, 0);
    EXPECT_EQ(low->lowerLvlForward, 1);
    EXPECT_TRUE(cap->commands.empty());
}

TEST_F(Vlans, BusCodesAddDeleteAndNothingElse) {
    SwitchVlanConf c = vlanConf(100);
    EXPECT_EQ(switchVlanConfigure(nullptr, 37, &c), -1);
    EXPECT_TRUE(drv.calls.empty());
    drv.results[SW_CMD_VLAN_MEMBERSHIP_UPDATE] = -5;
    EXPECT_EQ(switchVlanConfigure(nullptr, SW_CMD_VLAN_ADD, &c), 0);
    EXPECT_TRUE(ids(top).empty());
    EXPECT_EQ(cap->countLog("(switch=TOP) Failed to create vlan (ID=100)\n"), 1);

    drv.results.clear();
    EXPECT_EQ(switchVlanConfigure(nullptr, SW_CMD_VLAN_ADD, &c), 0);
    EXPECT_EQ(ids(low), std::vector<int>{100});
    EXPECT_EQ(switchVlanConfigure(nullptr, SW_CMD_VLAN_DELETE, &c), 0);
    EXPECT_TRUE(ids(low).empty());
}

TEST_F(Vlans, HostModelFollowsAddUpdateAndDelete) {
    swsim::HostVlanModel host;
    host.attach();
    const std::string none = "eth0 up\neth1 up\n";
    const std::string with100 =
        "eth0 up\n"
        "eth0.100 vlan 100 on eth0 up ingress 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7 "
        "egress 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7\n"
        "eth1 up\n";
    SwitchVlanConf c = vlanConf(100);
    ASSERT_EQ(switchVlanConfAdd(&c), 0);
    EXPECT_EQ(host.dump(), with100);
    SwitchVlanConf next = vlanConf(100, 0xff, 0x0);
    ASSERT_EQ(switchVlanConfUpdate(&next, &c), 0);
    EXPECT_EQ(host.dump(), with100);
    ASSERT_EQ(switchVlanConfDelete(&next), 0);
    EXPECT_EQ(host.dump(), none);

    // A parent the host lacks: the tool's status is positive, so the VLAN
    // still counts as added.
    SwitchVlanConf other = vlanConf(7);
    std::snprintf(other.interfaceName, sizeof other.interfaceName, "eth9");
    EXPECT_EQ(switchVlanConfAdd(&other), 0);
    EXPECT_EQ(host.dump(), none);
    EXPECT_EQ(ids(top), std::vector<int>{7});
}
