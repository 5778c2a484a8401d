// SPDX-License-Identifier: Apache-2.0
// The bus command handler: sorting by code, malformed requests, interface
// events and the upstream rate limit, result mapping.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "swmgr/swconf.h"
#include "swmgr/portvlan.h"
#include "swmgr_test.h"

namespace {

class BusHandler : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        rec = std::make_unique<swtest::RecordingDriver>();
    }
    void TearDown() override {
        rec.reset();
        SwmgrTest::TearDown();
    }
    Switch *addBound(const char *name, int level) {
        Switch *sw = swtest::addSwitch(name, level);
        EXPECT_EQ(switchConfigFuncRegister(sw), 0);
        return sw;
    }
    static MbusMsgHeader request(uint32_t from = 9) {
        MbusMsgHeader h{};
        h.srcModule = from;
        h.isRequest = 1;
        return h;
    }
    int handle(int cmd, void *data, int len, void *aux = nullptr, int *auxLen = nullptr) {
        MbusMsgHeader h = request();
        return swMgrIoctlHandler(nullptr, &h, cmd, data, len, aux, auxLen);
    }
    int ifEvent(const char *ifName, uint32_t event, uint32_t total, uint32_t pct, bool withAux = true) {
        std::vector<uint8_t> ev(SW_IFDEV_EVENT_LEN, 0);
        std::strcpy(reinterpret_cast<char *>(ev.data()), ifName);
        std::memcpy(ev.data() + 132, &event, 4);
        SwIfBandwidth bw{};
        bw.totalBandwidth = total;
        bw.upstreamPercent = pct;
        int auxLen = sizeof bw;
        return handle(SW_CMD_IFDEV_EVENT, ev.data(), static_cast<int>(ev.size()), withAux ? &bw : nullptr,
                      withAux ? &auxLen : nullptr);
    }
    std::unique_ptr<swtest::RecordingDriver> rec;
};
using BusHandlerForms = swtest::BothForms<BusHandler>;
SWTEST_BOTH_FORMS(BusHandlerForms);

const std::string kIf = "swMgrHandleIfDevEvent", kHandler = "swMgrIoctlHandler";

TEST_P(BusHandlerForms, MalformedRequestsAndRepliesAreRefused) {
    EXPECT_EQ(swMgrIoctlHandler(nullptr, nullptr, 37, nullptr, 0, nullptr, nullptr), -1);
    MbusMsgHeader reply = request(20);
    reply.isRequest = 0;
    EXPECT_EQ(swMgrIoctlHandler(nullptr, &reply, 4, nullptr, 0, nullptr, nullptr), 0);
    std::vector<uint8_t> ev(SW_IFDEV_EVENT_LEN - 1, 0);
    EXPECT_EQ(handle(SW_CMD_IFDEV_EVENT, ev.data(), static_cast<int>(ev.size())), -1);
    EXPECT_EQ(handle(SW_CMD_IFDEV_EVENT, nullptr, SW_IFDEV_EVENT_LEN), -1);
    std::vector<uint8_t> db(DB_UPDATE_EVENT_LEN - 1, 0);
    EXPECT_EQ(handle(SW_CMD_DB_EVENT, db.data(), static_cast<int>(db.size())), -1);
    EXPECT_EQ(handle(SW_CMD_DB_EVENT, nullptr, DB_UPDATE_EVENT_LEN), -1);
    EXPECT_TRUE(cap->logsAre({{8, kHandler, "unexpected reply from 20 cmd=4 !\n"},
                              {8, kHandler, "swMgrIoctlHandler: short ifDev event request!\n"},
                              {8, kHandler, "swMgrIoctlHandler: short ifDev event request!\n"},
                              {8, kHandler, "Invalid database event\n"},
                              {8, kHandler, "Invalid database event\n"}}));
    EXPECT_TRUE(rec->calls.empty());
}

// Each bandwidth event: the request, the result, the rate-limit record sent
// to the top-level switch (none when empty) and the whole log.
TEST_P(BusHandlerForms, InterfaceEventsSetTheUpstreamLimitOnPortOne) {
    const std::string got22 = "Received interface event=22 on eth1\n", failed = "failed to handle interface events\n";
    const std::string limit80 =
        "Configure upstream bandwdith limit of eth1 to 80000 kbps (80% of total bandwidth(100000))\n";
    struct Case {
        bool bound;
        const char *ifName;
        uint32_t event, total, pct;
        bool withAux;
        int driverResult;
        int result;
        std::vector<uint32_t> sent;  // port, action, rate
        swtest::Logs logs;
    } cases[] = {
        {true, "eth1", 22, 100000, 80, true, 0, 0, {1, 1, 80000}, {{64, kIf, got22}, {64, kIf, limit80}}},
        {true, "eth0", 26, 0, 80, true, 0, 0, {1, 0, 0},
         {{64, kIf, "Received interface event=26 on eth0\n"},
          {64, kIf, "Configure upstream bandwdith limit of eth0 to 0 kbps (80% of total bandwidth(0))\n"}}},
        {true, "eth0", 25, 1000, 50, true, 0, 0, {1, 1, 500},
         {{64, kIf, "Received interface event=25 on eth0\n"},
          {64, kIf, "Configure upstream bandwdith limit of eth0 to 500 kbps (50% of total bandwidth(1000))\n"}}},
        // Unsigned 32-bit: 100000000 * 80 wraps to 3705032704 before dividing.
        {true, "eth1", 22, 100000000u, 80, true, 0, 0, {1, 1, 37050327},
         {{64, kIf, got22},
          {64, kIf, "Configure upstream bandwdith limit of eth1 to 37050327 kbps (80% of total "
                    "bandwidth(100000000))\n"}}},
        {false, "eth1", 22, 100000, 80, true, 0, -1, {},
         {{64, kIf, got22}, {8, kIf, "No Switch is yet initialized\n"}, {8, kHandler, failed}}},
        {true, "eth1", 23, 100000, 80, true, 0, -122, {},
         {{64, kIf, "Received interface event=23 on eth1\n"}, {8, kHandler, failed}}},
        {true, "eth1", 27, 100000, 80, true, 0, -122, {},
         {{64, kIf, "Received interface event=27 on eth1\n"}, {8, kHandler, failed}}},
        {true, "eth1", 22, 100000, 80, false, 0, -1, {},
         {{64, kIf, got22}, {8, kIf, "No bandwidth information provided in event\n"}, {8, kHandler, failed}}},
        {true, "eth1", 22, 100000, 80, true, -7, -7, {1, 1, 80000},
         {{64, kIf, got22}, {64, kIf, limit80},
          {8, kIf, "Failed to configure rate limiting based on interface bandwidth change \n"},
          {8, kHandler, failed}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.ifName) + " event " + std::to_string(c.event));
        swtest::resetRegistry();
        if (c.bound) addBound("REC", 2);
        rec->calls.clear();
        rec->results[SW_CMD_PORT_RATE_LIMIT] = c.driverResult;
        cap->clear();
        EXPECT_EQ(ifEvent(c.ifName, c.event, c.total, c.pct, c.withAux), c.result);
        std::vector<swtest::Bytes> sent, want;
        for (const auto &call : rec->calls) {
            EXPECT_EQ(std::make_pair(call.cmd, call.argLen), std::make_pair(int{SW_CMD_PORT_RATE_LIMIT}, 12));
            sent.push_back(call.arg);
        }
        if (!c.sent.empty()) {
            want.emplace_back();
            for (uint32_t w : c.sent) for (uint8_t b : swtest::le32(w)) want.back().push_back(b);
        }
        EXPECT_EQ(sent, want);
        EXPECT_TRUE(cap->logsAre(c.logs));
    }
}

TEST_P(BusHandlerForms, DriverCommandsGoToTheNamedSwitchWithResultsMapped) {
    addBound("REC", 2);
    char req[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "REC";
    rec->results[37] = 5;
    EXPECT_EQ(handle(37, req, sizeof req), 0) << "a positive driver result is answered with 0";
    rec->results[37] = -3;
    EXPECT_EQ(handle(37, req, sizeof req), -3);
    EXPECT_EQ(handle(2, req, sizeof req), 0) << "codes below the bus's own go to drivers too";
    EXPECT_EQ(rec->cmds(), (std::vector<int>{37, 37, 2}));

    // A short request is padded, never read past; an unknown name fails.
    EXPECT_EQ(handle(48, req, 4), 0);
    char unknown[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "NONE";
    EXPECT_EQ(handle(37, unknown, sizeof unknown), -1);
    EXPECT_EQ(handle(37, nullptr, 0), -1);
    EXPECT_TRUE(cap->logsAre({{8, "switchConfig", "Failed to process cmd 37 on REC \n"}}));
}

TEST_P(BusHandlerForms, VlanRequestsAddAndDeleteOnTheTopLevelSwitch) {
    char req[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "ignored";
    EXPECT_EQ(handle(SW_CMD_VLAN_ADD, req, sizeof req), SW_EINVAL);  // no top-level switch: quietly
    EXPECT_EQ(handle(SW_CMD_VLAN_DELETE, req, sizeof req), SW_EINVAL);
    EXPECT_TRUE(cap->logs.empty());

    Switch *top = addBound("REC", 2);
    SwitchVlanConf conf{};
    conf.vlanId = 100;
    conf.fwdMap = 0x2;
    std::snprintf(conf.interfaceName, sizeof conf.interfaceName, "eth0");
    std::memcpy(req + SW_BUS_NAME_LEN, &conf, sizeof conf);
    EXPECT_EQ(handle(SW_CMD_VLAN_ADD, req, sizeof req), 0);
    EXPECT_NE(switchVlanByIdGet(top, 100), nullptr);
    EXPECT_EQ(cap->commands.at(1), "vconfig add eth0 100");
    cap->clear();
    EXPECT_EQ(handle(SW_CMD_VLAN_DELETE, req, sizeof req), 0);
    EXPECT_EQ(switchVlanByIdGet(top, 100), nullptr);
    EXPECT_EQ(cap->commands, std::vector<std::string>{"vconfig rem eth0.100"});
}

TEST_F(BusHandler, VlanRequestsWithUnsafeNamesOrIdsAreRefusedBeforeAnythingIsProgrammed) {
    addBound("REC", 1);
    const std::string rule = " is not allowed (letters, digits, '_', '.', '-')\n";
    struct Case {
        std::string ifName, logical;
        int vlanId;
        std::string why;
    };
    const Case cases[] = {
        {"eth0;touch x", "", 5, "interfaceName \"eth0;touch x\" refused: character ';' at offset 4" + rule},
        {"eth0\ntouch x", "", 5, "interfaceName \"eth0\\x0atouch x\" refused: character '\\n' at offset 4" + rule},
        {std::string(64, 'e'), "", 5, ""},  // a full field is cut at its width, as always: accepted
        {"", "", 5, "interfaceName \"\" refused: the name is empty\n"},
        {".", "", 5, "interfaceName \".\" refused: \".\" and \"..\" are not names\n"},
        {"eth0", "br lan", 5, "LogicalIfName \"br lan\" refused: character ' ' at offset 2" + rule},
        {"eth0", "", 0, "vlanId 0 refused: outside 1..4094\n"},
        {"eth0", "", 4095, "vlanId 4095 refused: outside 1..4094\n"},
    };
    for (const auto &c : cases) {
        for (int code : {SW_CMD_VLAN_ADD, SW_CMD_VLAN_DELETE}) {
            std::vector<char> req(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN, 0);
            SwitchVlanConf conf{};
            conf.vlanId = c.vlanId;
            std::memcpy(conf.interfaceName, c.ifName.data(), std::min(c.ifName.size(), sizeof conf.interfaceName));
            std::memcpy(conf.LogicalIfName, c.logical.data(), c.logical.size());
            std::memcpy(req.data() + SW_BUS_NAME_LEN, &conf, sizeof conf);
            cap->clear();
            rec->calls.clear();
            const int r = handle(code, req.data(), static_cast<int>(req.size()));
            if (c.why.empty()) {
                EXPECT_EQ(r, 0);
                EXPECT_FALSE(cap->commands.empty());
                continue;
            }
            const std::string origin = code == SW_CMD_VLAN_ADD ? "VLAN add request: " : "VLAN delete request: ";
            EXPECT_EQ(r, SW_EINVAL) << c.why;
            EXPECT_EQ(cap->rawLogs(), std::vector<std::string>{origin + c.why});
            EXPECT_TRUE(cap->commands.empty());
            EXPECT_TRUE(rec->calls.empty());
        }
    }
    // The developer form names the handler.
    swMgrDevDebug = 1;
    std::vector<char> req(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN, 0);
    req[SW_BUS_NAME_LEN] = 5;
    req[SW_BUS_NAME_LEN + 132] = '|';
    cap->clear();
    EXPECT_EQ(handle(SW_CMD_VLAN_ADD, req.data(), static_cast<int>(req.size())), SW_EINVAL);
    ASSERT_EQ(cap->logs.size(), 1u);
    EXPECT_EQ(std::make_tuple(cap->logs[0].level, cap->logs[0].func, cap->logs[0].text),
              std::make_tuple(256, std::string("swMgrIoctlHandler"),
                              "VLAN add request: interfaceName \"|\" refused: character '|' at offset 0" + rule));
}

}  // namespace
