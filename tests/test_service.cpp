// SPDX-License-Identifier: Apache-2.0
// Service start-up, main loop and shutdown against real database files.
#include <unistd.h>

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

// Without the tables, or without switches, the service still runs and
// says why; shutting it down twice is harmless.
TEST_P(ServiceForms, NothingToApplyIsLoggedAndTheServiceStillRuns) {
    const std::pair<std::string, swtest::Logs> cases[] = {
        {"CREATE TABLE unrelated(x);",
         {{8, "switchCfgLoad", "failed to get list of switches from the database\n"},
          {8, "swMgrCfgReload", "Failed to load switch configuration \n"}}},
        {swtest::kConfigSchema,
         {{8, "swMgrCfgApply", "Failed to find switch configuration to load. \n"},
          {8, "swMgrCfgReload", "Failed to apply switch configuration \n"}}},
    };
    int n = 0;
    for (const auto &[sql, logs] : cases) {
        cap->clear();
        const std::string db = swtest::makeDb(root->file("config" + std::to_string(n++) + ".db"), sql);
        ASSERT_EQ(swMgrInit(db.c_str()), 0);
        EXPECT_EQ(swMgrInitialized, 1);
        EXPECT_NE(pSwMgrMbusCtx, nullptr);
        EXPECT_TRUE(cap->logsAre(logs));
        EXPECT_EQ(swMgrDeinit(), 0);
        EXPECT_EQ(swMgrInitialized, 0);
        EXPECT_EQ(pSwMgrMbusCtx, nullptr);
        EXPECT_EQ(mbusPortCallbackGet(), nullptr);
        EXPECT_EQ(swMgrDeinit(), 0);
    }
}

TEST_P(ServiceForms, FailedRegistrationOrUnopenableDatabaseLeavesTheServiceDown) {
    mbusPortFailRegister(1);
    EXPECT_EQ(swMgrInit("/nonexistent.db"), -1);
    mbusPortFailRegister(0);
    EXPECT_TRUE(cap->logs.empty());
    EXPECT_EQ(swMgrRun(), 0) << "returns at once when the service is not up";

    const std::string path = root->file("no/such/dir/config.db");
    EXPECT_EQ(swMgrInit(path.c_str()), -1);
    EXPECT_TRUE(cap->logsAre({{8, "swMgrDBInit", "Couldn't open database " + path + " \n"},
                              {8, "swMgrInit", "failed to open database connection\n"}}));
    EXPECT_EQ(mbusPortCallbackGet(), nullptr);
    EXPECT_EQ(swMgrInitialized, 0);
    EXPECT_EQ(pDB, nullptr);
    EXPECT_EQ(swMgrDeinit(), 0) << "the stale context may be unregistered again";
}

TEST_P(ServiceForms, StartsAppliesTheTopLevelSwitchAndServesRequestsUntilDeinit) {
    swtest::RecordingDriver rec;
    std::string db = swtest::makeDb(root->file("config.db"),
                                    std::string(swtest::kConfigSchema) +
                                        "INSERT INTO swGlobalCfg VALUES ('REC', '', 1, 0, 5, 1, 0, 0, 2);"
                                        "INSERT INTO swPortConfig VALUES ('REC', 3, 1, 0, 0, 2, 'eth0', '',"
                                        " 0, 0, 4, 1, 2, 4, 8);");
    ASSERT_EQ(swMgrInit(db.c_str()), 0);
    for (const auto &l : cap->logs) EXPECT_NE(l.level, 8) << l.raw;
    // Settings when added, trust mode of the new port, then the whole apply:
    // settings again, every port's trust mode, and the ports' VLAN info.
    EXPECT_EQ(rec.cmds(), (std::vector<int>{33, 47, 49, 56, 57, 51, 33, 47, 49, 56, 57, 51, 41}));

    rec.calls.clear();
    char request[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "REC";
    ASSERT_EQ(mbusPortPost(7, 48, request, sizeof request, nullptr, 0), 0);
    // A stop event already waiting: the posted request is served first,
    // then the event stops the service from inside the loop, on this thread.
    int stop[2];
    ASSERT_EQ(::pipe(stop), 0);
    ASSERT_EQ(::write(stop[1], "x", 1), 1);
    ASSERT_EQ(mbusPortWatch(stop[0], [](void *, int) { swMgrDeinit(); }, nullptr), 0);
    EXPECT_EQ(swMgrRun(), 0);
    mbusPortUnwatch(stop[0]);
    ::close(stop[0]), ::close(stop[1]);
    EXPECT_EQ(swMgrInitialized, 0);
    ASSERT_EQ(rec.calls.size(), 1u);
    EXPECT_EQ(std::make_pair(rec.calls[0].cmd, rec.calls[0].argLen), std::make_pair(48, 1300));
}

}  // namespace
