// The host bus: modules registered by this process, each listening on its
// own socket; requests posted in-process (mbusPortPost) and requests from
// other processes are dispatched by mbusListen on the calling thread, and
// mbusIoctl reaches a module of this process directly, another one through
// its socket. Log records go to the log service module when one listens,
// else to standard error.
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "mbus_wire.h"

namespace {
struct Posted {
    int srcModule;
    int cmd;
    mbuswire::Bytes data;
    mbuswire::Bytes aux;
};

// An accepted connection whose request has not arrived yet.
struct Pending {
    int fd;
    std::chrono::steady_clock::time_point since;
};

constexpr auto kPendingLimit = std::chrono::seconds(2);
constexpr size_t kPendingMax = 32;
constexpr int kLogConnectMs = 200;
}  // namespace

struct MbusCtx {
    int module = 0;
    int kind = 0;
    MbusRequestCb callback = nullptr;
    void *userData = nullptr;
    int listenFd = -1;
    int wakeFd = -1;
    std::string path;
    MbusCtx *host = nullptr;  // also served by this context's listener
    std::deque<Posted> posted;
    std::vector<Pending> pending;  // touched only by the thread holding `serving`
    std::mutex serving;
    int users = 0;  // mbusListen calls that hold the context
    std::thread::id listener;
    bool closing = false;
    bool deleteWhenIdle = false;
};

namespace {
struct SendHookEntry {
    MbusSendHook hook;
    void *ctx;
};

struct Bus {
    std::mutex lock;
    std::condition_variable idle;
    std::vector<MbusCtx *> modules;  // in registration order
    bool failRegister = false;
    std::vector<SendHookEntry> hooks;
};

Bus &bus() {
    static Bus b;
    return b;
}

thread_local std::string lastError;

// Compares the pointer before touching it: a context already unregistered
// may be passed again (the service does so after a failed start).
bool registered(const Bus &b, const MbusCtx *ctx) {
    return ctx != nullptr && std::find(b.modules.begin(), b.modules.end(), ctx) != b.modules.end() &&
           !ctx->closing;
}

MbusCtx *firstModule(const Bus &b) {
    for (auto *m : b.modules)
        if (!m->closing) return m;
    return nullptr;
}

void wake(const MbusCtx *ctx) {
    if (ctx->wakeFd < 0) return;
    uint64_t one = 1;
    ssize_t r = ::write(ctx->wakeFd, &one, sizeof one);
    (void)r;
}

void destroy(MbusCtx *ctx) {
    for (const auto &p : ctx->pending) ::close(p.fd);
    if (ctx->listenFd >= 0) {
        ::close(ctx->listenFd);
        ::unlink(ctx->path.c_str());
    }
    if (ctx->wakeFd >= 0) ::close(ctx->wakeFd);
    delete ctx;
}

void writeLogRecord(const void *data, int dataLen, const void *aux, const int *auxLen) {
    uint32_t level = 0;
    if (data != nullptr && dataLen >= 8) std::memcpy(&level, static_cast<const char *>(data) + 4, 4);
    if (aux == nullptr || auxLen == nullptr || *auxLen <= 0) return;
    const char *text = static_cast<const char *>(aux);
    std::fprintf(stderr, "[log %u] %.*s", level, static_cast<int>(strnlen(text, static_cast<size_t>(*auxLen))),
                 text);
}

void reply(int fd, const MbusMsgHeader &req, int result, const void *aux, size_t auxLen) {
    MbusMsgHeader h = mbuswire::header(static_cast<int>(req.dstModule), static_cast<int>(req.srcModule),
                                       static_cast<int>(req.cmd), false, 0, auxLen, result);
    mbuswire::sendMessage(fd, h, nullptr, 0, aux, auxLen);
}

// Reads the request waiting on one connection, checks it and hands it to
// the module's callback; the reply goes back on the same connection.
// Returns whether the callback ran. A refused message is answered with the
// reason's code and never reaches the callback.
bool serveConnection(MbusCtx *ctx, int fd) {
    mbuswire::Bytes buf;
    ssize_t n = mbuswire::receiveMessage(fd, buf);
    if (n <= 0) return false;
    MbusMsgHeader h{};
    std::memcpy(&h, buf.data(), std::min(sizeof h, static_cast<size_t>(n)));
    if (!mbuswire::peerAllowed(fd)) {
        std::fprintf(stderr, "mbus: module %d refused a request from another user\n", ctx->module);
        reply(fd, h, MBUS_PORT_ERR_REFUSED, nullptr, 0);
        return false;
    }
    const char *why = mbuswire::checkMessage(buf, n, false);
    if (why == nullptr && h.dstModule != static_cast<uint32_t>(ctx->module)) why = "addressed to another module";
    if (why != nullptr) {
        std::fprintf(stderr, "mbus: module %d refused a malformed message (%zd bytes): %s\n", ctx->module, n, why);
        h.srcModule = 0;
        h.dstModule = static_cast<uint32_t>(ctx->module);
        reply(fd, h, MBUS_PORT_ERR_BADMSG, nullptr, 0);
        return false;
    }
    const uint8_t *body = buf.data() + sizeof h;
    mbuswire::Bytes data(body, body + h.dataLen);
    mbuswire::Bytes aux(body + h.dataLen, body + h.dataLen + h.auxLen);
    int auxLen = static_cast<int>(aux.size());
    int result = ctx->callback(ctx, &h, static_cast<int>(h.cmd), data.empty() ? nullptr : data.data(),
                               static_cast<int>(data.size()), aux.empty() ? nullptr : aux.data(), &auxLen);
    size_t back = auxLen > 0 ? std::min(static_cast<size_t>(auxLen), aux.size()) : 0;
    reply(fd, h, result, aux.data(), back);
    return true;
}

bool servePosted(MbusCtx *ctx) {
    Posted req;
    {
        std::lock_guard<std::mutex> g(bus().lock);
        if (ctx->posted.empty()) return false;
        req = std::move(ctx->posted.front());
        ctx->posted.pop_front();
    }
    int auxLen = static_cast<int>(req.aux.size());
    MbusMsgHeader h = mbuswire::header(req.srcModule, ctx->module, req.cmd, true, req.data.size(),
                                       req.aux.size(), 0);
    ctx->callback(ctx, &h, req.cmd, req.data.empty() ? nullptr : req.data.data(),
                  static_cast<int>(req.data.size()), req.aux.empty() ? nullptr : req.aux.data(), &auxLen);
    return true;
}

// Takes connections off the backlog while there is room; beyond that they
// wait in the kernel, and a sender finds out through its own time-out.
void acceptAll(MbusCtx *ctx) {
    while (ctx->pending.size() < kPendingMax) {
        int fd = ::accept4(ctx->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            return;
        }
        ctx->pending.push_back({fd, std::chrono::steady_clock::now()});
    }
}

// Closes connections that never sent their request. One whose request is
// waiting (the listener was busy) stays.
void dropStale(MbusCtx *ctx) {
    auto now = std::chrono::steady_clock::now();
    auto &p = ctx->pending;
    p.erase(std::remove_if(p.begin(), p.end(),
                           [&](const Pending &e) {
                               if (now - e.since < kPendingLimit) return false;
                               pollfd pf{e.fd, POLLIN, 0};
                               if (::poll(&pf, 1, 0) > 0 && (pf.revents & POLLIN) != 0) return false;
                               ::close(e.fd);
                               return true;
                           }),
            p.end());
}

// One wait over every context this call serves. Returns how many requests
// ran; 0 when the wait ended without one.
int serveOnce(const std::vector<MbusCtx *> &served, std::chrono::steady_clock::time_point deadline) {
    for (auto *c : served)
        if (servePosted(c)) return 1;

    std::vector<pollfd> fds;
    std::vector<std::pair<MbusCtx *, int>> owner;  // per pollfd: context, pending index (-1 wake, -2 listen)
    for (auto *c : served) {
        fds.push_back({c->wakeFd, POLLIN, 0});
        owner.emplace_back(c, -1);
        if (c->pending.size() < kPendingMax) {
            fds.push_back({c->listenFd, POLLIN, 0});
            owner.emplace_back(c, -2);
        }
        for (size_t i = 0; i < c->pending.size(); ++i) {
            fds.push_back({c->pending[i].fd, POLLIN, 0});
            owner.emplace_back(c, static_cast<int>(i));
        }
    }
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() < 0) left = std::chrono::microseconds(0);
    timespec ts{static_cast<time_t>(left.count() / 1000000), static_cast<long>(left.count() % 1000000) * 1000};
    int r = ::ppoll(fds.data(), fds.size(), &ts, nullptr);
    if (r <= 0) return 0;

    int ran = 0;
    std::vector<std::pair<MbusCtx *, int>> done;  // pending entries to close
    for (size_t i = 0; i < fds.size(); ++i) {
        if (fds[i].revents == 0) continue;
        auto [c, idx] = owner[i];
        if (idx == -1) {
            uint64_t v;
            while (::read(c->wakeFd, &v, sizeof v) > 0) {
            }
        } else if (idx == -2) {
            acceptAll(c);
        } else if (ran == 0) {
            if ((fds[i].revents & POLLIN) != 0 && serveConnection(c, c->pending[idx].fd)) ran = 1;
            done.emplace_back(c, idx);
        } else if ((fds[i].revents & POLLIN) == 0) {
            done.emplace_back(c, idx);  // hung up without a request
        }
    }
    // Close from the back so earlier indexes stay valid.
    std::sort(done.begin(), done.end(), [](const auto &a, const auto &b) { return a.second > b.second; });
    for (auto [c, idx] : done) {
        ::close(c->pending[idx].fd);
        c->pending.erase(c->pending.begin() + idx);
    }
    for (auto *c : served) dropStale(c);
    return ran;
}

int callInProcess(MbusCtx *self, MbusCtx *from, int module, int cmd, void *data, int dataLen, void *aux,
                  int *auxLen) {
    int src = from != nullptr ? from->module : 0;
    MbusMsgHeader h = mbuswire::header(src, module, cmd, true, dataLen > 0 ? dataLen : 0,
                                       auxLen != nullptr && *auxLen > 0 ? *auxLen : 0, 0);
    return self->callback(self, &h, cmd, data, dataLen, aux, auxLen);
}

int fail(int code, std::string why) {
    lastError = std::move(why);
    return code;
}
}  // namespace

extern "C" int mbusInit(const char *arg) {
    (void)arg;
    return 0;
}

extern "C" MbusCtx *mbusRegister(int module, int kind, MbusRequestCb callback, void *userData) {
    Bus &b = bus();
    lastError.clear();
    {
        std::lock_guard<std::mutex> g(b.lock);
        if (b.failRegister || callback == nullptr) {
            lastError = callback == nullptr ? "no callback" : "registration refused";
            return nullptr;
        }
        for (auto *m : b.modules)
            if (m->module == module && !m->closing) {
                lastError = "module " + std::to_string(module) + " is already registered by this process";
                return nullptr;
            }
    }
    std::string err;
    int listenFd = mbuswire::listenSocket(module, err);
    if (listenFd < 0) {
        lastError = err;
        return nullptr;
    }
    int wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        lastError = std::string("cannot create wake-up descriptor: ") + std::strerror(errno);
        ::close(listenFd);
        ::unlink(mbuswire::socketPath(module).c_str());
        return nullptr;
    }
    auto *ctx = new MbusCtx;
    ctx->module = module;
    ctx->kind = kind;
    ctx->callback = callback;
    ctx->userData = userData;
    ctx->listenFd = listenFd;
    ctx->wakeFd = wakeFd;
    ctx->path = mbuswire::socketPath(module);
    std::lock_guard<std::mutex> g(b.lock);
    b.modules.push_back(ctx);
    return ctx;
}

extern "C" int mbusUnRegister(MbusCtx *ctx) {
    Bus &b = bus();
    std::unique_lock<std::mutex> g(b.lock);
    if (!registered(b, ctx)) return -1;
    ctx->closing = true;
    ctx->posted.clear();
    for (auto *m : b.modules)
        if (m->host == ctx) m->host = nullptr;
    b.modules.erase(std::find(b.modules.begin(), b.modules.end(), ctx));
    if (ctx->users > 0) {
        wake(ctx);
        if (ctx->host != nullptr) wake(ctx->host);
        if (ctx->listener == std::this_thread::get_id()) {
            // Called from its own callback: the listener frees it on the way out.
            ctx->deleteWhenIdle = true;
            return 0;
        }
        b.idle.wait(g, [&] { return ctx->users == 0; });
    }
    g.unlock();
    destroy(ctx);
    return 0;
}

extern "C" int mbusDeInit(void) { return 0; }

extern "C" int mbusListen(MbusCtx *ctx, unsigned int timeoutUs) {
    Bus &b = bus();
    std::vector<MbusCtx *> held;
    {
        std::lock_guard<std::mutex> g(b.lock);
        if (!registered(b, ctx)) return -1;
        held.push_back(ctx);
        for (auto *m : b.modules)
            if (m->host == ctx && !m->closing) held.push_back(m);
        for (auto *m : held) {
            ++m->users;
            m->listener = std::this_thread::get_id();
        }
    }
    // A context that another thread is serving right now is left to it.
    std::vector<std::unique_lock<std::mutex>> locks;
    std::vector<MbusCtx *> served;
    for (auto *m : held) {
        std::unique_lock<std::mutex> l(m->serving, std::try_to_lock);
        if (!l.owns_lock()) continue;
        locks.push_back(std::move(l));
        served.push_back(m);
    }

    auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(timeoutUs);
    int ran = 0;
    while (!served.empty()) {
        ran = serveOnce(served, deadline);
        bool closing = std::any_of(served.begin(), served.end(), [](const MbusCtx *m) { return m->closing; });
        if (ran > 0 || closing || std::chrono::steady_clock::now() >= deadline) break;
    }
    if (served.empty()) std::this_thread::sleep_for(std::chrono::microseconds(std::min(timeoutUs, 10000u)));
    locks.clear();

    std::vector<MbusCtx *> gone;
    {
        std::lock_guard<std::mutex> g(b.lock);
        for (auto *m : held)
            if (--m->users == 0 && m->deleteWhenIdle) gone.push_back(m);
    }
    b.idle.notify_all();
    for (auto *m : gone) destroy(m);
    return ran;
}

extern "C" int mbusIoctl(MbusCtx *ctx, int module, int cmd, void *data, int dataLen, void *aux,
                         int *auxLen, int flags, int timeoutMs, int reserved) {
    (void)reserved;
    Bus &b = bus();
    std::vector<SendHookEntry> hooks;
    MbusCtx *self = nullptr;
    {
        std::lock_guard<std::mutex> g(b.lock);
        hooks = b.hooks;
        for (auto *m : b.modules)
            if (m->module == module && !m->closing) self = m;
    }
    for (const auto &h : hooks) {
        int result = 0;
        if (h.hook(h.ctx, module, cmd, data, dataLen, aux, auxLen, &result)) return result;
    }
    lastError.clear();
    const bool isLog = module == MBUS_MODULE_LOG && cmd == MBUS_LOG_CMD;
    if (self != nullptr) return callInProcess(self, ctx, module, cmd, data, dataLen, aux, auxLen);

    if (dataLen < 0 || (dataLen > 0 && data == nullptr) || (auxLen != nullptr && *auxLen < 0))
        return fail(MBUS_PORT_ERR_BADMSG, "invalid request buffers");
    size_t cap = aux != nullptr && auxLen != nullptr ? static_cast<size_t>(*auxLen) : 0;
    if (sizeof(MbusMsgHeader) + static_cast<size_t>(dataLen) + cap > MBUS_PORT_MSG_MAX)
        return fail(MBUS_PORT_ERR_TOOBIG, "request larger than the bus allows");

    const int timeout = timeoutMs > 0 ? timeoutMs : MBUS_PORT_TIMEOUT_MS;
    std::string err;
    // A log follower that cannot keep up must not hold the sender up for
    // long: past a short wait its records go to standard error.
    int fd = mbuswire::connectModule(module, isLog ? std::min(timeout, kLogConnectMs) : timeout, err);
    if (fd < 0) {
        if (isLog) {
            writeLogRecord(data, dataLen, aux, auxLen);
            return 0;
        }
        return fail(fd, err);
    }
    MbusMsgHeader h = mbuswire::header(ctx != nullptr ? ctx->module : 0, module, cmd, true,
                                       static_cast<size_t>(dataLen), cap, 0);
    if (!mbuswire::sendMessage(fd, h, data, static_cast<size_t>(dataLen), aux, cap)) {
        ::close(fd);
        if (isLog) {
            writeLogRecord(data, dataLen, aux, auxLen);
            return 0;
        }
        return fail(MBUS_PORT_ERR_IO, std::string("cannot send to module ") + std::to_string(module));
    }
    if ((flags & MBUS_FLAG_NOREPLY) != 0) {
        ::close(fd);
        return 0;
    }
    if (!mbuswire::waitReadable(fd, timeout)) {
        ::close(fd);
        return fail(MBUS_PORT_ERR_TIMEOUT, "no reply from module " + std::to_string(module) + " within " +
                                               std::to_string(timeout) + " ms");
    }
    mbuswire::Bytes buf;
    ssize_t n = mbuswire::receiveMessage(fd, buf);
    ::close(fd);
    if (n <= 0) return fail(MBUS_PORT_ERR_IO, "module " + std::to_string(module) + " closed without a reply");
    const char *why = mbuswire::checkMessage(buf, n, true);
    MbusMsgHeader r{};
    std::memcpy(&r, buf.data(), std::min(sizeof r, static_cast<size_t>(n)));
    if (why == nullptr && r.auxLen > cap) why = "reply larger than the request's aux buffer";
    if (why != nullptr) return fail(MBUS_PORT_ERR_BADMSG, std::string("malformed reply: ") + why);
    if (cap > 0) {
        std::memcpy(aux, buf.data() + sizeof r, r.auxLen);
        *auxLen = static_cast<int>(r.auxLen);
    }
    return r.result;
}

extern "C" int mbusPortSendHookAdd(MbusSendHook hook, void *ctx) {
    if (hook == nullptr) return -1;
    std::lock_guard<std::mutex> g(bus().lock);
    bus().hooks.push_back({hook, ctx});
    return 0;
}

extern "C" int mbusPortSendHookRemove(MbusSendHook hook, void *ctx) {
    std::lock_guard<std::mutex> g(bus().lock);
    auto &h = bus().hooks;
    auto it = std::find_if(h.begin(), h.end(),
                           [&](const SendHookEntry &e) { return e.hook == hook && e.ctx == ctx; });
    if (it == h.end()) return -1;
    h.erase(it);
    return 0;
}

extern "C" int mbusPortPost(int srcModule, int cmd, const void *data, int dataLen, const void *aux,
                            int auxLen) {
    if (dataLen < 0 || auxLen < 0 || (dataLen > 0 && data == nullptr) || (auxLen > 0 && aux == nullptr))
        return -1;
    Posted p;
    p.srcModule = srcModule;
    p.cmd = cmd;
    if (dataLen > 0) p.data.assign(static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + dataLen);
    if (auxLen > 0) p.aux.assign(static_cast<const uint8_t *>(aux), static_cast<const uint8_t *>(aux) + auxLen);
    std::lock_guard<std::mutex> g(bus().lock);
    MbusCtx *target = firstModule(bus());
    if (target == nullptr) return -1;
    target->posted.push_back(std::move(p));
    wake(target);
    return 0;
}

extern "C" void mbusPortFailRegister(int fail) {
    std::lock_guard<std::mutex> g(bus().lock);
    bus().failRegister = fail != 0;
}

extern "C" MbusRequestCb mbusPortCallbackGet(void) {
    std::lock_guard<std::mutex> g(bus().lock);
    MbusCtx *first = firstModule(bus());
    return first != nullptr ? first->callback : nullptr;
}

extern "C" int mbusPortBusDirSet(const char *dir) {
    mbuswire::busDirSet(dir);
    return 0;
}

extern "C" const char *mbusPortBusDirGet(void) {
    static thread_local std::string dir;
    dir = mbuswire::busDir();
    return dir.c_str();
}

extern "C" int mbusPortSocketPath(int module, char *out, int cap) {
    std::string path = mbuswire::socketPath(module);
    if (out == nullptr || path.empty() || cap <= 0 || path.size() >= static_cast<size_t>(cap)) return -1;
    std::memcpy(out, path.c_str(), path.size() + 1);
    return 0;
}

extern "C" int mbusPortListenAlong(MbusCtx *ctx, MbusCtx *host) {
    Bus &b = bus();
    std::lock_guard<std::mutex> g(b.lock);
    if (!registered(b, ctx) || ctx == host) return -1;
    if (host != nullptr && (!registered(b, host) || host->host != nullptr)) return -1;
    for (auto *m : b.modules)
        if (m->host == ctx) return -1;  // one level only
    ctx->host = host;
    if (host != nullptr) wake(host);
    return 0;
}

extern "C" const char *mbusPortLastError(void) { return lastError.c_str(); }
