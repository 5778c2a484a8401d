// SPDX-License-Identifier: Apache-2.0
// Numbers in configuration text, read as atoi always read them (leading
// blanks, an optional sign, the digits; whatever follows is ignored; no
// digits at all is 0) but with the value's range checked (no more than 2^40 in size) instead of left to
// undefined behaviour.
#ifndef SWMGR_COMMON_NUMBER_H
#define SWMGR_COMMON_NUMBER_H

#include <cstdint>

namespace swmgr {

// False when the value lies outside [lo, hi]; `out` is then untouched.
inline bool parseLeadingInt(const char *text, int64_t lo, int64_t hi, int64_t &out) {
    if (text == nullptr) return false;
    const char *p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    const char *digits = p;
    while (*p >= '0' && *p <= '9') ++p;
    // Accumulated with a ceiling: past it the value is out of any range
    // asked for here, however many digits follow.
    constexpr int64_t kCeiling = int64_t{1} << 40;
    int64_t value = 0;
    for (const char *d = digits; d != p; ++d) {
        value = value * 10 + (*d - '0');
        if (value > kCeiling) return false;
    }
    if (negative) value = -value;
    if (value < lo || value > hi) return false;
    out = value;
    return true;
}

inline bool parseLeadingInt32(const char *text, int32_t &out) {
    int64_t v = 0;
    if (!parseLeadingInt(text, INT32_MIN, INT32_MAX, v)) return false;
    out = static_cast<int32_t>(v);
    return true;
}

// The ranges the system can use: bitmaps have 32 ports, 802.1Q has 4094
// VLANs, levels order a handful of switches.
inline constexpr int64_t kPortMax = 31;
inline constexpr int64_t kVlanIdMin = 1;
inline constexpr int64_t kVlanIdMax = 4094;
inline constexpr int64_t kLevelMax = 255;

}  // namespace swmgr

#endif
