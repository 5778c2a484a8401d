/* SPDX-License-Identifier: Apache-2.0 */
// A PSE switch bound to its driver, with the engine model behind the
// command seams and helpers to hang ports and lower-level switches off it.
#ifndef SWMGR_TESTS_PSE_FIXTURE_H
#define SWMGR_TESTS_PSE_FIXTURE_H

#include <cstdlib>

#include "drivers/pse/pse.h"
#include "swmgr/portvlan.h"
#include "pse_engine.h"
#include "swmgr_test.h"

namespace psetest {

using Lines = std::vector<std::string>;

class PseTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        engine.attach();  // behind the capture, which records every line first
        pse = swtest::addSwitch("PSE", 2);
        pse->lowerLvlForward = 0;  // tests that forward switch it on
        ASSERT_EQ(0, pseSwitchRegister(pse));
    }
    void TearDown() override {
        engine.detach();
        SwmgrTest::TearDown();
    }

    // A port of `sw` standing for each of `lowers`, whose switch joins sw's lower-level list.
    static SwitchPort *addPort(Switch *sw, int number, std::initializer_list<SwitchPort *> lowers = {}) {
        auto *p = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
        p->portNumber = number;
        p->sw = sw;
        osaListInit(&p->mappedPorts);
        osaListNodeAppend(&sw->portList, p);
        for (SwitchPort *lower : lowers) {
            auto *m = static_cast<SwitchPortMapEntry *>(std::calloc(1, sizeof(SwitchPortMapEntry)));
            m->port = lower;
            osaListNodeAppend(&p->mappedPorts, m);
            switchLowerLvlSwitchListAppend(sw, lower->sw);
        }
        return p;
    }
    swsim::PseEngine engine;
    Switch *pse = nullptr;
};
using PseForms = swtest::BothForms<PseTest>;

}  // namespace psetest

#endif
