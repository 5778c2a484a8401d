// SPDX-License-Identifier: Apache-2.0
// Service start-up and shutdown against real database files, and the
// diagnostics it sends. Serving requests and stopping from inside the loop
// are the daemon's, end to end; records on the bus are checked byte for
// byte with the bus.
#include <string>

#include "swmgr/swconf.h"
#include "swmgr_test.h"

namespace {

class Service : public swtest::SwmgrTest {
protected:
    void TearDown() override {
        swMgrDeinit();
        SwmgrTest::TearDown();
    }
};
using ServiceForms = swtest::BothForms<Service>;
SWTEST_BOTH_FORMS(ServiceForms);

// Without the tables, or without switches, the service still runs and says
// why; without the bus or the database it stays down. Shutting it down
// twice is harmless either way.
TEST_P(ServiceForms, StartUpRunsWithNothingToApplyAndStaysDownWithoutBusOrDatabase) {
    const std::string noDir = root->file("no/such/dir/config.db"), schema = swtest::kConfigSchema;
    const std::string switchesOnly = schema.substr(0, schema.find("CREATE TABLE swPortConfig"));
    const std::string noVlans = schema.substr(0, schema.find("CREATE TABLE vlanEncapIf"));
    const struct {
        std::string sql;  // empty: the database cannot be opened
        bool failRegister;
        swtest::Logs logs;
    } cases[] = {
        {"CREATE TABLE unrelated(x);", false,
         {{8, "switchCfgLoad", "failed to get list of switches from the database\n"},
          {8, "swMgrCfgReload", "Failed to load switch configuration \n"}}},
        {switchesOnly, false,
         {{8, "switchPortCfgLoad", "failed to get list of switch ports from the database\n"},
          {8, "swMgrCfgReload", "Failed to load switch port configuration \n"}}},
        {noVlans, false,
         {{8, "switchVlanCfgLoad", "failed to get list of vlans from the database\n"},
          {8, "swMgrCfgReload", "Failed to load switch vlan configuration \n"}}},
        {swtest::kConfigSchema, false,
         {{8, "swMgrCfgApply", "Failed to find switch configuration to load. \n"},
          {8, "swMgrCfgReload", "Failed to apply switch configuration \n"}}},
        {"", true, {}},
        {"", false,
         {{8, "swMgrDBInit", "Couldn't open database " + noDir + " \n"},
          {8, "swMgrInit", "failed to open database connection\n"}}},
    };
    for (size_t n = 0; n < std::size(cases); ++n) {
        const auto &c = cases[n];
        SCOPED_TRACE(n);
        cap->clear();
        const std::string db =
            c.sql.empty() ? noDir : swtest::makeDb(root->file("config" + std::to_string(n) + ".db"), c.sql);
        mbusPortFailRegister(c.failRegister ? 1 : 0);
        const bool up = swMgrInit(db.c_str()) == 0;
        mbusPortFailRegister(0);
        EXPECT_EQ(std::make_tuple(up, swMgrInitialized, pDB != nullptr), std::make_tuple(!c.sql.empty(), up, up));
        EXPECT_TRUE(cap->logsAre(c.logs));
        if (up) {
            EXPECT_NE(pSwMgrMbusCtx, nullptr);
        } else {
            EXPECT_EQ(mbusPortCallbackGet(), nullptr) << "unregistered on the way out";
            EXPECT_EQ(swMgrRun(), 0) << "returns at once when the service is not up";
        }
        EXPECT_EQ(swMgrDeinit(), 0);
        EXPECT_EQ(std::make_tuple(swMgrInitialized, pSwMgrMbusCtx, mbusPortCallbackGet()),
                  std::make_tuple(0, static_cast<MbusCtx *>(nullptr), static_cast<MbusRequestCb>(nullptr)));
        EXPECT_EQ(swMgrDeinit(), 0) << "the stale context may be unregistered again";
    }
}

TEST_F(Service, DiagnosticsAreCutAt1023CharactersAndTheForegroundGetsThemOnStandardError) {
    std::string big(3000, 'x');
    swMgrDebug("pre:", 64, "f", 1, "%s", big.c_str());
    swMgrDebug(big.c_str(), 64, "f", 1, "tail");  // a prefix longer than the buffer never overflows it
    ASSERT_EQ(cap->logs.size(), 2u);
    EXPECT_EQ(cap->logs[0].raw, "pre:f:1:" + std::string(1015, 'x'));
    EXPECT_EQ(cap->logs[0].length, 1024);
    EXPECT_EQ(cap->logs[1].raw, std::string(1023, 'x'));

    // In the foreground: standard error only; negative levels nowhere.
    cap->clear();
    EXPECT_EQ(swMgrDebug("", -1, nullptr, 0, "trace\n"), 0);
    swMgrForeground = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(swMgrDebug("", -1, nullptr, 0, "trace\n"), 0);
    swMgrDebug("", 8, nullptr, 0, "unexpected reply from %d cmd=%d !\n", 20, 4);
    swMgrDebug("(switch=PSE) ", 256, "pseSwitchConfig", 9, "x\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "unexpected reply from 20 cmd=4 !\n(switch=PSE) pseSwitchConfig:9:x\n");
    EXPECT_TRUE(cap->logs.empty());
}

TEST(ZoneType, ExactNamesOnly) {
    for (auto [name, want] : {std::pair<const char *, uint32_t>{"eth1", 2}, {"eth0", 1}, {"eth0.100", 0},
                              {"ETH0", 0}, {"eth", 0}, {"", 0}, {"eth10", 0}}) {
        uint32_t zone = 99;
        EXPECT_EQ(std::make_pair(swMgrZoneTypeGet(name, &zone), zone), std::make_pair(0, want)) << name;
    }
}

}  // namespace
