// SPDX-License-Identifier: Apache-2.0
// Switch registry: lookups by name, lower-level references, prefixes, driver
// binding and command routing by switch name. The top-level lookup is
// exercised with the switch lifecycle, the order and the log of lower-level
// references with port mappings.
#include <cstring>
#include <string>
#include <tuple>

#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {

using Registry = swtest::BothForms<swtest::SwmgrTest>;
SWTEST_BOTH_FORMS(Registry);

TEST_P(Registry, LookupsAreExactAndFirstMatchWins) {
    Switch *pse = swtest::addSwitch("PSE", 2), *bcm = swtest::addSwitch("BCM", 1);
    swtest::addSwitch("BCM", 1);
    Switch *other = swtest::addSwitch("EXT", 1);
    EXPECT_EQ(switchByNameGet("PSE"), pse);
    EXPECT_EQ(switchByNameGet("BCM"), bcm);
    for (const char *name : {"bcm", "BCM ", static_cast<const char *>(nullptr)})
        EXPECT_EQ(switchByNameGet(name), nullptr) << (name ? name : "null");

    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, bcm), 0);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, other), 0);
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(pse, "EXT"), other);
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(pse, "PSE"), nullptr);
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(bcm, "BCM"), nullptr);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(nullptr, bcm), -1);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, nullptr), -1);
    // Linked from the bottom up, a switch with its own lower ones joins too.
    Switch *top = swtest::addSwitch("TOP", 3);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(top, pse), 0);
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(top, "PSE"), pse);
}

TEST_P(Registry, PrefixesShareClearedBuffersAndAreCutToThem) {
    Switch *sw = swtest::addSwitch("BCM", 1);
    EXPECT_EQ(switchStrGet(sw), switchStr);
    EXPECT_STREQ(switchStr, "(switch=BCM) ");
    // Each description text has its own buffer, which no object clears.
    SwitchPort port{};
    port.sw = sw, port.portNumber = 3;
    SwitchVlan vlan{};
    vlan.sw = sw, vlan.vlanId = 100;
    EXPECT_STREQ(swPortStrGet(&port), "(switch=BCM) (port:3) ");
    EXPECT_STREQ(swVlanStrGet(&vlan), "(switch=BCM) (vlan:100) ");
    EXPECT_EQ(std::string(switchStrGet(nullptr)) + swPortStrGet(nullptr) + swVlanStrGet(nullptr), "");
    for (const char *buf : {switchStr, swPortStr, swVlanStr}) EXPECT_EQ(std::string(buf, 512), std::string(512, '\0'));
    // A name filling its whole field is cut to the buffer, not overrun.
    std::memset(sw->switchName, 'n', sizeof sw->switchName);
    const std::string prefix = switchStrGet(sw);
    EXPECT_EQ(prefix, "(switch=" + std::string(503, 'n'));
}

TEST_P(Registry, BindingFollowsTheTableByExactName) {
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

TEST_P(Registry, RoutedCommandCarriesTheWholeBusArgumentAreaOfTheNamedSwitchOnly) {
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
    EXPECT_EQ(std::make_tuple(c.sw, c.cmd, c.argLen, c.argPtr, c.arg),
              std::make_tuple(sw, 33, 1300, static_cast<const void *>(request + 64), swtest::le32(1)));
    // Positive driver results pass unchanged; negatives are logged.
    rec.results = {{48, 5}, {49, -22}};
    EXPECT_EQ(switchConfig(request, 48, nullptr, nullptr), 5);
    EXPECT_EQ(switchConfig(request, 49, nullptr, nullptr), -22);
    EXPECT_TRUE(cap->logsAre({{8, "switchConfig", "Failed to process cmd 49 on REC \n"}}));

    // Unknown names are refused silently; a name filling all 64 bytes is
    // read as 64 characters, never past them.
    cap->clear(), rec.calls.clear();
    char other[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "NONE";
    EXPECT_EQ(switchConfig(other, 33, nullptr, nullptr), -1);
    EXPECT_EQ(switchConfig(nullptr, 33, nullptr, nullptr), -1);
    std::memset(other, 'R', SW_BUS_NAME_LEN);
    EXPECT_EQ(switchConfig(other, 33, nullptr, nullptr), -1);
    EXPECT_EQ(rec.calls.size() + cap->logs.size(), 0u);
}

}  // namespace
