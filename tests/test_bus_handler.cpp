// SPDX-License-Identifier: Apache-2.0
// The bus command handler: sorting by code, malformed requests, interface
// events and the upstream rate limit, result mapping.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "data_lines.h"

namespace {

class BusHandler : public swtest::SwmgrTest {
protected:
    int handle(int cmd, void *data, int len, void *aux = nullptr, int *auxLen = nullptr, uint32_t isRequest = 1) {
        const MbusMsgHeader h{MBUS_MSG_MAGIC, 20, MBUS_MODULE_SWMGR, static_cast<uint32_t>(cmd), isRequest, 0, 0, 0};
        return swMgrIoctlHandler(nullptr, &h, cmd, data, len, aux, auxLen);
    }
    swtest::RecordingDriver rec{"R"};  // one letter: the first byte of a request names it
};
SWTEST_BOTH_FORMS(BusHandlerForms, BusHandler);

// Unsafe VLAN requests, and short events, are refused end to end in the
// daemon's tests; here what only a request from within can carry.
TEST_P(BusHandlerForms, MalformedRequestsAndRepliesAreRefused) {
    EXPECT_EQ(swMgrIoctlHandler(nullptr, nullptr, 37, nullptr, 0, nullptr, nullptr), -1);
    std::vector<uint8_t> big(SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN, 0);
    const struct { int cmd; void *data; int len; uint32_t isRequest; int result; } rows[] = {
        {4, nullptr, 0, 0, 0},
        {SW_CMD_IFDEV_EVENT, nullptr, SW_IFDEV_EVENT_LEN, 1, -1},
        {SW_CMD_DB_EVENT, nullptr, DB_UPDATE_EVENT_LEN, 1, -1},
        // No top-level switch yet: VLAN requests are refused without a word.
        {SW_CMD_VLAN_ADD, big.data(), static_cast<int>(big.size()), 1, SW_EINVAL},
        {SW_CMD_VLAN_DELETE, big.data(), static_cast<int>(big.size()), 1, SW_EINVAL},
    };
    for (const auto &r : rows)
        EXPECT_EQ(handle(r.cmd, r.data, r.len, nullptr, nullptr, r.isRequest), r.result) << r.cmd;
    EXPECT_TRUE(cap->logsAre({{8, "swMgrIoctlHandler", "unexpected reply from 20 cmd=4 !\n"},
                              {8, "swMgrIoctlHandler", "swMgrIoctlHandler: short ifDev event request!\n"},
                              {8, "swMgrIoctlHandler", "Invalid database event\n"}}));
    EXPECT_TRUE(rec.calls.empty());
    DbUpdateEvent del{};  // old values of one empty string: half a column, refused
    std::string("vlanEncapIf").copy(del.tableName, 11), del.opCode = 9;
    int one = 1;
    EXPECT_EQ(handle(SW_CMD_DB_EVENT, &del, DB_UPDATE_EVENT_LEN, const_cast<char *>(""), &one), -1);
    EXPECT_EQ(cap->countLog("old values result does not contain 2 rows.j=1 nCols=1 outLen=1\n"), 1);
    EXPECT_EQ(handle(SW_CMD_DB_EVENT, &del, DB_UPDATE_EVENT_LEN, const_cast<char *>(""), nullptr), -22) << "none";
}

// Each bandwidth event: the request, the result, the rate-limit record sent
// to the top-level switch (none when empty) and the whole log, kept under
// the event's section of the data file.
TEST_P(BusHandlerForms, InterfaceEventsSetTheUpstreamLimitOnPortOne) {
    const struct {
        const char *section;
        bool bound, withAux;
        uint32_t event, total, pct;
        int driverResult, result;
        std::vector<uint32_t> sent;  // port, action, rate
    } cases[] = {
        {"eth1 22", true, true, 22, 100000, 80, 0, 0, {1, 1, 80000}},
        {"eth0 26 no total", true, true, 26, 0, 50, 0, 0, {1, 0, 0}},
        // Unsigned 32-bit: 100000000 * 80 wraps to 3705032704 before dividing.
        {"eth1 25 wraps", true, true, 25, 100000000u, 80, 0, 0, {1, 1, 37050327}},
        {"eth1 22 unbound", false, true, 22, 100000, 80, 0, -1, {}},
        {"eth1 23", true, true, 23, 100000, 80, 0, -122, {}},
        {"eth1 27", true, true, 27, 100000, 80, 0, -122, {}},
        {"eth1 22 no bandwidth", true, false, 22, 100000, 80, 0, -1, {}},
        {"eth1 22 driver fails", true, true, 22, 100000, 80, -7, -7, {1, 1, 80000}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.section);
        swtest::resetRegistry();
        if (c.bound) { EXPECT_EQ(switchConfigFuncRegister(swtest::addSwitch("R", 2)), 0); }
        rec.calls.clear();
        rec.results[SW_CMD_PORT_RATE_LIMIT] = c.driverResult;
        cap->clear();
        SwIfDevEvent ev{{}, c.event, {}};
        std::snprintf(ev.ifName, sizeof ev.ifName, "%s", std::string(c.section).substr(0, 4).c_str());
        SwIfBandwidth bw{{}, c.total, {}, c.pct};
        int auxLen = sizeof bw;
        EXPECT_EQ(handle(SW_CMD_IFDEV_EVENT, &ev, sizeof ev, c.withAux ? &bw : nullptr, c.withAux ? &auxLen : nullptr),
                  c.result);
        std::vector<std::tuple<int, int, swtest::Bytes>> sent, want;
        for (const auto &call : rec.calls) sent.emplace_back(call.cmd, call.argLen, call.arg);
        if (!c.sent.empty()) want.emplace_back(SW_CMD_PORT_RATE_LIMIT, 12, swtest::Bytes{});
        for (uint32_t w : c.sent) for (uint8_t b : swtest::le32(w)) std::get<2>(want.back()).push_back(b);
        EXPECT_EQ(sent, want);
        EXPECT_TRUE(cap->logsAre(swtest::dataLogs("bus/ifdev-events.txt", c.section)));
    }
}

TEST_P(BusHandlerForms, DriverCommandsGoToTheNamedSwitchWithResultsMapped) {
    EXPECT_EQ(switchConfigFuncRegister(swtest::addSwitch("R", 2)), 0);
    char req[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "R";
    rec.results[37] = 1;
    EXPECT_EQ(handle(37, req, sizeof req), 0) << "a positive driver result is answered with 0";
    rec.results[37] = -3;
    EXPECT_EQ(handle(37, req, sizeof req), -3);
    EXPECT_EQ(handle(2, req, sizeof req), 0) << "codes below the bus's own go to drivers too";
    EXPECT_EQ(handle(48, req, 4), 0) << "a short request is padded, never read past";
    EXPECT_EQ(handle(37, req, 0), -1) << "an empty request names no switch";
    EXPECT_EQ(rec.cmds(), (std::vector<int>{37, 37, 2, 48}));
    EXPECT_EQ(handle(37, nullptr, 0), -1);
    EXPECT_EQ(handle(SW_CMD_VLAN_DELETE, nullptr, 0), -1) << "malformed";
    // A name that fills its field has no terminator: what is shown of it stops there.
    SwitchVlanConf conf{};
    std::memset(conf.interfaceName, 'a', sizeof conf.interfaceName), conf.interfaceName[0] = ';';
    conf.LogicalIfName[0] = 'q';
    char add[SW_BUS_NAME_LEN + SW_VLAN_CONF_LEN] = {};
    EXPECT_EQ((std::memcpy(add + SW_BUS_NAME_LEN, &conf, sizeof conf), handle(SW_CMD_VLAN_ADD, add, sizeof add)), -22);
    EXPECT_TRUE(cap->logsAre({{8, "switchConfig", "Failed to process cmd 37 on R \n"},
                              {8, "swMgrIoctlHandler", "swMgrIoctlHandler: empty vlan request!\n"},
                              {8, "swMgrIoctlHandler", "VLAN add request: interfaceName \";" + std::string(63, 'a') +
                                                           "\" refused: character ';' at offset 0 is not allowed"
                                                           " (letters, digits, '_', '.', '-')\n"}}));
}

}  // namespace
