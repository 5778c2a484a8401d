// SPDX-License-Identifier: Apache-2.0
// The one rule for names that come from outside (database rows, bus
// requests, command lines): letters, digits, '_', '.' and '-', not empty and
// not "." or "..". Such a name is safe in a shell command line and as a path
// component, and it is what the kernel accepts for an interface anyway.
// Header-only so that the tools can check before they send.
#ifndef SWMGR_COMMON_NAMES_H
#define SWMGR_COMMON_NAMES_H

#include <cstddef>
#include <cstdio>

namespace swmgr {

enum class NameFault { none, empty, dots, badChar };

struct NameVerdict {
    NameFault fault = NameFault::none;
    std::size_t pos = 0;  // of the offending character, for badChar
    unsigned char ch = 0;
    constexpr bool ok() const { return fault == NameFault::none; }
};

constexpr bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == '-';
}

// Checks at most `cap` bytes: a field filled to its last byte without a
// terminator is taken as cut at its width, as everywhere else.
constexpr NameVerdict checkName(const char *text, std::size_t cap) {
    NameVerdict v;
    if (text == nullptr || cap == 0 || text[0] == '\0') {
        v.fault = NameFault::empty;
        return v;
    }
    std::size_t n = 0;
    for (; n < cap && text[n] != '\0'; ++n) {
        if (!isNameChar(text[n])) {
            v.fault = NameFault::badChar;
            v.pos = n;
            v.ch = static_cast<unsigned char>(text[n]);
            return v;
        }
    }
    if ((n == 1 && text[0] == '.') || (n == 2 && text[0] == '.' && text[1] == '.'))
        v.fault = NameFault::dots;
    return v;
}

template <std::size_t N>
constexpr NameVerdict checkName(const char (&field)[N]) {
    return checkName(field, N);
}

// A device path: absolute, each component a name by the rule above (so no
// "." or ".." components). Empty paths are the caller's decision.
constexpr NameVerdict checkDevicePath(const char *text, std::size_t cap) {
    NameVerdict v;
    if (text == nullptr || cap == 0 || text[0] == '\0') {
        v.fault = NameFault::empty;
        return v;
    }
    if (text[0] != '/') {
        v.fault = NameFault::badChar;
        v.ch = static_cast<unsigned char>(text[0]);
        return v;
    }
    std::size_t start = 1;
    for (std::size_t n = start;; ++n) {
        const bool end = n >= cap || text[n] == '\0';
        if (end || text[n] == '/') {
            if (n > start) {
                const NameVerdict part = checkName(text + start, n - start);
                if (!part.ok()) {
                    v = part;
                    v.pos += start;
                    return v;
                }
            }
            if (end) return v;
            start = n + 1;
        }
    }
}

// A character as a reader can see it in a log line: 'x', '\n' or 0x1b.
template <std::size_t N>
inline const char *charText(char (&out)[N], unsigned char c) {
    static_assert(N >= 8);
    const char *esc = c == '\n' ? "'\\n'" : c == '\r' ? "'\\r'" : c == '\t' ? "'\\t'" : nullptr;
    if (esc != nullptr)
        std::snprintf(out, N, "%s", esc);
    else if (c >= 0x20 && c < 0x7f)
        std::snprintf(out, N, "'%c'", c);
    else
        std::snprintf(out, N, "0x%02x", c);
    return out;
}

// Why a name was refused, in words, e.g. "character ';' at offset 4 is not
// allowed". Empty for a good name.
template <std::size_t N>
inline const char *nameFaultText(char (&out)[N], const NameVerdict &v) {
    char c[8];
    switch (v.fault) {
        case NameFault::none: std::snprintf(out, N, "%s", ""); break;
        case NameFault::empty: std::snprintf(out, N, "%s", "the name is empty"); break;
        case NameFault::dots: std::snprintf(out, N, "%s", "\".\" and \"..\" are not names"); break;
        case NameFault::badChar:
            std::snprintf(out, N, "character %s at offset %u is not allowed (letters, digits, '_', '.', '-')",
                          charText(c, v.ch), static_cast<unsigned>(v.pos));
            break;
    }
    return out;
}

}  // namespace swmgr

#endif
