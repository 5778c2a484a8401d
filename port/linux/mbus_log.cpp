// SPDX-License-Identifier: Apache-2.0
// The log path: records for the log service go over one kept connection and
// are sent only when it has room, so a log reader that stalls (a paused
// pager) costs the sender nothing but the records it loses. Those are
// counted and the count is reported once records get through again.
// Records made while a bus request is being served are held until its reply
// has gone, so neither a log reader nor a console stands between a client
// and its answer.
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "mbus_wire.h"

namespace {
// The record's header as the service sends it: module, level, tag.
struct LogHeader {
    uint32_t module;
    uint32_t level;
    char tag[32];
};
static_assert(sizeof(LogHeader) == 40, "log record header layout");

constexpr uint32_t kLevelErr = 8;
constexpr uint32_t kLevelDev = 256;
constexpr size_t kTextMax = 1024;

// A record as given: header bytes and text bytes, sent on the bus as they are.
struct Record {
    int src;
    const void *data;
    size_t dataLen;
    const void *aux;
    size_t auxLen;
    LogHeader h;
    std::string_view text;
};

// A record held back while a request is served. Its bytes are copied into
// the batch's one buffer, which keeps its size from request to request: a
// busy request holds dozens of records, and an allocation for each would
// cost more than sending them.
struct Held {
    int src;
    bool console;  // a text for standard error alone, not a record
    size_t dataAt, dataLen, auxAt, auxLen;
};
struct Batch {
    std::vector<Held> records;
    std::vector<uint8_t> bytes;
    const uint8_t *at(size_t offset) const { return bytes.data() + offset; }
};
// Past this many held records the oldest are sent at once, in order.
constexpr size_t kHeldMax = 256;

struct LogPath {
    int target = MBUS_PORT_LOG_BUS;
    int holding = 0;
    Batch held, spare;  // spare: the last batch sent, kept for its buffers
    std::string console;
    std::string syslogPath = "/dev/log";
    int fd = -1;
    uint64_t dropped = 0;
    uint64_t reported = 0;
};

LogPath &path() {
    static LogPath p;
    return p;
}

// The text of a record, up to its NUL and at most its length.
std::string_view textOf(const void *aux, int auxLen) {
    if (aux == nullptr || auxLen <= 0) return {};
    const char *t = static_cast<const char *>(aux);
    return {t, strnlen(t, static_cast<size_t>(auxLen))};
}

void toStderr(std::string_view text) { std::fprintf(stderr, "%.*s", static_cast<int>(text.size()), text.data()); }

int connectSyslog() {
    sockaddr_un addr;
    if (!mbuswire::fillAddress(path().syslogPath, addr)) return -1;
    int fd = mbuswire::unixSocket(SOCK_DGRAM | SOCK_NONBLOCK);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        ::close(fd);
        fd = -1;
    }
    return fd;
}

// A descriptor, or a negative code when there is no service to take records.
int connectService() {
    std::string err;
    return mbuswire::connectModule(MBUS_MODULE_LOG, 0, err);
}

// Replies to earlier records are of no interest; read them so they never
// fill the connection. A service that has gone fails the send that follows.
void drainReplies(int fd) {
    char scrap[sizeof(MbusMsgHeader)];
    while (::recv(fd, scrap, sizeof scrap, MSG_DONTWAIT | MSG_TRUNC) > 0) {
    }
}

int syslogSeverity(uint32_t level) {
    if (level == kLevelErr) return LOG_ERR;
    if (level >= kLevelDev) return LOG_DEBUG;
    return LOG_INFO;
}

MbusMsgHeader recordHeader(int src, size_t dataLen, size_t auxLen) {
    MbusMsgHeader m = mbuswire::header(src, MBUS_MODULE_LOG, MBUS_LOG_CMD, dataLen, auxLen);
    m.isRequest = mbuswire::kRequestNoReply;
    return m;
}

// One try at sending a record on the kept descriptor; errno tells why not.
bool sendOnce(int fd, const Record &r) {
    if (path().target == MBUS_PORT_LOG_SYSLOG) {
        char stamp[32] = "";
        time_t now = ::time(nullptr);
        tm local{};
        if (::localtime_r(&now, &local) != nullptr) std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
        std::string_view text = r.text;
        if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
        char line[kTextMax + 128];
        std::snprintf(line, sizeof line, "<%d>%s %s[%d]: %.*s", LOG_DAEMON | syslogSeverity(r.h.level), stamp,
                      program_invocation_short_name, static_cast<int>(::getpid()),
                      static_cast<int>(std::min(text.size(), kTextMax)), text.data());
        // The text holds no NUL, so the terminator ends what was written, cut
        // or not; a datagram goes whole or not at all.
        const size_t len = std::strlen(line);
        return ::send(fd, line, len, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(len);
    }
    drainReplies(fd);
    return mbuswire::sendMessage(fd, recordHeader(r.src, r.dataLen, r.auxLen), r.data, r.aux);
}

// Sends over the kept descriptor, opening it (again) once when there is
// none or the reader went away. 1: sent; 0: reader behind; -1: no reader.
int deliver(const Record &r) {
    LogPath &p = path();
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (p.fd < 0) p.fd = p.target == MBUS_PORT_LOG_SYSLOG ? connectSyslog() : connectService();
        if (p.fd < 0) return -1;
        if (sendOnce(p.fd, r)) return 1;
        if (errno == EAGAIN || errno == ENOBUFS) return 0;
        ::close(p.fd);
        p.fd = -1;
    }
    return -1;
}
}  // namespace

namespace mbuswire {

namespace {
void logNow(int src, const void *data, int dataLen, const void *aux, int auxLen) {
    Record r{src, data, data != nullptr ? static_cast<size_t>(std::max(dataLen, 0)) : 0, aux,
             aux != nullptr ? static_cast<size_t>(std::max(auxLen, 0)) : 0, {}, textOf(aux, auxLen)};
    std::copy_n(static_cast<const char *>(data), std::min(r.dataLen, sizeof r.h), reinterpret_cast<char *>(&r.h));
    LogPath &p = path();
    if (p.dropped > p.reported) {
        char note[96];
        int len = std::snprintf(note, sizeof note, "%" PRIu64 " log records dropped while the log reader was behind\n",
                                p.dropped - p.reported);
        LogHeader h{r.h.module, kLevelErr, "mbus"};
        Record n{src, &h, sizeof h, note, static_cast<size_t>(len) + 1, h, note};
        int sent = deliver(n);
        if (sent == 0) {
            ++p.dropped;
            return;
        }
        if (sent == 1) p.reported = p.dropped;
    }
    int sent = deliver(r);
    if (sent == 0) ++p.dropped;
    if (sent < 0) {
        std::fprintf(stderr, "[log %u] ", r.h.level);
        toStderr(r.text);
    }
}

// Held records for the log service in a row, from out[i] on, sent in one
// call while the kept connection takes them; how many went. None when
// there is no connection yet, a loss is still to be told or the reader is
// behind: the record-by-record path sees to those. Records want no reply,
// so there is none to read first.
size_t sendRun(const Batch &out, size_t i) {
    LogPath &p = path();
    if (p.target != MBUS_PORT_LOG_BUS || p.dropped > p.reported) return 0;
    constexpr size_t kRun = 64;
    MbusMsgHeader heads[kRun];
    iovec iov[kRun][3];
    mmsghdr msgs[kRun] = {};
    size_t n = 0;
    for (; n < kRun && i + n < out.records.size() && !out.records[i + n].console; ++n) {
        const Held &h = out.records[i + n];
        heads[n] = recordHeader(h.src, h.dataLen, h.auxLen);
        iov[n][0] = {&heads[n], sizeof heads[n]};
        iov[n][1] = {const_cast<uint8_t *>(out.at(h.dataAt)), h.dataLen};
        iov[n][2] = {const_cast<uint8_t *>(out.at(h.auxAt)), h.auxLen};
        msgs[n].msg_hdr.msg_iov = iov[n];
        msgs[n].msg_hdr.msg_iovlen = 3;
    }
    const int sent = ::sendmmsg(p.fd, msgs, static_cast<unsigned>(n), MSG_DONTWAIT | MSG_NOSIGNAL);
    return static_cast<size_t>(std::max(sent, 0));
}

// Sends what was held, oldest first: a busy request makes dozens of
// records, so texts for standard error in a row go in one write and
// records for the log service in as few calls as the connection allows.
void logRelease() {
    LogPath &p = path();
    // Taken out first: what is held while these go out waits for the next release.
    Batch out = std::move(p.held);
    p.held = std::move(p.spare);
    std::string &console = p.console;  // kept, with its size, from release to release
    auto flush = [&console] {
        std::fwrite(console.data(), 1, console.size(), stderr);
        console.clear();
    };
    for (size_t i = 0; i < out.records.size();) {
        const Held &h = out.records[i];
        if (h.console || p.target == MBUS_PORT_LOG_STDERR) {
            console += textOf(out.at(h.auxAt), static_cast<int>(h.auxLen));
            ++i;
            continue;
        }
        flush();
        if (size_t n = sendRun(out, i)) {
            i += n;
            continue;
        }
        logNow(h.src, out.at(h.dataAt), static_cast<int>(h.dataLen), out.at(h.auxAt), static_cast<int>(h.auxLen));
        ++i;
    }
    flush();
    out.records.clear();
    out.bytes.clear();
    p.spare = std::move(out);
}

// Holds one more, making room first.
void hold(int src, bool console, const void *data, int dataLen, const void *aux, int auxLen) {
    LogPath &p = path();
    if (p.held.records.size() >= kHeldMax) logRelease();
    auto append = [&p](const void *bytes, int len) {
        const size_t at = p.held.bytes.size(), n = bytes != nullptr ? static_cast<size_t>(std::max(len, 0)) : 0;
        const auto *b = static_cast<const uint8_t *>(bytes);
        p.held.bytes.insert(p.held.bytes.end(), b, b + n);
        return std::pair{at, n};
    };
    const auto [dataAt, dLen] = append(data, dataLen);
    const auto [auxAt, aLen] = append(aux, auxLen);
    p.held.records.push_back({src, console, dataAt, dLen, auxAt, aLen});
}
}  // namespace

void logRecord(int src, const void *data, int dataLen, const void *aux, int auxLen) {
    LogPath &p = path();
    if (p.holding == 0) {
        if (p.target == MBUS_PORT_LOG_STDERR)
            toStderr(textOf(aux, auxLen));  // the text alone, as a console shows it
        else
            logNow(src, data, dataLen, aux, auxLen);
        return;
    }
    hold(src, false, data, dataLen, aux, auxLen);
}

bool holdConsole(std::string_view text) {
    if (path().holding == 0) return false;
    hold(0, true, nullptr, 0, text.data(), static_cast<int>(text.size()));
    return true;
}

void logHold() { ++path().holding; }

void logUnhold() {
    LogPath &p = path();
    if (p.holding > 0 && --p.holding == 0) logRelease();
}

void diag(const char *tag, const char *format, ...) {
    char text[kTextMax];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    // Said on behalf of the service when it is the one here.
    LogHeader h{localModule(MBUS_MODULE_SWMGR) != nullptr ? MBUS_MODULE_SWMGR : 0u, kLevelErr, {}};
    std::snprintf(h.tag, sizeof h.tag, "%s", tag);
    int len = static_cast<int>(std::strlen(text)) + 1;
    mbusIoctl(nullptr, MBUS_MODULE_LOG, MBUS_LOG_CMD, &h, sizeof h, text, &len, MBUS_FLAG_NOREPLY, 0, 0);
}

// Records held for a reply stay held: the hold ends with the request,
// and they go to whatever target is set then.
void logClose() {
    if (path().fd >= 0) ::close(path().fd);
    path().fd = -1;
}

}  // namespace mbuswire

extern "C" int mbusPortLogTargetSet(int target, const char *syslogPath) {
    if (target != MBUS_PORT_LOG_BUS && target != MBUS_PORT_LOG_STDERR && target != MBUS_PORT_LOG_SYSLOG) return -1;
    mbuswire::logClose();
    path().target = target;
    path().syslogPath = syslogPath != nullptr ? syslogPath : "/dev/log";
    return 0;
}

extern "C" uint64_t mbusPortLogDropped(void) { return path().dropped; }
