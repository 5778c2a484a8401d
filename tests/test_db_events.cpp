// SPDX-License-Identifier: Apache-2.0
// Configuration loading and row-change events on a real database file.
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "data_lines.h"

namespace {

const std::string kSchema = std::string(swtest::kConfigSchema) +
    "INSERT INTO swGlobalCfg VALUES ('REC', '', 1, 0, 5, 0, 0, 0, 1);"
    "INSERT INTO swPortConfig VALUES ('REC', 2, 1, 0, 0, 0, 'lan', '', 0, 0, 4, 1, 1, 1, 1);"
    "INSERT INTO vlanEncapIf VALUES (10, 'eth0', 'br-lan', '', '', '0,1', '0', 0);";
const std::string kRow = "<the row>";  // as old values: the row's before the change

class DbEvents : public swtest::DriverTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        const std::string path = root->file("config.db");
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        // A scratch file: the cases rebuild its tables, no need to wait for the disk.
        exec("PRAGMA synchronous=OFF;" + kSchema);
        ASSERT_EQ(swMgrDBInit(const_cast<char *>(path.c_str())), 0);
    }
    void TearDown() override {
        EXPECT_EQ(swMgrDBDeinit(), 0);
        sqlite3_close(db);
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
    int event(const char *table, int rowId, int opCode, std::string old = "", unsigned len = 80) {
        DbUpdateEvent ev{};
        std::memcpy(ev.tableName, table, std::min(std::strlen(table), sizeof ev.tableName));
        ev.rowId = rowId, ev.opCode = opCode;
        return swMgrDBUpdateHandler(&ev, len, old.empty() ? nullptr : old.data(), static_cast<unsigned>(old.size()));
    }
    void loadAll() {
        ASSERT_TRUE(switchCfgLoad() == 0 && switchPortCfgLoad() == 0 && switchVlanCfgLoad() == 0);
        ASSERT_NE(sw = switchByNameGet("REC"), nullptr);
        reset();
    }
    // A row's old-values block as a change event carries it: the column
    // names, then the values, each a NUL-terminated string.
    std::string rowValues(const std::string &table, int rowId) {
        std::string block;
        const auto add = [](void *out, int n, char **values, char **names) {
            auto &to = *static_cast<std::string *>(out);
            for (char **strings : {names, values})
                for (int i = 0; i < n; ++i) to += std::string(strings[i] ? strings[i] : "") + '\0';
            return 0;
        };
        const std::string sql = "SELECT * FROM " + table + " WHERE rowid=" + std::to_string(rowId);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), add, &block, nullptr), SQLITE_OK) << sql;
        EXPECT_FALSE(block.empty()) << "no row: " << sql;
        return block;
    }
    sqlite3 *db = nullptr;
    Switch *sw = nullptr;
};

SWTEST_BOTH_FORMS(DbEventForms, DbEvents);

// A port row naming no switch stops the port load; the ports before it stay.
TEST_P(DbEventForms, PortLoadStopsAtTheFirstRefusedRow) {
    rebuild("INSERT INTO swPortConfig VALUES ('NOPE', 1, 1, 0, 0, 0, 'lan', '', 0, 0, 4, 1, 1, 1, 1);"
            "INSERT INTO swPortConfig VALUES ('REC', 3, 1, 0, 0, 0, 'lan', '', 0, 0, 4, 1, 1, 1, 1);");
    ASSERT_EQ(switchCfgLoad(), 0);
    sw = switchByNameGet("REC");
    cap->clear();
    EXPECT_EQ(switchPortCfgLoad(), -1);
    EXPECT_EQ(swtest::listed(&sw->portList, &SwitchPort::portNumber), std::vector<int>{2});
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs("db/events.txt", "port load stops at the refused row")));
    EXPECT_EQ((rebuild("DROP TABLE swPortConfig;"), cap->clear(), switchPortCfgLoad()), SW_EINVAL);
    EXPECT_TRUE(cap->logsAre({{8, "switchPortCfgLoad", "failed to get list of switch ports from the database\n"}}));
}

// Each change event, with or without a load of REC (port 2, VLAN 10) first:
// the result, the driver commands it led to and the whole log.
TEST_P(DbEventForms, EventsFollowTheTableHandlers) {
    struct Case {
        bool loaded;
        std::string sql;
        const char *table;
        int row, op, result;
        std::string old;  // old values sent with the event
        std::vector<int> cmds;
        const char *logs;  // section of db/events.txt
    } cases[] = {
        {false, "", "swGlobalCfg", 1, 18, 0, "", {33, 47, 49, 56, 57}, "switch insert"},
        {true, "", "swGlobalCfg", 1, 18, -22, "", {}, "switch insert twice"},
        {true, "INSERT INTO swPortConfig VALUES ('REC', 3, 1, 0, 0, 2, 'lan', '', 0, 0, 4, 1, 1, 1, 1);",
         "swPortConfig", 2, 18, 0, "", {51}, "port insert"},
        {true, "UPDATE swPortConfig SET trustMode=3 WHERE rowid=1", "swPortConfig", 1, 23, -1, kRow, {}, "port update"},
        {true, "", "swGlobalCfg", 1, 9, -1, kRow, {}, "switch delete"},
        {true, "", "vlanEncapIf", 1, 99, -1, "", {}, "vlan unknown operation"},
        {true, "", "vlanEncapIf", 1, 18, -1, "", {}, "vlan insert twice"},
        // A row deleted before its update is read: no row, no processing.
        {true, "", "vlanEncapIf", 999, 23, -1, "", {}, "vlan row gone"},
        {true, "UPDATE vlanEncapIf SET vlanId=4294967306 WHERE rowid=1", "vlanEncapIf", 1, 23, -22, kRow, {},
         "vlan update the decoder refuses"},
        {true, "", "SWGLOBALCFG", 1, 18, 0, "", {}, "not our table"},
        {true, "", "vlanEncapIf WHERE 0;DROP TABLE swGlobalCfg;--", 1, 18, -1, "", {}, "table name payload"},
        // Three strings cannot be names and values of one row.
        {true, "", "vlanEncapIf", 1, 9, -1, std::string("vlanId\0eth0\0x\0", 14), {}, "odd old values"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.logs);
        rebuild();
        if (c.loaded) loadAll();
        const std::string old = c.old == kRow ? rowValues(c.table, c.row) : c.old;
        if (!c.sql.empty()) exec(c.sql);
        EXPECT_EQ(event(c.table, c.row, c.op, old), c.result);
        EXPECT_EQ(drv.cmds(), c.cmds);
        EXPECT_TRUE(cap->logsAre(swtest::dataLogs("db/events.txt", c.logs)));
        EXPECT_EQ(sqlite3_exec(db, "SELECT * FROM swGlobalCfg", nullptr, nullptr, nullptr), SQLITE_OK)
            << "a table name is never run as SQL";
    }
}

// The update finds the VLAN by its old id and stores the new one.
TEST_P(DbEventForms, VlanUpdateFindsTheVlanByItsOldValuesAndRefusesUnsafeNewOnes) {
    loadAll();
    const std::string old = rowValues("vlanEncapIf", 1);
    exec("UPDATE vlanEncapIf SET vlanId=101, fwdMap='1,2' WHERE rowid=1");
    EXPECT_EQ(event("vlanEncapIf", 1, 23, old), 0);
    EXPECT_EQ(switchVlanByIdGet(sw, 10), nullptr);
    EXPECT_EQ(switchVlanByIdGet(sw, 101)->fwdMap, 0x6u);
    drv.results[SW_CMD_VLAN_MEMBERSHIP_APPLY] = -4;
    EXPECT_EQ(event("vlanEncapIf", 1, 23, rowValues("vlanEncapIf", 1)), -1);
    EXPECT_EQ(cap->countLog("Failed to update switch vlan profile \n"), 1);
    // An update to an unsafe name leaves the loaded VLAN as it was.
    drv.results.clear();
    const std::string last = rowValues("vlanEncapIf", 1);
    exec("UPDATE vlanEncapIf SET interfaceName='eth0>x', fwdMap='2' WHERE rowid=1");
    EXPECT_EQ((cap->clear(), event("vlanEncapIf", 1, 23, last)), -22);
    EXPECT_EQ(cap->countLog("table vlanEncapIf row id 1: interfaceName \"eth0>x\" refused: character '>' at offset 4"
                            " is not allowed (letters, digits, '_', '.', '-')\n"), 1);
    EXPECT_EQ(switchVlanByIdGet(sw, 101)->fwdMap, 0x6u);
}

TEST_P(DbEventForms, MalformedEventsAreRefusedAndNothingIsReadPastItsLength) {
    loadAll();
    EXPECT_EQ(event("vlanEncapIf", 1, 18, "", 79), -1);
    EXPECT_EQ(swMgrDBUpdateHandler(nullptr, 80, nullptr, 0), -1);
    EXPECT_TRUE(cap->logsAre(swtest::dataLogs("db/events.txt", "incomplete events")));
    // A 64-byte name without terminator and a block whose last string is cut.
    EXPECT_EQ(event(std::string(64, 'v').c_str(), 0, 9, std::string("vlanId\0" "10", 9)), 0);
    // An update's old values shorter than the row: the missing ones stay
    // null (the old id reads as 0 and finds no VLAN).
    EXPECT_EQ(event("vlanEncapIf", 1, 23, std::string("vlanId\0" "10\0", 10)), 0);
    EXPECT_EQ(switchVlanByIdGet(sw, 10)->fwdMap, 0x3u);
    EXPECT_EQ(event("vlanEncapIf", 1, 23, std::string(3, '\0')), 0) << "three empty strings, nothing past them";
    // An empty block passes with no columns and reaches the delete handler,
    // which refuses a row without a parent interface name.
    EXPECT_EQ((cap->clear(), event("vlanEncapIf", 5, 9)), -22);
    EXPECT_EQ(cap->countLog("table vlanEncapIf row id 5: interfaceName \"\" refused: the name is empty\n"), 1);
    EXPECT_EQ(cap->commands.size() + drv.calls.size(), 0u);
    EXPECT_NE(switchVlanByIdGet(sw, 10), nullptr) << "nothing decoded, nothing deleted";
    // A cut last string ends with its block (40 bytes: no slack after it to hide a missing end).
    // The host refusing the removal refuses the event.
    cap->scriptCommand("vconfig rem eth0.10", -3, 1);
    EXPECT_EQ(event("vlanEncapIf", 1, 9, std::string("vlanId\0ingressMap\0interfaceName\0" "10\0\0eth0", 40)), -3);
    EXPECT_EQ(cap->commands, std::vector<std::string>{"vconfig rem eth0.10"});
    EXPECT_EQ(cap->countLog("Failed to delete switch vlan profile \n"), 1);
    EXPECT_EQ(event("vlanEncapIf", 1, 9, std::string("vlanId\0interfaceName\0" "10\0eth0", 28)), 0) << "once it may";
    EXPECT_EQ(switchVlanByIdGet(sw, 10), nullptr);
    EXPECT_EQ(event("vlanEncapIf", 1, 9, std::string("vlanId\0" "4294967306", 18)), -22) << "an old id past 32 bits";
}

TEST_F(DbEvents, RowsWithUnsafeTextsOrNumbersAreRefusedAndLeaveTheLoadedOnesAlone) {
    loadAll();
    for (const swtest::Row &c : swtest::dataRows("db/refusals.txt", "unsafe rows")) {
        exec("INSERT INTO " + c[0] + " " + c[1]);
        cap->clear();
        EXPECT_EQ(event(c[0].c_str(), static_cast<int>(sqlite3_last_insert_rowid(db)), 18), -22) << c[2];
        EXPECT_EQ(cap->countLog(c[2]), 1);
        EXPECT_EQ(cap->commands.size() + drv.calls.size(), 0u);
    }
    EXPECT_EQ(std::make_tuple(switchByNameGet("NEW"), switchPortByNumberGet(sw, 3), switchVlanByIdGet(sw, 11)),
              std::make_tuple(nullptr, nullptr, nullptr));
    exec("INSERT INTO swPortConfig (switchName, portNumber, PVID, interfaceName) VALUES ('REC', 31, 4094, 'lan')");
    EXPECT_EQ(event("swPortConfig", static_cast<int>(sqlite3_last_insert_rowid(db)), 18), 0) << "both at their bounds";

    // At start-up the row's id names it, or its position in a table without
    // one; a handler called on its own names the table alone.
    // A value "id" is not the column.
    for (auto [cols, rows] : {std::pair{"n, vlanId, interfaceName", "('id', 12, 'eth0'), (4, 13, 'a b'), (5, 14, 'x')"},
                              std::pair{"vlanId, interfaceName, id", "(12, 'eth0', 4), (13, 'a b', 9)"}}) {
        rebuild(std::string("DROP TABLE vlanEncapIf; CREATE TABLE vlanEncapIf (") + cols +
                "); INSERT INTO vlanEncapIf VALUES " + rows + ";");
        ASSERT_EQ(switchCfgLoad(), 0);
        EXPECT_EQ(switchVlanCfgLoad(), -22);
    }
    const char *cells[] = {"interfaceName", "a b"};
    EXPECT_EQ(swVlanCfgDBInsertHandler(const_cast<char **>(cells), 1, 0), -22);
    for (const char *origin : {"table vlanEncapIf row 2", "table vlanEncapIf row id 9", "table vlanEncapIf"})
        EXPECT_EQ(cap->countLog(origin + std::string(": interfaceName \"a b\" refused: character ' ' at offset 1"
                                                     " is not allowed (letters, digits, '_', '.', '-')\n")), 1);
}

}  // namespace
