// In-process message bus: one registered module and its callback, a queue
// of posted requests that mbusListen dispatches on the calling thread, and
// the log service's records written to standard error unless a hook takes
// them.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "osa_port.h"

struct MbusCtx {
    int module;
    int kind;
    MbusRequestCb callback;
    void *userData;
};

namespace {
struct Posted {
    int srcModule;
    int cmd;
    std::vector<unsigned char> data;
    std::vector<unsigned char> aux;
};

struct SendHookEntry {
    MbusSendHook hook;
    void *ctx;
};

struct Bus {
    std::mutex lock;
    std::condition_variable ready;
    std::deque<Posted> queue;
    MbusCtx *registered = nullptr;
    bool failRegister = false;
    std::vector<SendHookEntry> hooks;
};

Bus &bus() {
    static Bus b;
    return b;
}

MbusMsgHeader makeHeader(int src, int dst, int cmd, int dataLen, int auxLen) {
    MbusMsgHeader h{};
    h.magic = MBUS_MSG_MAGIC;
    h.srcModule = static_cast<uint32_t>(src);
    h.dstModule = static_cast<uint32_t>(dst);
    h.cmd = static_cast<uint32_t>(cmd);
    h.isRequest = 1;
    h.dataLen = static_cast<uint32_t>(dataLen);
    h.auxLen = static_cast<uint32_t>(auxLen);
    return h;
}

void writeLogRecord(const void *data, int dataLen, const void *aux, const int *auxLen) {
    uint32_t level = 0;
    if (data != nullptr && dataLen >= 8) std::memcpy(&level, static_cast<const char *>(data) + 4, 4);
    if (aux == nullptr || auxLen == nullptr || *auxLen <= 0) return;
    const char *text = static_cast<const char *>(aux);
    std::fprintf(stderr, "[log %u] %.*s", level, static_cast<int>(strnlen(text, static_cast<size_t>(*auxLen))),
                 text);
}
}  // namespace

extern "C" int mbusInit(const char *arg) {
    (void)arg;
    return 0;
}

extern "C" MbusCtx *mbusRegister(int module, int kind, MbusRequestCb callback, void *userData) {
    Bus &b = bus();
    std::lock_guard<std::mutex> g(b.lock);
    if (b.failRegister || b.registered != nullptr || callback == nullptr) return nullptr;
    b.registered = new MbusCtx{module, kind, callback, userData};
    return b.registered;
}

extern "C" int mbusUnRegister(MbusCtx *ctx) {
    Bus &b = bus();
    std::lock_guard<std::mutex> g(b.lock);
    if (ctx == nullptr || ctx != b.registered) return -1;
    delete b.registered;
    b.registered = nullptr;
    b.queue.clear();
    return 0;
}

extern "C" int mbusDeInit(void) { return 0; }

extern "C" int mbusListen(MbusCtx *ctx, unsigned int timeoutUs) {
    Bus &b = bus();
    Posted req;
    MbusRequestCb cb = nullptr;
    int module = 0;
    {
        std::unique_lock<std::mutex> g(b.lock);
        if (ctx == nullptr || ctx != b.registered) return -1;
        b.ready.wait_for(g, std::chrono::microseconds(timeoutUs), [&] { return !b.queue.empty(); });
        if (b.queue.empty()) return 0;
        req = std::move(b.queue.front());
        b.queue.pop_front();
        cb = ctx->callback;
        module = ctx->module;
    }
    int auxLen = static_cast<int>(req.aux.size());
    MbusMsgHeader h = makeHeader(req.srcModule, module, req.cmd, static_cast<int>(req.data.size()), auxLen);
    cb(ctx, &h, req.cmd, req.data.empty() ? nullptr : req.data.data(), static_cast<int>(req.data.size()),
       req.aux.empty() ? nullptr : req.aux.data(), &auxLen);
    return 1;
}

extern "C" int mbusIoctl(MbusCtx *ctx, int module, int cmd, void *data, int dataLen, void *aux,
                         int *auxLen, int flags, int timeoutMs, int reserved) {
    (void)flags;
    (void)timeoutMs;
    (void)reserved;
    std::vector<SendHookEntry> hooks;
    MbusCtx *self = nullptr;
    {
        std::lock_guard<std::mutex> g(bus().lock);
        hooks = bus().hooks;
        self = bus().registered;
    }
    for (const auto &h : hooks) {
        int result = 0;
        if (h.hook(h.ctx, module, cmd, data, dataLen, aux, auxLen, &result)) return result;
    }
    if (module == MBUS_MODULE_LOG && cmd == MBUS_LOG_CMD) {
        writeLogRecord(data, dataLen, aux, auxLen);
        return 0;
    }
    if (self != nullptr && self->module == module) {
        int src = ctx != nullptr ? ctx->module : 0;
        MbusMsgHeader h = makeHeader(src, module, cmd, dataLen, auxLen != nullptr ? *auxLen : 0);
        return self->callback(self, &h, cmd, data, dataLen, aux, auxLen);
    }
    return -1;
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
    if (dataLen > 0) p.data.assign(static_cast<const unsigned char *>(data),
                                   static_cast<const unsigned char *>(data) + dataLen);
    if (auxLen > 0) p.aux.assign(static_cast<const unsigned char *>(aux),
                                 static_cast<const unsigned char *>(aux) + auxLen);
    {
        std::lock_guard<std::mutex> g(bus().lock);
        if (bus().registered == nullptr) return -1;
        bus().queue.push_back(std::move(p));
    }
    bus().ready.notify_one();
    return 0;
}

extern "C" void mbusPortFailRegister(int fail) {
    std::lock_guard<std::mutex> g(bus().lock);
    bus().failRegister = fail != 0;
}

extern "C" MbusRequestCb mbusPortCallbackGet(void) {
    std::lock_guard<std::mutex> g(bus().lock);
    return bus().registered != nullptr ? bus().registered->callback : nullptr;
}
