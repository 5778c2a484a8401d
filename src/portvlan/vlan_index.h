/* SPDX-License-Identifier: Apache-2.0 */
// Per-switch index from VLAN id to listed record, kept beside the switch's
// VLAN list so that finding a VLAN costs the same with 4 or 4094 of them.
// The list stays the record of truth: the index is a cache that notices a
// list changed behind its back (its ends moved) and is then rebuilt.
#ifndef SWMGR_PORTVLAN_VLAN_INDEX_H
#define SWMGR_PORTVLAN_VLAN_INDEX_H

#include "swmgr/portvlan.h"

namespace swmgr {

// The first record in list order with this id, or nullptr.
SwitchVlan *vlanIndexFind(Switch *sw, int vlanId);
// Whether this very record is on the switch's VLAN list.
bool vlanIndexListed(Switch *sw, const SwitchVlan *vlan);
// Whether at most one listed record can carry this id, so that "every
// record with this id" is the one vlanIndexFind gives.
bool vlanIndexIdUnique(Switch *sw, int vlanId);
// osaListNodeAppend / osaListNodeRemove on the switch's VLAN list, keeping
// the index in step. A record the list refuses is simply not indexed.
void vlanIndexAppend(Switch *sw, SwitchVlan *vlan);
void vlanIndexRemove(Switch *sw, SwitchVlan *vlan);
// Forgets every index (the registry forgot its switches).
void vlanIndexReset();

// The switch's VLAN records in list order, for walks that must visit them
// all. Taken from the index's copy of the order when it has one: the
// records are then loaded side by side, not one hop after another down the
// list, which is what a walk per VLAN add costs at thousands of VLANs.
// A body must not append or remove.
class VlanWalk {
public:
    class Iterator {
    public:
        Iterator(SwitchVlan *const *at, SwitchVlan *node) : at_(at), node_(node) {}
        SwitchVlan *operator*() const { return at_ != nullptr ? *at_ : node_; }
        Iterator &operator++() {
            if (at_ != nullptr)
                ++at_;
            else
                node_ = static_cast<SwitchVlan *>(osaListNext(node_));
            return *this;
        }
        bool operator!=(const Iterator &other) const {
            return at_ != other.at_ || node_ != other.node_;
        }

    private:
        SwitchVlan *const *at_;
        SwitchVlan *node_;
    };

    VlanWalk(SwitchVlan *const *order, int count, OsaList *list)
        : order_(order), count_(count), list_(list) {}
    Iterator begin() const {
        return order_ != nullptr ? Iterator(order_, nullptr)
                                 : Iterator(nullptr, static_cast<SwitchVlan *>(osaListFirst(list_)));
    }
    Iterator end() const {
        return order_ != nullptr ? Iterator(order_ + count_, nullptr) : Iterator(nullptr, nullptr);
    }

private:
    SwitchVlan *const *order_;
    int count_;
    OsaList *list_;
};

VlanWalk vlanIndexWalk(Switch *sw);

}  // namespace swmgr

#endif
