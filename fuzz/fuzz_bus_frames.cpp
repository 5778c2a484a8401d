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

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fuzz_world.h"
#include "mbus_wire.h"
#include "osa_port.h"

namespace {

constexpr int kServerModule = 150;
constexpr int kReplierModule = 151;

int echo(MbusCtx *, const MbusMsgHeader *, int, void *, int, void *, int *auxLen) {
    if (auxLen != nullptr && *auxLen > 4) *auxLen = 4;
    return 7;
}

// Answers each request on its socket with the frame in hand.
class Replier {
public:
    Replier() {
        std::string err;
        fd_ = mbuswire::listenSocket(kReplierModule, err);
        if (fd_ < 0) std::abort();
        thread_ = std::thread([this] { run(); });
        thread_.detach();  // lives as long as the process
    }
    void frameSet(std::string frame) {
        std::lock_guard<std::mutex> g(lock_);
        frame_ = std::move(frame);
    }

private:
    void run() {
        for (;;) {
            if (!mbuswire::waitReadable(fd_, -1)) continue;
            const int c = ::accept(fd_, nullptr, nullptr);
            if (c < 0) continue;
            mbuswire::Bytes request;
            if (mbuswire::waitReadable(c, 1000) && mbuswire::receiveMessage(c, request) > 0) {
                std::string frame;
                {
                    std::lock_guard<std::mutex> g(lock_);
                    frame = frame_;
                }
                ::send(c, frame.data(), frame.size(), MSG_NOSIGNAL);
            }
            ::close(c);
        }
    }
    int fd_ = -1;
    std::mutex lock_;
    std::string frame_;
    std::thread thread_;
};

struct World {
    swtest::TempDir dir;
    MbusCtx *server = nullptr;
    Replier *replier = nullptr;
    World() {
        mbusPortBusDirSet((dir.path() + "/bus").c_str());
        server = mbusRegister(kServerModule, 2, echo, nullptr);
        if (server == nullptr) std::abort();
        replier = new Replier();  // never freed: its thread runs on
    }
};

void toServer(const World &w, const std::string &frame) {
    std::string err;
    const int fd = mbuswire::connectModule(kServerModule, 1000, err);
    if (fd < 0) std::abort();
    ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    mbusListen(w.server, 2000);
    mbuswire::Bytes reply;
    if (mbuswire::waitReadable(fd, 100)) mbuswire::receiveMessage(fd, reply);
    ::close(fd);
}

void asReply(const World &w, uint16_t auxCap, const std::string &frame) {
    w.replier->frameSet(frame);
    std::vector<char> aux(auxCap);
    int auxLen = auxCap;
    char data[8] = "request";
    mbusIoctl(nullptr, kReplierModule, 40, data, sizeof data, auxCap == 0 ? nullptr : aux.data(), &auxLen, 0,
              1000, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    static World world;
    swfuzz::Input in(bytes, size);
    const uint8_t mode = in.u8();
    if ((mode & 1) == 0) {
        toServer(world, in.rest());
    } else {
        const uint16_t cap = in.u16() % 4096;
        asReply(world, cap, in.rest());
    }
    return 0;
}
