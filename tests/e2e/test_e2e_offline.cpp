// SPDX-License-Identifier: Apache-2.0
// swmgrctl check and plan: the switch manager run offline inside swmgrctl on
// simulated hardware, one broken database per reason and a planned change.
// Each transcript's "-- SQL" lines make the databases its commands name.
#include <string>

#include "e2e_util.h"

namespace {

using Offline = e2e::Test;

// Every row the service would refuse, cut or trip over.
TEST_F(Offline, CheckReportsEveryRowTheServiceWouldRefuseCutOrTripOver) {
    EXPECT_EQ(replay("check.txt"), expected("check.txt"));
}

// A planned change, a database the service would recurse on, and no change.
TEST_F(Offline, PlanFromOldDatabaseShowsOnlyWhatTheChangeDoes) {
    std::string t = replay("plan.txt");
    // The models' own history of handled lines follows; it is theirs to word.
    const size_t cut = t.find("-   pri_ctl_func set 0 0 0 0 1 0\n"), end = t.find("[exit ", cut);
    if (cut < end) t.erase(cut, end - cut);
    EXPECT_EQ(t, expected("plan.txt"));
}

}  // namespace
