// SPDX-License-Identifier: Apache-2.0
// log: be the bus's log service and print the records the daemon sends.
#include <signal.h>

#include <cstdio>
#include <cstring>

#include "ctl.h"
#include "osa_port.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace swctl {
namespace {

volatile sig_atomic_t stopLog = 0;
int logLeft = -1;

const char *levelName(uint32_t level) {
    switch (level) {
        case SW_LOG_ERR: return "error";
        case SW_LOG_INFO: return "info";
        case SW_LOG_RESULT: return "result";
        case SW_LOG_DEV: return "debug";
        default: return nullptr;
    }
}

int onLogRecord(MbusCtx *, const MbusMsgHeader *, int cmd, void *data, int dataLen, void *aux, int *auxLen) {
    if (cmd != MBUS_LOG_CMD || data == nullptr || dataLen < SW_LOG_HEADER_LEN) return -22;
    SwLogRecordHeader h;
    std::memcpy(&h, data, sizeof h);
    std::string text;
    if (aux != nullptr && auxLen != nullptr && *auxLen > 0)
        text.assign(static_cast<const char *>(aux), strnlen(static_cast<const char *>(aux), static_cast<size_t>(*auxLen)));
    if (text.empty() || text.back() != '\n') text += '\n';
    std::string who = h.module == MBUS_MODULE_SWMGR ? "swmgr" : "module " + std::to_string(h.module);
    h.tag[sizeof h.tag - 1] = '\0';
    if (h.tag[0] != '\0') who += std::string("/") + h.tag;
    const char *name = levelName(h.level);
    if (opt.json) {
        std::string line = text.substr(0, text.size() - 1);
        std::printf("%s\n", json{{"module", h.module}, {"tag", h.tag}, {"level", h.level}, {"text", line}}
                                .dump(-1, ' ', false, json::error_handler_t::replace)
                                .c_str());
    } else if (name == nullptr) {
        std::printf("%s level %u: %s", who.c_str(), h.level, text.c_str());
    } else {
        std::printf("%s %s: %s", who.c_str(), name, text.c_str());
    }
    if (logLeft > 0) --logLeft;
    return 0;
}

int followLog(int count) {
    logLeft = count > 0 ? count : -1;
    struct sigaction sa {};
    sa.sa_handler = [](int) { stopLog = 1; };
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    MbusCtx *ctx = mbusRegister(MBUS_MODULE_LOG, 2, onLogRecord, nullptr);
    if (ctx == nullptr) return fail(std::string("cannot follow the log: ") + mbusPortLastError(), kUnreachable);
    std::fprintf(stderr, "swmgrctl: following the log on %s (Ctrl-C to stop)\n", mbusPortBusDirGet());
    // Records come in runs; each run is printed with one write.
    while (!stopLog && logLeft != 0) {
        mbusListen(ctx, 200000);
        std::fflush(stdout);
    }
    mbusUnRegister(ctx);
    return kOk;
}

}  // namespace

void addLogVerb(CLI::App &app, Verbs &verbs) {
    auto count = std::make_shared<int>(0);
    auto *log = app.add_subcommand("log", "be the bus's log service and print the records the daemon sends");
    log->add_option("--count", *count, "stop after this many records");
    addJsonFlag(log);
    verbs.push_back({log, [count] { return followLog(*count); }});
}

}  // namespace swctl
