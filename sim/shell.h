/* SPDX-License-Identifier: Apache-2.0 */
// How the device's /bin/sh reads the command lines the system runs, shared
// by every model that stands in for a tool.
//
// What the reader assumes of the device's shell (and all the system's
// lines need):
// - A line is a list of commands ended by an unquoted newline or ';'; each
//   command is a pipeline of stages joined by '|'. The line's status is
//   the status of its last command, a pipeline's that of its last stage.
// - Words are split at unquoted blanks (spaces and tabs); runs of blanks
//   count as one, so an empty field between two blanks is no word at all.
// - '...' keeps everything literally; "..." keeps everything but a
//   backslash before " \ $ ` or newline; an unquoted backslash keeps the
//   next character (a backslash-newline joins the lines). A '#' that starts
//   a word comments out the rest of the line.
// - Anything that would need expansion or redirection ($, `, unquoted
//   globs, <, >, &, parentheses, braces) is beyond the reader: such a line
//   is left to whoever runs lines the models do not take.
// - A program is looked up by its name as written; a bare name is also
//   found under any directory (the device's PATH holds the tools), a path
//   only as itself. A program no model knows is "not found": status 127.
#ifndef SWMGR_SIM_SHELL_H
#define SWMGR_SIM_SHELL_H

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace swsim {

using Words = std::vector<std::string>;

struct ShellCommand {
    std::vector<Words> stages;  // a pipeline; never empty, no stage empty
};

// The commands of `line`, or nothing when it uses what the reader cannot
// model. Empty commands (blank lines, a trailing ';') are dropped.
std::optional<std::vector<ShellCommand>> shellParse(std::string_view line);

// The most recent entries a model made, oldest first; the oldest go once
// the limit is reached.
class History {
public:
    static constexpr std::size_t kDefaultLimit = 256;

    void add(std::string entry);
    void setLimit(std::size_t limit);
    std::size_t limit() const { return limit_; }
    void clear() { entries_.clear(); }
    const std::deque<std::string> &entries() const { return entries_; }
    // The last `n` entries (all when fewer).
    std::vector<std::string> last(std::size_t n) const;

private:
    std::deque<std::string> entries_;
    std::size_t limit_ = kDefaultLimit;
};

// The tools one model answers for. A tool gets its arguments (the program
// name not included) and the stage's standard input, writes its standard
// output, and returns its exit status; it notes refusals in the history.
class ToolBox {
public:
    struct Io {
        std::string in;
        std::string out;
    };
    using Tool = std::function<int(const Words &args, Io &io)>;

    static constexpr int kNotFound = 127;
    static constexpr int kUsage = 1;

    explicit ToolBox(History &history) : history_(history) {}

    // `entry`: a line whose first program is this one belongs to the
    // model; other tools (filters a pipeline uses) only serve such lines.
    void add(const std::string &program, Tool tool, bool entry = true);
    const Tool *find(std::string_view program, bool *entry = nullptr) const;

    // The line's commands when it is the model's: readable, its first
    // program an entry tool.
    std::optional<std::vector<ShellCommand>> claim(std::string_view line) const;
    // Runs a line that is known to be the model's (awk's system() does).
    int run(const std::string &line);
    int run(const std::vector<ShellCommand> &commands);

    // Notes a refusal: "<program>: <why>", status kUsage.
    int usage(const std::string &program, const std::string &why);
    // The usage error for a tool (and its operation, if any) given `n`
    // arguments where it takes `lo` to `hi`; nothing when the count fits.
    std::optional<int> arity(std::string_view program, std::size_t n, std::size_t lo, std::size_t hi,
                             std::string_view operation = {});
    History &history() { return history_; }

private:
    int runStage(const Words &stage, Io &io);

    std::map<std::string, std::pair<Tool, bool>, std::less<>> tools_;
    History &history_;
};

}  // namespace swsim

#endif
