// SPDX-License-Identifier: Apache-2.0
// Doubly linked lists whose nodes sit at the start of their records.
#include "swmgr/platform/osa.h"

extern "C" int osaListInit(OsaList *list) {
    if (list == nullptr) return -1;
    list->first = nullptr;
    list->last = nullptr;
    return 0;
}

extern "C" void *osaListFirst(OsaList *list) { return list != nullptr ? list->first : nullptr; }

extern "C" void *osaListNext(void *node) {
    return node != nullptr ? static_cast<OsaListNode *>(node)->next : nullptr;
}

extern "C" int osaListNodeAppend(OsaList *list, void *node) {
    if (list == nullptr || node == nullptr) return -1;
    auto *n = static_cast<OsaListNode *>(node);
    n->next = nullptr;
    n->prev = list->last;
    if (list->last != nullptr)
        list->last->next = n;
    else
        list->first = n;
    list->last = n;
    return 0;
}

extern "C" int osaListNodeRemove(OsaList *list, void *node) {
    if (list == nullptr || node == nullptr) return -1;
    auto *n = static_cast<OsaListNode *>(node);
    // Refuse a node of another list rather than corrupt this one.
    bool member = false;
    for (OsaListNode *it = list->first; it != nullptr; it = it->next) {
        if (it == n) {
            member = true;
            break;
        }
    }
    if (!member) return -1;
    if (n->prev != nullptr)
        n->prev->next = n->next;
    else
        list->first = n->next;
    if (n->next != nullptr)
        n->next->prev = n->prev;
    else
        list->last = n->prev;
    n->next = n->prev = nullptr;
    return 0;
}
