// SPDX-License-Identifier: Apache-2.0
// Switch ports: creation, trust mode, port mapping onto lower-level switches.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "swmgr/swconf.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {

using Lines = std::vector<std::string>;
using swtest::bytesOf;

SwitchPortConf portConf(const char *sw, int number, const char *phy = "", int trustMode = 0) {
    SwitchPortConf c{};
    std::snprintf(c.switchName, sizeof c.switchName, "%s", sw);
    std::snprintf(c.phyDevice, sizeof c.phyDevice, "%s", phy);
    c.portNumber = number;
    c.trustMode = trustMode;
    return c;
}

// Records of a list whose nodes start with their linkage, second word on.
template <typename Node, typename T>
std::vector<T *> listed(OsaList *list, T *Node::*field) {
    std::vector<T *> out;
    for (auto *n = static_cast<Node *>(osaListFirst(list)); n != nullptr; n = static_cast<Node *>(osaListNext(n)))
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
        drv.calls.clear();
        cap->clear();
        return switchByNameGet(name);
    }
    int addPort(const char *sw, int number, const char *phy = "", int trustMode = 0) {
        SwitchPortConf c = portConf(sw, number, phy, trustMode);
        return switchPortConfAdd(&c);
    }
    swtest::RecordingDriver drv;
};

}  // namespace

TEST_F(Ports, AddCopiesTheRowSendsTrustModeOnAddAndApplyRefusesDuplicates) {
    Switch *sw = add("REC", 1);
    SwitchPortConf c = portConf("REC", 3, "", 2);
    c.PVID = 10;
    c.portType = 2;
    c.mirroring = 1;
    std::memset(c.interfaceName, 'i', sizeof c.interfaceName);  // no terminator
    c.qos = {1000, 1, 4, 10, 20, 30, 40};
    ASSERT_EQ(switchPortConfAdd(&c), 0);
    SwitchPort *p = switchPortByNumberGet(sw, 3);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::tie(p->sw, p->PVID, p->portType, p->mirroring), std::make_tuple(sw, 10, 2, 1));
    EXPECT_EQ(std::string(p->interfaceName), std::string(63, 'i'));
    EXPECT_EQ(bytesOf(p->qos), bytesOf(c.qos));
    ASSERT_EQ(drv.cmds(), std::vector<int>{SW_CMD_PORT_TRUST_MODE});
    EXPECT_EQ(drv.calls[0].arg, bytesOf(SwitchTrustModeArg{3, 2}));
    EXPECT_EQ(drv.calls[0].argLen, 8);
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=REC) (port:3) Added switch port configuration.\n"});

    ASSERT_EQ(addPort("REC", 4, "", 40), 0);
    drv.calls.clear();
    EXPECT_EQ(switchPortCfgApply(sw, nullptr), 0);
    ASSERT_EQ(drv.calls.size(), 2u);
    EXPECT_EQ(drv.calls[0].arg, bytesOf(SwitchTrustModeArg{3, 2}));
    EXPECT_EQ(drv.calls[1].arg, bytesOf(SwitchTrustModeArg{4, 40}));

    // A duplicate is refused; the listed port is kept.
    cap->clear();
    drv.calls.clear();
    EXPECT_EQ(addPort("REC", 3), -1);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=REC) There is a switch port created already for this name\n",
                                     "Failed to create switch port configuration \n"}));
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
    EXPECT_EQ(p->PVID, 10);
    EXPECT_TRUE(drv.calls.empty());

    // The first failure stops the walk; a port whose trust mode fails stays listed.
    drv.results[SW_CMD_PORT_TRUST_MODE] = -4;
    EXPECT_EQ(switchPortCfgApply(sw, nullptr), -4);
    EXPECT_EQ(drv.calls.size(), 1u);
    cap->clear();
    EXPECT_EQ(addPort("REC", 7), -4);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=REC) (port:7) Failed to configure trustmode on port7 in REC\n",
                                     "(switch=REC) (port:7) Failed to configure trust mode of port (7)",
                                     "(switch=REC) (port:7) Failed to apply switch port configuration \n"}));
    EXPECT_NE(switchPortByNumberGet(sw, 7), nullptr);

    drv.calls.clear();
    cap->clear();
    EXPECT_EQ(switchPortVlanInfoConfigure(sw, p), 0);
    ASSERT_EQ(drv.cmds(), std::vector<int>{SW_CMD_PORT_CONFIG_SET});
    EXPECT_EQ(drv.calls[0].argPtr, p);
    EXPECT_EQ(drv.calls[0].argLen, SW_PORT_REC_LEN);
    drv.results[SW_CMD_PORT_CONFIG_SET] = -9;
    EXPECT_EQ(switchPortVlanInfoConfigure(sw, p), -9);
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=REC) Failed to configure port3 in REC\n"});

    // Lookup by switch name and release are stubs with an odd message.
    cap->clear();
    EXPECT_EQ(switchPortByNumberAndSwitchNameGet("REC", 3), nullptr);
    EXPECT_EQ(switchPortDeinit(&c), SW_EINVAL);
    EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=REC) There is a switch port created already for this name\n",
                                     "(switch=REC) There is a switch port created already for this name\n",
                                     "Failed to find switch profile for REC \n"}));
    EXPECT_EQ(switchPortDestroy(p), 0);
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
}

TEST_F(Ports, MappingFailuresRefuseThePortListsRegisterEachLowerSwitchOnceInOrder) {
    Switch *top = add("TOP", 2), *low1 = add("LOW1", 1), *low2 = add("LOW2", 1);
    for (auto [sw, n] : {std::pair{"LOW1", 3}, {"LOW1", 5}, {"LOW2", 4}}) ASSERT_EQ(addPort(sw, n), 0);
    drv.calls.clear();
    for (const auto &[phy, lookup] : std::vector<std::pair<const char *, std::string>>{
             {"GONE:1", "Failed to get the switch entry for GONE \n"},
             {"LOW1:9", "Failed to get the switch port for 9 in LOW1 \n"},
             {"LOW1:3,GONE:1", "Failed to get the switch entry for GONE \n"}}) {
        cap->clear();
        EXPECT_EQ(addPort("TOP", 1, phy), -1) << phy;
        EXPECT_EQ(cap->rawLogs(), (Lines{"(switch=TOP) (port:1) " + lookup,
                                         "(switch=TOP) (port:1) Failed to update port mapping for port1 in TOP \n",
                                         "(switch=TOP) (port:1) Failed to initiate port mappings \n",
                                         "Failed to create switch port configuration \n"}));
        EXPECT_EQ(osaListFirst(&top->portList), nullptr);
    }
    EXPECT_EQ(children(top), std::vector<Switch *>{low1});  // the mapping made before the failure
    EXPECT_TRUE(drv.calls.empty());

    cap->clear();
    ASSERT_EQ(addPort("TOP", 1, "LOW1:3"), 0);
    EXPECT_EQ(mapped(switchPortByNumberGet(top, 1)), std::vector<SwitchPort *>{switchPortByNumberGet(low1, 3)});
    EXPECT_EQ(children(top), std::vector<Switch *>{low1});
    EXPECT_EQ(cap->rawLogs(), Lines{"(switch=TOP) (port:1) Added switch port configuration.\n"});
    ASSERT_EQ(addPort("TOP", 2, ",LOW2:4,,LOW1:5,"), 0);
    EXPECT_EQ(mapped(switchPortByNumberGet(top, 2)),
              (std::vector<SwitchPort *>{switchPortByNumberGet(low2, 4), switchPortByNumberGet(low1, 5)}));
    EXPECT_EQ(children(top), (std::vector<Switch *>{low1, low2}));
}

TEST_F(Ports, MappingsThatWouldLoopTheHierarchyOrNameNoPortNumberAreRefused) {
    Switch *a = add("A", 3), *b = add("B", 2), *c = add("C", 1);
    for (auto [sw, n] : {std::pair{"A", 0}, {"B", 0}, {"C", 0}}) ASSERT_EQ(addPort(sw, n), 0);
    ASSERT_EQ(addPort("A", 1, "B:0"), 0);
    ASSERT_EQ(addPort("B", 1, "C:0"), 0);
    drv.calls.clear();
    const std::string loop = "would be below itself\n";
    for (const auto &[sw, phy, why] : std::vector<std::tuple<const char *, const char *, std::string>>{
             {"A", "A:0", "Refusing A as a lower-level switch of A: A " + loop},     // itself
             {"B", "A:0", "Refusing A as a lower-level switch of B: B " + loop},     // two switches
             {"C", "A:0", "Refusing A as a lower-level switch of C: C " + loop},     // through B
             {"C", "B:0", "Refusing B as a lower-level switch of C: C " + loop},
             {"A", "B:32", "(switch=A) (port:7) Port number 32 of B is out of range\n"},
             {"A", "B:-1", "(switch=A) (port:7) Port number -1 of B is out of range\n"},
             {"A", "B:4294967296", "(switch=A) (port:7) Port number 4294967296 of B is out of range\n"}}) {
        cap->clear();
        EXPECT_EQ(addPort(sw, 7, phy), -22) << sw << " " << phy;
        const std::string port = std::string("(switch=") + sw + ") (port:7) ";
        EXPECT_EQ(cap->rawLogs(), (Lines{why, port + "Failed to update port mapping for port7 in " + sw + " \n",
                                         port + "Failed to initiate port mappings \n",
                                         "Failed to create switch port configuration \n"}));
        EXPECT_EQ(switchPortByNumberGet(switchByNameGet(sw), 7), nullptr);
    }
    EXPECT_EQ(children(a), std::vector<Switch *>{b});
    EXPECT_EQ(children(b), std::vector<Switch *>{c});
    EXPECT_TRUE(children(c).empty());
    EXPECT_TRUE(drv.calls.empty());
    EXPECT_EQ(switchLowerLvlSwitchListAppend(c, a), -22) << "the registry keeps the tree on its own too";
    EXPECT_EQ(addPort("A", 7, "C:0"), 0) << "a lower switch may be reached twice";
    SwitchPort *p = switchPortByNumberGet(a, 7);
    EXPECT_EQ(switchPortMappedListAppend(p, nullptr), -1);
    EXPECT_EQ(switchPortMappedListAppend(nullptr, p), -1);
    EXPECT_EQ(mapped(p).size(), 1u);
}
