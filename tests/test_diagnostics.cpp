// SPDX-License-Identifier: Apache-2.0
// Diagnostic text: its length bound, the foreground destination, and zone
// lookup. (Records on the bus are checked byte for byte with the bus.)
#include <string>

#include "swmgr_test.h"

namespace {

class Diagnostics : public swtest::SwmgrTest {};

TEST_F(Diagnostics, TextIsCutAt1023CharactersAndTheForegroundGetsItOnStandardError) {
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
        EXPECT_EQ(swMgrZoneTypeGet(name, &zone), 0);
        EXPECT_EQ(zone, want) << name;
    }
}

}  // namespace
