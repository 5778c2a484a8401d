// SPDX-License-Identifier: Apache-2.0
// Service start-up and shutdown against real database files, and the
// diagnostics it sends. Serving requests and stopping from inside the loop
// are the daemon's, end to end; records on the bus are checked byte for
// byte with the bus.
#include "data_lines.h"

namespace {

class Service : public swtest::SwmgrTest {
protected:
    void TearDown() override {
        swMgrDeinit();
        SwmgrTest::TearDown();
    }
};
SWTEST_BOTH_FORMS(ServiceForms, Service);

// Without the tables, or without switches, the service still runs and says
// why; without the bus or the database it stays down. Shutting it down
// twice is harmless either way.
TEST_P(ServiceForms, StartUpRunsWithNothingToApplyAndStaysDownWithoutBusOrDatabase) {
    const std::string schema = swtest::kConfigSchema;
    const struct {
        const char *logs;  // section of the expected logs; none when the bus refuses the module
        std::string sql;   // empty: the database cannot be opened
    } cases[] = {{"no tables", "CREATE TABLE unrelated(x);"},
                 {"no ports", schema.substr(0, schema.find("CREATE TABLE swPortConfig"))},
                 {"no vlans", schema.substr(0, schema.find("CREATE TABLE vlanEncapIf"))},
                 {"no switches", schema},
                 {nullptr, ""},
                 {"no database", ""}};
    for (size_t n = 0; n < std::size(cases); ++n) {
        const auto &c = cases[n];
        SCOPED_TRACE(n);
        cap->clear();
        const std::string db =
            c.sql.empty() ? "/no/such/dir/config.db" : swtest::makeDb(root->file(std::to_string(n) + ".db"), c.sql);
        mbusPortFailRegister(c.logs == nullptr ? 1 : 0);
        const bool up = swMgrInit(db.c_str()) == 0;
        mbusPortFailRegister(0);
        // Registered on the bus while up, unregistered on the way out otherwise.
        EXPECT_EQ(std::make_tuple(up, swMgrInitialized, pDB != nullptr, mbusPortCallbackGet() != nullptr),
                  std::make_tuple(!c.sql.empty(), up, up, up));
        EXPECT_TRUE(cap->logsAre(c.logs ? swtest::dataLogs("service/startup.txt", c.logs) : swtest::Logs{}));
        EXPECT_EQ(swMgrDeinit(), 0);
        EXPECT_EQ(swMgrRun(), 0) << "returns at once when the service is not up";
        EXPECT_EQ(std::make_tuple(swMgrInitialized, pSwMgrMbusCtx, mbusPortCallbackGet()),
                  std::make_tuple(0, static_cast<MbusCtx *>(nullptr), static_cast<MbusRequestCb>(nullptr)));
        EXPECT_EQ(swMgrDeinit(), 0) << "the stale context may be unregistered again";
    }
}

TEST_F(Service, DiagnosticsAreCutAt1023CharactersAndTheForegroundGetsThemOnStandardError) {
    std::string big(3000, 'x');
    EXPECT_EQ(swMgrDebug("p", 64, "f", 1, "%s", big.c_str()), 0);
    swMgrDebug(big.c_str(), 64, "f", 1, "tail");  // a prefix longer than the buffer never overflows it
    EXPECT_EQ(cap->logs.at(0).raw, "pf:1:" + std::string(1018, 'x'));
    EXPECT_EQ(cap->logs.at(0).length, 1024);
    EXPECT_EQ(cap->logs.at(1).raw, std::string(1023, 'x'));
    // Call sites name their function and line in developer form.
    swMgrDevDebug = 1;
    const int line = __LINE__ + 1;
    SWMGR_LOG("p ", -1, "m\n");
    EXPECT_EQ(cap->logs.at(2).raw, std::string("p TestBody:").append(std::to_string(line)).append(":m\n"));
    swMgrDevDebug = 0;

    // In the foreground: standard error only; negative levels nowhere.
    cap->clear();
    EXPECT_EQ(swMgrDebug("", -1, nullptr, 0, "trace\n"), 0);
    swMgrForeground = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(swMgrDebug("", -1, nullptr, 0, "trace\n"), 0);
    EXPECT_EQ(swMgrDebug("", 8, nullptr, 0, "unexpected reply from %d cmd=%d !\n", 20, 4), 0);
    swMgrDebug("(switch=PSE) ", 0, "pseSwitchConfig", 9, "x\n");  // level 0 is a level like any other
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "unexpected reply from 20 cmd=4 !\n(switch=PSE) pseSwitchConfig:9:x\n");
    EXPECT_TRUE(cap->logs.empty());
}

}  // namespace
