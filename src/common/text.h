/* SPDX-License-Identifier: Apache-2.0 */
// Bounded text helpers: every copy and print is limited by its destination,
// so an over-long value is cut at the field width instead of overflowing it.
#ifndef SWMGR_COMMON_TEXT_H
#define SWMGR_COMMON_TEXT_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace swmgr {

// Copies at most cap-1 bytes and always terminates.
inline void copyText(char *dst, std::size_t cap, const char *src) {
    if (cap == 0) return;
    std::size_t n = 0;
    if (src != nullptr) {
        while (n + 1 < cap && src[n] != '\0') {
            dst[n] = src[n];
            ++n;
        }
    }
    dst[n] = '\0';
}

template <std::size_t N>
inline void copyText(char (&dst)[N], const char *src) {
    copyText(dst, N, src);
}

// Clears the whole buffer first, then prints into it; the text is cut at N-1.
template <std::size_t N>
__attribute__((format(printf, 2, 3))) inline void formatText(char (&dst)[N], const char *fmt, ...) {
    std::memset(dst, 0, N);
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(dst, N, fmt, ap);
    va_end(ap);
}

// Length of a text field that may lack its terminator.
template <std::size_t N>
inline std::size_t fieldLen(const char (&field)[N]) {
    return strnlen(field, N);
}

}  // namespace swmgr

#endif
