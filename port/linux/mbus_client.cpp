// SPDX-License-Identifier: Apache-2.0
// Sending on the host bus: mbusIoctl reaches a module of this process
// directly and another one over a connection. Log records take the log path
// instead (mbus_log.cpp), which never waits.
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "hook_list.h"
#include "mbus_wire.h"

namespace {
swport::HookList<MbusSendHook> &hooks() {
    static swport::HookList<MbusSendHook> h;
    return h;
}

int fail(int code, std::string why) {
    mbuswire::setError(std::move(why));
    return code;
}

// The connection of the last request that was answered, kept for the next
// one to the same socket: connecting and being accepted cost as much as the
// request itself. A connection is kept only once its reply has been read,
// so a late reply is never taken for another request's. Before it is used
// again it must still be ours (not closed behind our back and its number
// reused, not inherited across a fork) and quiet: the module sends nothing
// unasked, so anything waiting on it means it was closed at the far end.
class KeptConn {
public:
    // The kept connection for a request to `path`, or -1; either way none is kept after.
    int take(const std::string &path) {
        int fd = release();
        pollfd p{fd, POLLIN, {}};
        taken_ = -1;
        if (fd < 0 || (path == path_ && pid_ == ::getpid() && ::poll(&p, 1, 0) == 0)) return taken_ = fd;
        ::close(fd);
        return -1;
    }
    void drop() {
        if (int fd = release(); fd >= 0) ::close(fd);
    }
    void keep(const std::string &path, int fd) {
        // The one just taken is still the connection it was checked to be.
        if (fd == taken_) {
            fd_ = fd;
            return;
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0) {
            ::close(fd);
            return;
        }
        fd_ = fd;
        path_ = path;
        pid_ = ::getpid();
        dev_ = st.st_dev;
        ino_ = st.st_ino;
    }

private:
    // The kept descriptor while it is still the connection it was; -1 else.
    int release() {
        const int fd = fd_;
        fd_ = -1;
        struct stat st {};
        if (fd < 0 || ::fstat(fd, &st) != 0 || st.st_ino != ino_ || st.st_dev != dev_) return -1;
        return fd;
    }

    int fd_ = -1;
    int taken_ = -1;
    std::string path_;
    pid_t pid_{};
    dev_t dev_{};
    ino_t ino_{};
};

KeptConn &kept() {
    static thread_local KeptConn k;
    return k;
}

// Reads the reply waiting on fd into aux (cap bytes); `whole` tells whether
// a well-formed reply was read.
int readReply(int fd, int module, void *aux, int *auxLen, size_t cap, bool &whole) {
    // Kept from reply to reply: sized for the largest message, it would
    // otherwise be allocated and cleared (64 KiB) for every one.
    static thread_local mbuswire::Bytes buf;
    ssize_t n = mbuswire::receiveMessage(fd, buf);
    if (n <= 0) return fail(MBUS_PORT_ERR_IO, "module " + std::to_string(module) + " closed without a reply");
    const char *why = mbuswire::checkMessage(buf, n, true);
    MbusMsgHeader r{};
    std::memcpy(&r, buf.data(), std::min(sizeof r, static_cast<size_t>(n)));
    if (why == nullptr && r.auxLen > cap) why = "reply larger than the request's aux buffer";
    if (why != nullptr) return fail(MBUS_PORT_ERR_BADMSG, std::string("malformed reply: ") + why);
    if (r.result == MBUS_PORT_ERR_REFUSED) mbuswire::setError("module " + std::to_string(module) + " refused our user");
    if (cap > 0) {
        std::memcpy(aux, buf.data() + sizeof r, r.auxLen);
        *auxLen = static_cast<int>(r.auxLen);
    }
    whole = true;
    return r.result;
}

int awaitReply(int fd, int module, int timeout, void *aux, int *auxLen, size_t cap, bool &whole) {
    if (!mbuswire::waitReadable(fd, timeout))
        return fail(MBUS_PORT_ERR_TIMEOUT, "no reply from module " + std::to_string(module) + " within " +
                                               std::to_string(timeout) + " ms");
    return readReply(fd, module, aux, auxLen, cap, whole);
}
}  // namespace

extern "C" int mbusIoctl(MbusCtx *ctx, int module, int cmd, void *data, int dataLen, void *aux,
                         int *auxLen, int flags, int timeoutMs, int reserved) {
    (void)reserved;
    int taken = 0;
    if (hooks().anyTakes([&](MbusSendHook hook, void *hctx) {
            return hook(hctx, module, cmd, data, dataLen, aux, auxLen, &taken) != 0;
        }))
        return taken;
    mbuswire::setError("");
    const bool isLog = module == MBUS_MODULE_LOG && cmd == MBUS_LOG_CMD;
    if (ctx != nullptr && !mbuswire::live(ctx)) {
        // The sender is gone; its last words still reach somebody.
        if (isLog) mbuswire::logRecord(0, data, dataLen, aux, auxLen != nullptr ? *auxLen : 0);
        return fail(MBUS_PORT_ERR_BADCTX, "sending through an unregistered context");
    }
    if (MbusCtx *self = mbuswire::localModule(module))
        return mbuswire::callLocal(self, ctx, cmd, data, dataLen, aux, auxLen);

    if (dataLen < 0 || (dataLen > 0 && data == nullptr) || (auxLen != nullptr && *auxLen < 0))
        return fail(MBUS_PORT_ERR_BADMSG, "invalid request buffers");
    size_t cap = aux != nullptr && auxLen != nullptr ? static_cast<size_t>(*auxLen) : 0;
    if (sizeof(MbusMsgHeader) + static_cast<size_t>(dataLen) + cap > MBUS_PORT_MSG_MAX)
        return fail(MBUS_PORT_ERR_TOOBIG, "request larger than the bus allows");
    if (isLog) {
        mbuswire::logRecord(mbuswire::moduleOf(ctx), data, dataLen, aux, static_cast<int>(cap));
        return 0;
    }

    const int timeout = timeoutMs > 0 ? timeoutMs : MBUS_PORT_TIMEOUT_MS;
    // A request without a reply goes on a connection of its own, closed once
    // it is sent, and the kept one is closed first: what the sender asks next
    // queues behind it on a new connection, so its requests stay in order.
    const bool replied = (flags & MBUS_FLAG_NOREPLY) == 0;
    const std::string path = mbuswire::socketPath(module);
    if (!replied) kept().drop();
    int fd = replied ? kept().take(path) : -1;
    std::string err;
    if (fd < 0) fd = mbuswire::connectModule(module, timeout, err);
    if (fd < 0) return fail(fd, err);
    MbusMsgHeader h = mbuswire::header(mbuswire::moduleOf(ctx), module, cmd, static_cast<size_t>(dataLen), cap);
    if (!replied) h.isRequest = mbuswire::kRequestNoReply;
    int result;
    bool whole = false, sent = mbuswire::sendMessage(fd, h, data, aux, timeout);
    if (sent) {
        result = replied ? awaitReply(fd, module, timeout, aux, auxLen, cap, whole) : 0;
    } else {
        // A module that refuses us says why before it closes: that reason,
        // if it is already there, is the answer. The socket never blocks.
        result = readReply(fd, module, aux, auxLen, cap, whole);
        if (!whole) result = fail(MBUS_PORT_ERR_IO, "cannot send to module " + std::to_string(module));
    }
    if (sent && whole)
        kept().keep(path, fd);
    else
        ::close(fd);
    return result;
}

namespace mbuswire {
void keptClose() { kept().drop(); }
}  // namespace mbuswire

extern "C" int mbusPortSendHookAdd(MbusSendHook hook, void *ctx) { return hooks().add(hook, ctx); }

extern "C" int mbusPortSendHookRemove(MbusSendHook hook, void *ctx) { return hooks().remove(hook, ctx); }

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
