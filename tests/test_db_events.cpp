// SPDX-License-Identifier: Apache-2.0
// Configuration loading and row-change events on a real database file.
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>

#include "swmgr/portvlan.h"
#include "swmgr/swconf.h"
#include "swmgr_test.h"

namespace {

using Ints = std::vector<int>;
using swtest::Logs;

const std::string kSchema = std::string(swtest::kConfigSchema) +
    "INSERT INTO swGlobalCfg VALUES ('REC', '', 1, 0, 5, 0, 0, 0, 1);"
    "INSERT INTO swPortConfig VALUES ('REC', 2, 1, 0, 0, 0, 'lan', '', 0, 0, 4, 1, 1, 1, 1);"
    "INSERT INTO vlanEncapIf VALUES (10, 'eth0', 'br-lan', '', '', '0,1', '0', 0);";
const std::string kRow = "<the row>";  // as old values: the row's before the change
const std::string kHandler = "swMgrDBUpdateHandler";

class DbEvents : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        rec = std::make_unique<swtest::RecordingDriver>();
        path = root->file("config.db");
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        // A scratch file: the cases rebuild its tables, no need to wait for the disk.
        exec("PRAGMA synchronous=OFF;" + kSchema);
        ASSERT_EQ(swMgrDBInit(const_cast<char *>(path.c_str())), 0);
    }
    void TearDown() override {
        EXPECT_EQ(swMgrDBDeinit(), 0);
        sqlite3_close(db);
        rec.reset();
        SwmgrTest::TearDown();
    }
    void exec(const std::string &sql) {
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }
    // Empty registry, the tables as the schema makes them, then `sql`.
    void rebuild(const std::string &sql = "") {
        swtest::resetRegistry();
        exec("DROP TABLE swGlobalCfg; DROP TABLE IF EXISTS swPortConfig; DROP TABLE IF EXISTS vlanEncapIf;" +
             kSchema + sql);
    }
    std::string oldValues(const std::string &table, int row) { return swtest::rowValuesBlock(db, table, row); }
    int event(const char *table, int rowId, int opCode, std::string old = "", unsigned len = 80) {
        DbUpdateEvent ev{};
        std::memcpy(ev.tableName, table, std::min(std::strlen(table), sizeof ev.tableName));
        ev.rowId = rowId, ev.opCode = opCode;
        return swMgrDBUpdateHandler(&ev, len, old.empty() ? nullptr : old.data(), static_cast<unsigned>(old.size()));
    }
    void loadAll() {
        ASSERT_TRUE(switchCfgLoad() == 0 && switchPortCfgLoad() == 0 && switchVlanCfgLoad() == 0);
        ASSERT_NE(sw = switchByNameGet("REC"), nullptr);
        cap->clear(), rec->calls.clear();
    }
    std::unique_ptr<swtest::RecordingDriver> rec;
    std::string path;
    sqlite3 *db = nullptr;
    Switch *sw = nullptr;
};

using DbEventForms = swtest::BothForms<DbEvents>;
SWTEST_BOTH_FORMS(DbEventForms);

// The log lines that frame every well-formed event.
Logs framed(const std::string &table, int op, int row, int status, const Logs &inner, bool processed = true) {
    const std::string head =
        "DBUpdate event: Table: " + table + " opCode:" + std::to_string(op) + " rowId:" + std::to_string(row);
    Logs out{{-1, kHandler, head + "\n"}};
    if (processed) out.push_back({64, kHandler, head + " processing \n"});
    out.insert(out.end(), inner.begin(), inner.end());
    out.push_back({64, kHandler, head + " status=" + std::to_string(status) + "\n"});
    return out;
}

// Each start-up load over tables changed by `sql`: the result, what the
// switch, port and VLAN layers then hold, and the whole log.
TEST_P(DbEventForms, LoadersStopAtTheFirstRefusedRow) {
    struct Case {
        std::string sql;
        int (*load)();
        int result;
        Ints ports, vlans;  // on REC afterwards
        Logs logs;
    } cases[] = {
        {"DELETE FROM vlanEncapIf;", switchVlanCfgLoad, 0, {}, {}, {}},
        {"INSERT INTO swPortConfig VALUES ('NOPE', 1, 1, 0, 0, 0, 'lan', '', 0, 0, 4, 1, 1, 1, 1);"
         "INSERT INTO swPortConfig VALUES ('REC', 3, 1, 0, 0, 0, 'lan', '', 0, 0, 4, 1, 1, 1, 1);",
         switchPortCfgLoad, -1, {2}, {},
         {{-1, "switchPortCreate", "Creating 2 port in REC \n"},
          {64, "switchPortConfAdd", "(switch=REC) (port:2) Added switch port configuration.\n"},
          {-1, "switchPortCreate", "Creating 1 port in NOPE \n"},
          {8, "switchPortCreate", "NOPE switch is not yet created \n"},
          {8, "switchPortConfAdd", "Failed to create switch port configuration \n"},
          {8, "swPortCfgDBInsertHandler", "Failed to create new switch port profile \n"},
          {8, "switchPortCfgLoad", "failed to load switch profile\n"}}},
        {"DROP TABLE vlanEncapIf;", switchVlanCfgLoad, -22, {}, {},
         {{8, "switchVlanCfgLoad", "failed to get list of vlans from the database\n"}}},
        {"DROP TABLE swPortConfig;", switchPortCfgLoad, -22, {}, {},
         {{8, "switchPortCfgLoad", "failed to get list of switch ports from the database\n"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sql);
        rebuild(c.sql);
        ASSERT_EQ(switchCfgLoad(), 0);
        sw = switchByNameGet("REC");
        cap->clear();
        EXPECT_EQ(c.load(), c.result);
        Ints ports, vlans;
        for (void *p = osaListFirst(&sw->portList); p; p = osaListNext(p))
            ports.push_back(static_cast<SwitchPort *>(p)->portNumber);
        for (void *v = osaListFirst(&sw->vlanList); v; v = osaListNext(v))
            vlans.push_back(static_cast<SwitchVlan *>(v)->vlanId);
        EXPECT_EQ(std::tie(ports, vlans), std::tie(c.ports, c.vlans));
        EXPECT_TRUE(cap->logsAre(c.logs));
    }
}

// Each change event, with or without a load of REC (port 2, VLAN 10) first:
// the result, the driver commands it led to and the whole log.
TEST_P(DbEventForms, EventsFollowTheTableHandlers) {
    const Logs none;
    struct Case {
        bool loaded;
        std::string sql;
        const char *table;
        int row, op;
        std::string old;  // old values sent with the event
        int result;
        Ints cmds;
        Logs logs;
    } cases[] = {
        {false, "", "swGlobalCfg", 1, 18, "", 0, {33, 47, 49, 56, 57},
         framed("swGlobalCfg", 18, 1, 0, {{64, "switchCreate", "Creating REC Switch \n"},
                                          {64, "switchConfAdd", "(switch=REC) Added switch configuration.\n"}})},
        {true, "", "swGlobalCfg", 1, 18, "", -22, {},
         framed("swGlobalCfg", 18, 1, -22,
                {{64, "switchCreate", "Creating REC Switch \n"},
                 {8, "switchCreate", "There is a switch created already for this name\n"},
                 {8, "switchConfAdd", "Failed to create switch configuration \n"},
                 {8, "swGlobalCfgDBInsertHandler", "Failed to create new switch profile \n"}})},
        {true, "INSERT INTO swPortConfig VALUES ('REC', 3, 1, 0, 0, 2, 'lan', '', 0, 0, 4, 1, 1, 1, 1);",
         "swPortConfig", 2, 18, "", 0, {51},
         framed("swPortConfig", 18, 2, 0,
                {{-1, "switchPortCreate", "Creating 3 port in REC \n"},
                 {64, "switchPortConfAdd", "(switch=REC) (port:3) Added switch port configuration.\n"}})},
        {true, "UPDATE swPortConfig SET trustMode=3 WHERE rowid=1", "swPortConfig", 1, 23, kRow, -1, {},
         framed("swPortConfig", 23, 1, -1, none)},
        {true, "", "swPortConfig", 1, 9, kRow, -1, {}, framed("swPortConfig", 9, 1, -1, none)},
        {true, "", "swGlobalCfg", 1, 9, kRow, -1, {}, framed("swGlobalCfg", 9, 1, -1, none)},
        {true, "", "swGlobalCfg", 1, 23, kRow, -1, {}, framed("swGlobalCfg", 23, 1, -1, none)},
        {true, "", "vlanEncapIf", 1, 99, "", -1, {}, framed("vlanEncapIf", 99, 1, -1, none)},
        // A row deleted before its update is read: no row, no processing.
        {true, "", "vlanEncapIf", 999, 23, "", -1, {}, framed("vlanEncapIf", 23, 999, -1, none, false)},
        {true, "", "SWGLOBALCFG", 1, 18, "", 0, {}, framed("SWGLOBALCFG", 18, 1, 0, none)},
        {true, "", "vlanEncapIf WHERE 0;DROP TABLE swGlobalCfg;--", 1, 18, "", -1, {},
         framed("vlanEncapIf WHERE 0;DROP TABLE swGlobalCfg;--", 18, 1, -1, none, false)},
        // Three strings cannot be names and values of one row.
        {true, "", "vlanEncapIf", 1, 9, std::string("vlanId\0eth0\0x\0", 14), -1, {},
         framed("vlanEncapIf", 9, 1, -1,
                {{8, kHandler, "old values result does not contain 2 rows.j=14 nCols=3 outLen=14\n"}}, false)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.table) + " op " + std::to_string(c.op) + " " + c.sql);
        rebuild();
        if (c.loaded) loadAll();
        cap->clear(), rec->calls.clear();
        const std::string old = c.old == kRow ? oldValues(c.table, c.row) : c.old;
        if (!c.sql.empty()) exec(c.sql);
        EXPECT_EQ(event(c.table, c.row, c.op, old), c.result);
        EXPECT_EQ(rec->cmds(), c.cmds);
        EXPECT_TRUE(cap->logsAre(c.logs));
        EXPECT_EQ(sqlite3_exec(db, "SELECT * FROM swGlobalCfg", nullptr, nullptr, nullptr), SQLITE_OK)
            << "a table name is never run as SQL";
    }
}

TEST_P(DbEventForms, VlanRowInsertUpdateDeleteFollowTheDatabase) {
    loadAll();
    exec("INSERT INTO vlanEncapIf VALUES (100, 'eth0', 'br-guest', '', '', '2', '2', 0);");
    const int row = static_cast<int>(sqlite3_last_insert_rowid(db));
    EXPECT_EQ(event("vlanEncapIf", row, 18), 0);
    ASSERT_NE(switchVlanByIdGet(sw, 100), nullptr);
    EXPECT_EQ(switchVlanByIdGet(sw, 100)->fwdMap, 0x4u);
    EXPECT_EQ(cap->commands[1], "vconfig add eth0 100");

    // The update finds the VLAN by its old id and stores the new one.
    std::string old = oldValues("vlanEncapIf", row);
    exec("UPDATE vlanEncapIf SET vlanId=101, fwdMap='1,2' WHERE rowid=" + std::to_string(row));
    EXPECT_EQ(event("vlanEncapIf", row, 23, old), 0);
    EXPECT_EQ(switchVlanByIdGet(sw, 100), nullptr);
    ASSERT_NE(switchVlanByIdGet(sw, 101), nullptr);
    EXPECT_EQ(switchVlanByIdGet(sw, 101)->fwdMap, 0x6u);
    rec->results[SW_CMD_VLAN_MEMBERSHIP_APPLY] = -4;
    EXPECT_EQ(event("vlanEncapIf", row, 23, oldValues("vlanEncapIf", row)), -1);
    EXPECT_EQ(cap->countLog("Failed to update switch vlan profile \n"), 1);
    rec->results.clear();

    cap->clear();
    old = oldValues("vlanEncapIf", row);
    exec("DELETE FROM vlanEncapIf WHERE rowid=" + std::to_string(row));
    EXPECT_EQ(event("vlanEncapIf", row, 9, old), 0);
    EXPECT_EQ(switchVlanByIdGet(sw, 101), nullptr);
    EXPECT_EQ(cap->commands.front(), "vconfig rem eth0.101");
}

TEST_P(DbEventForms, MalformedEventsAreRefusedAndNothingIsReadPastItsLength) {
    loadAll();
    EXPECT_EQ(event("vlanEncapIf", 1, 18, "", 79), -1);
    EXPECT_EQ(swMgrDBUpdateHandler(nullptr, 80, nullptr, 0), -1);
    EXPECT_TRUE(cap->logsAre({{8, kHandler, "incomplete DB update information \n"},
                              {8, kHandler, "incomplete DB update information \n"}}));
    // A 64-byte name without terminator and a block whose last string is cut.
    EXPECT_EQ(event(std::string(64, 'v').c_str(), 0, 9, std::string("vlanId\0" "10", 9)), 0);
    // An update's old values shorter than the row: the missing ones stay
    // null (the old id reads as 0 and finds no VLAN).
    EXPECT_EQ(event("vlanEncapIf", 1, 23, std::string("vlanId\0" "10\0", 10)), 0);
    EXPECT_EQ(switchVlanByIdGet(sw, 10)->fwdMap, 0x3u);
    EXPECT_EQ(event("vlanEncapIf", 1, 23, std::string(3, '\0')), 0) << "three empty strings, nothing past them";
    // An empty block passes with no columns and reaches the delete handler,
    // which refuses a row without a parent interface name.
    cap->clear();
    EXPECT_EQ(event("vlanEncapIf", 5, 9), -22);
    EXPECT_EQ(cap->countLog("table vlanEncapIf row id 5: interfaceName \"\" refused: the name is empty\n"), 1);
    EXPECT_EQ(cap->commands.size() + rec->calls.size(), 0u);
    EXPECT_NE(switchVlanByIdGet(sw, 10), nullptr) << "nothing decoded, nothing deleted";
    // A cut last string ends with its block (40 bytes: no slack after it to hide a missing end).
    EXPECT_EQ(event("vlanEncapIf", 1, 9, std::string("vlanId\0ingressMap\0interfaceName\0" "10\0\0eth0", 40)), 0);
    EXPECT_EQ(cap->commands, std::vector<std::string>{"vconfig rem eth0.10"});
}

TEST_F(DbEvents, RowsWithUnsafeTextsOrNumbersAreRefusedAndLeaveTheLoadedOnesAlone) {
    loadAll();
    const std::string rule = " is not allowed (letters, digits, '_', '.', '-')\n";
    const std::map<std::string, std::string> columns = {
        {"vlanEncapIf", "(vlanId, interfaceName, LogicalIfName, fwdMap, untagMap)"},
        {"swPortConfig", "(switchName, portNumber, PVID, interfaceName)"},
        {"swGlobalCfg", "(switchName, switchDevice, switchLevel)"}};
    // The table, the row's values and why it is refused (the rule follows a
    // character's offset).
    const std::vector<std::vector<std::string>> cases = {
        {"vlanEncapIf", "11, 'eth0;x', '', '0', '0'", "interfaceName \"eth0;x\" refused: character ';' at offset 4"},
        {"vlanEncapIf", "11, 'eth0', 'br`x`', '0', '0'", "LogicalIfName \"br`x`\" refused: character '`' at offset 2"},
        {"vlanEncapIf", "4095, 'eth0', '', '0', '0'", "vlanId 4095 refused: outside 1..4094\n"},
        {"swPortConfig", "'REC', 3, 1, 'lan|x'", "interfaceName \"lan|x\" refused: character '|' at offset 3"},
        {"swPortConfig", "'REC', 3, 1, NULL", "interfaceName \"\" refused: the name is empty\n"},
        {"swPortConfig", "'REC', 32, 1, 'lan'", "portNumber 32 refused: outside 0..31\n"},
        {"swPortConfig", "'REC', 3, 4095, 'lan'", "PVID 4095 refused: outside 0..4094\n"},
        {"swGlobalCfg", "'NEW', 'dev/sw', 1", "switchDevice \"dev/sw\" refused: not an absolute path\n"},
        {"swGlobalCfg", "'NEW', '/dev/../etc/x', 1",
         "switchDevice \"/dev/../etc/x\" refused: \".\" and \"..\" are not names\n"},
        {"swGlobalCfg", "'NEW', '/dev/sw;x', 1", "switchDevice \"/dev/sw;x\" refused: character ';' at offset 7"},
        {"swGlobalCfg", "'NEW', '', 256", "switchLevel 256 refused: outside 0..255\n"},
    };
    for (const auto &c : cases) {
        exec("INSERT INTO " + c[0] + " " + columns.at(c[0]) + " VALUES (" + c[1] + ");");
        const int row = static_cast<int>(sqlite3_last_insert_rowid(db));
        const std::string why = c[2].find(" at offset ") != std::string::npos ? c[2] + rule : c[2];
        cap->clear();
        EXPECT_EQ(event(c[0].c_str(), row, 18), -22) << why;
        EXPECT_EQ(cap->countLog("table " + c[0] + " row id " + std::to_string(row) + ": " + why), 1) << cap->dump();
        EXPECT_EQ(cap->commands.size() + rec->calls.size(), 0u);
    }
    EXPECT_EQ(switchByNameGet("NEW"), nullptr);
    EXPECT_EQ(switchPortByNumberGet(sw, 3), nullptr);
    EXPECT_EQ(switchVlanByIdGet(sw, 11), nullptr);

    // An update to an unsafe name leaves the loaded VLAN as it was.
    const std::string old = oldValues("vlanEncapIf", 1);
    exec("UPDATE vlanEncapIf SET interfaceName='eth0>x', fwdMap='2' WHERE rowid=1");
    cap->clear();
    EXPECT_EQ(event("vlanEncapIf", 1, 23, old), -22);
    EXPECT_EQ(cap->countLog("table vlanEncapIf row id 1: interfaceName \"eth0>x\" refused: character '>' at offset 4" +
                            rule), 1);
    ASSERT_NE(switchVlanByIdGet(sw, 10), nullptr);
    EXPECT_EQ(switchVlanByIdGet(sw, 10)->fwdMap, 0x3u);

    // At start-up the row's position names it when the table has no id.
    rebuild("DELETE FROM vlanEncapIf; INSERT INTO vlanEncapIf VALUES (12, 'eth0', '', '', '', '0', '0', 0),"
            " (13, 'a b', '', '', '', '0', '0', 0);");
    ASSERT_EQ(switchCfgLoad(), 0);
    cap->clear();
    EXPECT_EQ(switchVlanCfgLoad(), -22);
    EXPECT_EQ(cap->countLog("table vlanEncapIf row 2: interfaceName \"a b\" refused: character ' ' at offset 1" + rule),
              1) << cap->dump();
}

}  // namespace
