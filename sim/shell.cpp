// SPDX-License-Identifier: Apache-2.0
#include "shell.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace swsim {

namespace {

constexpr bool blank(char c) { return c == ' ' || c == '\t'; }

// Unquoted characters that would make the shell expand or redirect.
constexpr bool beyondReader(char c) {
    switch (c) {
        case '$': case '`': case '*': case '?': case '[': case '<': case '>':
        case '&': case '(': case ')': case '{': case '}': case '~':
            return true;
        default:
            return false;
    }
}

// The program a line starts with when it is a plain word (letters, digits
// and "/._-" up to a blank, a separator or the end); empty when reading it
// takes the whole reader.
std::string_view plainProgram(std::string_view line) {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-";
    const size_t from = line.find_first_not_of(" \t");
    const size_t to = std::min(line.find_first_not_of(kPlain, from), line.size());
    if (to <= from || (to < line.size() && std::string_view(" \t\n;|").find(line[to]) == std::string_view::npos))
        return {};
    return line.substr(from, to - from);
}

// Every character the reader treats other than as part of a word.
constexpr auto kSpecial = [] {
    std::array<bool, 256> t{};
    for (unsigned char c : std::string_view(" \t\n;|#'\"\\")) t[c] = true;
    for (int c = 0; c < 256; ++c) t[c] = t[c] || beyondReader(static_cast<char>(c));
    return t;
}();

class Reader {
public:
    std::optional<std::vector<ShellCommand>> parse(std::string_view line) {
        size_t i = 0;
        while (i < line.size()) {
            char c = line[i];
            if (blank(c)) {
                endWord();
                ++i;
            } else if (c == '\n' || c == ';') {
                if (!endCommand()) return std::nullopt;
                ++i;
            } else if (c == '|') {
                if (!endStage()) return std::nullopt;
                ++i;
            } else if (c == '#' && !inWord_) {
                while (i < line.size() && line[i] != '\n') ++i;
            } else if (c == '\'') {
                size_t close = line.find('\'', i + 1);
                if (close == std::string_view::npos) return std::nullopt;
                word_.append(line.substr(i + 1, close - i - 1));
                inWord_ = true;
                i = close + 1;
            } else if (c == '"') {
                if (!doubleQuoted(line, &i)) return std::nullopt;
            } else if (c == '\\') {
                if (i + 1 >= line.size()) return std::nullopt;
                if (line[i + 1] != '\n') {
                    word_ += line[i + 1];
                    inWord_ = true;
                }
                i += 2;
            } else if (beyondReader(c)) {
                return std::nullopt;
            } else {
                // A word's ordinary characters go in as one run; a '#' ends
                // the run and comes back here when it is inside a word.
                size_t end = i + 1;
                while (end < line.size() && !kSpecial[static_cast<unsigned char>(line[end])]) ++end;
                word_.append(line.substr(i, end - i));
                inWord_ = true;
                i = end;
            }
        }
        if (!endCommand()) return std::nullopt;
        return std::move(commands_);
    }

private:
    bool doubleQuoted(std::string_view line, size_t *at) {
        size_t i = *at + 1;
        inWord_ = true;
        for (; i < line.size() && line[i] != '"'; ++i) {
            char c = line[i];
            if (c == '$' || c == '`') return false;
            if (c == '\\' && i + 1 < line.size() && std::strchr("\"\\$`\n", line[i + 1]) != nullptr) {
                if (line[i + 1] != '\n') word_ += line[i + 1];
                ++i;
                continue;
            }
            word_ += c;
        }
        if (i >= line.size()) return false;
        *at = i + 1;
        return true;
    }
    void endWord() {
        if (inWord_) stage_.push_back(std::move(word_));
        word_.clear();
        inWord_ = false;
    }
    bool endStage() {
        endWord();
        if (stage_.empty()) return false;  // "| x" or "x || y"
        command_.stages.push_back(std::move(stage_));
        stage_.clear();
        return true;
    }
    bool endCommand() {
        endWord();
        if (stage_.empty()) return command_.stages.empty();  // "x |" then the end
        if (!endStage()) return false;
        commands_.push_back(std::move(command_));
        command_ = {};
        return true;
    }

    std::string word_;
    bool inWord_ = false;
    Words stage_;
    ShellCommand command_;
    std::vector<ShellCommand> commands_;
};

std::string_view baseName(std::string_view program) {
    size_t slash = program.rfind('/');
    return slash == std::string_view::npos ? program : program.substr(slash + 1);
}

}  // namespace

std::optional<std::vector<ShellCommand>> shellParse(std::string_view line) { return Reader().parse(line); }

void History::add(std::string entry) {
    if (limit_ == 0) return;
    while (entries_.size() >= limit_) entries_.pop_front();
    entries_.push_back(std::move(entry));
}

void History::setLimit(std::size_t limit) {
    limit_ = limit;
    while (entries_.size() > limit_) entries_.pop_front();
}

std::vector<std::string> History::last(std::size_t n) const {
    const std::size_t from = entries_.size() > n ? entries_.size() - n : 0;
    return {entries_.begin() + static_cast<std::ptrdiff_t>(from), entries_.end()};
}

void ToolBox::add(const std::string &program, Tool tool, bool entry) {
    tools_[program] = {std::move(tool), entry};
}

const ToolBox::Tool *ToolBox::find(std::string_view program, bool *entry) const {
    auto it = tools_.find(program);
    // A path names one file; a bare name is found wherever PATH has it.
    if (it == tools_.end() && program.find('/') != std::string_view::npos) it = tools_.find(baseName(program));
    if (it == tools_.end()) return nullptr;
    if (entry != nullptr) *entry = it->second.second;
    return &it->second.first;
}

std::optional<std::vector<ShellCommand>> ToolBox::claim(std::string_view line) const {
    // Every model is offered every line: most are turned down by their first word alone.
    bool entry = false;
    std::string_view program = plainProgram(line);
    if (!program.empty() && (find(program, &entry) == nullptr || !entry)) return std::nullopt;
    auto commands = shellParse(line);
    if (!commands || commands->empty()) return std::nullopt;
    if (find(commands->front().stages.front().front(), &entry) == nullptr || !entry) return std::nullopt;
    return commands;
}

int ToolBox::run(const std::string &line) {
    auto commands = shellParse(line);
    if (!commands) {
        history_.add("sh: cannot read: " + line);
        return 2;  // the shell's status for a line it cannot parse
    }
    return run(*commands);
}

int ToolBox::run(const std::vector<ShellCommand> &commands) {
    int status = 0;
    for (const ShellCommand &c : commands) {
        Io io;
        for (const Words &stage : c.stages) {
            io.in = std::move(io.out);
            io.out.clear();
            status = runStage(stage, io);
        }
    }
    return status;
}

int ToolBox::runStage(const Words &stage, Io &io) {
    const Tool *tool = find(stage.front());
    if (tool == nullptr) {
        history_.add(stage.front() + ": not found");
        return kNotFound;
    }
    return (*tool)(Words(stage.begin() + 1, stage.end()), io);
}

int ToolBox::usage(const std::string &program, const std::string &why) {
    history_.add(program + ": " + why);
    return kUsage;
}

std::optional<int> ToolBox::arity(std::string_view program, std::size_t n, std::size_t lo, std::size_t hi,
                                  std::string_view operation) {
    const char *bound = n < lo ? "few" : n > hi ? "many" : nullptr;
    if (bound == nullptr) return std::nullopt;
    std::string who(program);
    if (!operation.empty()) who.append(" ").append(operation);
    return usage(who, std::string("usage: too ") + bound + " arguments (" + std::to_string(n) + ")");
}

}  // namespace swsim
