// SPDX-License-Identifier: Apache-2.0
// Serving the host bus: accepting connections, reading a request, running
// its callback and sending the reply, one poll round at a time. Nothing
// here blocks but the poll: connections are non-blocking, replies are sent
// only when they fit, and a peer that does not keep up loses its
// connection rather than holding the loop.
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mbus_bus.h"

namespace mbuswire {

void closeConns(MbusCtx *c) {
    for (const auto &k : c->conns) ::close(k.fd);
    c->conns.clear();
}

namespace {
void dropConn(MbusCtx *c, int fd) {
    auto it = std::find_if(c->conns.begin(), c->conns.end(), [fd](const Conn &k) { return k.fd == fd; });
    if (it == c->conns.end()) return;
    ::close(fd);
    c->conns.erase(it);
}

// Makes room by closing the connection idle longest of those with nothing
// waiting: closing one with a request still unread would lose it, and a
// request that wants no reply has nobody to tell. False when every
// connection has something waiting; newcomers then wait in the backlog
// until this round has served them.
bool dropIdlest(MbusCtx *c) {
    std::vector<Conn> byAge(c->conns);
    std::sort(byAge.begin(), byAge.end(), [](const Conn &a, const Conn &b) { return a.lastUsed < b.lastUsed; });
    char peek;
    for (const auto &k : byAge)
        if (::recv(k.fd, &peek, 1, MSG_PEEK | MSG_DONTWAIT) <= 0) return dropConn(c, k.fd), true;
    return false;
}

bool pending(int listenFd) {
    pollfd p{listenFd, POLLIN, {}};
    return ::poll(&p, 1, 0) > 0;
}

bool reply(int fd, const MbusMsgHeader &req, int result, const void *aux, size_t auxLen) {
    MbusMsgHeader h = header(static_cast<int>(req.dstModule), static_cast<int>(req.srcModule),
                                       static_cast<int>(req.cmd), 0, auxLen);
    h.isRequest = 0;
    h.result = result;
    return sendMessage(fd, h, nullptr, aux);
}

// Takes every waiting connection; one from a user that may not use the bus
// is told so and closed before it can send anything.
void acceptAll(MbusCtx *c) {
    for (;;) {
        if (c->conns.size() >= bus().connLimit && !(pending(c->listenFd) && dropIdlest(c))) return;
        int fd = ::accept4(c->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if ((errno == EMFILE || errno == ENFILE) && dropIdlest(c)) continue;
            return;
        }
        if (!peerAllowed(fd)) {
            MbusMsgHeader none{};  // no request was read: the refusal comes from the module alone
            none.dstModule = static_cast<uint32_t>(c->module);
            reply(fd, none, MBUS_PORT_ERR_REFUSED, nullptr, 0);
            // Closing on an unread request would reset the connection and
            // lose the refusal: discard what it sent first, unread.
            // (A packet read in part is gone whole; the socket never blocks.)
            char scrap[1];
            while (::read(fd, scrap, sizeof scrap) > 0) {
            }
            ::close(fd);
            ++bus().refused;
            diag("mbus", "mbus: module %d refused a connection from another user\n", c->module);
            continue;
        }
        c->conns.push_back({fd, ++bus().tick});
    }
}

// What serving one message came to. `finished`: the peer is gone, broken
// or not taking its reply, so the connection is done.
enum class Served { nothing, answered, quiet, finished };

// Serves the message waiting on one connection.
Served serveMessage(MbusCtx *c, int fd) {
    Bus &b = bus();
    // Declared first, so the held records go out only after the reply.
    LogHolder hold;
    ssize_t n = receiveMessage(fd, b.buf);
    if (n < 0) return errno == EAGAIN ? Served::nothing : Served::finished;
    if (n == 0) return Served::finished;
    MbusMsgHeader h{};
    std::memcpy(&h, b.buf.data(), std::min(sizeof h, static_cast<size_t>(n)));
    const char *why = checkMessage(b.buf, n, false);
    if (why == nullptr && h.dstModule != static_cast<uint32_t>(c->module)) why = "addressed to another module";
    if (why != nullptr) {
        diag("mbus", "mbus: module %d refused a malformed message (%zd bytes): %s\n", c->module, n, why);
        h.srcModule = 0;
        h.dstModule = static_cast<uint32_t>(c->module);
        return reply(fd, h, MBUS_PORT_ERR_BADMSG, nullptr, 0) ? Served::nothing : Served::finished;
    }
    // The callback may listen or log; copies keep the message its own.
    const uint8_t *body = b.buf.data() + sizeof h;
    Bytes data(body, body + h.dataLen);
    Bytes aux(body + h.dataLen, body + h.dataLen + h.auxLen);
    int auxLen = static_cast<int>(aux.size());
    int result = c->callback(c, &h, static_cast<int>(h.cmd), data.empty() ? nullptr : data.data(),
                             static_cast<int>(data.size()), aux.empty() ? nullptr : aux.data(), &auxLen);
    if (h.isRequest == kRequestNoReply) return Served::quiet;
    const size_t back = std::min(static_cast<size_t>(std::max(auxLen, 0)), aux.size());
    return reply(fd, h, result, aux.data(), back) ? Served::answered : Served::finished;
}

// One message, or a run of those that want no reply: a log service's
// records come by the dozen, and a poll round for each would cost more
// than serving them. A request that is answered ends the run.
int serveConn(MbusCtx *c, int fd) {
    constexpr int kQuietRun = 32;
    int ran = 0;
    for (Served s = Served::quiet; s == Served::quiet && ran < kQuietRun && c->live;) {
        s = serveMessage(c, fd);
        // A finished connection shows again at the next poll.
        if (s == Served::finished) return ran > 0 ? ran : -1;
        ran += s != Served::nothing;
    }
    return ran;
}

int servePosted(MbusCtx *c) {
    if (c->posted.empty()) return 0;
    Posted req = std::move(c->posted.front());
    c->posted.pop_front();
    int auxLen = static_cast<int>(req.aux.size());
    MbusMsgHeader h = header(req.srcModule, c->module, req.cmd, req.data.size(), req.aux.size());
    c->callback(c, &h, req.cmd, req.data.empty() ? nullptr : req.data.data(), static_cast<int>(req.data.size()),
                req.aux.empty() ? nullptr : req.aux.data(), &auxLen);
    return 1;
}
}  // namespace

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
    // Shortly after serving, the next message is looked for without sleeping.
    int ready = 0;
    for (const auto until = std::min(deadline, b.lastServed + b.busyPoll); ready == 0 && Clock::now() < until;) {
        timespec none{};
        ready = ::ppoll(fds.data(), fds.size(), &none, nullptr);
        if (ready == 0) ::sched_yield();
    }
    if (ready == 0) {
        const auto left = std::max(Clock::duration::zero(), deadline - Clock::now());
        const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
        timespec ts{static_cast<time_t>(whole.count()),
                    static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(left - whole).count())};
        ready = ::ppoll(fds.data(), fds.size(), &ts, nullptr);
    }
    if (ready <= 0) return -1;

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
            // A hung-up or broken connection reads as finished.
            int r = serveConn(c, fds[i].fd);
            if (r > 0) ran += r;
            auto k = std::find_if(c->conns.begin(), c->conns.end(), [&](const Conn &e) { return e.fd == fds[i].fd; });
            if (r < 0 && c->live)
                dropConn(c, fds[i].fd);
            else if (k != c->conns.end())
                k->lastUsed = ++b.tick;
        }
    }
    if (ran > 0) b.lastServed = Clock::now();
    return ran;
}

}  // namespace mbuswire
