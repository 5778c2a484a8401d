// SPDX-License-Identifier: Apache-2.0
// Transcripts of the tools without a daemon: swmgrctl check and plan run the
// switch manager offline on simulated hardware (one broken database per
// reason, a planned change, a database the service would recurse on, no
// change), and what scripts and service managers rely on: --version, the
// exit statuses (64 for any usage error, 1 when start-up fails or a request
// is refused, 2 when the daemon cannot be reached) and their description at
// the end of --help. Each transcript's "-- SQL" lines make the databases its
// commands name.
#include "e2e_util.h"

namespace {

using Offline = e2e::Test;

TEST_F(Offline, TranscriptsOfCheckPlanAndTheExitStatuses) {
    for (const char *name : {"check.txt", "plan.txt", "exit-status.txt"}) {
        std::string t = replay(name);
        // The models' own history of handled lines follows a plan; it is theirs to word.
        const size_t cut = t.find("-   pri_ctl_func set 0 0 0 0 1 0\n"), end = t.find("[exit ", cut);
        if (cut < end) t.erase(cut, end - cut);
        EXPECT_EQ(t, expected(name)) << name;
    }
}

}  // namespace
