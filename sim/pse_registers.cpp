// SPDX-License-Identifier: Apache-2.0
// The engine's register tool and the filters of its read-modify-write
// pipelines (assumptions in pse_engine.h).
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "awk.h"
#include "pse_engine.h"

namespace swsim {

namespace {

// As strtoul(text, &end, 0) reads it, the whole word and within 32 bits.
bool parseWord(const std::string &text, uint32_t *out) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == nullptr || *end != '\0' || v > 0xffffffffull) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

// Calls `fn` for each line of `text` (without its newline).
template <typename Fn>
void eachLine(const std::string &text, Fn fn) {
    size_t at = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        fn(text.substr(at, nl - at));
        at = nl + 1;
    }
}

}  // namespace

// memrw <address> w [<value>]
int PseEngine::memrw(const Args &args, ToolBox::Io &io) {
    if (auto r = tools_.arity("memrw", args.size(), 2, 3)) return *r;
    uint32_t addr = 0, value = 0;
    if (args[1] != "w" || !parseWord(args[0], &addr) || (args.size() == 3 && !parseWord(args[2], &value)))
        return tools_.usage("memrw", "invalid value");
    if (args.size() == 3) {
        regs_[addr] = value;
        return 0;
    }
    char line[32];
    std::snprintf(line, sizeof line, "Value: 0x%08x\n", reg(addr));
    io.out += line;
    return 0;
}

// grep <word>: the lines that contain it; status 1 when none does.
int PseEngine::grep(const Args &args, ToolBox::Io &io) {
    if (args.size() != 1) {
        tools_.usage("grep", "usage: one fixed word only");
        return 2;
    }
    bool any = false;
    eachLine(io.in, [&](const std::string &l) {
        if (l.find(args[0]) == std::string::npos) return;
        io.out += l + "\n";
        any = true;
    });
    return any ? 0 : 1;
}

// cut -d<c> -f<n>: field n of each line; a line without the delimiter
// passes whole.
int PseEngine::cut(const Args &args, ToolBox::Io &io) {
    std::string delim, fieldText;
    bool known = true;
    for (size_t i = 0; i < args.size() && known; ++i) {
        const std::string &a = args[i];
        std::string *into = a.compare(0, 2, "-d") == 0 ? &delim : a.compare(0, 2, "-f") == 0 ? &fieldText : nullptr;
        known = into != nullptr;
        if (known) *into = a.size() > 2 ? a.substr(2) : (i + 1 < args.size() ? args[++i] : "");
    }
    char *end = nullptr;
    const long field = std::strtol(fieldText.c_str(), &end, 10);
    if (!known || delim.size() != 1 || fieldText.empty() || *end != '\0' || field < 1) {
        tools_.usage("cut", "usage: -d<char> -f<number> only");
        return 2;
    }
    eachLine(io.in, [&](const std::string &l) {
        if (l.find(delim[0]) == std::string::npos) {
            io.out += l + "\n";
            return;
        }
        size_t start = 0;
        for (long k = 1; k < field && start != std::string::npos; ++k) {
            size_t d = l.find(delim[0], start);
            start = d == std::string::npos ? d : d + 1;
        }
        if (start != std::string::npos) io.out += l.substr(start, l.find(delim[0], start) - start);
        io.out += "\n";
    });
    return 0;
}

// awk '<program>'
int PseEngine::awk(const Args &args, ToolBox::Io &io) {
    if (args.size() != 1) {
        tools_.usage("awk", "usage: one program, no options or files");
        return 2;
    }
    AwkRun run;
    run.system = [this](const std::string &command) {
        history_.add("awk: system(" + command + ")");
        return tools_.run(command);
    };
    const int status = awkRun(args[0], io.in, run);
    if (status != 0) tools_.usage("awk", "program not modelled: " + run.error);
    return status;
}

}  // namespace swsim
