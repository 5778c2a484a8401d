// SPDX-License-Identifier: Apache-2.0
// The host bus's frame decoding, on both sides, over real sockets in a
// private bus directory: arbitrary bytes sent to a listening module (the
// server's receive and check), and arbitrary bytes sent back as the reply
// to a request (the client's read and check).
//
// Input: a mode byte (even: to the server, odd: as a reply), for a reply
// the request's aux capacity (u16), then the frame's bytes.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "fuzz_world.h"
#include "mbus_wire.h"

namespace {

constexpr int kServerModule = 150, kReplierModule = 151;

// What the replier answers each request with.
std::atomic<std::shared_ptr<const std::string>> replyFrame{std::make_shared<const std::string>()};

// Answers each request to its module with the frame in hand; runs as long as the process.
void replier(int fd) {
    for (;;) {
        const int c = mbuswire::waitReadable(fd, -1) ? ::accept(fd, nullptr, nullptr) : -1;
        if (c < 0) continue;
        mbuswire::Bytes request;
        if (mbuswire::waitReadable(c, 1000) && mbuswire::receiveMessage(c, request) > 0) {
            const std::shared_ptr<const std::string> frame = replyFrame.load();
            ::send(c, frame->data(), frame->size(), MSG_NOSIGNAL);
        }
        ::close(c);
    }
}

// The listening module's answer to every request: 7, with at most 4 aux bytes.
int answer(MbusCtx *, const MbusMsgHeader *, int, void *, int, void *, int *auxLen) {
    if (auxLen != nullptr && *auxLen > 4) *auxLen = 4;
    return 7;
}

struct World {
    swtest::TempDir dir;
    MbusCtx *server = nullptr;
    World() {
        mbusPortBusDirSet((dir.path() + "/bus").c_str());
        server = mbusRegister(kServerModule, 2, answer, nullptr);
        std::string err;
        const int fd = mbuswire::listenSocket(kReplierModule, err);
        if (server == nullptr || fd < 0) std::abort();
        std::thread(replier, fd).detach();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    static World world;
    swfuzz::Input in(bytes, size);
    std::string err;
    if ((in.u8() & 1) == 0) {
        const std::string frame = in.rest();
        const int fd = mbuswire::connectModule(kServerModule, 1000, err);
        if (fd < 0) std::abort();
        ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
        mbusListen(world.server, 2000);
        mbuswire::Bytes reply;
        if (mbuswire::waitReadable(fd, 100)) mbuswire::receiveMessage(fd, reply);
        ::close(fd);
    } else {
        const uint16_t cap = in.le<uint16_t>() % 4096;
        replyFrame.store(std::make_shared<const std::string>(in.rest()));
        std::vector<char> aux(cap);
        int auxLen = cap;
        char data[8] = "request";
        mbusIoctl(nullptr, kReplierModule, 40, data, sizeof data, cap ? aux.data() : nullptr, &auxLen, 0, 1000, 0);
    }
    return 0;
}
