// SPDX-License-Identifier: Apache-2.0
// Checks on configuration that comes from outside (rows, bus requests)
// before any of it is stored or programmed. Each returns 0, or -22 after an
// error line naming where the value came from (`origin`, e.g. "table
// vlanEncapIf row id 7" or "VLAN add request"), the field and the fault.
#ifndef SWMGR_CONFIG_CHECKS_H
#define SWMGR_CONFIG_CHECKS_H

#include <cstddef>
#include <cstdint>

#include "swmgr/swconf.h"

namespace swmgr {

enum class NameUse { required, optional };

int nameChecked(const char *origin, const char *field, const char *text, std::size_t cap, NameUse use,
                const char *fname);
int rangeChecked(const char *origin, const char *field, int64_t value, int64_t lo, int64_t hi,
                 const char *fname);

int switchConfChecked(const SwitchConf &conf, const char *origin, const char *fname);
int portConfChecked(const SwitchPortConf &conf, const char *origin, const char *fname);
int vlanConfChecked(const SwitchVlanConf &conf, const char *origin, const char *fname);

// Printable copy of untrusted text for a log line: other bytes as \xNN.
void escapedText(char *out, std::size_t outCap, const char *text, std::size_t textCap);

}  // namespace swmgr

#endif
