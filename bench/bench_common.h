/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the benchmarks: a scratch directory and example databases.
#ifndef SWMGR_BENCH_COMMON_H
#define SWMGR_BENCH_COMMON_H

#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace swbench {

// A directory of its own below `base`, removed with its contents.
struct Scratch {
    std::string dir;
    explicit Scratch(const char *base = "/tmp") {
        std::string tmpl = std::string(base) + "/swmgr-bench-XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) dir = tmpl;
    }
    ~Scratch() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
};

// The example router configuration; with vlans > 0 its VLAN rows are
// replaced by VLANs 1..vlans, alternately on the LAN ports (untagged) and
// on the IPTV port with port 0 tagged.
inline bool makeDb(const std::string &path, int vlans = 0) {
    std::ifstream in(EXAMPLE_SQL);
    std::ostringstream sql;
    sql << in.rdbuf();
    if (vlans > 0) {
        sql << "DELETE FROM vlanEncapIf;\nBEGIN;\n";
        for (int id = 1; id <= vlans; ++id)
            sql << "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap,"
                   " egressMap, fwdMap, untagMap, inSwitchOnly) VALUES ("
                << id << ", 'eth0', 'br" << id << "', '', '', "
                << (id % 2 != 0 ? "'0,1,2,3', '0,1,2,3'" : "'0,4', '4'") << ", 0);\n";
        sql << "COMMIT;\n";
    }
    sqlite3 *db = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, sql.str().c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok && !sql.str().empty();
}

}  // namespace swbench

#endif
