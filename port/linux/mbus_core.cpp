// SPDX-License-Identifier: Apache-2.0
// The host bus: the modules this process registered and the calls they
// make. Each module listens on its own Unix socket; mbusListen is a single
// poll over the listening sockets, every connection they accepted and the
// watched descriptors (mbus_serve.cpp), and runs each request's callback on
// the calling thread.
//
// There is one thread and no locking. Unregistered contexts are kept (dead)
// so that a stale pointer, such as the service's after a failed start, can
// always be recognised and refused.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "mbus_bus.h"

using mbuswire::bus;
using mbuswire::Clock;
using mbuswire::closeConns;
using mbuswire::Posted;
using mbuswire::Watch;

namespace mbuswire {
Bus &bus() {
    static Bus b;
    return b;
}
}  // namespace mbuswire

namespace {
thread_local std::string lastError;

MbusCtx *firstLive() {
    for (auto &c : bus().all)
        if (c->live) return c.get();
    return nullptr;
}

MbusCtx *fail(const std::string &why) {
    lastError = why;
    return nullptr;
}
}  // namespace

namespace mbuswire {
bool live(const MbusCtx *ctx) {
    if (ctx == nullptr) return false;
    for (auto &c : bus().all)
        if (c.get() == ctx) return c->live;
    return false;
}

int moduleOf(const MbusCtx *ctx) { return live(ctx) ? ctx->module : 0; }

MbusCtx *localModule(int module) {
    for (auto &c : bus().all)
        if (c->live && c->module == module) return c.get();
    return nullptr;
}

int callLocal(MbusCtx *to, const MbusCtx *from, int cmd, void *data, int dataLen, void *aux, int *auxLen) {
    MbusMsgHeader h = header(moduleOf(from), to->module, cmd, std::max(dataLen, 0),
                             auxLen != nullptr ? std::max(*auxLen, 0) : 0);
    return to->callback(to, &h, cmd, data, dataLen, aux, auxLen);
}

void setError(std::string why) { lastError = std::move(why); }
}  // namespace mbuswire

extern "C" int mbusInit(const char *arg) {
    (void)arg;
    return 0;
}

extern "C" MbusCtx *mbusRegister(int module, int kind, MbusRequestCb callback, void *userData) {
    (void)kind;
    (void)userData;
    lastError.clear();
    if (callback == nullptr) return fail("no callback");
    if (bus().failRegister) return fail("registration refused");
    if (mbuswire::localModule(module) != nullptr)
        return fail("module " + std::to_string(module) + " is already registered by this process");
    std::string err;
    int listenFd = mbuswire::listenSocket(module, err);
    if (listenFd < 0) return fail(err);
    auto ctx = std::make_unique<MbusCtx>();
    ctx->module = module;
    ctx->callback = callback;
    ctx->listenFd = listenFd;
    ctx->path = mbuswire::socketPath(module);
    bus().all.push_back(std::move(ctx));
    return bus().all.back().get();
}

extern "C" int mbusUnRegister(MbusCtx *ctx) {
    if (!mbuswire::live(ctx)) return -1;
    ctx->live = false;
    ctx->posted.clear();
    for (auto &m : bus().all)
        if (m->host == ctx) m->host = nullptr;
    ::close(ctx->listenFd);
    ::unlink(ctx->path.c_str());
    ctx->listenFd = -1;
    // From inside its own listener, the connection in hand still owes its
    // reply: the listener closes them on its way out.
    if (!ctx->listening) closeConns(ctx);
    return 0;
}

extern "C" int mbusDeInit(void) {
    mbuswire::logClose();
    mbuswire::keptClose();
    return 0;
}

extern "C" int mbusListen(MbusCtx *ctx, unsigned int timeoutUs) {
    if (!mbuswire::live(ctx) || ctx->listening) return -1;
    std::vector<MbusCtx *> served{ctx};
    for (auto &m : bus().all)
        if (m->live && m->host == ctx && !m->listening) served.push_back(m.get());
    for (auto *m : served) m->listening = true;

    auto deadline = Clock::now() + std::chrono::microseconds(timeoutUs);
    int ran = 0;
    while (ran == 0) {
        int r = mbuswire::serveRound(served, deadline);
        if (r < 0) break;
        ran = r;
        // A descriptor that stays ready without anything to serve (a listener
        // whose accept finds no descriptor left) never lets the wait run out.
        if (!ctx->live || Clock::now() >= deadline) break;
    }
    for (auto *m : served) {
        m->listening = false;
        if (!m->live) closeConns(m);
    }
    return ran;
}

extern "C" int mbusPortPost(int srcModule, int cmd, const void *data, int dataLen, const void *aux,
                            int auxLen) {
    if (dataLen < 0 || auxLen < 0 || (dataLen > 0 && data == nullptr) || (auxLen > 0 && aux == nullptr))
        return -1;
    MbusCtx *target = firstLive();
    if (target == nullptr) return -1;
    // Null with a length of 0 is an empty range.
    const auto *d = static_cast<const uint8_t *>(data), *a = static_cast<const uint8_t *>(aux);
    target->posted.push_back({srcModule, cmd, mbuswire::Bytes(d, d + dataLen), mbuswire::Bytes(a, a + auxLen)});
    return 0;
}

extern "C" void mbusPortFailRegister(int fail) { bus().failRegister = fail != 0; }

extern "C" MbusRequestCb mbusPortCallbackGet(void) {
    MbusCtx *first = firstLive();
    return first != nullptr ? first->callback : nullptr;
}

extern "C" int mbusPortListenAlong(MbusCtx *ctx, MbusCtx *host) {
    if (!mbuswire::live(ctx) || ctx == host) return -1;
    if (host != nullptr && (!mbuswire::live(host) || host->host != nullptr)) return -1;
    for (auto &m : bus().all)
        if (m->live && m->host == ctx) return -1;  // one level only
    ctx->host = host;
    return 0;
}

extern "C" int mbusPortConnLimitSet(int limit) {
    if (limit < 1) return -1;
    bus().connLimit = static_cast<size_t>(limit);
    return 0;
}

extern "C" int mbusPortBusyPollSet(unsigned int us) {
    if (us > MBUS_PORT_BUSY_POLL_MAX_US) return -1;
    bus().busyPoll = std::chrono::microseconds(us);
    return 0;
}

extern "C" int mbusPortWatch(int fd, MbusWatchCb ready, void *ctx) {
    auto &w = bus().watches;
    if (fd < 0 || ready == nullptr ||
        std::any_of(w.begin(), w.end(), [fd](const Watch &e) { return e.fd == fd; }))
        return -1;
    w.push_back({fd, ready, ctx});
    return 0;
}

extern "C" int mbusPortUnwatch(int fd) {
    auto &w = bus().watches;
    auto it = std::find_if(w.begin(), w.end(), [fd](const Watch &e) { return e.fd == fd; });
    if (it == w.end()) return -1;
    w.erase(it);
    return 0;
}

extern "C" const char *mbusPortLastError(void) { return lastError.c_str(); }

extern "C" uint64_t mbusPortConnRefused(void) { return bus().refused; }
