/* SPDX-License-Identifier: Apache-2.0 */
// A BCM switch bound to the driver, with the chip model behind its device.
#ifndef SWMGR_TESTS_BCM_FIXTURE_H
#define SWMGR_TESTS_BCM_FIXTURE_H

#include <cstdio>
#include <cstdlib>

#include "bcm_chip.h"
#include "drivers/bcm/bcm.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace bcmtest {

using swtest::Bytes;
using swtest::Logs;
using Requests = std::vector<std::pair<unsigned, Bytes>>;

class BcmTest : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        ASSERT_TRUE(chip.attach(root->file("bcm-switch")));
        sw = swtest::addSwitch("BCM", 1);
        std::snprintf(sw->switchDevice, sizeof sw->switchDevice, "%s", root->file("bcm-switch").c_str());
        ASSERT_EQ(0, bcmSwitchRegister(sw));
    }
    void TearDown() override {
        if (fd > 0) osaClose(fd);
        fd = 0;
        chip.detach();
        SwmgrTest::TearDown();
    }

    SwitchPort *addPort(int number, int pvid = 1) {
        auto *p = static_cast<SwitchPort *>(std::calloc(1, sizeof(SwitchPort)));
        *p = SwitchPort{{}, static_cast<uint32_t>(number + 100), number, sw, pvid, 0, 0, {}, 0, 0, {}, {}};
        osaListNodeAppend(&sw->portList, p);
        return p;
    }
    void addPorts(std::initializer_list<int> numbers) { for (int n : numbers) addPort(n); }
    SwitchVlan *addVlan(int id, uint32_t fwd, uint32_t untag, const char *ifName = "eth0") {
        auto *v = static_cast<SwitchVlan *>(std::calloc(1, sizeof(SwitchVlan)));
        *v = SwitchVlan{{}, id, 0, {}, {}, {}, {}, {}, fwd, untag, 0, sw};
        std::snprintf(v->interfaceName, sizeof v->interfaceName, "%s", ifName);
        osaListNodeAppend(&sw->vlanList, v);
        return v;
    }
    // A command through the driver's entry.
    int config(int cmd, void *arg, int len) { return bcmSwitchConfig(sw, cmd, arg, len, nullptr, nullptr); }

    Requests requests() const {
        Requests out;
        for (const auto &c : cap->ioctls) out.emplace_back(c.code, c.arg);
        return out;
    }
    std::vector<Bytes> argsOf(unsigned code) const {
        std::vector<Bytes> out;
        for (const auto &c : cap->ioctls)
            if (c.code == code) out.push_back(c.arg);
        return out;
    }
    // Runs fn and returns what it printed on standard output.
    template <typename F>
    std::string printed(F fn) {
        testing::internal::CaptureStdout();
        fn();
        return testing::internal::GetCapturedStdout();
    }

    swsim::BcmChip chip;
    Switch *sw = nullptr;
};
using BcmForms = swtest::BothForms<BcmTest>;

}  // namespace bcmtest

#endif
