// SPDX-License-Identifier: Apache-2.0
// QoS programming of the BCM chip.
#include "bcm_fixture.h"

namespace {
using namespace bcmtest;
SWTEST_BOTH_FORMS(BcmForms);

constexpr unsigned kQos = 0xc0045320u, kPause = 0xc0045321u, kRate = 0xc0075322u,
                   kTrust = 0xc006531eu, kSched = 0xc008531fu, kCos = 0xc0055323u;

TEST_P(BcmForms, QosRecordsAndTheirResults) {
    uint32_t on = 1;
    SwitchRateLimitArg rate{3, 1, {0xee, 0xee, 0xee}, 100000};
    SwitchTrustModeArg trust{2, 0x01020304};
    EXPECT_EQ(0, bcmQoSConfigure(sw, &on));
    EXPECT_EQ(0, bcmPauseFrameConfigure(sw, &on));
    EXPECT_EQ(0, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));  // no such mode: the bytes still show the layout
    EXPECT_EQ(requests(), (Requests{{kQos, {1, 0, 0, 0}}, {kPause, {1, 0, 0, 0}},
                                    {kRate, {3, 0, 1, 0xa0, 0x86, 0x01, 0x00}}, {kTrust, {2, 0, 4, 3, 2, 1}}}));

    cap->clear();
    trust.trustMode = 4;
    rate.portNumber = trust.portNumber = 9;  // the chip refuses
    EXPECT_EQ(-22, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));
    chip.failRequest(kPause, -5, 1);
    EXPECT_EQ(-5, bcmPauseFrameConfigure(sw, &on));
    chip.failRequest(kQos, 3, 1);  // passed up, but reported as a failure
    EXPECT_EQ(3, bcmQoSConfigure(sw, &on));
    EXPECT_TRUE(cap->logsAre({{8, "bcmRateLimitConfigure", "(switch=BCM) failed to configure rate limit rule on 9 \n"},
                            {8, "bcmTrustModeConfigure", "(switch=BCM) failed to configure trust mode for 9 \n"},
                            {8, "bcmPauseFrameConfigure", "(switch=BCM) configuring  pause frames failed.\n"},
                            {64, "bcmQoSConfigure", "(switch=BCM) QoS Enable status 1\n"},
                            {128, "bcmQoSConfigure", "(switch=BCM) QoS Enable configuration (Failed).\n"}}));
    EXPECT_EQ(-1, bcmQoSConfigure(nullptr, &on));
    EXPECT_EQ(-1, bcmRateLimitConfigure(sw, nullptr));

    // Queue scheduling and CoS maps walk the matching ports.
    addPorts({2, 0, 1});
    SwitchQueueSchedArg arg{1, 9, 2, 1, 2, 3, 0x104};  // queue count not sent; weights are bytes
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    arg.portNumber = -1;
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(argsOf(kSched), (std::vector<Bytes>{{1, 0, 0, 2, 1, 2, 3, 4}, {2, 0, 0, 2, 1, 2, 3, 4},
                                                  {0, 0, 0, 2, 1, 2, 3, 4}, {1, 0, 0, 2, 1, 2, 3, 4}}));
    cap->clear();
    arg.portNumber = 7;  // no such port
    EXPECT_EQ(-1, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_TRUE(cap->ioctls.empty());
    arg.portNumber = -1;
    chip.failRequest(kSched, -5, 1);
    EXPECT_EQ(-5, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(1u, argsOf(kSched).size());

    BcmCosQueueMapArg cos{1, 0x105, 99, 2};
    EXPECT_EQ(0, bcmCosQueueMapConfigure(sw, &cos));
    EXPECT_EQ(argsOf(kCos), (std::vector<Bytes>{{1, 0, 5, 0, 2}}));
    cos.portNumber = -1;
    chip.failRequest(kCos, -5);
    EXPECT_EQ(-5, bcmCosQueueMapConfigure(sw, &cos));
    EXPECT_TRUE(
        cap->logsAre({{128, "bcmQueueSchedConfigure", "(switch=BCM) Queue Schedule configuration (Failed) \n"},
                      {8, "bcmQueueSchedConfigure", "(switch=BCM) configuring Scheduling on port-1 failed.\n"},
                      {128, "bcmCosQueueMapConfigure", "(switch=BCM) Trust mode Configuration (Success) \n"},
                      {8, "bcmCosQueueMapConfigure", "(switch=BCM) failed to configure cos queue mapping for 2 \n"}}));
}

}  // namespace
