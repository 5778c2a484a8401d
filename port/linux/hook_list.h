// SPDX-License-Identifier: Apache-2.0
// The hooks of a seam (commands, ioctls, bus sends): called in the order
// they were added until one takes the call.
#ifndef SWMGR_PORT_LINUX_HOOK_LIST_H
#define SWMGR_PORT_LINUX_HOOK_LIST_H

#include <algorithm>
#include <cstddef>
#include <vector>

namespace swport {

template <typename Hook>
class HookList {
public:
    int add(Hook hook, void *ctx) {
        if (hook == nullptr) return -1;
        entries_.push_back({hook, ctx});
        return 0;
    }
    int remove(Hook hook, void *ctx) {
        auto it = std::find_if(entries_.begin(), entries_.end(),
                               [&](const Entry &e) { return e.hook == hook && e.ctx == ctx; });
        if (it == entries_.end()) return -1;
        entries_.erase(it);
        return 0;
    }
    // call(hook, ctx) returns true when the hook took it. Walked in place, no
    // copy: a hook may add or remove hooks (itself among them) while called,
    // and when it removed itself the entry at `i` is already the next one.
    template <typename Call>
    bool anyTakes(Call call) {
        for (std::size_t i = 0; i < entries_.size();) {
            const Entry e = entries_[i];
            if (call(e.hook, e.ctx)) return true;
            if (i < entries_.size() && entries_[i].hook == e.hook && entries_[i].ctx == e.ctx) ++i;
        }
        return false;
    }

private:
    struct Entry {
        Hook hook;
        void *ctx;
    };
    std::vector<Entry> entries_;
};

}  // namespace swport

#endif
