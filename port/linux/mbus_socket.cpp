// SPDX-License-Identifier: Apache-2.0
// Unix sockets of the host bus. One SOCK_SEQPACKET socket per module keeps
// each message whole, so a request or reply is one send and one receive
// and its size is known on arrival. Every bus socket is non-blocking:
// no call on one sleeps, so no signal interrupts one; only poll waits.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "mbus_wire.h"

namespace mbuswire {
namespace {

std::mutex dirLock;
std::string dirOverride;
bool dirOverridden = false;

constexpr mode_t kDirMode = 0750;
constexpr mode_t kSocketMode = 0660;

std::string errnoText(const char *what, const std::string &path) {
    return std::string(what) + " " + path + ": " + std::strerror(errno);
}

// Makes the parents as needed, the directory itself private to its owner
// (and group), and refuses one that others may write to.
bool ensureDir(const std::string &dir, std::string &err) {
    if (dir.empty() || dir[0] != '/') {
        err = "bus directory must be an absolute path: " + dir;
        return false;
    }
    bool created = false;
    for (size_t i = 1; i <= dir.size(); ++i) {
        if (i != dir.size() && dir[i] != '/') continue;
        std::string part = dir.substr(0, i);
        if (::mkdir(part.c_str(), i == dir.size() ? kDirMode : 0755) == 0) {
            created = i == dir.size();
        } else if (errno != EEXIST) {
            err = errnoText("cannot create bus directory", part);
            return false;
        }
    }
    // The umask may have taken the group's access away.
    if (created) ::chmod(dir.c_str(), kDirMode);
    // Made or found just above, it can only fail to be a directory.
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        err = "bus directory is not a directory: " + dir;
        return false;
    }
    if ((st.st_mode & 0022) != 0) {
        err = "bus directory is writable by others: " + dir;
        return false;
    }
    if (st.st_uid == ::geteuid() && (st.st_mode & 07777) != 0700 && (st.st_mode & 07777) != kDirMode &&
        ::chmod(dir.c_str(), kDirMode) != 0) {
        err = errnoText("cannot restrict bus directory", dir);
        return false;
    }
    return true;
}

int deadlineLeftMs(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                      std::chrono::steady_clock::now());
    return static_cast<int>(std::max(left, std::chrono::milliseconds::zero()).count());
}

}  // namespace

int unixSocket(int type) { return ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0); }

bool fillAddress(const std::string &path, sockaddr_un &addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.data(), path.size());
    return true;
}

std::string busDir() {
    {
        std::lock_guard<std::mutex> g(dirLock);
        if (dirOverridden) return dirOverride;
    }
    const char *env = std::getenv(MBUS_PORT_DIR_ENV);
    return env != nullptr && *env != '\0' ? std::string(env) : std::string(MBUS_PORT_DEFAULT_DIR);
}

void busDirSet(const char *dir) {
    std::lock_guard<std::mutex> g(dirLock);
    dirOverridden = dir != nullptr;
    dirOverride = dir != nullptr ? dir : "";
}

std::string socketPath(int module) {
    std::string path = busDir() + "/mod-" + std::to_string(module) + ".sock";
    return path.size() < sizeof(sockaddr_un::sun_path) ? path : std::string();
}

int listenSocket(int module, std::string &err) {
    std::string path = socketPath(module);
    sockaddr_un addr;
    if (!fillAddress(path, addr)) {
        err = "bus directory path too long for a socket: " + busDir();
        return -1;
    }
    if (!ensureDir(busDir(), err)) return -1;
    int fd = unixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    if (fd < 0) {
        err = errnoText("cannot create socket for", path);
        return -1;
    }
    const auto *sa = reinterpret_cast<const sockaddr *>(&addr);
    if (::bind(fd, sa, sizeof addr) != 0) {
        if (errno != EADDRINUSE) {
            err = errnoText("cannot bind", path);
            ::close(fd);
            return -1;
        }
        // Someone left the name behind: take it over only if nobody answers.
        // Without a probe socket the connect fails too: the name is taken over.
        int probe = unixSocket(SOCK_SEQPACKET);
        const bool live = ::connect(probe, sa, sizeof addr) == 0;
        ::close(probe);
        if (live) {
            err = "module " + std::to_string(module) + " is already on the bus at " + path;
            ::close(fd);
            return -1;
        }
        ::unlink(path.c_str());
        if (::bind(fd, sa, sizeof addr) != 0) {
            err = errnoText("cannot bind", path);
            ::close(fd);
            return -1;
        }
    }
    if (::chmod(path.c_str(), kSocketMode) != 0 || ::listen(fd, 64) != 0) {
        err = errnoText("cannot listen on", path);
        ::unlink(path.c_str());
        ::close(fd);
        return -1;
    }
    return fd;
}

int connectModule(int module, int timeoutMs, std::string &err) {
    std::string path = socketPath(module);
    sockaddr_un addr;
    if (!fillAddress(path, addr)) {
        err = "bus directory path too long for a socket: " + busDir();
        return MBUS_PORT_ERR_NOMODULE;
    }
    int fd = unixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    if (fd < 0) {
        err = errnoText("cannot create socket for", path);
        return MBUS_PORT_ERR_IO;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0) return fd;
        int e = errno;
        if (e == EAGAIN && deadlineLeftMs(deadline) > 0) {
            // The listener's backlog is full; it drains as it serves.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        ::close(fd);
        errno = e;
        if (e == ENOENT || e == ECONNREFUSED) {
            err = "no module " + std::to_string(module) + " on the bus at " + busDir();
            return MBUS_PORT_ERR_NOMODULE;
        }
        if (e == EACCES || e == EPERM) {
            err = errnoText("not allowed to reach", path);
            return MBUS_PORT_ERR_REFUSED;
        }
        if (e == EAGAIN) {
            err = "module " + std::to_string(module) + " does not accept connections";
            return MBUS_PORT_ERR_TIMEOUT;
        }
        err = errnoText("cannot connect to", path);
        return MBUS_PORT_ERR_IO;
    }
}

bool sendMessage(int fd, const MbusMsgHeader &h, const void *data, const void *aux, int timeoutMs) {
    iovec iov[3] = {{const_cast<MbusMsgHeader *>(&h), sizeof h},
                    {const_cast<void *>(data), h.dataLen},
                    {const_cast<void *>(aux), h.auxLen}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = 3;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        // A packet goes whole or not at all.
        if (::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(sizeof h + h.dataLen + h.auxLen))
            return true;
        int left = deadlineLeftMs(deadline);
        if (errno != EAGAIN || left <= 0) return false;
        pollfd p{fd, POLLOUT, {}};
        ::poll(&p, 1, left);
    }
}

ssize_t receiveMessage(int fd, Bytes &buf) {
    buf.resize(MBUS_PORT_MSG_MAX + 1);
    return ::recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
}

const char *checkMessage(const Bytes &buf, ssize_t n, bool reply) {
    if (n > MBUS_PORT_MSG_MAX) return "longer than the bus allows";
    if (n < static_cast<ssize_t>(sizeof(MbusMsgHeader))) return "shorter than its header";
    MbusMsgHeader h;
    std::memcpy(&h, buf.data(), sizeof h);
    if (h.magic != MBUS_MSG_MAGIC) return "bad magic";
    uint64_t declared = uint64_t{sizeof h} + h.dataLen + h.auxLen;
    if (declared != static_cast<uint64_t>(n)) return "declared lengths differ from the bytes received";
    if (reply && (h.isRequest != 0 || h.dataLen != 0)) return "not a reply";
    return nullptr;
}

bool peerAllowed(int fd) {
    ucred cred{};
    socklen_t len = sizeof cred;
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && (cred.uid == 0 || cred.uid == ::geteuid());
}

bool waitReadable(int fd, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        pollfd p{fd, POLLIN, {}};
        int r = ::poll(&p, 1, deadlineLeftMs(deadline));
        if (r > 0) return true;
        if (r == 0 || errno != EINTR) return false;
    }
}

MbusMsgHeader header(int src, int dst, int cmd, size_t dataLen, size_t auxLen) {
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

}  // namespace mbuswire
