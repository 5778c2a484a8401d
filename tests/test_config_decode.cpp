// Decoding configuration rows by column name, and port-list bitmaps.
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "config/swconf.h"
#include "swmgr_test.h"

namespace {

using Cell = std::optional<std::string>;  // nullopt is SQL NULL

// A query result in sqlite3_get_table layout: names, then rows.
class Table {
public:
    Table(const std::vector<std::string> &names, const std::vector<std::vector<Cell>> &rows)
        : nCols(static_cast<int>(names.size())), store_(names.begin(), names.end()) {
        for (const auto &row : rows) store_.insert(store_.end(), row.begin(), row.end());
        for (auto &c : store_) cells_.push_back(c ? c->data() : nullptr);
    }
    char **result() { return cells_.data(); }
    const int nCols;

private:
    std::vector<Cell> store_;
    std::vector<char *> cells_;
};

uint32_t convert(const char *text) {
    std::string copy(text);
    return str2num(copy.data());
}

}  // namespace

TEST(ConfigDecode, SwitchRowTakenByNameFromTheRequestedRow) {
    Table t({"numPorts", "extra", "switchLevel", "switchName", "qosEnable", "vlanEnable",
             "switchDevice", "pauseFrameEnable", "igmpSnoopingEnable", "mldSnoopingEnable"},
            {{"5", "x", "1", "BCM", "0", "0", "/dev/a", "0", "0", "0"},
             {"8", "y", "2", "PSE", "1", "1", "/dev/b", "1", "12abc", "junk"}});
    SwitchConf c{};
    EXPECT_EQ(swGlobalCfgFromQueryResultRead(&c, t.result(), t.nCols, 1), 0);
    EXPECT_STREQ(c.switchName, "PSE");
    EXPECT_STREQ(c.switchDevice, "/dev/b");
    const int32_t expected[] = {1, 1, 8, 1, 12, 0, 2};  // record order; atoi rules
    EXPECT_EQ(std::memcmp(&c.vlanEnable, expected, sizeof expected), 0);

    // Missing columns leave the caller's cleared record at 0.
    Table partial({"switchName", "switchLevel"}, {{"BCM", "3"}});
    SwitchConf p{};
    swGlobalCfgFromQueryResultRead(&p, partial.result(), partial.nCols, 0);
    EXPECT_STREQ(p.switchName, "BCM");
    EXPECT_EQ(p.switchLevel, 3);
    EXPECT_STREQ(p.switchDevice, "");
    EXPECT_EQ(p.vlanEnable, 0);
}

TEST(ConfigDecode, PortRowMatchesExactNamesFirstColumnWinsNullKeeps) {
    Table t({"portNumber", "pvid", "switchName", "portNumber", "trustMode", "interfaceName",
             "phyDevice", "mirroring", "portType", "rateLimit", "schedMode", "numQueues",
             "queue1Weight", "queue2Weight", "queue3Weight", "queue4Weight", "PVID"},
            {{"3", "10", "PSE", "9", std::nullopt, "eth0", "BCM:1,BCM:2", "1", "2", "1000", "1",
              "4", "10", "20", "30", "40", std::nullopt}});
    SwitchPortConf c{};
    c.PVID = 77;
    c.trustMode = 5;
    c.reserved = 123;
    swPortCfgFromQueryResultRead(&c, t.result(), t.nCols, 0);
    EXPECT_EQ(c.portNumber, 3);  // the first of the two portNumber columns
    EXPECT_EQ(c.PVID, 77);       // "pvid" is not "PVID", and PVID is null
    EXPECT_EQ(c.trustMode, 5);
    EXPECT_EQ(c.reserved, 123);
    EXPECT_STREQ(c.switchName, "PSE");
    EXPECT_STREQ(c.interfaceName, "eth0");
    EXPECT_STREQ(c.phyDevice, "BCM:1,BCM:2");
    EXPECT_EQ(c.mirroring, 1);
    EXPECT_EQ(c.portType, 2);
    const SwitchPortQos qos{1000, 1, 4, 10, 20, 30, 40};
    EXPECT_EQ(swtest::bytesOf(c.qos), swtest::bytesOf(qos));
}

TEST(ConfigDecode, VlanRowFieldsAndOverLongTextsCutAtTheirField) {
    const std::string longIf(100, 'i');
    const std::string longMap(600, 'm');
    Table t({"vlanId", "inSwitchOnly", "fwdMap", "untagMap", "ingressMap", "egressMap",
             "interfaceName", "LogicalIfName", "vlanName", "vlanIndex"},
            {{"100", "1", "1,2,3", "3", longMap, "0:0", longIf, "wan", "name", "9"}});
    SwitchVlanConf c{};
    c.vlanIndex = 42;
    swVlanCfgFromQueryResultRead(&c, t.result(), t.nCols, 0);
    EXPECT_EQ(c.vlanId, 100);
    EXPECT_EQ(c.inSwitchOnly, 1);
    EXPECT_EQ(c.fwdMap, 0xeu);
    EXPECT_EQ(c.untagMap, 0x8u);
    EXPECT_EQ(std::string(c.ingressMap), longMap.substr(0, 511));
    EXPECT_STREQ(c.egressMap, "0:0");
    EXPECT_EQ(std::string(c.interfaceName), longIf.substr(0, 63));
    EXPECT_STREQ(c.LogicalIfName, "wan");  // the neighbour of the cut field is intact
    EXPECT_STREQ(c.vlanName, "");          // no column fills these two
    EXPECT_EQ(c.vlanIndex, 42);
}

TEST(ConfigDecode, PortListBitmaps) {
    EXPECT_EQ(convert("0,1,2,8"), 0x107u);
    EXPECT_EQ(convert("31"), 0x80000000u);
    EXPECT_EQ(convert("40"), 0u);
    EXPECT_EQ(convert("70"), 0x40u);
    EXPECT_EQ(convert("-1"), 0u);
    EXPECT_EQ(convert("1,,2"), 0x6u);
    EXPECT_EQ(convert(" 5"), 0x20u);
    EXPECT_EQ(convert(",,,"), 0u);
    char text[] = "0,1,2,8";  // rewritten: the last token ends up at the start
    str2num(text);
    EXPECT_STREQ(text, "8");
}

TEST(ConfigDecode, AbsentUntagMapConvertsWhatFwdMapLeftInTheScratch) {
    struct Case {
        std::vector<std::string> names;
        std::vector<Cell> row;
        uint32_t fwd, untag;
    };
    const Case cases[] = {
        {{"fwdMap"}, {"3"}, 0x8, 0x8},
        {{"fwdMap", "untagMap"}, {"0,1,2,8", std::nullopt}, 0x107, 0x100},
        {{"vlanId"}, {"5"}, 0, 0},
        {{"fwdMap", "untagMap"}, {"", "1"}, 0, 0x2},
        {{"fwdMap", "untagMap"}, {std::nullopt, std::nullopt}, 0, 0},
    };
    for (const auto &k : cases) {
        Table t(k.names, {k.row});
        SwitchVlanConf c{};
        c.fwdMap = c.untagMap = 0xffffffffu;  // always converted, never kept
        swVlanCfgFromQueryResultRead(&c, t.result(), t.nCols, 0);
        EXPECT_EQ(c.fwdMap, k.fwd) << k.row[0].value_or("NULL");
        EXPECT_EQ(c.untagMap, k.untag) << k.row[0].value_or("NULL");
    }
}
