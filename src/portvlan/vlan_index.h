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

}  // namespace swmgr

#endif
