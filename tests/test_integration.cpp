// The whole system run the way the device runs it: the example router
// configuration in a real database file, swMgrInit on it, then bus requests
// delivered through mbusListen, with the chip, the engine's tools and the
// host's VLAN interfaces simulated.
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bcm_chip.h"
#include "config/swconf.h"
#include "host_vlan.h"
#include "portvlan/portvlan.h"
#include "pse_engine.h"
#include "swmgr_test.h"

namespace {

constexpr int kClientModule = 42;

std::string readFile(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream os;
    os << in.rdbuf();
    return os.str();
}

class Router : public swtest::SwmgrTest {
protected:
    void SetUp() override {
        SwmgrTest::SetUp();
        const char *src = std::getenv("SWMGR_SOURCE_DIR");
        ASSERT_NE(src, nullptr) << "run through CTest, which sets SWMGR_SOURCE_DIR";
        dbPath = root->file("router.db");
        ASSERT_EQ(sqlite3_open(dbPath.c_str(), &db), SQLITE_OK);
        std::string sql = readFile(std::string(src) + "/examples/router.sql");
        ASSERT_FALSE(sql.empty());
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        root->write("var/.keep", "");

        ASSERT_TRUE(chip.attach("/dev/bcmsw"));
        engine.attach();
        host.attach();
        host.enableHwAddr();
        ASSERT_EQ(swMgrInit(dbPath.c_str()), 0);
    }
    void TearDown() override {
        swMgrDeinit();
        host.detach();
        engine.detach();
        chip.detach();
        sqlite3_close(db);
        SwmgrTest::TearDown();
    }

    void exec(const std::string &sql) {
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }
    std::string oldValues(int rowId) {
        std::string block;
        sqlite3_stmt *st = nullptr;
        std::string sql = "SELECT * FROM vlanEncapIf WHERE rowid=" + std::to_string(rowId);
        EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr), SQLITE_OK);
        EXPECT_EQ(sqlite3_step(st), SQLITE_ROW);
        int n = sqlite3_column_count(st);
        for (int i = 0; i < n; ++i) block += std::string(sqlite3_column_name(st, i)) + '\0';
        for (int i = 0; i < n; ++i) {
            const unsigned char *v = sqlite3_column_text(st, i);
            block += std::string(v ? reinterpret_cast<const char *>(v) : "") + '\0';
        }
        sqlite3_finalize(st);
        return block;
    }
    // Posts one request and lets the service's loop take it.
    void deliver(int cmd, const void *data, int len, const void *aux = nullptr, int auxLen = 0) {
        ASSERT_EQ(mbusPortPost(kClientModule, cmd, data, len, aux, auxLen), 0);
        ASSERT_EQ(mbusListen(pSwMgrMbusCtx, 1000000), 1);
    }
    void dbEvent(int rowId, int opCode, const std::string &old = "") {
        DbUpdateEvent ev{};
        std::strcpy(ev.tableName, "vlanEncapIf");
        ev.rowId = rowId;
        ev.opCode = opCode;
        deliver(SW_CMD_DB_EVENT, &ev, sizeof ev, old.empty() ? nullptr : old.data(),
                static_cast<int>(old.size()));
    }
    const swsim::PseEngine::VlanEntry *engineVlan(int vlanId) const {
        for (const auto &[index, e] : engine.vlanTable())
            if (e.vlanId == vlanId) return &e;
        return nullptr;
    }
    int count(const std::string &raw) const { return cap->countLog(raw); }

    std::string dbPath;
    sqlite3 *db = nullptr;
    swsim::BcmChip chip;
    swsim::PseEngine engine;
    swsim::HostVlanModel host;
};

TEST_F(Router, StartUpProgramsChipEngineAndHost) {
    Switch *pse = switchAtTopLevelGet();
    ASSERT_NE(pse, nullptr);
    EXPECT_STREQ(pse->switchName, "PSE");
    ASSERT_NE(switchLowerLvlSwitchByNameGet(pse, "BCM"), nullptr);

    // The chip: VLAN 10 on ports 0-3 plus the LAN's CPU port 4, VLAN 20 on
    // port 4; each port's default tag from the VLAN it is untagged in.
    const auto &s = chip.state();
    EXPECT_TRUE(s.vlanEnabled);
    ASSERT_TRUE(chip.vlan(10).has_value());
    EXPECT_EQ(chip.vlan(10)->fwdMap, 0x1f);
    EXPECT_EQ(chip.vlan(10)->untagMap, 0x0f);
    ASSERT_TRUE(chip.vlan(20).has_value());
    EXPECT_EQ(chip.vlan(20)->fwdMap, 0x10);
    EXPECT_EQ(chip.vlan(20)->untagMap, 0x10);
    for (int p = 0; p < 4; ++p) EXPECT_EQ(chip.port(p).tag.vid, 10) << p;
    EXPECT_EQ(chip.port(4).tag.vid, 20);
    for (int p = 0; p < 5; ++p) EXPECT_EQ(chip.port(p).non8021q, 0u) << p;

    // The engine: VLAN 10 reaches the trunk port 1 (and the CPU), VLAN 20's
    // lower port 4 stands at bit 3, which VLAN 20 does not set.
    const auto *v10 = engineVlan(10);
    ASSERT_NE(v10, nullptr);
    EXPECT_EQ(v10->index, 4);
    EXPECT_EQ(v10->etagMap, 0x6u);
    EXPECT_EQ(v10->mbMap, 0x6u);
    EXPECT_EQ(v10->isWan, 0);
    EXPECT_EQ(v10->mac, "02:00:00:00:00:01");
    ASSERT_NE(engineVlan(20), nullptr);
    EXPECT_EQ(engineVlan(20)->index, 5);
    EXPECT_EQ(engineVlan(20)->etagMap, 0u);
    EXPECT_NE(engine.arlEntry("02:00:00:00:00:01", 10), nullptr);
    EXPECT_EQ(engine.qosEnabled(), std::optional<bool>(true));
    // Pause frames were set twice (when added, again when applied), each
    // time through the pipeline that drops the low half's leading zeros.
    for (uint32_t reg : swsim::PseEngine::kPauseRegisters) EXPECT_EQ(engine.reg(reg), 0x80080u) << std::hex << reg;
    ASSERT_NE(engine.trust(0), nullptr);
    EXPECT_EQ(*engine.trust(0), (swsim::PseEngine::TrustFlags{0, 0, 0, 1, 0}));
    EXPECT_EQ(*engine.trust(1), (swsim::PseEngine::TrustFlags{0, 0, 1, 0, 0}));

    // The host: one sub-interface per VLAN, up, priorities mapped 1:1.
    for (const char *name : {"eth0.10", "eth0.20"}) {
        const auto *sub = host.find(name);
        ASSERT_NE(sub, nullptr) << name;
        EXPECT_TRUE(sub->up);
        EXPECT_EQ(sub->egressMap.size(), 8u);
    }
    EXPECT_TRUE(root->exists("var/VLAN.10.Uptime"));
}

TEST_F(Router, VlanRowFollowsTheDatabaseThroughChangeEvents) {
    exec("INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap,"
         " fwdMap, untagMap, inSwitchOnly) VALUES (100, 'eth0', 'br-guest', '', '', '1,2', '', 0);");
    const int row = static_cast<int>(sqlite3_last_insert_rowid(db));
    dbEvent(row, DB_OP_INSERT);
    ASSERT_TRUE(chip.vlan(100).has_value()) << cap->dump();
    EXPECT_EQ(chip.vlan(100)->fwdMap, 0x16);
    EXPECT_EQ(chip.vlan(100)->untagMap, 0);
    ASSERT_NE(engineVlan(100), nullptr);
    EXPECT_EQ(engineVlan(100)->index, 6);
    EXPECT_EQ(engineVlan(100)->etagMap, 0x6u);
    ASSERT_TRUE(host.exists("eth0.100"));
    EXPECT_TRUE(host.find("eth0.100")->up);
    EXPECT_TRUE(root->exists("var/VLAN.100.Uptime"));
    EXPECT_EQ(count("DBUpdate event: Table: vlanEncapIf opCode:18 rowId:" + std::to_string(row) +
                    " status=0\n"),
              1);

    std::string old = oldValues(row);
    exec("UPDATE vlanEncapIf SET fwdMap='3' WHERE rowid=" + std::to_string(row));
    dbEvent(row, DB_OP_UPDATE, old);
    EXPECT_EQ(chip.vlan(100)->fwdMap, 0x18);
    EXPECT_EQ(engineVlan(100)->etagMap, 0x6u);
    EXPECT_TRUE(host.exists("eth0.100")) << "an update leaves the host interface alone";

    old = oldValues(row);
    exec("DELETE FROM vlanEncapIf WHERE rowid=" + std::to_string(row));
    dbEvent(row, DB_OP_DELETE, old);
    EXPECT_TRUE(!chip.vlan(100).has_value() || chip.vlan(100)->fwdMap == 0);
    EXPECT_FALSE(host.exists("eth0.100"));
    EXPECT_FALSE(root->exists("var/VLAN.100.Uptime"));
    for (const char *name : {"PSE", "BCM"})
        EXPECT_EQ(switchVlanByIdGet(switchByNameGet(name), 100), nullptr) << name;
    EXPECT_EQ(count("DBUpdate event: Table: vlanEncapIf opCode:9 rowId:" + std::to_string(row) +
                    " status=0\n"),
              1);
}

TEST_F(Router, BandwidthEventLimitsTheUpstreamPort) {
    cap->clear();
    std::vector<uint8_t> ev(SW_IFDEV_EVENT_LEN, 0);
    std::strcpy(reinterpret_cast<char *>(ev.data()), "eth1");
    const uint32_t event = 22;
    std::memcpy(ev.data() + 132, &event, 4);
    SwIfBandwidth bw{};
    bw.totalBandwidth = 100000;
    bw.upstreamPercent = 80;
    deliver(SW_CMD_IFDEV_EVENT, ev.data(), static_cast<int>(ev.size()), &bw, sizeof bw);

    // 80000 kbps in 1024-kbps steps on PSE port 1; then the command goes down
    // once per chip port behind it, which the chip's driver does not serve.
    ASSERT_NE(engine.rateLimit(1), nullptr) << cap->dump();
    EXPECT_EQ(engine.rateLimit(1)->value, 78);
    EXPECT_EQ(engine.rateLimit(1)->unit, 1);
    EXPECT_EQ(std::count(cap->commands.begin(), cap->commands.end(), "rate_limit_func set 1 78 1"), 1);
    EXPECT_EQ(count("(switch=BCM) Invalid command (50)\n"), 5);
    for (int p = 0; p < 5; ++p) EXPECT_EQ(chip.port(p).rate.kbps, 0u);
}

TEST_F(Router, DriverCommandAndVlanRequestsByBus) {
    // Queue scheduling addressed to the engine by name.
    char req[SW_BUS_NAME_LEN + SW_BUS_ARG_LEN] = "PSE";
    SwitchQueueSchedArg q{-1, 4, 3, 1, 2, 4, 8};
    std::memcpy(req + SW_BUS_NAME_LEN, &q, sizeof q);
    deliver(SW_CMD_QUEUE_SCHED, req, sizeof req);
    EXPECT_EQ(engine.trafficClass(), std::optional<int>(2));
    for (int port : {0, 1}) {
        ASSERT_NE(engine.queueWeight(port), nullptr) << port;
        EXPECT_EQ(engine.queueWeight(port)->mode, 2);
        EXPECT_EQ(engine.queueWeight(port)->exponents, (std::array<int, 4>{0, 1, 2, 3}));
    }

    // A VLAN added and removed by request goes to the top-level switch and,
    // through it, everywhere; eth1 faces the WAN.
    std::memset(req, 0, sizeof req);
    SwitchVlanConf conf{};
    conf.vlanId = 200;
    std::strcpy(conf.interfaceName, "eth1");
    conf.fwdMap = 0x1;
    std::memcpy(req + SW_BUS_NAME_LEN, &conf, sizeof conf);
    deliver(SW_CMD_VLAN_ADD, req, sizeof req);
    ASSERT_NE(engineVlan(200), nullptr) << cap->dump();
    EXPECT_EQ(engineVlan(200)->isWan, 1);
    EXPECT_EQ(engineVlan(200)->etagMap, 0x6u);
    ASSERT_TRUE(chip.vlan(200).has_value());
    EXPECT_EQ(chip.vlan(200)->fwdMap, 0x1) << "eth1's CPU port is 0";
    EXPECT_TRUE(host.exists("eth1.200"));

    deliver(SW_CMD_VLAN_DELETE, req, sizeof req);
    EXPECT_FALSE(host.exists("eth1.200"));
    EXPECT_EQ(switchVlanByIdGet(switchByNameGet("BCM"), 200), nullptr);
}

}  // namespace
