/* SPDX-License-Identifier: Apache-2.0 */
// Readiness for a service manager: the datagram notify protocol, spoken
// directly so the daemon needs no extra library. $NOTIFY_SOCKET names the
// manager's socket, a path or, with a leading '@', an abstract name.
#ifndef SWMGR_TOOLS_SERVICE_NOTIFY_H
#define SWMGR_TOOLS_SERVICE_NOTIFY_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace swtool {

// Sends `state` (e.g. "READY=1"). Never blocks: a manager that is not
// reading loses the message rather than holding the service. Returns 1
// when sent, 0 when no manager asked for it, -1 when it could not be sent.
inline int notifyServiceManager(const char *state) {
    const char *name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || name[0] == '\0') return 0;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const size_t nameLen = std::strlen(name);
    if ((name[0] != '/' && name[0] != '@') || nameLen >= sizeof addr.sun_path) return -1;
    std::memcpy(addr.sun_path, name, nameLen);
    if (name[0] == '@') addr.sun_path[0] = '\0';
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const size_t len = std::strlen(state);
    const ssize_t sent = ::sendto(fd, state, len, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&addr),
                                  static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nameLen));
    ::close(fd);
    return sent == static_cast<ssize_t>(len) ? 1 : -1;
}

}  // namespace swtool

#endif
