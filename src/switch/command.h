/* SPDX-License-Identifier: Apache-2.0 */
// Commands that the framework sends to a switch it already holds.
#ifndef SWMGR_SWITCH_COMMAND_H
#define SWMGR_SWITCH_COMMAND_H

#include "swmgr/switch.h"

namespace swmgr {

// No reply buffer and a zeroed reply length, as every framework caller
// passes them. A switch released from its driver has no entry left, and a
// command to it fails instead of jumping through a null pointer.
inline int switchCommandSend(Switch *sw, int cmd, void *arg, int argLen) {
    if (sw == nullptr || sw->switchConfigFunc == nullptr) return -1;
    int replyLen = 0;
    return sw->switchConfigFunc(sw, cmd, arg, argLen, nullptr, &replyLen);
}

}  // namespace swmgr

#endif
