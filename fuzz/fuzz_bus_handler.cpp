// SPDX-License-Identifier: Apache-2.0
// Bus requests after start-up: the service runs on the example database
// with the simulated hardware, and each input is one request to the bus
// command handler with an arbitrary code, data and auxiliary block.
//
// Input: code (u8 from a list of the interesting ones, or any u16), data
// length (u16), aux capacity (u16), a flags byte (bit 0: a reply), then the
// data bytes (a length byte, then the rest) with the aux bytes after them.
#include <algorithm>

#include "fuzz_world.h"

namespace {

// Codes the handler sorts specially, and the driver codes around them.
constexpr int kCodes[] = {4,  5,  36, 38, 33, 34, 35, 37, 39, 40, 41, 42, 43,
                          44, 45, 46, 47, 48, 49, 50, 51, 52, 56, 57, 58, 59};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    [[maybe_unused]] static const int started = [] {
        static swfuzz::SimWorld world;
        if (swMgrInit(world.db.c_str()) != 0) std::abort();
        return 0;
    }();
    swfuzz::Input in(bytes, size);
    const uint8_t pick = in.u8();
    const int cmd = pick < std::size(kCodes) ? kCodes[pick] : static_cast<int16_t>(in.le<uint16_t>());
    const size_t dataLen = in.le<uint16_t>() % 2048, auxCap = in.le<uint16_t>() % 2048;
    const bool reply = (in.u8() & 1) != 0;
    std::string input = in.text(255) + in.rest();
    input.resize(std::max(input.size(), dataLen + auxCap));  // zeros past the input
    // Blocks of exactly their size, so that reading past one is caught.
    const auto at = [&](size_t n) { return input.begin() + static_cast<long>(n); };
    std::vector<char> data(at(0), at(dataLen)), aux(at(dataLen), at(dataLen + auxCap));
    int auxLen = static_cast<int>(auxCap);

    MbusMsgHeader header{MBUS_MSG_MAGIC, 1, MBUS_MODULE_SWMGR, static_cast<uint32_t>(cmd), reply ? 0u : 1u,
                         static_cast<uint32_t>(dataLen), static_cast<uint32_t>(auxCap), 0};
    // As the bus hands them over: empty blocks as null, the aux length always given.
    swMgrIoctlHandler(nullptr, &header, cmd, dataLen == 0 ? nullptr : data.data(), static_cast<int>(dataLen),
                      auxCap == 0 ? nullptr : aux.data(), &auxLen);
    return 0;
}
