// QoS programming of the BCM chip.
#include "bcm_fixture.h"

namespace {
using namespace bcmtest;

constexpr unsigned kQos = 0xc0045320u, kPause = 0xc0045321u, kRate = 0xc0075322u,
                   kTrust = 0xc006531eu, kSched = 0xc008531fu, kCos = 0xc0055323u;

TEST_F(BcmTest, ChipWideSwitchesAndTheirResultLines) {
    uint32_t on = 1;
    EXPECT_EQ(0, bcmQoSConfigure(sw, &on));
    EXPECT_EQ(0, bcmPauseFrameConfigure(sw, &on));
    EXPECT_EQ(requests(), (Requests{{kQos, {1, 0, 0, 0}}, {kPause, {1, 0, 0, 0}}}));
    EXPECT_EQ(1u, chip.state().qosEnable);
    EXPECT_EQ(1u, chip.state().pauseFrames);
    chip.failRequest(kPause, -5, 1);
    EXPECT_EQ(-5, bcmPauseFrameConfigure(sw, &on));
    chip.failRequest(kQos, -5, 1);
    EXPECT_EQ(-5, bcmQoSConfigure(sw, &on));
    chip.failRequest(kQos, 3, 1);  // passed up, but reported as a failure
    EXPECT_EQ(3, bcmQoSConfigure(sw, &on));
    EXPECT_EQ(logs(), (Logs{{64, "(switch=BCM) QoS Enable status 1\n"},
                            {128, "(switch=BCM) QoS Enable configuration (Success).\n"},
                            {128, "(switch=BCM) Pause Frame configuration (Success) \n"},
                            {8, "(switch=BCM) configuring  pause frames failed.\n"},
                            {64, "(switch=BCM) QoS Enable status 1\n"},
                            {8, "(switch=BCM) configuring QoS in switch failed (-5).\n"},
                            {64, "(switch=BCM) QoS Enable status 1\n"},
                            {128, "(switch=BCM) QoS Enable configuration (Failed).\n"}}));
    cap->clear();
    EXPECT_EQ(-1, bcmQoSConfigure(nullptr, &on));
    EXPECT_EQ(-1, bcmRateLimitConfigure(sw, nullptr));
    EXPECT_TRUE(cap->logs.empty());
    EXPECT_TRUE(cap->ioctls.empty());
}

TEST_F(BcmTest, RateAndTrustRecordsCarryUnalignedWords) {
    SwitchRateLimitArg rate{3, 1, {0xee, 0xee, 0xee}, 100000};
    SwitchTrustModeArg trust{2, 0x01020304};
    EXPECT_EQ(0, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(0, bcmTrustModeConfigure(sw, &trust));
    EXPECT_EQ(requests(), (Requests{{kRate, {3, 0, 1, 0xa0, 0x86, 0x01, 0x00}}, {kTrust, {2, 0, 4, 3, 2, 1}}}));
    EXPECT_EQ(chip.port(3).rate, (swsim::BcmChip::RateLimit{1, 100000}));
    EXPECT_EQ(0x01020304u, chip.port(2).trustMode);
    rate.portNumber = trust.portNumber = 9;  // the chip refuses
    EXPECT_EQ(-22, bcmRateLimitConfigure(sw, &rate));
    EXPECT_EQ(-22, bcmTrustModeConfigure(sw, &trust));
    EXPECT_EQ(logs(), (Logs{{128, "(switch=BCM) Rate Limit(100000 kbps) port(3) returned (Success) \n"},
                            {128, "(switch=BCM) Trust mode Configuration returning status (Success) \n"},
                            {8, "(switch=BCM) failed to configure rate limit rule on 9 \n"},
                            {8, "(switch=BCM) failed to configure trust mode for 9 \n"}}));
}

TEST_F(BcmTest, QueueSchedulingWalksMatchingPorts) {
    addPorts({2, 0, 1});
    SwitchQueueSchedArg arg{1, 9, 2, 1, 2, 3, 0x104};  // queue count not sent; weights are bytes
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(argsOf(kSched), (std::vector<Bytes>{{1, 0, 0, 2, 1, 2, 3, 4}}));
    EXPECT_EQ(chip.port(1).sched, (swsim::BcmChip::QueueSched{2, {1, 2, 3, 4}}));
    cap->clear();
    arg.portNumber = -1;
    EXPECT_EQ(0, bcmQueueSchedConfigure(sw, &arg));
    ASSERT_EQ(3u, argsOf(kSched).size());
    EXPECT_EQ((std::vector<int>{argsOf(kSched)[0][0], argsOf(kSched)[1][0], argsOf(kSched)[2][0]}),
              (std::vector<int>{2, 0, 1}));
    EXPECT_EQ(logs(), (Logs{{128, "(switch=BCM) Queue Schedule configuration (Success) \n"}}));

    cap->clear();
    arg.portNumber = 7;
    EXPECT_EQ(-1, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_TRUE(cap->ioctls.empty());
    arg.portNumber = -1;
    chip.failRequest(kSched, -5);
    EXPECT_EQ(-5, bcmQueueSchedConfigure(sw, &arg));
    EXPECT_EQ(1u, argsOf(kSched).size());
    EXPECT_EQ(logs(), (Logs{{128, "(switch=BCM) Queue Schedule configuration (Failed) \n"},
                            {8, "(switch=BCM) configuring Scheduling on port-1 failed.\n"}}));
}

TEST_F(BcmTest, CosMapReportsFailingPortAndItsOwnResultLine) {
    addPorts({3, 1});
    BcmCosQueueMapArg arg{1, 0x105, 99, 2};
    EXPECT_EQ(0, bcmCosQueueMapConfigure(sw, &arg));
    EXPECT_EQ(argsOf(kCos), (std::vector<Bytes>{{1, 0, 5, 0, 2}}));
    EXPECT_EQ(2, chip.port(1).cosQueue.at(5));
    arg.portNumber = -1;
    chip.failRequest(kCos, -5);
    EXPECT_EQ(-5, bcmCosQueueMapConfigure(sw, &arg));
    EXPECT_EQ(logs(), (Logs{{128, "(switch=BCM) Trust mode Configuration (Success) \n"},
                            {8, "(switch=BCM) failed to configure cos queue mapping for 3 \n"}}));
}

}  // namespace
