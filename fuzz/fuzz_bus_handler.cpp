// SPDX-License-Identifier: Apache-2.0
// Bus requests after start-up: the service runs on the example database
// with the simulated hardware, and each input is one request to the bus
// command handler with an arbitrary code, data and auxiliary block.
//
// Input: code (u8 from a list of the interesting ones, or any u16), data
// length (u16), aux capacity (u16), a flags byte (bit 0: a reply), then the data bytes and
// the aux bytes.
#include <cstdlib>
#include <vector>

#include "swmgr/swconf.h"
#include "fuzz_world.h"
#include "swmgr/swmgr.h"

namespace {

// Codes the handler sorts specially, and the driver codes around them.
constexpr int kCodes[] = {4, 5, 36, 38, 33, 34, 35, 37, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 56, 57, 58, 59};

struct Started {
    swfuzz::SimWorld world;
    Started() {
        swfuzz::quietBus();
        if (swMgrInit(world.db.c_str()) != 0) std::abort();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    static Started started;
    swfuzz::Input in(bytes, size);
    const uint8_t pick = in.u8();
    const int cmd = pick < sizeof kCodes / sizeof kCodes[0] ? kCodes[pick] : static_cast<int16_t>(in.u16());
    const size_t dataLen = in.u16() % 2048;
    const size_t auxCap = in.u16() % 2048;
    const uint8_t flags = in.u8();
    std::string data = in.text(255) + in.rest();
    std::vector<char> dataBuf(data.begin(), data.end());
    dataBuf.resize(dataLen);
    // The aux block takes what follows the data in the input.
    std::vector<char> aux(auxCap);
    if (data.size() > dataLen) {
        const size_t n = std::min(auxCap, data.size() - dataLen);
        std::copy(data.begin() + static_cast<long>(dataLen), data.begin() + static_cast<long>(dataLen + n),
                  aux.begin());
    }
    int auxLen = static_cast<int>(auxCap);

    MbusMsgHeader header{};
    header.magic = MBUS_MSG_MAGIC;
    header.srcModule = 1;
    header.dstModule = MBUS_MODULE_SWMGR;
    header.cmd = static_cast<uint32_t>(cmd);
    header.isRequest = (flags & 1) != 0 ? 0 : 1;
    header.dataLen = static_cast<uint32_t>(dataLen);
    header.auxLen = static_cast<uint32_t>(auxCap);
    // As the bus hands them over: empty blocks as null, the aux length
    // always given.
    swMgrIoctlHandler(nullptr, &header, cmd, dataLen == 0 ? nullptr : dataBuf.data(), static_cast<int>(dataLen),
                      auxCap == 0 ? nullptr : aux.data(), &auxLen);
    return 0;
}
