/* SPDX-License-Identifier: Apache-2.0 */
// Expected texts kept under tests/data: sections opened by "== name", one
// entry a line, fields split by tabs, and \n, \t, \\ written as escapes so
// that every space and line end shows.
#ifndef SWMGR_TESTS_DATA_LINES_H
#define SWMGR_TESTS_DATA_LINES_H

#include <cstdlib>
#include <sstream>

#include "swmgr_test.h"

namespace swtest {

using Row = std::vector<std::string>;

inline std::string unescape(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = (s[i] == '\\' && i + 1 < s.size()) ? s[++i] : '\0';
        out += c == '\0' ? s[i] : c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
    return out;
}

// The entries of section `name` of tests/data/`file` (CTest names the source tree).
inline std::vector<Row> dataRows(const std::string &file, const std::string &name) {
    const char *src = std::getenv("SWMGR_SOURCE_DIR");
    std::istringstream in(readFile(std::string(src ? src : ".") + "/tests/data/" + file));
    std::vector<Row> rows;
    bool on = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("== ", 0) == 0) {
            on = line.substr(3) == name;
        } else if (on) {
            std::istringstream fields(line);
            rows.emplace_back();
            for (std::string f; std::getline(fields, f, '\t');) rows.back().push_back(unescape(f));
        }
    }
    EXPECT_FALSE(rows.empty()) << file << " has no section " << name;
    return rows;
}

inline std::vector<std::string> dataLines(const std::string &file, const std::string &name) {
    std::vector<std::string> out;
    for (const Row &r : dataRows(file, name)) out.push_back(r.empty() ? "" : r[0]);
    return out;
}

// Log records written as level, function and text.
inline Logs dataLogs(const std::string &file, const std::string &name) {
    Logs out;
    for (const Row &r : dataRows(file, name)) out.push_back({std::atoi(r.at(0).c_str()), r.at(1), r.at(2)});
    return out;
}

}  // namespace swtest

#endif
