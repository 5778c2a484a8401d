// SPDX-License-Identifier: Apache-2.0
// Side index of the VLAN lists: a table of VLAN ids per switch. Switch and
// VLAN records cross the driver boundary with fixed layouts, so the index
// lives here, keyed by the switch record's address.
#include "portvlan/vlan_index.h"

#include <cstdlib>
#include <cstring>

#include "common/list.h"

namespace swmgr {
namespace {

constexpr int kIds = 4096; // 12-bit VLAN ids; others are found by walking
constexpr int kSlots = 8;  // switches indexed at once; more fall back to walks

struct Index {
    Switch *sw;
    // Ends of the list as the index last saw them.
    OsaListNode *first;
    OsaListNode *last;
    bool shared; // two listed records carry one id
    SwitchVlan *byId[kIds];
};

Index *slots[kSlots];
int nextEvict;

bool inRange(int id) { return id >= 0 && id < kIds; }

void note(Index *ix, SwitchVlan *v) {
    if (!inRange(v->vlanId)) return;
    if (ix->byId[v->vlanId] == nullptr)
        ix->byId[v->vlanId] = v;
    else
        ix->shared = true;
}

void markEnds(Index *ix) {
    ix->first = ix->sw->vlanList.first;
    ix->last = ix->sw->vlanList.last;
}

void rebuild(Index *ix) {
    std::memset(ix->byId, 0, sizeof ix->byId);
    ix->shared = false;
    for (auto *v : listEntries<SwitchVlan>(ix->sw->vlanList)) note(ix, v);
    markEnds(ix);
}

// A record at either end must be indexed under its own id; a list rebuilt
// by other hands in reused memory shows there first.
bool endIndexed(const Index *ix, OsaListNode *node) {
    if (node == nullptr || ix->shared) return true;
    auto *v = reinterpret_cast<SwitchVlan *>(node);
    return !inRange(v->vlanId) || ix->byId[v->vlanId] == v;
}

bool inStep(const Index *ix) {
    const OsaList &list = ix->sw->vlanList;
    return list.first == ix->first && list.last == ix->last && endIndexed(ix, ix->first) &&
           endIndexed(ix, ix->last);
}

Index *indexOf(Switch *sw) {
    if (sw == nullptr) return nullptr;
    for (Index *ix : slots) {
        if (ix != nullptr && ix->sw == sw) {
            if (!inStep(ix)) rebuild(ix);
            return ix;
        }
    }
    int at = -1;
    for (int i = 0; i < kSlots && at < 0; ++i)
        if (slots[i] == nullptr) at = i;
    if (at < 0) {
        at = nextEvict;
        nextEvict = (nextEvict + 1) % kSlots;
        std::free(slots[at]);
        slots[at] = nullptr;
    }
    auto *ix = static_cast<Index *>(std::calloc(1, sizeof(Index)));
    if (ix == nullptr) return nullptr; // lookups walk the list instead
    ix->sw = sw;
    rebuild(ix);
    slots[at] = ix;
    return ix;
}

SwitchVlan *walkFind(Switch *sw, int vlanId) {
    for (auto *v : listEntries<SwitchVlan>(sw->vlanList))
        if (v->vlanId == vlanId) return v;
    return nullptr;
}

}  // namespace

SwitchVlan *vlanIndexFind(Switch *sw, int vlanId) {
    if (sw == nullptr) return nullptr;
    Index *ix = inRange(vlanId) ? indexOf(sw) : nullptr;
    if (ix == nullptr) return walkFind(sw, vlanId);
    return ix->byId[vlanId];
}

bool vlanIndexListed(Switch *sw, const SwitchVlan *vlan) {
    if (sw == nullptr || vlan == nullptr) return false;
    Index *ix = inRange(vlan->vlanId) ? indexOf(sw) : nullptr;
    if (ix != nullptr && (ix->byId[vlan->vlanId] == vlan || !ix->shared))
        return ix->byId[vlan->vlanId] == vlan;
    for (auto *v : listEntries<SwitchVlan>(sw->vlanList))
        if (v == vlan) return true;
    return false;
}

bool vlanIndexIdUnique(Switch *sw, int vlanId) {
    Index *ix = inRange(vlanId) ? indexOf(sw) : nullptr;
    return ix != nullptr && !ix->shared;
}

void vlanIndexAppend(Switch *sw, SwitchVlan *vlan) {
    Index *ix = indexOf(sw);
    int r = osaListNodeAppend(sw != nullptr ? &sw->vlanList : nullptr, vlan);
    if (ix != nullptr) {
        if (r == 0) note(ix, vlan);
        markEnds(ix);
    }
}

void vlanIndexRemove(Switch *sw, SwitchVlan *vlan) {
    Index *ix = indexOf(sw);
    int r = osaListNodeRemove(sw != nullptr ? &sw->vlanList : nullptr, vlan);
    if (ix != nullptr) {
        if (r == 0 && ix->shared)
            rebuild(ix); // another record with the id may now come first
        else if (r == 0 && inRange(vlan->vlanId) && ix->byId[vlan->vlanId] == vlan)
            ix->byId[vlan->vlanId] = nullptr;
        markEnds(ix);
    }
}

void vlanIndexReset() {
    for (Index *&ix : slots) {
        std::free(ix);
        ix = nullptr;
    }
    nextEvict = 0;
}

}  // namespace swmgr
