/* SPDX-License-Identifier: Apache-2.0 */
// Internals of the host bus shared by its files: where modules listen, how
// a message travels and how a received one is checked (mbus_socket.cpp),
// the registered contexts (mbus_core.cpp) and the log path (mbus_log.cpp).
#ifndef SWMGR_PORT_LINUX_MBUS_WIRE_H
#define SWMGR_PORT_LINUX_MBUS_WIRE_H

#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "osa_port.h"

namespace mbuswire {

using Bytes = std::vector<uint8_t>;

// Directory of the sockets: an explicit setting, else the environment,
// else the default.
std::string busDir();
void busDirSet(const char *dir);
// "<dir>/mod-<module>.sock"; empty when it does not fit a socket address.
std::string socketPath(int module);
// The address of a socket at `path`; false when the path is empty or does not fit.
bool fillAddress(const std::string &path, sockaddr_un &addr);
// A local socket of `type` that no spawned command inherits.
int unixSocket(int type);

// Creates (or checks) the directory and binds a listening socket for the
// module; a stale socket left by a dead process is replaced, a live one is
// not. Returns the descriptor, or -1 with the reason in `err`.
int listenSocket(int module, std::string &err);

// Connects to the module's socket within `timeoutMs` (0: only if its
// backlog has room now). Returns the descriptor, or a MBUS_PORT_ERR_* code
// with the reason in `err`.
int connectModule(int module, int timeoutMs, std::string &err);

// One whole message: the header, then as many bytes of data and aux as it
// declares, waiting at most `timeoutMs` for room (0: not at all). False
// when it could not be sent, errno telling why.
bool sendMessage(int fd, const MbusMsgHeader &h, const void *data, const void *aux, int timeoutMs = 0);

// Reads one message into `buf` (at most MBUS_PORT_MSG_MAX + 1 bytes, so
// an over-long one shows as such). Returns its length, 0 when the peer
// closed, -1 on error or when nothing was there.
ssize_t receiveMessage(int fd, Bytes &buf);

// Checks a received message against its header: magic, the declared
// lengths against the bytes received, the upper bound, and for a reply
// its shape (no request flag, no data). Returns nullptr when good, else
// why not.
const char *checkMessage(const Bytes &buf, ssize_t n, bool reply);

// Whether the peer of a connected socket runs as root or as our own user.
bool peerAllowed(int fd);

// Waits until fd is readable or `timeoutMs` passes; every wait is bounded.
bool waitReadable(int fd, int timeoutMs);

// A request's header; a reply is one with the flag cleared, no data and its result.
MbusMsgHeader header(int src, int dst, int cmd, size_t dataLen, size_t auxLen);
// The request flag of a request whose sender reads no reply (log records
// among them): its receiver sends none, which spares both sides a message.
constexpr uint32_t kRequestNoReply = 2;

// Closes the connection mbusIoctl keeps for this thread's next request (mbus_client.cpp).
void keptClose();

// --- Contexts (mbus_core.cpp) ---
// Whether ctx is a registered context. Never dereferences one that is not:
// unregistered contexts are kept, dead, for the life of the process.
bool live(const MbusCtx *ctx);
int moduleOf(const MbusCtx *ctx);
// The live context of `module` in this process, or nullptr.
MbusCtx *localModule(int module);
// Hands a request straight to a context's callback.
int callLocal(MbusCtx *to, const MbusCtx *from, int cmd, void *data, int dataLen, void *aux, int *auxLen);
void setError(std::string why);

// --- Log path (mbus_log.cpp) ---
// Delivers one log record without waiting (see osa_port.h).
void logRecord(int src, const void *data, int dataLen, const void *aux, int auxLen);
// A diagnostic of the port itself, sent as a log record with `tag`.
void diag(const char *tag, const char *format, ...) __attribute__((format(printf, 2, 3)));
void logClose();
// A text for standard error, held with the records while they are held, so
// that a console does not stand between a client and its answer either.
// False when nothing is held: the caller writes it now.
bool holdConsole(std::string_view text);
// Between these, records wait and go out in order at the last logUnhold
// (or when too many wait). Nests.
void logHold();
void logUnhold();
// Holds records for as long as it lives.
struct LogHolder {
    LogHolder() { logHold(); }
    ~LogHolder() { logUnhold(); }
    LogHolder(const LogHolder &) = delete;
    LogHolder &operator=(const LogHolder &) = delete;
};

}  // namespace mbuswire

#endif
