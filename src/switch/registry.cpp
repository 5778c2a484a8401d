// SPDX-License-Identifier: Apache-2.0
// The switch registry: all switch records, lookups by name and by level, and
// the references from a switch to the lower-level switches it reaches.
#include <cstdlib>
#include <cstring>

#include "common/list.h"
#include "common/text.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

extern "C" {
OsaList switchTbl = {nullptr, nullptr};
int32_t switchMaxLevel = 0;
uint32_t switchCount = 0;
char switchStr[SW_STR_LEN];
}

extern "C" Switch *switchByNameGet(const char *name) {
    if (name == nullptr) return nullptr;
    for (auto *sw : swmgr::listEntries<Switch>(switchTbl)) {
        if (std::strncmp(sw->switchName, name, sizeof sw->switchName) == 0) return sw;
    }
    return nullptr;
}

extern "C" Switch *switchAtTopLevelGet(void) {
    for (auto *sw : swmgr::listEntries<Switch>(switchTbl)) {
        if (sw->switchLevel == switchMaxLevel) return sw;
    }
    return nullptr;
}

extern "C" Switch *switchLowerLvlSwitchByNameGet(Switch *sw, const char *name) {
    if (sw == nullptr || name == nullptr) return nullptr;
    for (auto *ref : swmgr::listEntries<SwitchLowerRef>(sw->lowerLvlSwitchList)) {
        if (ref->sw != nullptr && std::strncmp(ref->sw->switchName, name, SW_NAME_LEN) == 0)
            return ref->sw;
    }
    return nullptr;
}

namespace {

// Whether `target` is `from` or lies below it. Every edge went through the
// check below, so the walk meets no loop; the step bound holds even if one
// were made by hand.
bool reaches(Switch *from, const Switch *target) {
    Switch *stack[64];
    std::size_t depth = 0;
    uint32_t steps = 0;
    stack[depth++] = from;
    while (depth > 0) {
        Switch *sw = stack[--depth];
        if (sw == target) return true;
        if (++steps > 4096) return true;  // refuse rather than walk on
        for (auto *ref : swmgr::listEntries<SwitchLowerRef>(sw->lowerLvlSwitchList)) {
            if (ref->sw == nullptr) continue;
            if (depth == sizeof stack / sizeof stack[0]) return true;
            stack[depth++] = ref->sw;
        }
    }
    return false;
}

}  // namespace

extern "C" int switchLowerLvlSwitchListAppend(Switch *sw, Switch *lower) {
    if (sw == nullptr || lower == nullptr) return -1;
    // The hierarchy is a tree: commands forwarded downwards must end.
    if (reaches(lower, sw)) {
        SWMGR_LOG("", SW_LOG_ERR,
                  "Refusing %s as a lower-level switch of %s: %s would be below itself\n",
                  lower->switchName, sw->switchName, sw->switchName);
        return SW_EINVAL;
    }
    if (switchLowerLvlSwitchByNameGet(sw, lower->switchName) != nullptr) {
        // Only worth saying to a developer: the mapping of a second port onto
        // the same lower switch lands here routinely.
        SWMGR_LOG("", SW_LOG_TRACE,
                  "This switch(%s) is already present in (%s) lower levelswitches \n",
                  sw->switchName, lower->switchName);
        return 0;
    }
    auto *ref = static_cast<SwitchLowerRef *>(std::calloc(1, sizeof(SwitchLowerRef)));
    if (ref == nullptr) return SW_ENOMEM;
    ref->sw = lower;
    osaListNodeAppend(&sw->lowerLvlSwitchList, ref);
    return 0;
}

extern "C" char *switchStrGet(Switch *sw) {
    if (sw == nullptr)
        std::memset(switchStr, 0, sizeof switchStr);
    else
        swmgr::formatText(switchStr, "(switch=%.*s) ", static_cast<int>(swmgr::fieldLen(sw->switchName)),
                          sw->switchName);
    return switchStr;
}
