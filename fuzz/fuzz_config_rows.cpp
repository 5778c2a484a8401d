// SPDX-License-Identifier: Apache-2.0
// Configuration rows: arbitrary texts and numbers in the three tables,
// loaded as at start-up, then change events on them with arbitrary
// old-value blocks. Each input starts from an empty registry.
//
// Input: a row count byte per table, then each row's columns (texts as a
// length byte and bytes, numbers as a length byte and digits or anything),
// then events: table (u8), rowid (u8), opcode (u8), old block (text).
#include <sqlite3.h>

#include <string>

#include "swmgr/swconf.h"
#include "fuzz_world.h"
#include "osa_port.h"
#include "swmgr/switch.h"

namespace {

constexpr const char *kTables[] = {"swGlobalCfg", "swPortConfig", "vlanEncapIf"};
constexpr int kColumns[] = {9, 15, 8};
constexpr int kOps[] = {DB_OP_INSERT, DB_OP_UPDATE, DB_OP_DELETE};
constexpr size_t kMaxRows = 8;
constexpr size_t kMaxEvents = 6;

// A column's text: the fuzzer's bytes up to the first NUL, which is what
// SQLite hands back as a C string anyway. Now and then a plain number or
// a name the system knows, so that rows get far enough to matter.
std::string value(swfuzz::Input &in) {
    const uint8_t kind = in.u8();
    static const char *const kKnown[] = {"BCM", "PSE", "eth0", "BCM:0,BCM:1", "PSE:0", "/dev/bcmsw", "0,1,2"};
    if (kind < 16) return kKnown[kind % (sizeof kKnown / sizeof kKnown[0])];
    if (kind < 64) return std::to_string(static_cast<int32_t>(in.u32()) % 64);
    std::string s = in.text(120);
    return s.substr(0, s.find('\0'));
}

struct World {
    swfuzz::SimWorld sim;
    World() {
        swfuzz::quietBus();
        // Rows go into the world's database file, through the system's own
        // connection: nothing else holds it open.
        if (swMgrDBInit(const_cast<char *>(sim.db.c_str())) != 0) std::abort();
        sqlite3_exec(pDB, "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY;", nullptr, nullptr, nullptr);
    }
};

void clear() {
    for (auto *sw = static_cast<Switch *>(osaListFirst(&switchTbl)); sw != nullptr;
         sw = static_cast<Switch *>(osaListNext(sw)))
        switchConfigFuncUnRegister(sw);  // closes the chip's descriptor
    swtest::resetRegistry();
    sqlite3_exec(pDB, "DELETE FROM swGlobalCfg; DELETE FROM swPortConfig; DELETE FROM vlanEncapIf;", nullptr,
                 nullptr, nullptr);
}

// A device path is opened as it stands, so the fuzzer's ones are taken
// below the world's directory: only the chip model's own path is real.
std::string devicePath(const std::string &v, const std::string &below) {
    return v.empty() || v[0] != '/' || v == "/dev/bcmsw" ? v : below + v;
}

void insertRows(swfuzz::Input &in, int table, const std::string &below) {
    const size_t rows = in.u8() % kMaxRows;
    for (size_t r = 0; r < rows; ++r) {
        std::string sql = std::string("INSERT INTO ") + kTables[table] + " VALUES (NULL";
        for (int c = 0; c < kColumns[table]; ++c) sql += ",?";
        sql += ")";
        sqlite3_stmt *st = nullptr;
        if (sqlite3_prepare_v2(pDB, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) std::abort();
        for (int c = 0; c < kColumns[table]; ++c) {
            std::string v = value(in);
            if (table == 0 && c == 1) v = devicePath(v, below);
            sqlite3_bind_text(st, c + 1, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        }
        sqlite3_step(st);
        sqlite3_finalize(st);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    static World world;
    swfuzz::Input in(bytes, size);
    clear();
    for (int t = 0; t < 3; ++t) insertRows(in, t, world.sim.dir.path());
    switchCfgLoad();
    switchPortCfgLoad();
    switchVlanCfgLoad();
    if (Switch *top = switchAtTopLevelGet()) switchCfgApply(top);

    for (size_t e = 0; e < kMaxEvents && !in.empty(); ++e) {
        DbUpdateEvent ev{};
        const uint8_t t = in.u8();
        const char *table = kTables[t % 3];
        std::snprintf(ev.tableName, sizeof ev.tableName, "%s", t < 240 ? table : "swGlobalCfgX");
        ev.rowId = in.u8() % (kMaxRows + 2);
        ev.opCode = kOps[in.u8() % 3];
        std::string old = in.text(255);
        swMgrDBUpdateHandler(&ev, DB_UPDATE_EVENT_LEN, old.empty() ? nullptr : old.data(),
                             static_cast<unsigned>(old.size()));
    }
    return 0;
}
