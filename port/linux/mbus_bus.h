/* SPDX-License-Identifier: Apache-2.0 */
// The state of the host bus in this process, shared by its two halves:
// registration and the calls modules make (mbus_core.cpp) and the loop that
// serves connections (mbus_serve.cpp).
#ifndef SWMGR_PORT_LINUX_MBUS_BUS_H
#define SWMGR_PORT_LINUX_MBUS_BUS_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "mbus_wire.h"

namespace mbuswire {
using Clock = std::chrono::steady_clock;

struct Posted {
    int srcModule;
    int cmd;
    Bytes data;
    Bytes aux;
};

struct Conn {
    int fd;
    uint64_t lastUsed;  // bus tick of its accept or its last request
};
}  // namespace mbuswire

struct MbusCtx {
    int module = 0;
    MbusRequestCb callback = nullptr;
    bool live = true;
    bool listening = false;  // inside an mbusListen that serves it
    int listenFd = -1;
    std::string path;
    MbusCtx *host = nullptr;  // also served by this context's listener
    std::vector<mbuswire::Conn> conns;
    std::deque<mbuswire::Posted> posted;
};

namespace mbuswire {
struct Watch {
    int fd;
    MbusWatchCb ready;
    void *ctx;
};

struct Bus {
    std::vector<std::unique_ptr<MbusCtx>> all;  // every context ever registered
    std::vector<Watch> watches;
    size_t connLimit = MBUS_PORT_CONN_LIMIT;
    uint64_t tick{};  // only the order of its values matters
    uint64_t refused = 0;  // connections closed at accept: their user may not use the bus
    bool failRegister = false;
    Clock::duration busyPoll{};     // see mbusPortBusyPollSet
    Clock::time_point lastServed{};  // the end of the last round that served something
    Bytes buf;  // the message being served
};

Bus &bus();
void closeConns(MbusCtx *c);

// One poll over everything `served` listens to, and what it found ready:
// each ready connection has its waiting message served (or a run of those
// that want no reply), so no client can keep the others waiting. Returns
// how many callbacks ran, -1 when the wait ended (time-out or signal) with
// nothing ready.
int serveRound(const std::vector<MbusCtx *> &served, Clock::time_point deadline);

}  // namespace mbuswire

#endif
