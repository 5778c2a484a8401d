// SPDX-License-Identifier: Apache-2.0
// Numbers in configuration text, read as atoi always read them (leading
// blanks, an optional sign, the digits; whatever follows is ignored; no
// digits at all is 0) but with the value's range checked instead of left to
// undefined behaviour.
#ifndef SWMGR_COMMON_NUMBER_H
#define SWMGR_COMMON_NUMBER_H

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <optional>

namespace swmgr {

// Nothing when the value lies outside [lo, hi].
inline std::optional<int64_t> parseLeadingInt(const char *text, int64_t lo, int64_t hi) {
    if (text == nullptr) return std::nullopt;
    const char *p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    const char *digits = p;
    while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
    // Accumulated up to the largest magnitude the range allows: past it the
    // value is out of range however many digits follow, and never overflows.
    const int64_t ceiling = std::max(hi, -lo);
    int64_t value = 0;
    for (const char *d = digits; d != p; ++d) {
        value = value * 10 + (*d - '0');
        if (value > ceiling) return std::nullopt;
    }
    if (negative) value = -value;
    if (value < lo || value > hi) return std::nullopt;
    return value;
}

inline std::optional<int32_t> parseLeadingInt32(const char *text) {
    const std::optional<int64_t> v = parseLeadingInt(text, INT32_MIN, INT32_MAX);
    return v ? std::optional<int32_t>(static_cast<int32_t>(*v)) : std::nullopt;
}

// The ranges the system can use: bitmaps have 32 ports, 802.1Q has 4094
// VLANs, levels order a handful of switches.
inline constexpr int64_t kPortMax = 31;
inline constexpr int64_t kVlanIdMin = 1;
inline constexpr int64_t kVlanIdMax = 4094;
inline constexpr int64_t kLevelMax = 255;

}  // namespace swmgr

#endif
