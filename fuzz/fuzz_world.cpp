// SPDX-License-Identifier: Apache-2.0
#include "fuzz_world.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "osa_port.h"

namespace swfuzz {

uint32_t Input::u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(u8()) << (8 * i);
    return v;
}

uint16_t Input::u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }

uint8_t Input::u8() { return pos_ < size_ ? data_[pos_++] : 0; }

std::string Input::text(size_t max) {
    size_t n = u8();
    if (n > max) n = max;
    if (n > size_ - (pos_ < size_ ? pos_ : size_)) n = pos_ < size_ ? size_ - pos_ : 0;
    std::string s(reinterpret_cast<const char *>(data_ + pos_), n);
    pos_ += n;
    return s;
}

std::string Input::rest() {
    std::string s = pos_ < size_ ? std::string(reinterpret_cast<const char *>(data_ + pos_), size_ - pos_) : "";
    pos_ = size_;
    return s;
}

namespace {
int swallow(void *, int, int, const void *, int, void *, int *, int *result) {
    *result = 0;
    return 1;
}
}  // namespace

void quietBus() {
    static bool done = false;
    if (!done) mbusPortSendHookAdd(swallow, nullptr);
    done = true;
}

SimWorld::SimWorld() {
    db = dir.file("router.db");
    swtest::makeDb(db, swtest::readFile(ROUTER_SQL_PATH));
    std::string err;
    if (!host.start(db, dir.path() + "/state", err)) {
        std::fprintf(stderr, "fuzz: cannot start the simulated hardware: %s\n", err.c_str());
        std::abort();
    }
}

SimWorld::~SimWorld() { host.stop(); }

}  // namespace swfuzz
