// SPDX-License-Identifier: Apache-2.0
// Switch ports: creation, trust mode, port mapping onto lower-level switches.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "swmgr/swconf.h"
#include "data_lines.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {

using Lines = std::vector<std::string>;
using swtest::bytesOf;
const char *const kData = "ports/expected.txt";

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
using PortForms = swtest::BothForms<Ports>;
SWTEST_BOTH_FORMS(PortForms);

}  // namespace

TEST_P(PortForms, AddCopiesTheRowSendsTrustModeOnAddAndApplyRefusesDuplicates) {
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
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "added-3")));

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
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "duplicate-3")));
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
    EXPECT_EQ(p->PVID, 10);
    EXPECT_TRUE(drv.calls.empty());

    // The first failure stops the walk; a port whose trust mode fails stays listed.
    drv.results[SW_CMD_PORT_TRUST_MODE] = -4;
    EXPECT_EQ(switchPortCfgApply(sw, nullptr), -4);
    EXPECT_EQ(drv.calls.size(), 1u);
    cap->clear();
    EXPECT_EQ(addPort("REC", 7), -4);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "trust-refused-7")));
    EXPECT_NE(switchPortByNumberGet(sw, 7), nullptr);

    drv.calls.clear();
    cap->clear();
    EXPECT_EQ(switchPortVlanInfoConfigure(sw, p), 0);
    ASSERT_EQ(drv.cmds(), std::vector<int>{SW_CMD_PORT_CONFIG_SET});
    EXPECT_EQ(drv.calls[0].argPtr, p);
    EXPECT_EQ(drv.calls[0].argLen, SW_PORT_REC_LEN);
    drv.results[SW_CMD_PORT_CONFIG_SET] = -9;
    EXPECT_EQ(switchPortVlanInfoConfigure(sw, p), -9);
    EXPECT_TRUE(cap->logsAre({{8, "switchPortVlanInfoConfigure", "(switch=REC) Failed to configure port3 in REC\n"}}));

    // Lookup by switch name and release are stubs with an odd message.
    cap->clear();
    EXPECT_EQ(switchPortByNumberAndSwitchNameGet("GONE", 3), nullptr);
    EXPECT_EQ(switchPortByNumberAndSwitchNameGet("REC", 3), nullptr);
    EXPECT_EQ(switchPortDeinit(&c), SW_EINVAL);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "stubs")));
    EXPECT_EQ(switchPortDestroy(p), 0);
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
}

// Each phyDevice text of a new TOP port 1, in turn: the result, the lower
// ports it then stands for, TOP's lower-level switches and the whole log.
TEST_P(PortForms, MappingsListLowerPortsAndRegisterEachLowerSwitchOnceInOrder) {
    Switch *top = add("TOP", 2), *low1 = add("LOW1", 1), *low2 = add("LOW2", 1);
    for (auto [sw, n] : {std::pair{"LOW1", 3}, {"LOW1", 5}, {"LOW2", 4}}) ASSERT_EQ(addPort(sw, n), 0);
    SwitchPort *l13 = switchPortByNumberGet(low1, 3), *l15 = switchPortByNumberGet(low1, 5),
               *l24 = switchPortByNumberGet(low2, 4);
    struct Case {
        const char *phy;
        int result;
        std::vector<SwitchPort *> mapped;
        std::vector<Switch *> children;
    } cases[] = {{"GONE:1", -1, {}, {}}, {"LOW1:9", -1, {}, {}},
                 {"LOW1:3,GONE:1", -1, {}, {low1}},  // the mapping made before the failure stays
                 {"", 0, {}, {}}, {"LOW1:3", 0, {l13}, {low1}}, {",LOW2:4,,LOW1:5,LOW1:3", 0, {l24, l15, l13}, {low2, low1}}};
    // Each case starts from a TOP without ports and lower-level switches.
    auto release = [](OsaList *list, auto each) {
        while (void *n = osaListFirst(list)) {
            osaListNodeRemove(list, n);
            each(n);
            std::free(n);
        }
    };
    drv.calls.clear();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.phy);
        release(&top->portList, [&](void *p) { release(&static_cast<SwitchPort *>(p)->mappedPorts, [](void *) {}); });
        release(&top->lowerLvlSwitchList, [](void *) {});
        cap->clear();
        EXPECT_EQ(addPort("TOP", 1, c.phy), c.result);
        SwitchPort *port = switchPortByNumberGet(top, 1);
        EXPECT_EQ(port != nullptr, c.result == 0);
        EXPECT_EQ(port ? mapped(port) : std::vector<SwitchPort *>{}, c.mapped);
        EXPECT_EQ(children(top), c.children);
        EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, std::string("map:") + c.phy)));
        EXPECT_EQ(drv.cmds(), c.result == 0 ? std::vector<int>{SW_CMD_PORT_TRUST_MODE} : std::vector<int>{});
        drv.calls.clear();
    }
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
