// SPDX-License-Identifier: Apache-2.0
// Service start-up, main loop and shutdown against real database files.
#include <sqlite3.h>

#include <unistd.h>

#include <atomic>

#include "swmgr/swconf.h"
#include "swmgr_test.h"

namespace {

class Service : public swtest::SwmgrTest {
protected:
    std::string makeDb(const std::string &sql) { return swtest::makeDb(root->file("config.db"), sql); }
    void TearDown() override {
        swMgrDeinit();
        SwmgrTest::TearDown();
    }
};
using ServiceForms = swtest::BothForms<Service>;
SWTEST_BOTH_FORMS(ServiceForms);

TEST_P(ServiceForms, MissingTableIsLoggedAndTheServiceStillRuns) {
    std::string db = makeDb("CREATE TABLE unrelated(x);");
    ASSERT_EQ(swMgrInit(db.c_str()), 0);
    EXPECT_EQ(swMgrInitialized, 1);
    EXPECT_NE(pSwMgrMbusCtx, nullptr);
    EXPECT_TRUE(cap->logsAre({{8, "switchCfgLoad", "failed to get list of switches from the database\n"},
                              {8, "swMgrCfgReload", "Failed to load switch configuration \n"}}));
}

TEST_P(ServiceForms, NoSwitchesMeansNothingToApplyAndDeinitTwiceIsHarmless) {
    std::string db = makeDb(swtest::kConfigSchema);
    ASSERT_EQ(swMgrInit(db.c_str()), 0);
    EXPECT_EQ(swMgrInitialized, 1);
    EXPECT_TRUE(cap->logsAre({{8, "swMgrCfgApply", "Failed to find switch configuration to load. \n"},
                              {8, "swMgrCfgReload", "Failed to apply switch configuration \n"}}));

    EXPECT_EQ(swMgrDeinit(), 0);
    EXPECT_EQ(swMgrInitialized, 0);
    EXPECT_EQ(pSwMgrMbusCtx, nullptr);
    EXPECT_EQ(mbusPortCallbackGet(), nullptr);
    EXPECT_EQ(swMgrDeinit(), 0);
}

TEST_P(ServiceForms, StartsAndAppliesTheTopLevelSwitch) {
    swtest::RecordingDriver rec;
    std::string db = makeDb(std::string(swtest::kConfigSchema) +
                            "INSERT INTO swGlobalCfg VALUES ('REC', '', 1, 0, 5, 1, 0, 0, 2);"
                            "INSERT INTO swPortConfig VALUES ('REC', 3, 1, 0, 0, 2, 'eth0', '',"
                            " 0, 0, 4, 1, 2, 4, 8);");
    ASSERT_EQ(swMgrInit(db.c_str()), 0);
    for (const auto &l : cap->logs) EXPECT_NE(l.level, 8) << l.raw;
    // Settings when added, trust mode of the new port, then the whole apply:
    // settings again, every port's trust mode, and the ports' VLAN info.
    EXPECT_EQ(rec.cmds(), (std::vector<int>{33, 47, 49, 56, 57, 51, 33, 47, 49, 56, 57, 51, 41}));
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

TEST_P(ServiceForms, RunServesRequestsUntilDeinit) {
    swtest::RecordingDriver rec;
    std::string db = makeDb(std::string(swtest::kConfigSchema) +
                            "INSERT INTO swGlobalCfg VALUES ('REC', '', 1, 0, 5, 1, 0, 0, 2);");
    ASSERT_EQ(swMgrInit(db.c_str()), 0);
    rec.calls.clear();
    std::atomic<bool> served{false};
    rec.onCall = [&](Switch *, int, void *, int) {
        served = true;
        return 0;
    };

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
    ::close(stop[0]);
    ::close(stop[1]);
    EXPECT_TRUE(served);
    EXPECT_EQ(swMgrInitialized, 0);
    ASSERT_EQ(rec.calls.size(), 1u);
    EXPECT_EQ(rec.calls[0].cmd, 48);
    EXPECT_EQ(rec.calls[0].argLen, 1300);
}

}  // namespace
