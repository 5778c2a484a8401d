/* SPDX-License-Identifier: Apache-2.0 */
// Typed walks over the OS-adaptation lists. A record starts with its list
// node, so the node the list hands back is the record itself.
//
//   for (auto *v : swmgr::listEntries<SwitchVlan>(sw->vlanList)) ...
//
// listEntries asks for the next record after the loop body, so a body may
// append to the list; listEntriesSafe asks before it, so a body may unlink
// or free the record it was given.
#ifndef SWMGR_COMMON_LIST_H
#define SWMGR_COMMON_LIST_H

#include <cstddef>
#include <type_traits>

#include "swmgr/platform/osa.h"

namespace swmgr {

template <typename T, bool Safe>
class ListRange {
    static_assert(std::is_standard_layout_v<T> && offsetof(T, link) == 0,
                  "a listed record starts with its node");

public:
    class Iterator {
    public:
        explicit Iterator(T *node) : cur_(node), next_(Safe ? step(node) : nullptr) {}
        T *operator*() const { return cur_; }
        Iterator &operator++() {
            cur_ = Safe ? next_ : step(cur_);
            if constexpr (Safe) next_ = step(cur_);
            return *this;
        }
        bool operator!=(const Iterator &other) const { return cur_ != other.cur_; }

    private:
        static T *step(T *node) {
            return node != nullptr ? static_cast<T *>(osaListNext(node)) : nullptr;
        }
        T *cur_;
        T *next_;
    };

    explicit ListRange(OsaList *list) : list_(list) {}
    Iterator begin() const { return Iterator(static_cast<T *>(osaListFirst(list_))); }
    Iterator end() const { return Iterator(nullptr); }

private:
    OsaList *list_;
};

template <typename T>
ListRange<T, false> listEntries(OsaList &list) {
    return ListRange<T, false>(&list);
}

template <typename T>
ListRange<T, true> listEntriesSafe(OsaList &list) {
    return ListRange<T, true>(&list);
}

}  // namespace swmgr

#endif
