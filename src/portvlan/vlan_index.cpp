// SPDX-License-Identifier: Apache-2.0
// Side index of the VLAN lists: a table of VLAN ids per switch. Switch and
// VLAN records cross the driver boundary with fixed layouts, so the index
// lives here, keyed by the switch record's address.
#include "portvlan/vlan_index.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/list.h"

namespace swmgr {
namespace {

constexpr unsigned kIds = 4096; // 12-bit VLAN ids; others are found by walking
constexpr int kSlots = 8;       // switches indexed at once; any more walk their lists

struct Index {
    Switch *sw;
    // Ends of the list as the index last saw them.
    OsaListNode *first;
    OsaListNode *last;
    bool shared; // two listed records carry one id
    SwitchVlan *byId[kIds];
    // The listed records in list order.
    SwitchVlan **order;
    int count;
    int capacity;
};

Index *slots[kSlots];

bool inRange(int id) { return static_cast<unsigned>(id) < kIds; }

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

// Room for one more record in the order; false when memory ran out.
bool reserve(Index *ix) {
    if (ix->count < ix->capacity) return true;
    const int capacity = ix->capacity * 2 + 64;
    void *grown = std::realloc(ix->order, sizeof(SwitchVlan *) * static_cast<size_t>(capacity));
    if (grown == nullptr) return false;
    ix->order = static_cast<SwitchVlan **>(grown);
    ix->capacity = capacity;
    return true;
}

bool rebuild(Index *ix) {
    std::memset(ix->byId, 0, sizeof ix->byId);
    ix->shared = false;
    ix->count = 0;
    for (auto *v : listEntries<SwitchVlan>(ix->sw->vlanList)) {
        if (!reserve(ix)) return false;
        ix->order[ix->count++] = v;
        note(ix, v);
    }
    markEnds(ix);
    return true;
}

void drop(Index *&ix) {
    if (ix != nullptr) std::free(ix->order);
    std::free(ix);
    ix = nullptr;
}

// A list whose ends moved was changed by other hands (a driver's caller
// building its own records): the index is rebuilt from it. Without memory
// for an index, or a free slot, lookups and walks use the list instead.
Index *indexOf(Switch *sw) {
    if (sw == nullptr) return nullptr;
    Index **vacant = nullptr;
    for (Index *&ix : slots) {
        if (ix == nullptr) {
            vacant = &ix;  // any one will do
        } else if (ix->sw == sw) {
            const OsaList &list = sw->vlanList;
            if ((list.first != ix->first || list.last != ix->last) && !rebuild(ix)) drop(ix);
            return ix;
        }
    }
    if (vacant == nullptr) return nullptr;
    auto *ix = static_cast<Index *>(std::calloc(1, sizeof(Index)));
    if (ix != nullptr) {
        ix->sw = sw;
        if (!rebuild(ix)) drop(ix);
    }
    return *vacant = ix;
}

void forget(Index *ix) {
    for (Index *&slot : slots)
        if (slot == ix) drop(slot);
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
    // With two records of one id, only the first is in the table.
    if (ix != nullptr && !ix->shared) return ix->byId[vlan->vlanId] == vlan;
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
    if (ix == nullptr) return;
    if (r == 0 && !reserve(ix)) {
        forget(ix);
        return;
    }
    if (r == 0) {
        ix->order[ix->count++] = vlan;
        note(ix, vlan);
    }
    markEnds(ix);
}

void vlanIndexRemove(Switch *sw, SwitchVlan *vlan) {
    Index *ix = indexOf(sw);
    int r = osaListNodeRemove(sw != nullptr ? &sw->vlanList : nullptr, vlan);
    if (ix == nullptr || r != 0) return;
    if (ix->shared) {
        // Another record with the id may now come first.
        if (!rebuild(ix)) forget(ix);
        return;
    }
    if (inRange(vlan->vlanId) && ix->byId[vlan->vlanId] == vlan) ix->byId[vlan->vlanId] = nullptr;
    SwitchVlan **end = ix->order + ix->count;
    SwitchVlan **at = std::find(ix->order, end, vlan);
    if (at != end) {
        std::copy(at + 1, end, at);
        --ix->count;
    }
    markEnds(ix);
}

void vlanIndexReset() {
    for (Index *&ix : slots) drop(ix);
}

// An index of an empty list may have no order yet: the list is walked then.
VlanWalk vlanIndexWalk(Switch *sw) {
    const Index *ix = indexOf(sw);
    return ix != nullptr ? VlanWalk(ix->order, ix->count, &sw->vlanList) : VlanWalk(nullptr, 0, &sw->vlanList);
}

}  // namespace swmgr
