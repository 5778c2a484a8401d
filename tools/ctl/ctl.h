/* SPDX-License-Identifier: Apache-2.0 */
// The client core every swmgrctl verb is built on: the global options, one
// bus request, how a result is printed (text or JSON) and the exit status
// it gives, and the registration of a verb's subcommand.
#ifndef SWMGR_TOOLS_CTL_CTL_H
#define SWMGR_TOOLS_CTL_CTL_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli.h"

namespace swctl {

using Bytes = std::vector<uint8_t>;
using nlohmann::json;

// Exit statuses: a value the tool checks itself and cannot send is a usage
// error, like one the argument parser refuses.
constexpr int kOk = swtool::kExitOk, kFailed = swtool::kExitFailed, kUnreachable = swtool::kExitNoBus,
              kUsage = swtool::kExitUsage;

struct Options {
    std::string busDir;
    int timeoutMs = 0;
    bool showTime = false;
    bool json = false;
};
extern Options opt;

struct Reply {
    int result = 0;
    bool delivered = false;
    Bytes aux;
};

// One request; `aux` (when given) is sent and replaced by the reply's aux.
Reply request(int module, int cmd, const Bytes &data, Bytes *aux);

// Prints what became of one request ("WHAT: result R (words)", or the JSON
// object {"request", "result", "meaning"}) and returns its exit status.
int report(const std::string &what, const Reply &r);

// A bad argument or an unreadable input: one line on standard error.
int fail(const std::string &why, int code = kUsage);

// Prints a JSON document the way every verb does.
void printJson(const json &j);

// The aux reply as text, up to its first NUL.
std::string replyText(const Reply &r);

// "0,1,4" as parsed by the argument library -> bits 0, 1 and 4.
uint32_t portBits(const std::vector<int> &ports);
// A port-list option: comma-separated numbers 0 to 31.
CLI::Option *addPortList(CLI::App *sub, const std::string &name, std::vector<int> &ports,
                         const std::string &help);

// Hex bytes as words ("01 00", "0x0100"); false with the reason in `err`.
bool parseHex(const std::vector<std::string> &words, Bytes &out, std::string &err);

// The 80-byte change event of one row to the service, with the row's old
// values (column names, then values, each NUL-terminated) as aux when there
// are any.
Reply sendDbEvent(const std::string &table, int64_t rowId, int op, const std::vector<std::string> &names,
                  const std::vector<std::string> &values);
const char *opName(int op);  // "insert", "update", "delete"

// Each verb adds its subcommand and what runs once the whole line is parsed.
struct Verb {
    CLI::App *sub;
    std::function<int()> run;
};
using Verbs = std::vector<Verb>;

// --json on a verb's subcommand.
void addJsonFlag(CLI::App *sub);

void addDbVerbs(CLI::App &app, Verbs &verbs);      // sql, dbevent
void addRequestVerbs(CLI::App &app, Verbs &verbs); // vlan, ifevent, raw
void addCmdVerb(CLI::App &app, Verbs &verbs);      // cmd
void addQueryVerbs(CLI::App &app, Verbs &verbs);   // state, show, stats
void addLogVerb(CLI::App &app, Verbs &verbs);      // log
void addCheckVerb(CLI::App &app, Verbs &verbs);    // check
void addPlanVerb(CLI::App &app, Verbs &verbs);     // plan

}  // namespace swctl

#endif
