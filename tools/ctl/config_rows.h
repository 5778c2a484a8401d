/* SPDX-License-Identifier: Apache-2.0 */
// The three configuration tables as rows of text, read once for check and
// plan, and the findings that check reports about them.
#ifndef SWMGR_TOOLS_CTL_CONFIG_ROWS_H
#define SWMGR_TOOLS_CTL_CONFIG_ROWS_H

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace swctl {

using Value = std::optional<std::string>;  // nullopt: SQL NULL

struct Row {
    int64_t id = 0;
    std::vector<Value> values;
};

struct Table {
    std::string name;
    bool exists = false;
    std::vector<std::string> columns;
    std::vector<Row> rows;  // in the order the service's SELECT * returns them

    // The value of the first column of that name, as the service's decoders
    // take it; nullopt also when the column is missing.
    Value get(const Row &row, const std::string &column) const;
    const Row *find(int64_t id) const;
};

// The service's tables, in the order it loads them.
constexpr const char *kTableNames[] = {"swGlobalCfg", "swPortConfig", "vlanEncapIf"};

struct Config {
    Table switches, ports, vlans;
};

// Reads the three tables; false with the reason when the file is no database.
bool readConfig(sqlite3 *db, Config &out, std::string &err);
bool readConfig(const std::string &path, Config &out, std::string &err);

struct Finding {
    std::string table;
    int64_t row = 0;  // 0: the table as a whole
    std::string column;
    bool error = true;
    std::string reason;
    bool fatal = false;  // the service would not survive the row (a switch mapped below itself)
};

// Everything that can be told from the rows alone. Rows with an error are
// put in `refused` (as table and row id) and kept away from the service.
std::vector<Finding> staticFindings(const Config &config, std::set<std::pair<std::string, int64_t>> &refused);

}  // namespace swctl

#endif
