// SPDX-License-Identifier: Apache-2.0
// Switch registry: lookups by name, lower-level references, prefixes. The
// top-level lookup is exercised with the switch lifecycle.
#include <cstring>
#include <string>

#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {

using Registry = swtest::BothForms<swtest::SwmgrTest>;
SWTEST_BOTH_FORMS(Registry);

TEST_P(Registry, NameLookupIsExactAndFirstMatchWins) {
    Switch *a = swtest::addSwitch("PSE", 2);
    Switch *b = swtest::addSwitch("BCM", 1);
    Switch *dup = swtest::addSwitch("BCM", 1);
    EXPECT_EQ(switchByNameGet("PSE"), a);
    EXPECT_EQ(switchByNameGet("BCM"), b);
    EXPECT_NE(switchByNameGet("BCM"), dup);
    EXPECT_EQ(switchByNameGet("bcm"), nullptr);
    EXPECT_EQ(switchByNameGet("BCM "), nullptr);
    EXPECT_EQ(switchByNameGet(nullptr), nullptr);
}

TEST_P(Registry, LowerLevelSwitchIsReferencedOnce) {
    Switch *pse = swtest::addSwitch("PSE", 2);
    Switch *bcm = swtest::addSwitch("BCM", 1);
    Switch *other = swtest::addSwitch("EXT", 1);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, bcm), 0);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, bcm), 0);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, other), 0);
    // Owner first, lower switch second, whatever the wording suggests.
    EXPECT_TRUE(cap->logsAre({{-1, "switchLowerLvlSwitchListAppend",
                               "This switch(PSE) is already present in (BCM) lower levelswitches \n"}}));

    std::vector<Switch *> refs;
    for (auto *r = static_cast<SwitchLowerRef *>(osaListFirst(&pse->lowerLvlSwitchList)); r;
         r = static_cast<SwitchLowerRef *>(osaListNext(r)))
        refs.push_back(r->sw);
    EXPECT_EQ(refs, (std::vector<Switch *>{bcm, other}));
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(pse, "EXT"), other);
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(pse, "PSE"), nullptr);
    EXPECT_EQ(switchLowerLvlSwitchByNameGet(bcm, "BCM"), nullptr);

    EXPECT_EQ(switchLowerLvlSwitchListAppend(nullptr, bcm), -1);
    EXPECT_EQ(switchLowerLvlSwitchListAppend(pse, nullptr), -1);
}

TEST_P(Registry, SwitchPrefixSharesOneClearedBuffer) {
    Switch *sw = swtest::addSwitch("BCM", 1);
    char *s = switchStrGet(sw);
    EXPECT_EQ(s, switchStr);
    EXPECT_STREQ(s, "(switch=BCM) ");

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
    for (const char *buf : {switchStr, swPortStr, swVlanStr})
        EXPECT_EQ(std::string(buf, 512), std::string(512, '\0'));

    // A name filling its whole field is cut to the buffer, not overrun.
    std::memset(sw->switchName, 'n', sizeof sw->switchName);
    std::string prefix = switchStrGet(sw);
    EXPECT_EQ(prefix.size(), 511u);
    EXPECT_EQ(prefix.substr(0, 8), "(switch=");
}

}  // namespace
