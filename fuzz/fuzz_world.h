// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share: the system started on the example database
// with the simulator's models attached (no command line ever reaches a
// shell, no device the kernel's), diagnostics swallowed, and input split
// into fields.
#ifndef SWMGR_FUZZ_FUZZ_WORLD_H
#define SWMGR_FUZZ_FUZZ_WORLD_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim_host.h"
#include "swmgr_test.h"

namespace swfuzz {

// Consumes the input front to back; past its end every read gives zeros.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint32_t u32();
    uint16_t u16();
    uint8_t u8();
    // Up to `max` bytes, as many as the next length byte says.
    std::string text(size_t max);
    // Everything left.
    std::string rest();
    bool empty() const { return pos_ >= size_; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// Sends every bus message (log records included) nowhere.
void quietBus();

// Creates the example database in a private directory and starts the
// simulated hardware on it; aborts when that cannot be done.
struct SimWorld {
    SimWorld();
    ~SimWorld();
    swtest::TempDir dir;
    std::string db;
    swtool::SimHost host;
};

}  // namespace swfuzz

#endif
