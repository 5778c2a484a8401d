/* SPDX-License-Identifier: Apache-2.0 */
// What swmgrd and swmgrctl agree on beyond the service's own requests: the
// simulator's state module on the bus and how results are worded.
#ifndef SWMGR_TOOLS_SWMGR_TOOLS_H
#define SWMGR_TOOLS_SWMGR_TOOLS_H

#include <string>

#include "osa_port.h"

namespace swtool {

// swmgrd --sim answers state requests as this module; the reply is text
// (or JSON) in the request's aux buffer, NUL-terminated.
constexpr int kSimModule = 250;
enum { kSimStateText = 1, kSimStateJson = 2 };
constexpr int kStateReplyMax = 60000;

// swmgrd in any mode answers operator queries as this module, with the
// same access rules as the bus: the data is empty, the reply is JSON in the
// aux buffer, NUL-terminated (result 1 when it was cut at the buffer).
constexpr int kCtlModule = 251;
enum { kCtlSwitches = 1, kCtlPorts = 2, kCtlVlans = 3, kCtlStats = 4 };

// Words for the results the service and the bus give.
inline std::string resultName(int r) {
    switch (r) {
        case 0: return "ok";
        case -1: return "failed";
        case -12: return "out of memory";
        case -22: return "invalid argument";
        case -122: return "not supported";
        case MBUS_PORT_ERR_NOMODULE: return "no such module";
        case MBUS_PORT_ERR_IO: return "connection lost";
        case MBUS_PORT_ERR_BADCTX: return "sender no longer registered";
        case MBUS_PORT_ERR_REFUSED: return "refused: not allowed";
        case MBUS_PORT_ERR_BADMSG: return "refused: malformed message";
        case MBUS_PORT_ERR_TOOBIG: return "message too large";
        case MBUS_PORT_ERR_TIMEOUT: return "no reply in time";
        default: return r > 0 ? "ok" : "error";
    }
}

}  // namespace swtool

#endif
