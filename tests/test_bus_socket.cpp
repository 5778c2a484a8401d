// SPDX-License-Identifier: Apache-2.0
// The bus between processes: a module served by a forked child, reached
// through its socket, what the listener refuses, and where log records go.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "mbus_wire.h"
#include "swmgr_test.h"

namespace {

using swtest::Bytes;
enum { kEcho = 7, kSlow = 8, kCount = 9, kDie = 10 };

int seenCount = 0;  // requests the module served in the child has seen (its own copy)

int childModule(MbusCtx *, const MbusMsgHeader *h, int cmd, void *data, int dataLen, void *aux, int *auxLen) {
    ++seenCount;
    if (cmd == kCount) return seenCount - 1;
    if (cmd == kDie) ::_exit(0);
    if (cmd == kSlow) std::this_thread::sleep_for(std::chrono::milliseconds(400));
    if (aux != nullptr) {
        int n = std::snprintf(static_cast<char *>(aux), static_cast<size_t>(*auxLen), "src=%u req=%u data=%.*s",
                              h->srcModule, h->isRequest, dataLen, static_cast<const char *>(data));
        *auxLen = std::min(n + 1, *auxLen);
    }
    return 1000 + dataLen;
}

// A forked process that registers `module` and serves it; killed and reaped when it goes.
struct Server {
    explicit Server(int module) {
        int p[2];
        if (::pipe(p) != 0) return;
        if ((pid = ::fork()) == 0) {
            ::close(STDIN_FILENO);  // descriptor 0 is as good as any for the module's socket
            MbusCtx *ctx = mbusRegister(module, 2, childModule, nullptr);
            if (ctx == nullptr || ::write(p[1], "R", 1) != 1) ::_exit(1);
            for (;;) mbusListen(ctx, 100000);
        }
        char c = 0;
        ::close(p[1]);
        EXPECT_TRUE(pid > 0 && ::read(p[0], &c, 1) == 1) << "module " << module << " serving in its own process";
        ::close(p[0]);
    }
    ~Server() { if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0); }
    pid_t pid = -1;
};

std::string socketPath(int module) { char b[128]; return mbusPortSocketPath(module, b, sizeof b) == 0 ? b : ""; }

int rawConnect(int module) { std::string err; return mbuswire::connectModule(module, 1000, err); }

// A request header claiming `dataLen` bytes, followed by `bodyBytes` bytes.
Bytes frame(uint32_t magic, int dst, uint32_t dataLen, size_t bodyBytes, uint32_t isRequest = 1) {
    const MbusMsgHeader h{magic, 0, static_cast<uint32_t>(dst), kEcho, isRequest, dataLen, 0, 0};
    Bytes out(sizeof h + bodyBytes, 'x');
    std::memcpy(out.data(), &h, sizeof h);
    return out;
}

// Sends raw bytes to a module's socket, on a connection of its own unless
// given one; the result word of the reply, or 1 when none came.
int sendRaw(int module, const Bytes &bytes, int conn = -1) {
    int fd = conn >= 0 ? conn : rawConnect(module), result = 1;
    MbusMsgHeader r{};
    if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()) &&
        mbuswire::waitReadable(fd, 2000) && ::recv(fd, &r, sizeof r, 0) == static_cast<ssize_t>(sizeof r) &&
        r.magic == MBUS_MSG_MAGIC && r.isRequest == 0 && r.srcModule == uint32_t(module) && r.dstModule == 0)
        result = r.result;
    if (conn < 0) ::close(fd);
    return result;
}

int count(int module) { return mbusIoctl(nullptr, module, kCount, nullptr, 0, nullptr, nullptr, 0, 2000, 0); }

// A log record as any process sends one: its header's bytes, then the text; `len` counts the terminator.
int logRaw(const void *head, int headLen, const void *text, int len) {
    return mbusIoctl(nullptr, MBUS_MODULE_LOG, MBUS_LOG_CMD, const_cast<void *>(head), headLen, const_cast<void *>(text),
                     &len, MBUS_FLAG_NOREPLY, 0, 0);
}
int logRecord(uint32_t level, const char *text, int len) {
    SwLogRecordHeader hdr{103, level, {}};
    return logRaw(&hdr, SW_LOG_HEADER_LEN, text, len);
}

// A log record as it follows its bus header: module (103 unless given), level, tag, the text and its NUL.
Bytes logBytes(uint32_t level, const char *tag, const std::string &text, uint32_t module = 103) {
    SwLogRecordHeader h{module, level, {}};
    std::snprintf(h.tag, sizeof h.tag, "%s", tag);
    Bytes out(sizeof h + text.size() + 1, 0);
    std::memcpy(out.data(), &h, sizeof h);
    std::memcpy(out.data() + sizeof h, text.data(), text.size());
    return out;
}

// The records waiting on a connection of the log service, each without its bus header.
std::vector<Bytes> received(int conn) {
    std::vector<Bytes> out;
    mbuswire::Bytes buf;
    for (ssize_t n; (n = mbuswire::receiveMessage(conn, buf)) >= 32;)
        out.emplace_back(buf.begin() + 32, buf.begin() + n);
    return out;
}

// Its answer names the caller, the command and the lengths its header states.
int lastServed = 0;
int inProcess(MbusCtx *, const MbusMsgHeader *h, int cmd, void *, int, void *, int *) {
    return lastServed = static_cast<int>(h->srcModule * 100 + (h->dataLen + h->auxLen) * 10) + cmd;
}

TEST(BusSocket, ModulesServeOtherProcessesUntilTheyUnregister) {
    EXPECT_EQ(mbusIoctl(nullptr, 201, kEcho, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_NOMODULE);
    EXPECT_EQ(std::string(mbusPortLastError()), std::string("no module 201 on the bus at ") + mbusPortBusDirGet());
    // Unset, the directory comes from the environment unless that is empty.
    const std::string busDir = mbusPortBusDirGet();
    mbusPortBusDirSet(nullptr);
    std::vector<std::string> dirs;
    for (const char *env : {"/tmp/elsewhere", "", static_cast<const char *>(nullptr)}) {
        env != nullptr ? ::setenv(MBUS_PORT_DIR_ENV, env, 1) : ::unsetenv(MBUS_PORT_DIR_ENV);
        dirs.push_back(mbusPortBusDirGet());
    }
    EXPECT_EQ(dirs, (std::vector<std::string>{"/tmp/elsewhere", MBUS_PORT_DEFAULT_DIR, MBUS_PORT_DEFAULT_DIR}));
    EXPECT_EQ(mbusPortBusDirSet(busDir.c_str()), 0);
    {
        Server child(201);
        MbusCtx *self = mbusRegister(202, 2, inProcess, nullptr);
        ASSERT_NE(self, nullptr);
        char aux[128] = {};
        int auxLen = sizeof aux;
        auto open = [] {  // what this process's descriptors name: a socket by its inode
            std::vector<std::string> names;
            std::error_code gone;  // a descriptor closed while listed has no name
            for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd"))
                names.push_back(std::filesystem::read_symlink(fd.path(), gone).string());
            return std::sort(names.begin(), names.end()), names;
        };
        mbusDeInit();
        const auto before = open();
        EXPECT_EQ(mbusIoctl(self, 201, kEcho, const_cast<char *>("ping"), 4, aux, &auxLen, 0, 2000, 0), 1004);
        const auto kept = open();
        EXPECT_EQ(aux + std::string(" ") + std::to_string(auxLen), "src=202 req=1 data=ping 24");
        EXPECT_STREQ(mbusPortLastError(), "");
        EXPECT_EQ(mbusIoctl(self, 201, kEcho, nullptr, 0, nullptr, &auxLen, 0, 2000, 0), 1000) << "room, but no buffer";
        EXPECT_EQ(mbusIoctl(self, 201, kEcho, nullptr, 0, aux, &(auxLen = 1), 0, 2000, 0), 1000);
        EXPECT_EQ(auxLen, 1) << "the terminator alone comes back";
        EXPECT_EQ(kept.size(), before.size() + 1);
        EXPECT_EQ(open(), kept) << "one connection, kept from request to request";

        // Requests without a reply return at once; more than the listener
        // holds at once, as a busy daemon's log records are, all arrive, and
        // before what the sender asks next: that goes on a new connection.
        for (int i = 0; i < 300; ++i)
            ASSERT_EQ(mbusIoctl(self, 201, kEcho, nullptr, 0, nullptr, nullptr, MBUS_FLAG_NOREPLY, 0, 0), 0);
        EXPECT_EQ(open(), before) << "nothing kept";
        const int in = swtest::stdinClosed();  // with descriptor 0 free, a connection may get it
        EXPECT_EQ(count(201), 303);
        EXPECT_EQ(mbusIoctl(nullptr, 203, kEcho, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_NOMODULE)
            << "a connection kept on descriptor 0 serves its own module only";
        EXPECT_EQ(count(201), 304);
        EXPECT_EQ(count(201), 305) << "on the connection kept on descriptor 0";
        EXPECT_EQ(mbusIoctl(self, 201, kEcho, nullptr, 0, nullptr, nullptr, MBUS_FLAG_NOREPLY, 0, 0), 0);
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1) << "the connection kept on descriptor 0 let go";
        EXPECT_EQ(count(201), 307);
        for (int other : {::socket(AF_UNIX, SOCK_DGRAM, 0)}) ::dup2(other, STDIN_FILENO), ::close(other);  // reused: not ours to close
        EXPECT_EQ(count(201), 308);
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), 0);
        ::dup2(in, STDIN_FILENO), ::close(in);
        EXPECT_EQ(mbusDeInit(), 0);
        EXPECT_EQ(open(), before) << "the kept connection let go with the bus";

        // A request to this process's own module never touches a socket.
        EXPECT_EQ(mbusIoctl(self, 202, 3, nullptr, 0, nullptr, nullptr, 0, 0, 0), 202 * 100 + 3);
        EXPECT_EQ(mbusIoctl(self, 202, 3, const_cast<char *>("ab"), 2, aux, &(auxLen = 0), 0, 0, 0), 202 * 100 + 20 + 3);
        EXPECT_EQ(mbusUnRegister(self), 0);

        EXPECT_EQ(mbusIoctl(nullptr, 201, kSlow, nullptr, 0, nullptr, nullptr, 0, 1, 0), MBUS_PORT_ERR_TIMEOUT);
        EXPECT_STREQ(mbusPortLastError(), "no reply from module 201 within 1 ms");
        EXPECT_EQ(count(201), 310) << "the module serves on after the late request";

        // While its process lives, nobody else may register the module.
        const long held = swtest::openDescriptors();
        EXPECT_EQ(mbusRegister(201, 2, inProcess, nullptr), nullptr);
        EXPECT_EQ(swtest::openDescriptors(), held) << "the refused socket is closed";
        EXPECT_EQ(std::string(mbusPortLastError()), "module 201 is already on the bus at " + socketPath(201));
        EXPECT_EQ(mbusIoctl(nullptr, 201, kDie, nullptr, 0, nullptr, nullptr, 0, 2000, 0), MBUS_PORT_ERR_IO);
        EXPECT_STREQ(mbusPortLastError(), "module 201 closed without a reply");
    }
    // The child is gone and its socket left behind: it is taken over.
    ASSERT_EQ(::access(socketPath(201).c_str(), F_OK), 0);
    MbusCtx *ctx = mbusRegister(201, 2, inProcess, nullptr);
    ASSERT_NE(ctx, nullptr) << mbusPortLastError();

    // A posted request is served without waiting for anything else; with
    // nothing to serve, listening lasts its time-out.
    ASSERT_EQ(mbusPortPost(5, kEcho, "x", 1, "y", 1), 0);
    EXPECT_EQ(mbusListen(ctx, 100000), 1);
    EXPECT_EQ(lastServed, 500 + 20 + kEcho) << "its data and aux";
    EXPECT_EQ(mbusListen(ctx, 100000), 0);
    // A request arriving while it listens is waited for.
    const int lateConn = rawConnect(201);
    std::thread late([lateConn] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sendRaw(201, frame(MBUS_MSG_MAGIC, 201, 4, 4), lateConn);
    });
    EXPECT_EQ(mbusListen(ctx, 5000000), 1);
    late.join();

    // One callback per descriptor, called with it once it is readable.
    // Callbacks running inside the wait, and unregistering there, are how
    // the daemon stops in its own tests.
    static int ready = -1;
    int a[2], b[2];
    const int in = swtest::stdinClosed();  // the first one watched is descriptor 0
    ASSERT_EQ(::pipe(a) + ::pipe(b), 0);
    for (int fd : {a[0], b[0]}) ASSERT_EQ(mbusPortWatch(fd, [](void *, int fd) { ready = fd; }, nullptr), 0);
    EXPECT_EQ(mbusPortWatch(b[0], [](void *, int) {}, nullptr), -1);
    ASSERT_EQ(::write(b[1], "x", 1), 1);
    EXPECT_EQ(std::make_pair(mbusListen(ctx, 1000000), ready), std::make_pair(1, b[0]));
    EXPECT_EQ(mbusPortUnwatch(b[0]), 0);
    ASSERT_EQ(::write(a[1], "x", 1), 1);
    EXPECT_EQ(std::make_pair(mbusListen(ctx, 1000000), ready), std::make_pair(1, a[0])) << "the other one watched on";
    EXPECT_EQ(std::make_pair(mbusPortUnwatch(b[0]), mbusPortUnwatch(a[0])), std::make_pair(-1, 0)) << "b is not watched";
    for (int fd : {a[0], a[1], b[0], b[1]}) ::close(fd);
    ::dup2(in, STDIN_FILENO), ::close(in);
    // Gone (its socket removed, as the daemon's tests see), the context is
    // recognisable as gone: nothing sent through it is delivered.
    EXPECT_EQ(mbusUnRegister(ctx), 0);
    char eof[1];
    EXPECT_EQ(::recv(lateConn, eof, 1, MSG_DONTWAIT), 0) << "the connection it served is closed";
    ::close(lateConn);
    EXPECT_EQ(std::make_pair(mbusListen(ctx, 1000), mbusPortPost(5, kEcho, "x", 1, "y", 1)), std::make_pair(-1, -1));
    EXPECT_EQ(mbusUnRegister(ctx), -1);
    // Its last words still reach somebody (here, with nobody serving the log,
    // standard error), and they may name room for a text they do not give.
    int room = 4, said = 5;
    testing::internal::CaptureStderr();
    EXPECT_EQ(mbusIoctl(ctx, MBUS_MODULE_LOG, MBUS_LOG_CMD, nullptr, 4, nullptr, &room, 0, 0, 0), MBUS_PORT_ERR_BADCTX);
    mbusIoctl(ctx, MBUS_MODULE_LOG, MBUS_LOG_CMD, nullptr, 0, const_cast<char *>("bye\n"), &said, 0, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[log 0] [log 0] bye\n");
    EXPECT_STREQ(mbusPortLastError(), "sending through an unregistered context");
}

TEST(BusSocket, MalformedMessagesAreRefusedAndTheListenerServesOn) {
    Server child(204);
    std::string err;
    const int logLsn = mbuswire::listenSocket(MBUS_MODULE_LOG, err);
    EXPECT_EQ(sendRaw(204, Bytes(10, 0)), MBUS_PORT_ERR_BADMSG) << "shorter than a header";
    // The listener says why, to the log service: as itself, not the service.
    const int said = mbuswire::waitReadable(logLsn, 2000) ? ::accept(logLsn, nullptr, nullptr) : -1;
    EXPECT_EQ(mbuswire::waitReadable(said, 2000) ? received(said) : std::vector<Bytes>{},
              std::vector<Bytes>{logBytes(8, "mbus", "mbus: module 204 refused a malformed message (10 bytes): "
                                                      "shorter than its header\n", 0)});
    ::close(said), ::close(logLsn), ::unlink(socketPath(MBUS_MODULE_LOG).c_str());
    EXPECT_EQ(sendRaw(204, frame(0x12345678, 204, 4, 4)), MBUS_PORT_ERR_BADMSG) << "bad magic";
    EXPECT_EQ(sendRaw(204, frame(MBUS_MSG_MAGIC, 204, 100, 4)), MBUS_PORT_ERR_BADMSG) << "data cut short";
    EXPECT_EQ(sendRaw(204, frame(MBUS_MSG_MAGIC, 205, 4, 4)), MBUS_PORT_ERR_BADMSG) << "other module";
    EXPECT_EQ(sendRaw(204, frame(MBUS_MSG_MAGIC, 204, 70000, 70000)), MBUS_PORT_ERR_BADMSG) << "too long";
    const int conn = rawConnect(204);
    EXPECT_EQ(sendRaw(204, frame(MBUS_MSG_MAGIC, 204, 4, 8), conn), MBUS_PORT_ERR_BADMSG);
    const Bytes quiet = frame(MBUS_MSG_MAGIC, 204, 2, 2, mbuswire::kRequestNoReply);
    ASSERT_EQ(::send(conn, quiet.data(), quiet.size(), 0), static_cast<ssize_t>(quiet.size()));
    EXPECT_EQ(sendRaw(204, frame(MBUS_MSG_MAGIC, 204, 4, 4), conn), 1004)
        << "the same connection; no reply to the quiet one";
    ::close(conn);
    EXPECT_EQ(count(204), 2) << "only the good messages reached the module";

    std::vector<char> big(MBUS_PORT_MSG_MAX, 'b');
    EXPECT_EQ(mbusIoctl(nullptr, 204, kEcho, big.data(), static_cast<int>(big.size()), nullptr, nullptr, 0, 0, 0),
              MBUS_PORT_ERR_TOOBIG);
    const int most = MBUS_PORT_MSG_MAX - MBUS_MSG_HEADER_LEN;
    EXPECT_EQ(mbusIoctl(nullptr, 204, kEcho, big.data(), most, nullptr, nullptr, 0, 0, 0), 1000 + most);
    // Lengths no buffer backs are refused before anything is sent; no room is room enough.
    int less = -1, none = 0, bad = MBUS_PORT_ERR_BADMSG;
    for (auto [data, len, room, want] : {std::tuple<char *, int, int *, int>{big.data(), -1, &none, bad},
                                         {nullptr, 1, &none, bad}, {big.data(), 0, &less, bad}, {big.data(), 0, &none, 1000}})
        EXPECT_EQ(mbusIoctl(nullptr, 204, kEcho, data, len, nullptr, room, 0, 0, 0), want) << len << *room;
    EXPECT_EQ(count(204), 5);
    EXPECT_STREQ(mbusPortLastError(), "") << "a delivered request leaves no reason behind";

    // Answered with a request instead of a reply, with a byte, or with more
    // than it gave room for, the sender refuses what came.
    const int lfd = mbuswire::listenSocket(206, err);
    ASSERT_GE(lfd, 0) << err;
    Bytes wide = frame(MBUS_MSG_MAGIC, 206, 0, 8, 0);
    wide[offsetof(MbusMsgHeader, auxLen)] = 8;
    for (const auto &[out, why] : {std::pair{frame(MBUS_MSG_MAGIC, 206, 0, 0), "not a reply"},
                                   {Bytes(1, 0), "shorter than its header"},
                                   {wide, "reply larger than the request's aux buffer"}}) {
        std::thread answer([lfd, &out = out] {
            const int c = mbuswire::waitReadable(lfd, 2000) ? ::accept(lfd, nullptr, nullptr) : -1;
            Bytes in(64);
            if (c >= 0 && mbuswire::waitReadable(c, 2000) && ::recv(c, in.data(), in.size(), 0) > 0)
                ::send(c, out.data(), out.size(), MSG_NOSIGNAL);
            if (c >= 0) ::close(c);
        });
        EXPECT_EQ(mbusIoctl(nullptr, 206, kEcho, nullptr, 0, nullptr, nullptr, 0, 2000, 0), MBUS_PORT_ERR_BADMSG);
        EXPECT_EQ(std::string(mbusPortLastError()), std::string("malformed reply: ") + why);
        answer.join();
    }
    ::close(lfd);
    ::unlink(socketPath(206).c_str());

    // A send hook takes what it answers, and only until it is removed.
    static int taken;
    taken = 0;
    MbusSendHook hook = [](void *, int module, int, const void *, int, void *, int *, int *result) {
        *result = 77;
        return module == 204 ? ++taken : 0;
    };
    ASSERT_EQ(mbusPortSendHookAdd(hook, &taken), 0);
    EXPECT_EQ(count(204), 77);
    EXPECT_EQ(mbusPortSendHookRemove(hook, nullptr), -1) << "another context's hook";
    EXPECT_EQ(mbusPortSendHookRemove(hook, &taken), 0);
    EXPECT_EQ(count(204), 6);
    EXPECT_EQ(taken, 1);
    // The module's process replaced, the connection kept to the last one is let go unused.
    ::kill(child.pid, SIGKILL), ::waitpid(child.pid, nullptr, 0), child.pid = -1;
    Server again(204);
    EXPECT_EQ(count(204), 0);
}

TEST(BusSocket, PastTheConnectionLimitTheConnectionIdleLongestIsClosed) {
    MbusCtx *ctx = mbusRegister(207, 2, inProcess, nullptr);
    ASSERT_NE(ctx, nullptr) << mbusPortLastError();
    ASSERT_EQ(mbusPortConnLimitSet(3), 0);
    int c[5];
    for (int i = 0; i < 4; ++i) c[i] = rawConnect(207);
    const int in = swtest::stdinClosed();  // the first connection accepted is then descriptor 0, and served as any
    EXPECT_EQ(mbusListen(ctx, 20000), 0) << "connections alone run nothing";
    EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), FD_CLOEXEC) << "spawned tools get no connection of the bus";
    // Requests that want no reply are served in runs of at most 32 a round;
    // one that is answered ends a run.
    const Bytes req = frame(MBUS_MSG_MAGIC, 207, 4, 4), quiet = frame(MBUS_MSG_MAGIC, 207, 2, 2, 2);
    for (int i = 0; i < 34; ++i) ASSERT_EQ(::send(c[1], quiet.data(), quiet.size(), 0), 34);
    ASSERT_EQ(::send(c[1], req.data(), req.size(), 0), static_cast<ssize_t>(req.size()));
    MbusCtx *other = mbusRegister(211, 2, inProcess, nullptr);
    EXPECT_EQ(mbusListen(other, 20000), 0) << "a request waits for its own module's listener";
    mbusUnRegister(other);
    EXPECT_EQ(mbusListen(ctx, 20000), 32);
    EXPECT_EQ(mbusListen(ctx, 20000), 3);
    MbusMsgHeader r{};
    EXPECT_EQ(::recv(c[1], &r, sizeof r, MSG_DONTWAIT), static_cast<ssize_t>(sizeof r));
    EXPECT_EQ(r.result, 0 * 100 + 4 * 10 + kEcho) << "answered, and the connection kept";
    c[4] = rawConnect(207);  // the one idle longest now is c[2]
    EXPECT_EQ(mbusListen(ctx, 20000), 0);
    std::vector<bool> closed;
    for (int fd : c) closed.push_back(::recv(fd, &r, 1, MSG_DONTWAIT) == 0);
    EXPECT_EQ(closed, (std::vector<bool>{true, false, true, false, false}));
    // Never one with a request still unread: newcomers wait in the backlog
    // until those are served, and then the limit holds again.
    int q[5];
    for (int &fd : q) fd = rawConnect(207), ::send(fd, quiet.data(), quiet.size(), 0);
    ::shutdown(q[4], SHUT_WR);  // its sender gone, a message is still served and counted
    EXPECT_EQ(mbusListen(ctx, 20000), 3);
    EXPECT_EQ(mbusListen(ctx, 20000), 2);
    closed.clear();
    for (int fd : q) closed.push_back(::recv(fd, &r, 1, MSG_DONTWAIT) == 0);
    EXPECT_EQ(closed, (std::vector<bool>{true, true, false, false, false}));
    for (int fd : c) ::close(fd);
    for (int fd : q) ::close(fd);
    // Out of descriptors, the connection idle longest makes room; with none
    // to close, the wait still ends on time.
    EXPECT_EQ(mbusListen(ctx, 20000), 0);  // the closed ones are let go
    ASSERT_EQ(swtest::descriptorsLeft(1), 0);
    const int idle = rawConnect(207);
    EXPECT_EQ(mbusRegister(209, 2, inProcess, nullptr), nullptr) << "no descriptor left for its socket";
    EXPECT_EQ(mbusListen(ctx, 20000), 0);
    swtest::descriptorsLeft(-1);
    EXPECT_EQ(mbusListen(ctx, 20000), 0);
    ASSERT_EQ(swtest::descriptorsLeft(1), 0);
    const int fresh = rawConnect(207);
    EXPECT_EQ(mbusListen(ctx, 20000), 0);
    swtest::descriptorsLeft(-1);
    EXPECT_EQ(::recv(idle, &r, 1, MSG_DONTWAIT), 0);
    ::close(idle), ::close(fresh);
    mbusPortConnLimitSet(MBUS_PORT_CONN_LIMIT);
    mbusUnRegister(ctx), ::dup2(in, STDIN_FILENO), ::close(in);
}

// Records made while a request is served wait for its reply, at most 256 of
// them (then the oldest go out at once); the others go out at once.
TEST(BusSocket, LogRecordsNeverWaitForTheReaderAndThoseMadeWhileServingFollowTheReply) {
    std::string err;
    int lsn = mbuswire::listenSocket(MBUS_MODULE_LOG, err);
    ASSERT_GE(lsn, 0) << err;
    static int reader;
    static std::vector<Bytes> want, duringRequest;
    want.clear();
    for (int i = 0; i < 300; ++i) want.push_back(logBytes(64, "", std::to_string(i) + "\n"));
    MbusCtx *ctx = mbusRegister(208, 2, [](MbusCtx *, const MbusMsgHeader *, int, void *, int, void *, int *) {
        for (const Bytes &w : want)
            logRecord(64, reinterpret_cast<const char *>(w.data()) + SW_LOG_HEADER_LEN,
                      static_cast<int>(w.size()) - SW_LOG_HEADER_LEN);
        duringRequest = received(reader);
        return 0;
    }, nullptr);
    ASSERT_NE(ctx, nullptr) << mbusPortLastError();
    // Before the reader takes its connection the sender goes on, counting
    // what it could not send; the reader, once reading, is told. Diagnostics
    // travel the same way, without waiting for a reply.
    const std::string text(199, 'r');
    const uint64_t before = mbusPortLogDropped();
    int sent = 0;
    testing::internal::CaptureStderr();
    for (; sent < 100000 && mbusPortLogDropped() < before + 3; ++sent) ASSERT_EQ(logRecord(64, text.c_str(), 200), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "a record dropped is counted, not shown";
    ASSERT_EQ(mbusPortLogDropped(), before + 3);
    reader = ::accept(lsn, nullptr, nullptr);
    EXPECT_EQ(received(reader), std::vector<Bytes>(sent - 3, logBytes(64, "", text)));
    swMgrDebug("", 64, nullptr, 0, "alone\n");
    EXPECT_STREQ(mbusPortLastError(), "") << "the reader never replies: waiting for it would have failed";
    const Bytes dropped = logBytes(8, "mbus", "3 log records dropped while the log reader was behind\n");
    EXPECT_EQ(received(reader), (std::vector<Bytes>{dropped, logBytes(64, "", "alone\n")}));
    const Bytes req = frame(MBUS_MSG_MAGIC, 208, 4, 4);
    const int client = rawConnect(208);
    ASSERT_EQ(::send(client, req.data(), req.size(), 0), static_cast<ssize_t>(req.size()));
    EXPECT_EQ(mbusListen(ctx, 1000000), 1);
    EXPECT_EQ(duringRequest, std::vector<Bytes>(want.begin(), want.begin() + 256));
    EXPECT_EQ(received(reader), std::vector<Bytes>(want.begin() + 256, want.end()));
    mbusUnRegister(ctx);
    // The service restarts: the next record finds the new one, whole, and
    // the loss is not told again.
    ::close(client), ::close(reader), ::close(lsn);
    lsn = mbuswire::listenSocket(MBUS_MODULE_LOG, err);
    const int in = swtest::stdinClosed(), fds = static_cast<int>(swtest::openDescriptors());  // the new one may be 0
    {
        mbuswire::LogHolder held;  // held for a reply, they find the new one all the same
        ASSERT_EQ(logRecord(64, "", 1), 0);  // the terminator alone is still its text
        ASSERT_EQ(logRecord(64, "x", 2), 0);
    }
    ASSERT_EQ(logRecord(64, "y", 2), 0);  // not held: on the new connection, which may be descriptor 0
    char h = 'h';  // a record goes as given, however short its header, or with none
    {
        mbuswire::LogHolder held;
        ASSERT_EQ(logRaw(&h, 0, &h, 0), 0);
    }
    ASSERT_EQ((std::vector<int>{logRaw(&h, 0, &h, 0), logRaw(&h, 1, "z", 2), logRaw(nullptr, 0, nullptr, 0)}), std::vector(3, 0));
    EXPECT_EQ(swtest::openDescriptors(), fds) << "the dead connection closed for the new one";
    reader = ::accept(lsn, nullptr, nullptr);
    EXPECT_EQ(received(reader), (std::vector<Bytes>{logBytes(64, "", ""), logBytes(64, "", "x"), logBytes(64, "", "y"),
                                                    Bytes{}, Bytes{}, Bytes{'h', 'z', 0}, Bytes{}}));
    ::close(reader), ::close(lsn), mbuswire::keptClose();
    const long open = swtest::openDescriptors();
    EXPECT_EQ((mbusDeInit(), swtest::openDescriptors()), open - 1) << "the log connection goes with the bus";
    ::dup2(in, STDIN_FILENO), ::close(in);
    ::unlink(socketPath(MBUS_MODULE_LOG).c_str());
}

// Nobody serving the log, or no system log to be had: standard error.
TEST(BusSocket, LogRecordsToTheBusStandardErrorOrTheSystemLog) {
    const char text[] = "Invalid database event\n";
    testing::internal::CaptureStderr();
    {
        mbuswire::LogHolder held;  // console lines and records held together go out in turn
        EXPECT_EQ(osaFilePrintf(stderr, "a\n"), 2);
        EXPECT_EQ(logRecord(64, text, sizeof text), 0);
    }
    EXPECT_EQ(logRecord(64, "", 1), 0);  // the terminator alone: a record without text
    EXPECT_EQ(mbusIoctl(nullptr, MBUS_MODULE_LOG, MBUS_LOG_CMD, nullptr, 0, nullptr, nullptr, MBUS_FLAG_NOREPLY, 0, 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "a\n[log 64] Invalid database event\n[log 64] [log 0] ");

    ASSERT_EQ(mbusPortLogTargetSet(MBUS_PORT_LOG_STDERR, nullptr), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(logRecord(8, text, sizeof text), 0);
    EXPECT_EQ(osaFilePrintf(stderr, "%s %d\n", "console", 7), 10);
    mbuswire::logHold();  // as while a request is served: records and console lines wait for its reply
    EXPECT_EQ(logRecord(8, text, sizeof text), 0);
    const std::string wide(1277, 'w');  // with " 8\n", one byte past a diagnostic line's buffer
    EXPECT_EQ(osaFilePrintf(stderr, "%s %d\n", wide.c_str(), 8), 1280);
    EXPECT_EQ(mbusIoctl(nullptr, MBUS_MODULE_LOG, MBUS_LOG_CMD, nullptr, 0, nullptr, nullptr, MBUS_FLAG_NOREPLY, 0, 0), 0);
    const std::string before = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    mbuswire::logUnhold();
    EXPECT_EQ(before + "|" + testing::internal::GetCapturedStderr(),
              text + std::string("console 7\n|") + text + wide + " 8\n");

    swtest::TempDir tmp;
    const std::string dev = tmp.file("syslog");
    int sys = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr;
    ASSERT_TRUE(mbuswire::fillAddress(dev, addr));
    ASSERT_EQ(::bind(sys, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(mbusPortLogTargetSet(MBUS_PORT_LOG_SYSLOG, dev.c_str()), 0);
    // "<daemon.severity>Mmm dd hh:mm:ss program[pid]: text" without its newline
    const std::string tail = std::string(" ") + program_invocation_short_name + "[" + std::to_string(::getpid()) + "]: ";
    const std::string longText(1100, 'x'), cut = "<30>%" + std::string(1024, 'x');  // a text's first 1024 bytes
    for (auto [level, said, want] : {std::tuple{8u, text, "<27>%Invalid database event"}, {64u, "\n", "<30>%"},
                                     {256u, "", "<31>%"}, {64u, longText.c_str(), cut.c_str()}}) {
        {
            mbuswire::LogHolder held;  // as while a request is served: the line follows its reply
            EXPECT_EQ(logRecord(level, said, static_cast<int>(std::strlen(said)) + 1), 0);
        }
        char line[2048] = {};
        ASSERT_GT(::recv(sys, line, sizeof line - 1, MSG_DONTWAIT), 0);
        EXPECT_EQ(std::string(line).erase(4, 15), std::string(want).replace(4, 1, tail));
    }
    // A system log whose name no socket address can hold, or where no socket is, is not to be had.
    for (const std::string &none : {std::string(108, 'l'), tmp.file("none")}) {
        ASSERT_EQ(mbusPortLogTargetSet(MBUS_PORT_LOG_SYSLOG, none.c_str()), 0);
        const long fds = swtest::openDescriptors();
        testing::internal::CaptureStderr();
        EXPECT_EQ(logRecord(8, text, sizeof text), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "[log 8] Invalid database event\n") << none;
        EXPECT_EQ(swtest::openDescriptors(), fds) << "no descriptor of another's closed";
    }
    mbusPortLogTargetSet(MBUS_PORT_LOG_BUS, nullptr);
    ::close(sys);
    EXPECT_EQ(mbusDeInit(), 0);
}

// Signals arriving while a request or a command line is waited for cut no
// wait short: a daemon's children and timers send them all the time.
TEST(BusSocket, SignalsInterruptNoWait) {
    Server child(211);
    struct sigaction act {}, was {};
    act.sa_handler = [](int) {};  // no SA_RESTART: every wait sees EINTR
    ASSERT_EQ(::sigaction(SIGUSR1, &act, &was), 0);
    std::atomic<bool> done{false};
    std::thread storm([&done, waiter = ::pthread_self()] {
        for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(2))) ::pthread_kill(waiter, SIGUSR1);
    });
    EXPECT_EQ(mbusIoctl(nullptr, 211, kSlow, nullptr, 0, nullptr, nullptr, 0, 5000, 0), 1000);
    char out[4];
    EXPECT_EQ(osaCmdExec("sleep 0.1; printf ok; exec >&-; sleep 0.1", out, sizeof out), 0);  // read, then wait
    EXPECT_STREQ(out, "ok");
    done = true;
    storm.join();
    ::sigaction(SIGUSR1, &was, nullptr);
}

// A module that accepts nobody holds a sender no longer than its wait.
TEST(BusSocket, AModuleWithAFullBacklogIsReportedWhenTheWaitRunsOut) {
    std::string err;
    const int lsn = mbuswire::listenSocket(210, err);
    ASSERT_GE(lsn, 0) << err;
    ASSERT_EQ(::listen(lsn, 0), 0);
    const int held = rawConnect(210);  // the one connection the backlog holds
    EXPECT_EQ(mbusIoctl(nullptr, 210, kEcho, nullptr, 0, nullptr, nullptr, 0, 50, 0), MBUS_PORT_ERR_TIMEOUT);
    EXPECT_STREQ(mbusPortLastError(), "module 210 does not accept connections");
    ::close(held), ::close(lsn);
    ::unlink(socketPath(210).c_str());
}

// Where the bus lives is checked before anything is bound there. A refused
// directory leaves no descriptor behind, and neither does a module that goes.
// A directory of ours that others may read and enter is narrowed, not
// refused; one too long for its sockets' paths (108 bytes) is refused.
TEST(BusSocket, UnsafeBusDirectoriesAreRefused) {
    const std::string busDir = mbusPortBusDirGet();
    swtest::TempDir tmp;
    ASSERT_LT(tmp.path().size(), 90u);
    const std::string fits = tmp.path() + "/" + std::string(93 - tmp.path().size(), 'd');  // 94 + "/mod-209.sock"
    ASSERT_EQ(::mkdir(fits.c_str(), 0755), 0);
    tmp.write("file", "");
    ASSERT_EQ(::mkdir(tmp.file("open").c_str(), 0700), 0);
    ASSERT_EQ(::chmod(tmp.file("open").c_str(), 0757), 0);
    ASSERT_EQ(::mkdir(tmp.file("own").c_str(), 0700), 0);
    ASSERT_EQ(::symlink(tmp.file("own").c_str(), tmp.file("link").c_str()), 0);
    const std::string file = tmp.file("file"), open = tmp.file("open"), link = tmp.file("link");
    const struct { std::string dir, error; } rows[] = {
        {"bus", "bus directory must be an absolute path: bus"},
        {file, "bus directory is not a directory: " + file},
        {link, "bus directory is not a directory: " + link},
        {file + "/bus", "cannot create bus directory " + file + "/bus: Not a directory"},
        {open, "bus directory is writable by others: " + open},
        {tmp.file("own"), ""}, {fits, ""}, {tmp.file("new/bus"), ""},
        {fits + "d", "bus directory path too long for a socket: " + fits + "d"},
    };
    const long held = swtest::openDescriptors();
    const mode_t mask = ::umask(0072);  // a created bus directory is 0750 whatever it leaves
    for (const auto &r : rows) {
        mbusPortBusDirSet(r.dir.c_str());
        char path[200];
        EXPECT_EQ(mbusPortSocketPath(209, path, sizeof path), r.dir == fits + "d" ? -1 : 0) << r.dir;
        MbusCtx *c = mbusRegister(209, 2, inProcess, nullptr);
        EXPECT_EQ(std::make_pair(c != nullptr, std::string(mbusPortLastError())),
                  std::make_pair(r.error.empty(), r.error));
        if (c != nullptr) mbusUnRegister(c);
        EXPECT_EQ(swtest::openDescriptors(), held) << r.dir;
    }
    ::umask(mask);
    struct stat st {};
    EXPECT_EQ(::stat(tmp.file("own").c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0700u) << "already private: kept";
    EXPECT_EQ(::stat(fits.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0750u);
    EXPECT_EQ(::stat(tmp.file("new/bus").c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0750u);
    EXPECT_EQ(::stat(tmp.file("new").c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0755u & ~0072u) << "above it";
    EXPECT_EQ(mbusIoctl(nullptr, 209, 1, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_NOMODULE) << "no path";
    mbusPortBusDirSet((file + "/bus").c_str());  // a file where a directory should be
    EXPECT_EQ(mbusIoctl(nullptr, 209, 1, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_IO);
    EXPECT_EQ(mbusPortLastError(), "cannot connect to " + file + "/bus/mod-209.sock: Not a directory");
    mbusPortBusDirSet(busDir.c_str());
}

}  // namespace
