// Switch ports: creation, trust mode, port mapping onto lower-level switches.
#include <cstring>
#include <string>
#include <vector>

#include "config/swconf.h"
#include "portvlan/portvlan.h"
#include "swmgr_test.h"

namespace {

using Lines = std::vector<std::string>;

SwitchPortConf portConf(const char *sw, int number, const char *phy = "") {
    SwitchPortConf c{};
    std::snprintf(c.switchName, sizeof c.switchName, "%s", sw);
    std::snprintf(c.phyDevice, sizeof c.phyDevice, "%s", phy);
    c.portNumber = number;
    return c;
}

// Records of a list whose nodes start with their linkage, second word on.
template <typename Node, typename T>
std::vector<T *> listed(OsaList *list, T *Node::*field) {
    std::vector<T *> out;
    for (auto *n = static_cast<Node *>(osaListFirst(list)); n != nullptr;
         n = static_cast<Node *>(osaListNext(n)))
        out.push_back(n->*field);
    return out;
}
std::vector<SwitchPort *> mapped(SwitchPort *p) { return listed(&p->mappedPorts, &SwitchPortMapEntry::port); }
std::vector<Switch *> children(Switch *sw) { return listed(&sw->lowerLvlSwitchList, &SwitchLowerRef::sw); }

class Ports : public swtest::SwmgrTest {
protected:
    Switch *add(const char *name, int level) {
        std::snprintf(switchConfigFuncRegisterTbl[SW_DRIVER_TBL_SIZE - 1].name, SW_NAME_LEN, "%s", name);
        SwitchConf c{};
        std::snprintf(c.switchName, sizeof c.switchName, "%s", name);
        c.switchLevel = level;
        EXPECT_EQ(switchConfAdd(&c), 0);
        return switchByNameGet(name);
    }
    int addPort(const char *sw, int number, const char *phy = "") {
        SwitchPortConf c = portConf(sw, number, phy);
        return switchPortConfAdd(&c);
    }
    // TOP (level 2) above LOW1 with ports 3 and 5 and LOW2 with port 4.
    void hierarchy() {
        top = add("TOP", 2);
        low1 = add("LOW1", 1);
        low2 = add("LOW2", 1);
        ASSERT_EQ(addPort("LOW1", 3) | addPort("LOW1", 5) | addPort("LOW2", 4), 0);
        drv.calls.clear();
        cap->clear();
    }
    swtest::RecordingDriver drv;
    Switch *top = nullptr, *low1 = nullptr, *low2 = nullptr;
};

}  // namespace

TEST_F(Ports, AddCopiesTheRowListsThePortAndSendsItsTrustMode) {
    Switch *sw = add("REC", 1);
    drv.calls.clear();
    cap->clear();
    SwitchPortConf c = portConf("REC", 3);
    c.PVID = 10;
    c.portType = 2;
    c.mirroring = 1;
    c.trustMode = 2;
    std::memset(c.interfaceName, 'i', sizeof c.interfaceName);  // no terminator
    c.qos = {1000, 1, 4, 10, 20, 30, 40};
    ASSERT_EQ(switchPortConfAdd(&c), 0);

    SwitchPort *p = switchPortByNumberGet(sw, 3);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->sw, sw);
    EXPECT_EQ(p->PVID, 10);
    EXPECT_EQ(p->portType, 2);
    EXPECT_EQ(p->mirroring, 1);
    EXPECT_EQ(p->trustMode, 2);
    EXPECT_EQ(std::string(p->interfaceName), std::string(63, 'i'));
    EXPECT_EQ(swtest::bytesOf(p->qos), swtest::bytesOf(c.qos));

    ASSERT_EQ(drv.cmds(), std::vector<int>{SW_CMD_PORT_TRUST_MODE});
    EXPECT_EQ(drv.calls[0].arg, swtest::bytesOf(SwitchTrustModeArg{3, 2}));
    EXPECT_EQ(drv.calls[0].argLen, 8);
    EXPECT_TRUE(drv.calls[0].replyLenZero);
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=REC) (port:3) Added switch port configuration.\n"});
    EXPECT_EQ(cap->logs[0].level, SW_LOG_INFO);

    ASSERT_EQ(addPort("REC", 4), 0);
    EXPECT_EQ(switchPortByNumberGet(sw, 4)->seqNo, p->seqNo + 1);

    // A duplicate or an unknown switch is refused; the listed port is kept.
    cap->clear();
    drv.calls.clear();
    EXPECT_EQ(addPort("REC", 3), -1);
    EXPECT_EQ(addPort("NOPE", 1), -1);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=REC) There is a switch port created already for this name\n",
                                     "Failed to create switch port configuration \n",
                                     "NOPE switch is not yet created \n",
                                     "Failed to create switch port configuration \n"}));
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
    EXPECT_EQ(p->PVID, 10);
    EXPECT_TRUE(drv.calls.empty());
}

TEST_F(Ports, TrustModeOnAddForThatPortAndOnApplyForAll) {
    Switch *sw = add("REC", 1);
    drv.calls.clear();
    for (int n : {1, 2, 3}) {
        SwitchPortConf c = portConf("REC", n);
        c.trustMode = n * 10;
        ASSERT_EQ(switchPortConfAdd(&c), 0);
        ASSERT_EQ(drv.calls.size(), static_cast<size_t>(n));
        EXPECT_EQ(drv.calls.back().arg, swtest::bytesOf(SwitchTrustModeArg{n, n * 10}));
    }
    drv.calls.clear();
    EXPECT_EQ(switchPortCfgApply(sw, nullptr), 0);
    ASSERT_EQ(drv.calls.size(), 3u);
    for (int n = 1; n <= 3; ++n)
        EXPECT_EQ(drv.calls[n - 1].arg, swtest::bytesOf(SwitchTrustModeArg{n, n * 10}));

    // The first failure stops the walk; a port whose trust mode fails stays listed.
    drv.calls.clear();
    drv.results[SW_CMD_PORT_TRUST_MODE] = -4;
    EXPECT_EQ(switchPortCfgApply(sw, nullptr), -4);
    EXPECT_EQ(drv.calls.size(), 1u);
    cap->clear();
    EXPECT_EQ(addPort("REC", 7), -4);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=REC) (port:7) Failed to configure trustmode on port7 in REC\n",
                                     "(switch=REC) (port:7) Failed to configure trust mode of port (7)",
                                     "(switch=REC) (port:7) Failed to apply switch port configuration \n"}));
    EXPECT_NE(switchPortByNumberGet(sw, 7), nullptr);
}

TEST_F(Ports, MappingListsRegisterEachLowerSwitchOnceInOrder) {
    hierarchy();
    ASSERT_EQ(addPort("TOP", 1, "LOW1:3"), 0);
    SwitchPort *p1 = switchPortByNumberGet(top, 1);
    EXPECT_EQ(mapped(p1), std::vector<SwitchPort *>{switchPortByNumberGet(low1, 3)});
    EXPECT_EQ(children(top), std::vector<Switch *>{low1});
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=TOP) (port:1) Added switch port configuration.\n"});

    swMgrDevDebug = 1;  // the creation and mapping traces show in this form only
    cap->clear();
    ASSERT_EQ(addPort("TOP", 2, ",LOW2:4,,LOW1:5,"), 0);
    EXPECT_EQ(mapped(switchPortByNumberGet(top, 2)),
              (std::vector<SwitchPort *>{switchPortByNumberGet(low2, 4), switchPortByNumberGet(low1, 5)}));
    EXPECT_EQ(children(top), (std::vector<Switch *>{low1, low2}));
    ASSERT_GE(cap->logs.size(), 2u);
    EXPECT_EQ(cap->logs[0].func, "switchPortCreate");
    EXPECT_EQ(cap->logs[0].text, "Creating 2 port in TOP \n");
    EXPECT_EQ(cap->logs[1].text, "Mapping LOW2:4 to TOP:2 \n");

    // A list filling its whole field, without terminator.
    SwitchPortConf full = portConf("TOP", 3);
    std::memset(full.phyDevice, ',', sizeof full.phyDevice);
    std::memcpy(full.phyDevice, "LOW2:4", 6);
    ASSERT_EQ(switchPortConfAdd(&full), 0);
    EXPECT_EQ(mapped(switchPortByNumberGet(top, 3)).size(), 1u);
    EXPECT_EQ(children(top).size(), 2u);
    EXPECT_EQ(switchPortMapInit(p1, nullptr), 0);
    EXPECT_TRUE(mapped(p1).empty());
}

TEST_F(Ports, MappingFailuresRefuseThePortWithBothMessages) {
    hierarchy();
    const struct {
        const char *phy;
        const char *lookup;  // nullptr: no lookup message
    } cases[] = {
        {"GONE:1", "(switch=TOP) (port:1) Failed to get the switch entry for GONE \n"},
        {"LOW1:9", "(switch=TOP) (port:1) Failed to get the switch port for 9 in LOW1 \n"},
        {"LOW1:3,GONE:1", "(switch=TOP) (port:1) Failed to get the switch entry for GONE \n"},
        {"LOW1", nullptr},
    };
    for (const auto &k : cases) {
        cap->clear();
        EXPECT_EQ(addPort("TOP", 1, k.phy), -1) << k.phy;
        Lines expected;
        if (k.lookup != nullptr) expected.push_back(k.lookup);
        expected.push_back("(switch=TOP) (port:1) Failed to update port mapping for port1 in TOP \n");
        expected.push_back("(switch=TOP) (port:1) Failed to initiate port mappings \n");
        expected.push_back("Failed to create switch port configuration \n");
        EXPECT_EQ(cap->rawLogs(), expected) << k.phy;
        EXPECT_EQ(osaListFirst(&top->portList), nullptr);
    }
    // The mapping made before the failure registered its lower switch.
    EXPECT_EQ(children(top), std::vector<Switch *>{low1});
    EXPECT_TRUE(drv.calls.empty());

    swMgrDevDebug = 1;
    cap->clear();
    EXPECT_EQ(addPort("TOP", 1, "GONE:1"), -1);
    ASSERT_GE(cap->logs.size(), 3u) << cap->dump();
    EXPECT_EQ(cap->logs[1].func, "switchPortMapInit");
    EXPECT_EQ(cap->logs[2].func, "switchPortMapInit");
}

TEST_F(Ports, PortRecordCommandAndRemovalStubs) {
    Switch *sw = add("REC", 1);
    SwitchPortConf c = portConf("REC", 3);
    c.PVID = 12;
    ASSERT_EQ(switchPortConfAdd(&c), 0);
    SwitchPort *p = switchPortByNumberGet(sw, 3);
    drv.calls.clear();
    cap->clear();

    EXPECT_EQ(switchPortVlanInfoConfigure(sw, p), 0);
    ASSERT_EQ(drv.cmds(), std::vector<int>{SW_CMD_PORT_CONFIG_SET});
    EXPECT_EQ(drv.calls[0].argLen, SW_PORT_REC_LEN);
    EXPECT_EQ(drv.calls[0].argPtr, p);
    EXPECT_EQ(drv.calls[0].arg, swtest::Bytes(reinterpret_cast<uint8_t *>(p),
                                              reinterpret_cast<uint8_t *>(p) + SW_PORT_REC_LEN));
    drv.results[SW_CMD_PORT_CONFIG_SET] = -9;
    EXPECT_EQ(switchPortVlanInfoConfigure(sw, p), -9);
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=REC) Failed to configure port3 in REC\n"});

    cap->clear();
    EXPECT_EQ(switchPortByNumberAndSwitchNameGet("REC", 3), nullptr);
    EXPECT_EQ(switchPortDeinit(&c), SW_EINVAL);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=REC) There is a switch port created already for this name\n",
                                     "(switch=REC) There is a switch port created already for this name\n",
                                     "Failed to find switch profile for REC \n"}));
    EXPECT_EQ(switchPortDestroy(p), 0);
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
}
