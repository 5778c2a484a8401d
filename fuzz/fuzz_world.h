// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share: the system started on the example database
// with the simulator's models attached (no command line ever reaches a
// shell, no device the kernel's), diagnostics swallowed, and input split
// into fields.
#ifndef SWMGR_FUZZ_FUZZ_WORLD_H
#define SWMGR_FUZZ_FUZZ_WORLD_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "sim_host.h"
#include "swmgr_test.h"

namespace swfuzz {

// Consumes the input front to back, little-endian; past its end every read gives zeros.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    // The next sizeof(T) bytes.
    template <class T> T le() {
        T v = 0;
        for (size_t i = 0; i < sizeof(T); ++i) v = static_cast<T>(v | static_cast<T>(u8()) << (8 * i));
        return v;
    }
    // Up to `max` bytes, as many as the next length byte says.
    std::string text(size_t max) { return take(std::min<size_t>(u8(), max)); }
    std::string rest() { return take(size_); }
    bool empty() const { return pos_ >= size_; }

private:
    std::string take(size_t n) {
        n = std::min(n, size_ - pos_);  // pos_ never passes size_
        pos_ += n;
        return std::string(reinterpret_cast<const char *>(data_) + pos_ - n, n);
    }
    const uint8_t *data_;
    size_t size_, pos_ = 0;
};

// Creates the example database in a private directory and starts the
// simulated hardware on it, every bus message (log records included) sent
// nowhere; aborts when that cannot be done.
struct SimWorld {
    SimWorld() : db(dir.file("router.db")) {
        mbusPortSendHookAdd([](void *, int, int, const void *, int, void *, int *, int *result) {
            *result = 0;
            return 1;
        }, nullptr);
        swtest::makeDb(db, swtest::readFile(ROUTER_SQL_PATH));
        std::string err;
        if (host.start(db, dir.path() + "/state", err)) return;
        std::fprintf(stderr, "fuzz: cannot start the simulated hardware: %s\n", err.c_str());
        std::abort();
    }
    ~SimWorld() { host.stop(); }
    swtest::TempDir dir;
    std::string db;
    swtool::SimHost host;
};

}  // namespace swfuzz

#endif
