// The bus between processes: a module served by a forked child, reached
// through its socket, and what the listener refuses.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "swmgr_test.h"

namespace {

using Clock = std::chrono::steady_clock;

enum { kEcho = 7, kSlow = 8, kCount = 9, kLogLast = 10 };

// State of the module served in the child (its own copy after fork).
int seenCount = 0;
std::string lastLog;

int childModule(MbusCtx *, const MbusMsgHeader *h, int cmd, void *data, int dataLen, void *aux, int *auxLen) {
    ++seenCount;
    const int cap = auxLen != nullptr ? *auxLen : 0;
    switch (cmd) {
        case kEcho: {
            int n = std::snprintf(static_cast<char *>(aux), static_cast<size_t>(cap), "src=%u req=%u data=%.*s",
                                  h->srcModule, h->isRequest, dataLen, static_cast<const char *>(data));
            *auxLen = std::min(n + 1, cap);
            return 1000 + dataLen;
        }
        case kSlow:
            std::this_thread::sleep_for(std::chrono::milliseconds(400));
            return 5;
        case kCount: return seenCount - 1;
        case MBUS_LOG_CMD:
            lastLog.assign(static_cast<const char *>(aux), strnlen(static_cast<const char *>(aux), cap));
            return 0;
        case kLogLast:
            std::snprintf(static_cast<char *>(aux), static_cast<size_t>(cap), "%s", lastLog.c_str());
            return 0;
        default: return -95;
    }
}

// A forked process running `body`; killed and reaped when it goes.
class Child {
public:
    explicit Child(const std::function<void(int readyFd)> &body) {
        int p[2];
        if (::pipe(p) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(p[0]);
            body(p[1]);
            ::_exit(0);
        }
        ::close(p[1]);
        char c = 0;
        ready_ = ::read(p[0], &c, 1) == 1 && c == 'R';
        ::close(p[0]);
    }
    ~Child() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    bool ready() const { return pid_ > 0 && ready_; }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// Registers `module` in the child and serves it for good.
std::function<void(int)> serving(int module) {
    return [module](int readyFd) {
        MbusCtx *ctx = mbusRegister(module, 2, childModule, nullptr);
        char c = ctx != nullptr ? 'R' : 'F';
        if (::write(readyFd, &c, 1) != 1 || ctx == nullptr) ::_exit(1);
        for (;;) mbusListen(ctx, 100000);
    };
}

std::string socketPath(int module) {
    char buf[128];
    return mbusPortSocketPath(module, buf, sizeof buf) == 0 ? buf : "";
}

// Sends raw bytes to a module's socket and returns the result word of the
// reply, or 1 when none came.
int sendRaw(int module, const std::vector<uint8_t> &bytes) {
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socketPath(module).c_str());
    int result = 1;
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
        MbusMsgHeader r{};
        timeval tv{2, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        if (::recv(fd, &r, sizeof r, 0) == static_cast<ssize_t>(sizeof r) && r.magic == MBUS_MSG_MAGIC &&
            r.isRequest == 0)
            result = r.result;
    }
    ::close(fd);
    return result;
}

std::vector<uint8_t> rawRequest(uint32_t magic, int dst, uint32_t dataLen, size_t bodyBytes) {
    MbusMsgHeader h{MBUS_MSG_MAGIC, 0, static_cast<uint32_t>(dst), kEcho, 1, dataLen, 0, 0};
    h.magic = magic;
    std::vector<uint8_t> out(sizeof h + bodyBytes, 'x');
    std::memcpy(out.data(), &h, sizeof h);
    return out;
}

int echo(MbusCtx *from, int module, const std::string &text, std::string &reply, int timeoutMs = 2000) {
    char aux[128] = {};
    int auxLen = sizeof aux;
    int r = mbusIoctl(from, module, kEcho, const_cast<char *>(text.data()), static_cast<int>(text.size()), aux,
                      &auxLen, 0, timeoutMs, 0);
    reply.assign(aux, strnlen(aux, sizeof aux));
    return r;
}

int count(int module) {
    return mbusIoctl(nullptr, module, kCount, nullptr, 0, nullptr, nullptr, 0, 2000, 0);
}

int inProcess(MbusCtx *, const MbusMsgHeader *h, int cmd, void *, int, void *, int *) {
    return static_cast<int>(h->srcModule) * 100 + cmd;
}

TEST(BusSocket, RequestsCrossToAnotherProcessWithReplyAndAux) {
    Child child(serving(201));
    ASSERT_TRUE(child.ready());
    MbusCtx *self = mbusRegister(202, 2, inProcess, nullptr);
    ASSERT_NE(self, nullptr);

    std::string reply;
    EXPECT_EQ(echo(self, 201, "ping", reply), 1004);
    EXPECT_EQ(reply, "src=202 req=1 data=ping");
    EXPECT_STREQ(mbusPortLastError(), "");

    // Without a reply wanted the call returns at once; the child still
    // receives the request.
    EXPECT_EQ(mbusIoctl(self, 201, kEcho, const_cast<char *>("x"), 1, nullptr, nullptr, MBUS_FLAG_NOREPLY, 0, 0), 0);
    EXPECT_EQ(count(201), 2);

    // A request to this process's own module never touches a socket.
    EXPECT_EQ(mbusIoctl(self, 202, 3, nullptr, 0, nullptr, nullptr, 0, 0, 0), 202 * 100 + 3);
    EXPECT_EQ(mbusUnRegister(self), 0);
}

TEST(BusSocket, BurstWithoutRepliesArrivesWhole) {
    // More senders than the listener holds at once, as a busy daemon's
    // log records are: none is lost, they wait their turn.
    Child child(serving(212));
    ASSERT_TRUE(child.ready());
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(mbusIoctl(nullptr, 212, kEcho, const_cast<char *>("x"), 1, nullptr, nullptr, MBUS_FLAG_NOREPLY, 0, 0),
                  0);
    EXPECT_EQ(count(212), 300);
}

TEST(BusSocket, AbsentModuleFailsFastAndSlowOneTimesOut) {
    auto t0 = Clock::now();
    EXPECT_EQ(mbusIoctl(nullptr, 209, kEcho, nullptr, 0, nullptr, nullptr, 0, 0, 0), MBUS_PORT_ERR_NOMODULE);
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(200));
    EXPECT_EQ(std::string(mbusPortLastError()), std::string("no module 209 on the bus at ") + mbusPortBusDirGet());

    Child child(serving(203));
    ASSERT_TRUE(child.ready());
    t0 = Clock::now();
    EXPECT_EQ(mbusIoctl(nullptr, 203, kSlow, nullptr, 0, nullptr, nullptr, 0, 100, 0), MBUS_PORT_ERR_TIMEOUT);
    auto waited = Clock::now() - t0;
    EXPECT_GE(waited, std::chrono::milliseconds(90));
    EXPECT_LT(waited, std::chrono::milliseconds(390));
    std::string reply;
    EXPECT_EQ(echo(nullptr, 203, "again", reply), 1005) << "the module serves on after the late request";
}

TEST(BusSocket, MalformedMessagesAreRefusedAndTheListenerServesOn) {
    Child child(serving(204));
    ASSERT_TRUE(child.ready());
    EXPECT_EQ(sendRaw(204, std::vector<uint8_t>(10, 0)), MBUS_PORT_ERR_BADMSG) << "shorter than a header";
    EXPECT_EQ(sendRaw(204, rawRequest(0x12345678, 204, 4, 4)), MBUS_PORT_ERR_BADMSG) << "bad magic";
    EXPECT_EQ(sendRaw(204, rawRequest(MBUS_MSG_MAGIC, 204, 100, 4)), MBUS_PORT_ERR_BADMSG) << "data cut short";
    EXPECT_EQ(sendRaw(204, rawRequest(MBUS_MSG_MAGIC, 204, 4, 8)), MBUS_PORT_ERR_BADMSG) << "trailing bytes";
    EXPECT_EQ(sendRaw(204, rawRequest(MBUS_MSG_MAGIC, 205, 4, 4)), MBUS_PORT_ERR_BADMSG) << "other module";
    EXPECT_EQ(sendRaw(204, rawRequest(MBUS_MSG_MAGIC, 204, 70000, 70000)), MBUS_PORT_ERR_BADMSG) << "too long";
    EXPECT_EQ(sendRaw(204, rawRequest(MBUS_MSG_MAGIC, 204, 4, 4)), 1004) << "a good one is served";
    EXPECT_EQ(count(204), 1) << "only the good message reached the module";

    std::vector<char> big(MBUS_PORT_MSG_MAX, 'b');
    EXPECT_EQ(mbusIoctl(nullptr, 204, kEcho, big.data(), static_cast<int>(big.size()), nullptr, nullptr, 0, 0, 0),
              MBUS_PORT_ERR_TOOBIG);
}

TEST(BusSocket, PeersOfAnotherUserAreRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a peer as another user";
    Child child(serving(206));
    ASSERT_TRUE(child.ready());
    // The directory is 0750 and the socket 0660: a peer in the owner's
    // group reaches the socket, and its user is what gets it refused.
    const std::string dir = mbusPortBusDirGet();
    struct stat st {};
    ASSERT_EQ(::stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    ASSERT_EQ(::stat(socketPath(206).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);

    // The test's own temporary directory above the bus must be passable.
    const std::string parent = dir.substr(0, dir.rfind('/'));
    struct stat pst {};
    ASSERT_EQ(::stat(parent.c_str(), &pst), 0);
    ASSERT_EQ(::chmod(parent.c_str(), 0711), 0);

    pid_t pid = ::fork();
    if (pid == 0) {
        if (::setgid(st.st_gid) != 0 || ::setuid(65534) != 0) ::_exit(2);
        int r = mbusIoctl(nullptr, 206, kEcho, nullptr, 0, nullptr, nullptr, 0, 2000, 0);
        ::_exit(r == MBUS_PORT_ERR_REFUSED ? 0 : 3);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ::chmod(parent.c_str(), pst.st_mode & 07777);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(count(206), 0) << "the refused request never reached the module";
}

TEST(BusSocket, LogRecordsGoToTheLogServiceOrToStandardError) {
    SwLogRecordHeader hdr{103, 64, {}};
    char text[] = "Received interface event=22 on eth1\n";
    auto sendLog = [&] {
        int len = sizeof text;
        return mbusIoctl(nullptr, MBUS_MODULE_LOG, MBUS_LOG_CMD, &hdr, SW_LOG_HEADER_LEN, text, &len,
                         MBUS_FLAG_NOREPLY, 0, 0);
    };

    // Nobody serves the log: the record is written to standard error.
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(p[1], 2);
        ::_exit(sendLog() == 0 ? 0 : 1);
    }
    ::close(p[1]);
    char buf[256] = {};
    ssize_t n = ::read(p[0], buf, sizeof buf - 1);
    ::close(p[0]);
    int status = -1;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "[log 64] Received interface event=22 on eth1\n");

    Child logger(serving(MBUS_MODULE_LOG));
    ASSERT_TRUE(logger.ready());
    EXPECT_EQ(sendLog(), 0);
    char last[128] = {};
    int lastLen = sizeof last;
    for (int i = 0; i < 50 && last[0] == '\0'; ++i) {
        lastLen = sizeof last;
        mbusIoctl(nullptr, MBUS_MODULE_LOG, kLogLast, nullptr, 0, last, &lastLen, 0, 2000, 0);
    }
    EXPECT_STREQ(last, text);
}

TEST(BusSocket, RegistrationOwnsItsSocketAndUnregisteringWakesTheListener) {
    Child child(serving(207));
    ASSERT_TRUE(child.ready());
    EXPECT_EQ(mbusRegister(207, 2, inProcess, nullptr), nullptr);
    EXPECT_EQ(std::string(mbusPortLastError()), "module 207 is already on the bus at " + socketPath(207));

    // A socket left by a process that died is taken over.
    ::kill(child.pid(), SIGKILL);
    ::waitpid(child.pid(), nullptr, 0);
    ASSERT_EQ(::access(socketPath(207).c_str(), F_OK), 0);
    MbusCtx *ctx = mbusRegister(207, 2, inProcess, nullptr);
    ASSERT_NE(ctx, nullptr) << mbusPortLastError();

    std::thread stopper([ctx] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        mbusUnRegister(ctx);
    });
    auto t0 = Clock::now();
    EXPECT_EQ(mbusListen(ctx, 5000000), 0);
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(1000));
    stopper.join();
    EXPECT_NE(::access(socketPath(207).c_str(), F_OK), 0) << "the socket goes with the module";
    EXPECT_EQ(mbusListen(ctx, 1000), -1);
}

TEST(BusSocket, CompanionModuleIsServedByItsHostsListener) {
    // The client is forked first, so it has no modules of its own, and
    // sends once both modules are up.
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    pid_t pid = ::fork();
    if (pid == 0) {
        char c;
        if (::read(go[0], &c, 1) != 1) ::_exit(2);
        std::string reply;
        int r = echo(nullptr, 210, "state", reply);
        ::_exit(r == 1005 && reply == "src=0 req=1 data=state" ? 0 : 1);
    }
    MbusCtx *host = mbusRegister(208, 2, inProcess, nullptr);
    MbusCtx *along = mbusRegister(210, 2, childModule, nullptr);
    ASSERT_NE(host, nullptr);
    ASSERT_NE(along, nullptr);
    ASSERT_EQ(mbusPortListenAlong(along, host), 0);
    EXPECT_EQ(mbusPortCallbackGet(), &inProcess) << "the first module stays the one posts go to";
    ASSERT_EQ(::write(go[1], "g", 1), 1);
    int ran = 0;
    for (int i = 0; i < 50 && ran == 0; ++i) ran = mbusListen(host, 100000);
    EXPECT_EQ(ran, 1);
    int status = -1;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(mbusUnRegister(along), 0);
    EXPECT_EQ(mbusUnRegister(host), 0);
}

TEST(BusSocket, UnsafeDirectoryIsRefused) {
    swtest::TempDir dir;
    const std::string saved = mbusPortBusDirGet();
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    mbusPortBusDirSet(dir.path().c_str());
    EXPECT_EQ(mbusRegister(211, 2, inProcess, nullptr), nullptr);
    EXPECT_EQ(std::string(mbusPortLastError()), "bus directory is writable by others: " + dir.path());
    mbusPortBusDirSet(saved.c_str());
}

}  // namespace
