// SPDX-License-Identifier: Apache-2.0
// Switch registry: lookups by name, lower-level references, prefixes. The
// top-level lookup is exercised with the switch lifecycle, the order and
// the log of lower-level references with port mappings.
#include <cstring>
#include <string>

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
}

TEST_P(Registry, PrefixesShareClearedBuffersAndAreCutToThem) {
    Switch *sw = swtest::addSwitch("BCM", 1);
    EXPECT_EQ(switchStrGet(sw), switchStr);
    EXPECT_STREQ(switchStr, "(switch=BCM) ");
    // Each description text has its own buffer, which no object clears.
    SwitchPort port{};
    port.sw = sw;
    port.portNumber = 3;
    SwitchVlan vlan{};
    vlan.sw = sw;
    vlan.vlanId = 100;
    EXPECT_STREQ(swPortStrGet(&port), "(switch=BCM) (port:3) ");
    EXPECT_STREQ(swVlanStrGet(&vlan), "(switch=BCM) (vlan:100) ");
    EXPECT_STREQ(switchStrGet(nullptr), "");
    EXPECT_STREQ(swPortStrGet(nullptr), "");
    EXPECT_STREQ(swVlanStrGet(nullptr), "");
    for (const char *buf : {switchStr, swPortStr, swVlanStr}) EXPECT_EQ(std::string(buf, 512), std::string(512, '\0'));
    // A name filling its whole field is cut to the buffer, not overrun.
    std::memset(sw->switchName, 'n', sizeof sw->switchName);
    const std::string prefix = switchStrGet(sw);
    EXPECT_EQ(prefix.size(), 511u);
    EXPECT_EQ(prefix.substr(0, 8), "(switch=");
}

}  // namespace
