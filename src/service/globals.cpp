// SPDX-License-Identifier: Apache-2.0
// The service's global state, written by the entry points and the host.
#include "swmgr/swmgr.h"

extern "C" {
int swMgrInitialized = 0;
MbusCtx *pSwMgrMbusCtx = nullptr;
int swMgrDevDebug = 0;
int swMgrForeground = 0;
}
