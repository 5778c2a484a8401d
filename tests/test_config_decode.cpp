// SPDX-License-Identifier: Apache-2.0
// Decoding configuration rows by column name, and port-list bitmaps.
#include <cstring>
#include <optional>
#include <tuple>

#include "swmgr_test.h"

namespace {

using Cell = std::optional<std::string>;  // nullopt is SQL NULL

// A query result in sqlite3_get_table layout: names, then rows.
struct Table {
    Table(const std::vector<std::string> &names, const std::vector<std::vector<Cell>> &rows)
        : nCols(static_cast<int>(names.size())), store(names.begin(), names.end()) {
        for (const auto &row : rows) store.insert(store.end(), row.begin(), row.end());
        for (auto &c : store) cells.push_back(c ? c->data() : nullptr);
    }
    const int nCols;
    std::vector<Cell> store;
    std::vector<char *> cells;
};

}  // namespace

TEST(ConfigDecode, SwitchRowTakenByNameFromTheRequestedRow) {
    Table t({"numPorts", "extra", "switchLevel", "switchName", "qosEnable", "vlanEnable",
             "switchDevice", "pauseFrameEnable", "igmpSnoopingEnable", "mldSnoopingEnable"},
            {{"5", "x", "1", "BCM", "0", "0", "/dev/a", "0", "0", "0"},
             {"8", "y", "2", "PSE", "1", "1", "/dev/b", "1", "12abc", "7junk"}});
    SwitchConf c{};
    EXPECT_EQ(swGlobalCfgFromQueryResultRead(&c, t.cells.data(), t.nCols, 1), 0);
    EXPECT_EQ(std::string(c.switchName) + "|" + c.switchDevice, "PSE|/dev/b");
    const int32_t expected[] = {1, 1, 8, 1, 12, 7, 2};  // record order; atoi rules
    EXPECT_EQ(std::memcmp(&c.vlanEnable, expected, sizeof expected), 0);
}

TEST(ConfigDecode, PortRowMatchesExactNamesFirstColumnWinsNullKeepsLongTextCut) {
    const std::string longIf(100, 'i');
    Table t({"portNumber", "pvid", "switchName", "portNumber", "trustMode", "interfaceName",
             "phyDevice", "mirroring", "portType", "rateLimit", "schedMode", "numQueues",
             "queue1Weight", "queue2Weight", "queue3Weight", "queue4Weight", "PVID"},
            {{"3", "10", "PSE", "9", std::nullopt, longIf, "BCM:1,BCM:2", "1", "2", "1000", "1",
              "4", "10", "20", "30", "40", std::nullopt}});
    SwitchPortConf c{{}, 0, 77, 0, 0, 0, 5, {}, {}, {}};  // PVID and trust mode set beforehand
    swPortCfgFromQueryResultRead(&c, t.cells.data(), t.nCols, 0);
    // The first of the two portNumber columns; "pvid" is not "PVID", and nulls keep.
    EXPECT_EQ(std::tie(c.portNumber, c.PVID, c.trustMode, c.mirroring, c.portType), std::make_tuple(3, 77, 5, 1, 2));
    // The long name is cut at its field, the neighbour intact.
    EXPECT_EQ(std::string(c.switchName) + "|" + c.interfaceName + "|" + c.phyDevice,
              "PSE|" + longIf.substr(0, 63) + "|BCM:1,BCM:2");
    const SwitchPortQos qos{1000, 1, 4, 10, 20, 30, 40};
    EXPECT_EQ(swtest::bytesOf(c.qos), swtest::bytesOf(qos));
}

TEST(ConfigDecode, VlanRowByNameLongMapCutAtItsField) {
    const std::string longMap(600, 'm');
    Table t({"vlanId", "inSwitchOnly", "ingressMap", "egressMap", "interfaceName", "LogicalIfName", "vlanIndex"},
            {{"100", "1", longMap, "0:0", "eth0", "wan", "9"}});
    SwitchVlanConf c{};
    swVlanCfgFromQueryResultRead(&c, t.cells.data(), t.nCols, 0);
    // No column fills vlanIndex.
    EXPECT_EQ(std::tie(c.vlanId, c.inSwitchOnly, c.vlanIndex), std::make_tuple(100, 1, 0));
    EXPECT_EQ(std::string(c.ingressMap), longMap.substr(0, 511));
    EXPECT_EQ(std::string(c.egressMap) + "|" + c.interfaceName + "|" + c.LogicalIfName, "0:0|eth0|wan");
}

TEST(ConfigDecode, PortListBitmaps) {
    const std::pair<const char *, uint32_t> cases[] = {
        {"0,1,2,8", 0x107}, {"31", 0x80000000u}, {"40", 0}, {"70", 0x40},
        {"-1", 0},          {"1,,2", 0x6},       {" 5", 0x20},
        {"4294967297,2", 0x4}, {"-99999999999999999999", 0}, {"2147483615", 0x80000000u},
        {"-2147483648,3", 0x9}};  // -2^31 has bit 5 clear: bit 0, as the shift rule gives
    for (const auto &[text, bits] : cases) EXPECT_EQ(str2num(std::string(text).data()), bits) << text;
}

// Rows with numbers beyond 32 bits are refused through the change events;
// here what only a direct call shows.
TEST(ConfigDecode, AValueIsNeverANameNoRecordIsNoWorkAndABadOldRowRefusesTheUpdate) {
    Table shifted({"x"}, {{"vlanId"}, {"77"}});
    SwitchVlanConf none{};
    Table next({"vlanId"}, {{"10"}}), old({"vlanId"}, {{"4294967306"}}), named({"interfaceName"}, {{"eth9"}});
    EXPECT_EQ(std::make_tuple(swVlanCfgFromQueryResultRead(&none, shifted.cells.data(), 1, 0),
                              swVlanCfgFromQueryResultRead(&none, nullptr, 3, 0),
                              swVlanCfgFromQueryResultRead(&none, named.cells.data(), 1, -1)), std::make_tuple(0, 0, 0));
    EXPECT_EQ(std::make_pair(none.vlanId, std::string(none.interfaceName)), std::make_pair(0, std::string()));
    Table bad({"switchLevel", "portNumber", "vlanId"}, {{"12345678901", "-12345678901", "4294967306"}});
    EXPECT_EQ(std::make_tuple(swGlobalCfgFromQueryResultRead(nullptr, bad.cells.data(), 3, 0),
                              swPortCfgFromQueryResultRead(nullptr, bad.cells.data(), 3, 0),
                              swVlanCfgFromQueryResultRead(nullptr, bad.cells.data(), 3, 0)), std::make_tuple(0, 0, 0));
    EXPECT_EQ(swVlanCfgDBUpdateHandler(next.cells.data(), old.cells.data(), 1, 0), -22);
}

TEST(ConfigDecode, AbsentUntagMapConvertsWhatFwdMapLeftInTheScratch) {
    using Case = std::tuple<std::vector<std::string>, std::vector<Cell>, uint32_t, uint32_t>;
    for (const auto &[names, row, fwd, untag] : std::vector<Case>{
             {{"fwdMap"}, {"3"}, 0x8, 0x8},
             {{"fwdMap"}, {std::string(510, '0') + "13"}, 0x2, 0x2},  // cut to the 511 bytes the scratch holds
             {{"fwdMap", "untagMap"}, {"0,1,2,18", std::nullopt}, 0x40007, 0x40000},
             {{"fwdMap", "untagMap"}, {"", "1"}, 0, 0x2},
             {{"fwdMap", "untagMap"}, {std::nullopt, std::nullopt}, 0, 0}}) {
        Table t(names, {row});
        SwitchVlanConf c{0, {}, {}, {}, {}, {}, 0xffffffffu, 0xffffffffu, 0, 0};  // maps always converted, never kept
        swVlanCfgFromQueryResultRead(&c, t.cells.data(), t.nCols, 0);
        EXPECT_EQ(std::tie(c.fwdMap, c.untagMap), std::tie(fwd, untag)) << row[0].value_or("NULL");
    }
}
