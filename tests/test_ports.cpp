// SPDX-License-Identifier: Apache-2.0
// Switch ports: creation, trust mode, port mapping onto lower-level switches.
#include <cstring>

#include "data_lines.h"

namespace {

const char *const kData = "ports/expected.txt";

std::vector<SwitchPort *> mapped(SwitchPort *p) { return swtest::listed(&p->mappedPorts, &SwitchPortMapEntry::port); }
std::vector<Switch *> children(Switch *sw) { return swtest::listed(&sw->lowerLvlSwitchList, &SwitchLowerRef::sw); }

class Ports : public swtest::DriverTest {
protected:
    int addPort(const char *sw, int number, const char *phy = "", int trustMode = 0, SwitchPortConf c = {}) {
        std::snprintf(c.switchName, sizeof c.switchName, "%s", sw);
        std::snprintf(c.phyDevice, sizeof c.phyDevice, "%s", phy);
        c.portNumber = number;
        c.trustMode = trustMode;
        return switchPortConfAdd(&c);
    }
};
SWTEST_BOTH_FORMS(PortForms, Ports);

}  // namespace

TEST_P(PortForms, AddCopiesTheRowSendsTrustModeOnAddAndApplyRefusesDuplicates) {
    Switch *sw = add("REC", 1);
    // Named again for the release below.
    SwitchPortConf c{.switchName = "REC", .portNumber = 3, .PVID = 10, .portType = 2, .reserved = 0, .mirroring = 1,
                     .trustMode = 0, .interfaceName = {}, .phyDevice = {}, .qos = {1000, 1, 4, 10, 20, 30, 40}};
    std::memset(c.interfaceName, 'i', sizeof c.interfaceName);  // no terminator
    ASSERT_EQ(addPort("REC", 3, "", 2, c), 0);
    SwitchPort *p = switchPortByNumberGet(sw, 3);
    EXPECT_EQ(std::tie(p->sw, p->PVID, p->portType, p->mirroring), std::make_tuple(sw, 10, 2, 1));
    EXPECT_EQ(std::string(p->interfaceName), std::string(63, 'i'));
    EXPECT_EQ(swtest::bytesOf(p->qos), swtest::bytesOf(c.qos));
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "added-3")));

    ASSERT_EQ(addPort("REC", 4, "", 40), 0);

    // A duplicate is refused; the listed port is kept.
    EXPECT_EQ((reset(), addPort("REC", 3)), -1);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "duplicate-3")));
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
    EXPECT_EQ(p->PVID, 10);
    EXPECT_TRUE(drv.calls.empty());

    // The first failure stops the walk; a port whose trust mode fails stays listed.
    drv.results[SW_CMD_PORT_TRUST_MODE] = -4;
    EXPECT_EQ(switchPortCfgApply(sw, nullptr), -4);
    EXPECT_EQ(drv.calls.size(), 1u);
    EXPECT_EQ((cap->clear(), addPort("REC", 7)), -4);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "trust-refused-7")));
    EXPECT_NE(switchPortByNumberGet(sw, 7), nullptr);

    EXPECT_EQ((reset(), switchPortVlanInfoConfigure(sw, p)), 0);
    ASSERT_EQ(drv.cmds(), std::vector<int>{SW_CMD_PORT_CONFIG_SET});
    EXPECT_EQ(drv.calls[0].argPtr, p);

    // Lookup by switch name and release are stubs with an odd message.
    cap->clear();
    EXPECT_EQ(switchPortByNumberAndSwitchNameGet("GONE", 3), nullptr);
    EXPECT_EQ(switchPortByNumberAndSwitchNameGet("REC", 3), nullptr);
    EXPECT_EQ(switchPortDeinit(&c), SW_EINVAL);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "stubs")));
    EXPECT_EQ(switchPortDestroy(p), 0);
    EXPECT_EQ(std::make_tuple(switchPortMapInit(nullptr, nullptr), switchPortTrustModeConfigure(nullptr),
                              switchPortCfgApply(nullptr, p)), std::make_tuple(-1, -22, -22));
    EXPECT_EQ(switchPortByNumberGet(sw, 3), p);
}

// Each phyDevice text of a new TOP port 1, in turn: the result, the lower
// ports it then stands for and TOP's lower-level switches (as "SW:n ... / SW
// ..."), and the whole log.
TEST_P(PortForms, MappingsListLowerPortsAndRegisterEachLowerSwitchOnceInOrder) {
    Switch *top = add("TOP", 2);
    for (const char *name : {"LOW1", "LOW2"}) add(name, 1);
    for (auto [sw, n] : {std::pair{"LOW1", 3}, {"LOW1", 5}, {"LOW2", 4}}) ASSERT_EQ(addPort(sw, n), 0);
    for (const swtest::Row &c : swtest::dataRows(kData, "mappings")) {
        // Each case has a TOP of its own, without ports and lower-level
        // switches: the last one is renamed out of the lookup's way.
        std::snprintf(top->switchName, sizeof top->switchName, "OLD");
        top = add("TOP", 2);
        const int result = std::stoi(c.at(1));
        EXPECT_EQ(addPort("TOP", 1, c[0].c_str()), result) << c[0];
        SwitchPort *port = switchPortByNumberGet(top, 1);
        EXPECT_EQ(port != nullptr, result == 0);
        std::string tree;
        for (SwitchPort *m : port ? mapped(port) : std::vector<SwitchPort *>{})
            tree += std::string(m->sw->switchName) + ":" + std::to_string(m->portNumber) + " ";
        tree += "/";
        for (Switch *low : children(top)) tree += std::string(" ") + low->switchName;
        EXPECT_EQ(tree, c.at(2)) << c[0];
        EXPECT_TRUE(cap->logsAre(swtest::dataLogs(kData, "map:" + c[0])));
    }
}

TEST_F(Ports, MappingsThatWouldLoopTheHierarchyOrNameNoPortNumberAreRefused) {
    Switch *a = add("A", 3), *b = add("B", 2), *c = add("C", 1);
    for (auto [sw, n] : {std::pair{"A", 0}, {"B", 0}, {"C", 0}}) ASSERT_EQ(addPort(sw, n), 0);
    for (auto [sw, phy] : {std::pair{"A", "B:0"}, {"B", "C:0"}}) ASSERT_EQ(addPort(sw, 1, phy), 0);
    drv.calls.clear();
    // Each row: the switch, the mapping text, and the whole log of the refusal:
    // A onto itself, B onto A, C onto A through B, C onto B, and port numbers
    // out of range.
    for (const swtest::Row &r : swtest::dataRows(kData, "refused")) {
        cap->clear();
        EXPECT_EQ(addPort(r.at(0).c_str(), 7, r.at(1).c_str()), -22) << r[0] << " " << r[1];
        EXPECT_EQ(cap->rawLogs(), swtest::Row(r.begin() + 2, r.end()));
        EXPECT_EQ(switchPortByNumberGet(switchByNameGet(r[0].c_str()), 7), nullptr);
    }
    EXPECT_EQ((std::vector<std::vector<Switch *>>{children(a), children(b), children(c)}),
              (std::vector<std::vector<Switch *>>{{b}, {c}, {}}));
    EXPECT_TRUE(drv.calls.empty());
    EXPECT_EQ(addPort("A", 7, "C:0"), 0) << "a lower switch may be reached twice";
    SwitchPort *p = switchPortByNumberGet(a, 7);
    EXPECT_EQ(std::make_pair(switchPortMappedListAppend(p, nullptr), switchPortMappedListAppend(nullptr, p)),
              std::make_pair(-1, -1));
    EXPECT_EQ(mapped(p), std::vector<SwitchPort *>{switchPortByNumberGet(c, 0)});
    EXPECT_EQ(switchPortMapInit(p, std::string("B:0").data()), 0);  // a list given again replaces the old one
    EXPECT_EQ(mapped(p), std::vector<SwitchPort *>{switchPortByNumberGet(b, 0)});
}
