// SPDX-License-Identifier: Apache-2.0
// Configuration rows: arbitrary texts and numbers in the three tables,
// loaded as at start-up, then change events on them with arbitrary
// old-value blocks. Each input starts from an empty registry.
//
// Input: a row count byte per table, then each row's columns (a kind byte:
// below 16 a name the system knows, below 64 a number from the next four
// bytes, else a text as a length byte and bytes), then events: table (u8),
// rowid (u8), opcode (u8), old block (text).
#include "fuzz_world.h"

namespace {

constexpr const char *kTables[] = {"swGlobalCfg", "swPortConfig", "vlanEncapIf"};
constexpr int kColumns[] = {9, 15, 8};
constexpr int kOps[] = {DB_OP_INSERT, DB_OP_UPDATE, DB_OP_DELETE};
constexpr size_t kMaxRows = 8, kMaxEvents = 6;

// A column's text up to its first NUL, which is what SQLite hands back as a
// C string anyway; now and then a plain number or a known name, so that
// rows get far enough to matter.
std::string value(swfuzz::Input &in) {
    static const char *const kKnown[] = {"BCM", "PSE", "eth0", "BCM:0,BCM:1", "PSE:0", "/dev/bcmsw", "0,1,2"};
    const uint8_t kind = in.u8();
    if (kind < 16) return kKnown[kind % std::size(kKnown)];
    if (kind < 64) return std::to_string(static_cast<int32_t>(in.le<uint32_t>()) % 64);
    std::string s = in.text(120);
    return s.substr(0, s.find('\0'));
}

// Empties the table of an earlier input's rows, then fills it from this input.
void replaceRows(swfuzz::Input &in, int table, const std::string &below) {
    sqlite3_exec(pDB, ("DELETE FROM " + std::string(kTables[table])).c_str(), nullptr, nullptr, nullptr);
    std::string sql = std::string("INSERT INTO ") + kTables[table] + " VALUES (NULL";
    for (int c = 0; c < kColumns[table]; ++c) sql += ",?";
    sql += ")";
    for (size_t r = in.u8() % kMaxRows; r > 0; --r) {
        sqlite3_stmt *st = nullptr;
        if (sqlite3_prepare_v2(pDB, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) std::abort();
        for (int c = 0; c < kColumns[table]; ++c) {
            std::string v = value(in);
            // A device path is opened as it stands, so the fuzzer's ones are
            // taken below the world's directory: only the chip model's is real.
            if (table == 0 && c == 1 && !v.empty() && v[0] == '/' && v != "/dev/bcmsw") v = below + v;
            sqlite3_bind_text(st, c + 1, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        }
        sqlite3_step(st);
        sqlite3_finalize(st);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    static swfuzz::SimWorld world;
    // Rows go into the world's database file through the system's own
    // connection: nothing else holds it open.
    [[maybe_unused]] static const int opened = [] {
        if (swMgrDBInit(const_cast<char *>(world.db.c_str())) != 0) std::abort();
        return sqlite3_exec(pDB, "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY;", nullptr, nullptr, nullptr);
    }();
    for (auto *sw = static_cast<Switch *>(osaListFirst(&switchTbl)); sw; sw = static_cast<Switch *>(osaListNext(sw)))
        switchConfigFuncUnRegister(sw);  // closes the chip's descriptor
    swtest::resetRegistry();

    swfuzz::Input in(bytes, size);
    for (int t = 0; t < 3; ++t) replaceRows(in, t, world.dir.path());
    switchCfgLoad();
    switchPortCfgLoad();
    switchVlanCfgLoad();
    if (Switch *top = switchAtTopLevelGet()) switchCfgApply(top);

    for (size_t e = 0; e < kMaxEvents && !in.empty(); ++e) {
        DbUpdateEvent ev{};
        const uint8_t t = in.u8();
        std::snprintf(ev.tableName, sizeof ev.tableName, "%s", t < 240 ? kTables[t % 3] : "swGlobalCfgX");
        ev.rowId = in.u8() % (kMaxRows + 2);
        ev.opCode = kOps[in.u8() % 3];
        std::string old = in.text(255);
        swMgrDBUpdateHandler(&ev, DB_UPDATE_EVENT_LEN, old.empty() ? nullptr : old.data(),
                             static_cast<unsigned>(old.size()));
    }
    return 0;
}
