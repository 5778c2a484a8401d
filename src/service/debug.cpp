// SPDX-License-Identifier: Apache-2.0
// Diagnostic output and the interface-name to zone lookup.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "swmgr/platform/mbus.h"
#include "swmgr/platform/osa.h"
#include "swmgr/swmgr.h"

extern "C" int swMgrDebug(const char *prefix, int level, const char *func, int line,
                          const char *format, ...) {
    if (level < 0) return 0;

    // Only the terminated text is sent, so the buffer needs no clearing.
    char text[SW_LOG_TEXT_LEN];
    text[0] = '\0';
    size_t used = 0;
    // At most the last byte is used, so there is always room for a terminator.
    auto room = [&] { return sizeof text - used; };
    auto advance = [&](int n) { used = std::min(used + static_cast<size_t>(std::max(n, 0)), sizeof text - 1); };
    if (prefix != nullptr) advance(std::snprintf(text + used, room(), "%s", prefix));
    if (func != nullptr) advance(std::snprintf(text + used, room(), "%s:%d:", func, line));
    if (format != nullptr) {
        va_list ap;
        va_start(ap, format);
        advance(std::vsnprintf(text + used, room(), format, ap));
        va_end(ap);
    }

    if (swMgrForeground) {
        osaFilePrintf(stderr, "%s", text);
        return 0;
    }

    SwLogRecordHeader header{};
    header.module = MBUS_MODULE_SWMGR;
    header.level = static_cast<uint32_t>(level);
    int length = static_cast<int>(std::strlen(text)) + 1;
    mbusIoctl(pSwMgrMbusCtx, MBUS_MODULE_LOG, MBUS_LOG_CMD, &header, SW_LOG_HEADER_LEN, text,
              &length, MBUS_FLAG_NOREPLY, 0, 0);
    return 0;
}

extern "C" int swMgrZoneTypeGet(const char *ifName, uint32_t *zone) {
    uint32_t z = 0;
    if (ifName != nullptr) {
        if (std::strcmp(ifName, "eth1") == 0)
            z = 2;
        else if (std::strcmp(ifName, "eth0") == 0)
            z = 1;
    }
    if (zone != nullptr) *zone = z;
    return 0;
}
