// A PSE switch bound to its driver, with the engine model behind the
// command seams and helpers to hang ports and lower-level switches off it.
#ifndef SWMGR_TESTS_PSE_FIXTURE_H
#define SWMGR_TESTS_PSE_FIXTURE_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "drivers/pse/pse.h"
#include "portvlan/portvlan.h"
#include "pse_engine.h"
#include "swmgr_test.h"

namespace psetest {

class PseTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        engine.attach();  // behind the capture, which records every line first
        pse = swtest::addSwitch("PSE", 2);
        ASSERT_EQ(0, pseSwitchRegister(pse));
    }
    void TearDown() override {
        engine.detach();
        SwmgrTest::TearDown();
    }

    static SwitchPort *addPort(Switch *sw, int number) {
        auto *p = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
        p->portNumber = number;
        p->sw = sw;
        osaListInit(&p->mappedPorts);
        osaListNodeAppend(&sw->portList, p);
        return p;
    }
    // `upper` stands for `lower`; the lower switch joins upper's switch's list.
    static void mapPort(SwitchPort *upper, SwitchPort *lower) {
        auto *m = static_cast<SwitchPortMapEntry *>(std::calloc(1, sizeof(SwitchPortMapEntry)));
        m->port = lower;
        osaListNodeAppend(&upper->mappedPorts, m);
        switchLowerLvlSwitchListAppend(upper->sw, lower->sw);
    }
    // Raw texts of the logs, for whole-sequence comparisons.
    std::vector<std::string> logs() const { return cap->rawLogs(); }
    static std::string cmdLine(const std::string &cmd, int status) {
        return "cmd (" + cmd + ") returned (" + std::to_string(status) + ").\n";
    }

    swsim::PseEngine engine;
    Switch *pse = nullptr;
};

}  // namespace psetest

#endif
