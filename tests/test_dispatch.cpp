// SPDX-License-Identifier: Apache-2.0
// Driver table binding and command routing by switch name.
#include <cstring>
#include <tuple>

#include "swmgr_test.h"

namespace {

using Dispatch = swtest::BothForms<swtest::SwmgrTest>;
SWTEST_BOTH_FORMS(Dispatch);

TEST_P(Dispatch, BindingFollowsTheTableByExactName) {
    swtest::RecordingDriver rec;
    EXPECT_EQ(switchConfigFuncRegister(nullptr), SW_EINVAL);
    EXPECT_EQ(switchConfigFuncUnRegister(nullptr), SW_EINVAL);
    Switch *lower = swtest::addSwitch("bcm", 1);
    EXPECT_EQ(switchConfigFuncRegister(lower), -1);
    EXPECT_EQ(lower->switchConfigFunc, nullptr);
    EXPECT_EQ(switchConfigFuncUnRegister(lower), 0) << "no driver, nothing called, success";
    Switch *r = swtest::addSwitch("REC", 1);
    rec.registerResult = 7;  // whatever the driver says is the result
    EXPECT_EQ(switchConfigFuncRegister(r), 7);
    EXPECT_NE(r->switchConfigFunc, nullptr);
    EXPECT_EQ(switchConfigFuncUnRegister(r), 0);
    EXPECT_EQ(r->switchConfigFunc, nullptr);
}

TEST_P(Dispatch, RoutedCommandCarriesTheWholeBusArgumentAreaOfTheNamedSwitchOnly) {
    swtest::RecordingDriver rec;
    swtest::addSwitch("PSE", 2);
    Switch *sw = swtest::addSwitch("REC", 1);
    ASSERT_EQ(switchConfigFuncRegister(sw), 0);
    char request[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "REC";
    std::memcpy(request + SW_BUS_NAME_LEN, "\1\0\0\0", 4);
    int replyLen = 0;
    char reply[8];
    EXPECT_EQ(switchConfig(request, SW_CMD_VLAN_ENABLE, reply, &replyLen), 0);
    ASSERT_EQ(rec.calls.size(), 1u);
    const auto &c = rec.calls[0];
    EXPECT_EQ(std::make_tuple(c.sw, c.cmd, c.argLen, c.argPtr), std::make_tuple(sw, 33, 1300, request + 64));
    EXPECT_EQ(c.arg, swtest::le32(1));
    // Positive driver results pass unchanged; negatives are logged.
    rec.results[48] = 5;
    EXPECT_EQ(switchConfig(request, 48, nullptr, nullptr), 5);
    rec.results[49] = -22;
    EXPECT_EQ(switchConfig(request, 49, nullptr, nullptr), -22);
    EXPECT_TRUE(cap->logsAre({{8, "switchConfig", "Failed to process cmd 49 on REC \n"}}));

    // Unknown names are refused silently; a name filling all 64 bytes is
    // read as 64 characters, never past them.
    cap->clear();
    rec.calls.clear();
    char other[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "NONE";
    EXPECT_EQ(switchConfig(other, 33, nullptr, nullptr), -1);
    EXPECT_EQ(switchConfig(nullptr, 33, nullptr, nullptr), -1);
    std::memset(other, 'R', SW_BUS_NAME_LEN);
    EXPECT_EQ(switchConfig(other, 33, nullptr, nullptr), -1);
    EXPECT_TRUE(rec.calls.empty());
    EXPECT_TRUE(cap->logs.empty());
}

}  // namespace
