/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the PSE driver's sources; nothing here leaves the library.
#ifndef SWMGR_DRIVERS_PSE_PSE_INTERNAL_H
#define SWMGR_DRIVERS_PSE_PSE_INTERNAL_H

#include "drivers/pse/pse.h"

namespace swmgr::pse {

// Runs one engine command line, composed by the caller with
// swmgr::formatText, and logs it with its status, whatever the status;
// `func` names the caller in the developer form of the line. Returns the
// status.
int engineCommandRun(const char *func, const char (&cmd)[PSE_CMD_LEN]);

}  // namespace swmgr::pse

#endif
