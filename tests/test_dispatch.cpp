// Driver table binding and command routing by switch name.
#include <cstring>

#include "drivers/bcm/bcm.h"
#include "drivers/pse/pse.h"
#include "swmgr_test.h"

namespace {

class Dispatch : public swtest::SwmgrTest {};

struct FakeDevice {
    static int ioctlFn(void *, unsigned, void *) { return 0; }
    static void closeFn(void *ctx) { ++*static_cast<int *>(ctx); }
    int closes = 0;
    explicit FakeDevice(const char *path) : path_(path) {
        OsaDeviceModel m{&closes, ioctlFn, closeFn};
        osaPortDeviceAttach(path, &m);
    }
    ~FakeDevice() { osaPortDeviceDetach(path_); }
    const char *path_;
};

TEST_F(Dispatch, BindingFollowsTheTableByExactName) {
    swtest::RecordingDriver rec;
    EXPECT_EQ(switchConfigFuncRegister(nullptr), SW_EINVAL);
    EXPECT_EQ(switchConfigFuncUnRegister(nullptr), SW_EINVAL);

    Switch *lower = swtest::addSwitch("bcm", 1);
    EXPECT_EQ(switchConfigFuncRegister(lower), -1);
    EXPECT_EQ(lower->switchConfigFunc, nullptr);
    EXPECT_EQ(switchConfigFuncUnRegister(lower), 0);

    Switch *r = swtest::addSwitch("REC", 1);
    rec.registerResult = 7;  // whatever the driver says is the result
    EXPECT_EQ(switchConfigFuncRegister(r), 7);
    EXPECT_NE(r->switchConfigFunc, nullptr);
    EXPECT_EQ(switchConfigFuncUnRegister(r), 0);
    EXPECT_EQ(r->switchConfigFunc, nullptr);
}

TEST_F(Dispatch, BcmBindsToItsDeviceAndReleasesIt) {
    FakeDevice dev("/dev/test-bcm");
    Switch *sw = swtest::addSwitch("BCM", 1);
    std::strcpy(sw->switchDevice, "/dev/test-bcm");
    ASSERT_EQ(switchConfigFuncRegister(sw), 0);
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
    EXPECT_GT(fd, 0);
    const int opened = fd;

    EXPECT_EQ(switchConfigFuncUnRegister(sw), 0);
    EXPECT_EQ(sw->switchConfigFunc, nullptr);
    EXPECT_EQ(dev.closes, 1);
    EXPECT_EQ(fd, opened) << "the descriptor keeps its old value after the close";

    // Descriptor 0 means never opened: nothing is closed.
    fd = 0;
    sw->switchConfigFunc = bcmSwitchConfig;
    EXPECT_EQ(bcmSwitchUnRegister(sw), 0);
    EXPECT_EQ(dev.closes, 1);
}

TEST_F(Dispatch, BcmWithoutDeviceStaysHookedButFails) {
    Switch *sw = swtest::addSwitch("BCM", 1);
    std::strcpy(sw->switchDevice, "/nonexistent/bcm");
    EXPECT_EQ(switchConfigFuncRegister(sw), SW_EINVAL);
    EXPECT_EQ(sw->switchConfigFunc, bcmSwitchConfig);
    EXPECT_LT(fd, 0);
    ASSERT_EQ(cap->logs.size(), 1u);
    EXPECT_EQ(cap->logs[0].level, 8);
    EXPECT_EQ(cap->logs[0].raw, "(switch=BCM) Failed to open the device /nonexistent/bcm \n");
    fd = 0;
}

TEST_F(Dispatch, DriversRefuseRecordsNotNamedForThem) {
    for (const char *name : {"PSE ", "pse", "BCM"}) {
        Switch *sw = swtest::addSwitch(name, 1);
        EXPECT_EQ(pseSwitchRegister(sw), SW_EINVAL) << name;
        EXPECT_EQ(pseSwitchUnRegister(sw), SW_EINVAL) << name;
        EXPECT_EQ(sw->switchConfigFunc, nullptr);
    }
    Switch *notBcm = swtest::addSwitch("BCM1", 1);
    EXPECT_EQ(bcmSwitchRegister(notBcm), SW_EINVAL);
    EXPECT_EQ(bcmSwitchUnRegister(notBcm), SW_EINVAL);
    EXPECT_EQ(pseSwitchRegister(nullptr), SW_EINVAL);
    EXPECT_EQ(bcmSwitchRegister(nullptr), SW_EINVAL);

    Switch *pse = swtest::addSwitch("PSE", 2);
    ASSERT_EQ(switchConfigFuncRegister(pse), 0);
    EXPECT_EQ(pse->switchConfigFunc, pseSwitchConfig);
    EXPECT_EQ(pse->driverPriv, pseConfTransfer);
    EXPECT_TRUE(cap->commands.empty()) << "attaching sends nothing to the engine";
    EXPECT_EQ(pseSwitchUnRegister(pse), 0);
    EXPECT_EQ(pse->switchConfigFunc, nullptr);
    EXPECT_EQ(pse->driverPriv, nullptr);
}

TEST_F(Dispatch, RoutedCommandCarriesTheWholeBusArgumentArea) {
    swtest::RecordingDriver rec;
    swtest::addSwitch("PSE", 2);
    Switch *sw = swtest::addSwitch("REC", 1);
    ASSERT_EQ(switchConfigFuncRegister(sw), 0);

    char request[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "REC";
    const uint32_t enable = 1;
    std::memcpy(request + SW_BUS_NAME_LEN, &enable, sizeof enable);
    int replyLen = 0;
    char reply[8];
    EXPECT_EQ(switchConfig(request, SW_CMD_VLAN_ENABLE, reply, &replyLen), 0);

    ASSERT_EQ(rec.calls.size(), 1u);
    const auto &c = rec.calls[0];
    EXPECT_EQ(c.sw, sw);
    EXPECT_EQ(c.cmd, 33);
    EXPECT_EQ(c.argLen, 1300);
    EXPECT_EQ(c.argPtr, request + 64);
    EXPECT_EQ(c.arg, swtest::le32(1));
    EXPECT_TRUE(cap->logs.empty());

    // Positive driver results pass unchanged; negatives are logged.
    rec.results[48] = 5;
    EXPECT_EQ(switchConfig(request, 48, nullptr, nullptr), 5);
    rec.results[49] = -22;
    EXPECT_EQ(switchConfig(request, 49, nullptr, nullptr), -22);
    ASSERT_EQ(cap->logs.size(), 1u);
    EXPECT_EQ(cap->logs[0].raw, "Failed to process cmd 49 on REC \n");
    EXPECT_EQ(cap->logs[0].level, 8);
}

TEST_F(Dispatch, UnknownSwitchIsRefusedSilently) {
    swtest::RecordingDriver rec;
    Switch *sw = swtest::addSwitch("REC", 1);
    ASSERT_EQ(switchConfigFuncRegister(sw), 0);
    char request[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "NONE";
    EXPECT_EQ(switchConfig(request, 33, nullptr, nullptr), -1);
    EXPECT_EQ(switchConfig(nullptr, 33, nullptr, nullptr), -1);

    // A name that fills all 64 bytes without a terminator is read as 64
    // characters, never past them.
    std::memset(request, 'R', SW_BUS_NAME_LEN);
    EXPECT_EQ(switchConfig(request, 33, nullptr, nullptr), -1);
    EXPECT_TRUE(rec.calls.empty());
    EXPECT_TRUE(cap->logs.empty());
}

}  // namespace
