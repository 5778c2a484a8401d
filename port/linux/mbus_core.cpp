// SPDX-License-Identifier: Apache-2.0
// The host bus: the modules this process registered and the loop that
// serves them. Each module listens on its own Unix socket; mbusListen is a
// single poll over the listening sockets, every connection they accepted
// and the watched descriptors, and runs each request's callback on the
// calling thread. Nothing here blocks but that poll: connections are
// non-blocking, replies are sent only when they fit, and a peer that does
// not keep up loses its connection rather than holding the loop.
//
// There is one thread and no locking. Unregistered contexts are kept (dead)
// so that a stale pointer, such as the service's after a failed start, can
// always be recognised and refused.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "mbus_wire.h"

namespace {
using Clock = std::chrono::steady_clock;

struct Posted {
    int srcModule;
    int cmd;
    mbuswire::Bytes data;
    mbuswire::Bytes aux;
};

struct Conn {
    int fd;
    uint64_t lastUsed;  // bus tick of its accept or its last request
};
}  // namespace

struct MbusCtx {
    int module = 0;
    MbusRequestCb callback = nullptr;
    bool live = true;
    bool listening = false;  // inside an mbusListen that serves it
    int listenFd = -1;
    std::string path;
    MbusCtx *host = nullptr;  // also served by this context's listener
    std::vector<Conn> conns;
    std::deque<Posted> posted;
};

namespace {
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
    mbuswire::Bytes buf;  // the message being served
};

Bus &bus() {
    static Bus b;
    return b;
}

thread_local std::string lastError;

MbusCtx *firstLive() {
    for (auto &c : bus().all)
        if (c->live) return c.get();
    return nullptr;
}

void closeConns(MbusCtx *c) {
    for (const auto &k : c->conns) ::close(k.fd);
    c->conns.clear();
}

void dropConn(MbusCtx *c, int fd) {
    auto it = std::find_if(c->conns.begin(), c->conns.end(), [fd](const Conn &k) { return k.fd == fd; });
    if (it == c->conns.end()) return;
    ::close(fd);
    c->conns.erase(it);
}

void dropIdlest(MbusCtx *c) {
    auto it = std::min_element(c->conns.begin(), c->conns.end(),
                               [](const Conn &a, const Conn &b) { return a.lastUsed < b.lastUsed; });
    if (it != c->conns.end()) dropConn(c, it->fd);
}

bool reply(int fd, const MbusMsgHeader &req, int result, const void *aux, size_t auxLen) {
    MbusMsgHeader h = mbuswire::header(static_cast<int>(req.dstModule), static_cast<int>(req.srcModule),
                                       static_cast<int>(req.cmd), 0, auxLen);
    h.isRequest = 0;
    h.result = result;
    return mbuswire::sendMessage(fd, h, nullptr, aux);
}

// Takes every waiting connection; one from a user that may not use the bus
// is told so and closed before it can send anything.
void acceptAll(MbusCtx *c) {
    for (;;) {
        int fd = ::accept4(c->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            if ((errno == EMFILE || errno == ENFILE) && !c->conns.empty()) {
                dropIdlest(c);
                continue;
            }
            return;
        }
        if (!mbuswire::peerAllowed(fd)) {
            MbusMsgHeader none{};  // no request was read: the refusal comes from the module alone
            none.dstModule = static_cast<uint32_t>(c->module);
            reply(fd, none, MBUS_PORT_ERR_REFUSED, nullptr, 0);
            // Closing on an unread request would reset the connection and
            // lose the refusal: discard what it sent first, unread.
            char scrap;
            while (::recv(fd, &scrap, 1, MSG_DONTWAIT | MSG_TRUNC) > 0) {
            }
            ::close(fd);
            ++bus().refused;
            mbuswire::diag("mbus", "mbus: module %d refused a connection from another user\n", c->module);
            continue;
        }
        if (c->conns.size() >= bus().connLimit) dropIdlest(c);
        c->conns.push_back({fd, ++bus().tick});
    }
}

// Serves the message waiting on one connection. Returns -1 when the
// connection is finished (peer gone, broken, or not taking its reply),
// else how many callbacks ran (0 or 1), and kQuiet for one that wants no reply.
constexpr int kQuiet = 2;
int serveMessage(MbusCtx *c, int fd) {
    Bus &b = bus();
    // Declared first, so the held records go out only after the reply.
    mbuswire::LogHolder hold;
    ssize_t n = mbuswire::receiveMessage(fd, b.buf);
    if (n < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    if (n == 0) return -1;
    MbusMsgHeader h{};
    std::memcpy(&h, b.buf.data(), std::min(sizeof h, static_cast<size_t>(n)));
    const char *why = mbuswire::checkMessage(b.buf, n, false);
    if (why == nullptr && h.dstModule != static_cast<uint32_t>(c->module)) why = "addressed to another module";
    if (why != nullptr) {
        mbuswire::diag("mbus", "mbus: module %d refused a malformed message (%zd bytes): %s\n", c->module, n, why);
        h.srcModule = 0;
        h.dstModule = static_cast<uint32_t>(c->module);
        return reply(fd, h, MBUS_PORT_ERR_BADMSG, nullptr, 0) ? 0 : -1;
    }
    // The callback may listen or log; copies keep the message its own.
    const uint8_t *body = b.buf.data() + sizeof h;
    mbuswire::Bytes data(body, body + h.dataLen);
    mbuswire::Bytes aux(body + h.dataLen, body + h.dataLen + h.auxLen);
    int auxLen = static_cast<int>(aux.size());
    int result = c->callback(c, &h, static_cast<int>(h.cmd), data.empty() ? nullptr : data.data(),
                             static_cast<int>(data.size()), aux.empty() ? nullptr : aux.data(), &auxLen);
    if (h.isRequest == mbuswire::kRequestNoReply) return kQuiet;
    const size_t back = std::min(static_cast<size_t>(std::max(auxLen, 0)), aux.size());
    return reply(fd, h, result, aux.data(), back) ? 1 : -1;
}

// One message, or a run of those that want no reply: a log service's
// records come by the dozen, and a poll round for each would cost more
// than serving them. A request that is answered ends the run.
int serveConn(MbusCtx *c, int fd) {
    constexpr int kQuietRun = 32;
    int ran = 0;
    for (int r = kQuiet; r == kQuiet && ran < kQuietRun && c->live;) {
        r = serveMessage(c, fd);
        if (r < 0) return ran > 0 ? ran : -1;  // a finished connection shows again at the next poll
        ran += r > 0;
    }
    return ran;
}

int servePosted(MbusCtx *c) {
    if (c->posted.empty()) return 0;
    Posted req = std::move(c->posted.front());
    c->posted.pop_front();
    int auxLen = static_cast<int>(req.aux.size());
    MbusMsgHeader h = mbuswire::header(req.srcModule, c->module, req.cmd, req.data.size(), req.aux.size());
    c->callback(c, &h, req.cmd, req.data.empty() ? nullptr : req.data.data(), static_cast<int>(req.data.size()),
                req.aux.empty() ? nullptr : req.aux.data(), &auxLen);
    return 1;
}

// One poll over everything `served` listens to, and what it found ready:
// each ready connection has one message served, so no client can keep the
// others waiting. Returns how many callbacks ran, -1 when the wait ended
// (time-out or signal) with nothing ready.
int serveRound(const std::vector<MbusCtx *> &served, Clock::time_point deadline) {
    Bus &b = bus();
    int ran = 0;
    for (auto *c : served)
        if (c->live) ran += servePosted(c);
    if (ran > 0) return ran;

    struct Source {
        MbusCtx *ctx;  // nullptr for a watched descriptor
        bool listener;
    };
    std::vector<pollfd> fds;
    std::vector<Source> from;
    for (const auto &w : b.watches) {
        fds.push_back({w.fd, POLLIN, {}});
        from.push_back({nullptr, false});
    }
    for (auto *c : served) {
        fds.push_back({c->listenFd, POLLIN, {}});
        from.push_back({c, true});
        for (const auto &k : c->conns) {
            fds.push_back({k.fd, POLLIN, {}});
            from.push_back({c, false});
        }
    }
    const auto left = std::max(Clock::duration::zero(), deadline - Clock::now());
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
    timespec ts{static_cast<time_t>(whole.count()),
                static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(left - whole).count())};
    if (::ppoll(fds.data(), fds.size(), &ts, nullptr) <= 0) return -1;

    for (size_t i = 0; i < fds.size(); ++i) {
        if (fds[i].revents == 0) continue;
        MbusCtx *c = from[i].ctx;
        if (c == nullptr) {
            auto w = std::find_if(b.watches.begin(), b.watches.end(), [&](const Watch &e) { return e.fd == fds[i].fd; });
            if (w == b.watches.end()) continue;  // unwatched by an earlier callback
            Watch call = *w;
            call.ready(call.ctx, call.fd);
            ++ran;
        } else if (!c->live) {
            continue;  // unregistered by an earlier callback of this round
        } else if (from[i].listener) {
            acceptAll(c);
        } else {
            int r = (fds[i].revents & POLLIN) != 0 ? serveConn(c, fds[i].fd) : -1;
            if (r > 0) ran += r;
            auto k = std::find_if(c->conns.begin(), c->conns.end(), [&](const Conn &e) { return e.fd == fds[i].fd; });
            if (r < 0 && c->live)
                dropConn(c, fds[i].fd);
            else if (k != c->conns.end())
                k->lastUsed = ++b.tick;
        }
    }
    return ran;
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
        int r = serveRound(served, deadline);
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
    Posted p{srcModule, cmd, {}, {}};
    if (dataLen > 0) p.data.assign(static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + dataLen);
    if (auxLen > 0) p.aux.assign(static_cast<const uint8_t *>(aux), static_cast<const uint8_t *>(aux) + auxLen);
    target->posted.push_back(std::move(p));
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
