// swmgrd: the host daemon of the switch manager. Starts the service on a
// configuration database, serves the message bus until SIGINT or SIGTERM,
// and stops it. With --sim the hardware is simulated and its state served
// on the bus for swmgrctl.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "config/swconf.h"
#include "service/swmgr.h"
#include "sim_host.h"
#include "swmgr_tools.h"

namespace {

swtool::SimHost *simHost = nullptr;

int stateRequest(MbusCtx *, const MbusMsgHeader *, int cmd, void *, int, void *aux, int *auxLen) {
    if (simHost == nullptr || aux == nullptr || auxLen == nullptr || *auxLen <= 0) return -22;
    std::string out;
    if (cmd == swtool::kSimStateText)
        out = simHost->text();
    else if (cmd == swtool::kSimStateJson)
        out = simHost->json().dump();
    else
        return -22;
    const size_t cap = static_cast<size_t>(*auxLen);
    const size_t n = std::min(out.size(), cap - 1);
    std::memcpy(aux, out.data(), n);
    static_cast<char *>(aux)[n] = '\0';
    *auxLen = static_cast<int>(n + 1);
    return out.size() < cap ? 0 : 1;  // 1: the text was cut at the buffer
}

std::string initFailure(int r) {
    if (pSwMgrMbusCtx == nullptr && r == -1) {
        std::string why = mbusPortLastError();
        return "cannot register on the bus" + (why.empty() ? std::string() : ": " + why);
    }
    if (pDB == nullptr) return "cannot open the database";
    return "the switch list could not be initialised";
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"swmgrd - switch manager daemon.\n"
                 "Loads the switch, port and VLAN configuration from an SQLite database, programs the\n"
                 "switches and serves requests on the message bus until SIGINT or SIGTERM.",
                 "swmgrd"};
    std::string db, busDir, stateDir;
    bool foreground = false, debug = false, sim = false;
    app.add_option("--db", db, "configuration database (SQLite file)")->required();
    app.add_flag("--foreground", foreground,
                 "diagnostics to standard error (default: to the bus's log service, see swmgrctl log)");
    app.add_flag("--debug", debug, "developer diagnostics: every message with its function name and line");
    app.add_flag("--sim", sim,
                 "simulate the hardware: switch chip at the BCM switch's device path, packet engine\n"
                 "tools, host VLAN interfaces; files go below the state directory; state for swmgrctl state");
    app.add_option("--bus-dir", busDir,
                   "directory of the bus sockets (default: $" MBUS_PORT_DIR_ENV " or " MBUS_PORT_DEFAULT_DIR ")");
    app.add_option("--state-dir", stateDir, "with --sim: where the simulated system's files go (default: BUS-DIR/sim)");
    CLI11_PARSE(app, argc, argv);

    if (!busDir.empty()) mbusPortBusDirSet(busDir.c_str());
    if (::access(db.c_str(), R_OK | W_OK) != 0) {
        std::fprintf(stderr, "swmgrd: cannot use database %s: %s\n", db.c_str(), std::strerror(errno));
        return 1;
    }

    // The signals are taken by a thread of their own (below), never by a
    // handler that could interrupt the service in the middle of a request.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    swtool::SimHost host;
    if (sim) {
        if (stateDir.empty()) stateDir = std::string(mbusPortBusDirGet()) + "/sim";
        std::string err;
        if (!host.start(db, stateDir, err)) {
            std::fprintf(stderr, "swmgrd: cannot set up the simulation: %s\n", err.c_str());
            return 1;
        }
        simHost = &host;
    }

    swMgrForeground = foreground ? 1 : 0;
    swMgrDevDebug = debug ? 1 : 0;
    int r = swMgrInit(db.c_str());
    if (r != 0) {
        std::fprintf(stderr, "swmgrd: start-up failed (%d): %s\n", r, initFailure(r).c_str());
        swMgrDeinit();
        return 1;
    }

    MbusCtx *stateCtx = nullptr;
    if (sim) {
        stateCtx = mbusRegister(swtool::kSimModule, 2, stateRequest, nullptr);
        if (stateCtx == nullptr || mbusPortListenAlong(stateCtx, pSwMgrMbusCtx) != 0) {
            std::fprintf(stderr, "swmgrd: cannot serve the simulated state: %s\n", mbusPortLastError());
            if (stateCtx != nullptr) mbusUnRegister(stateCtx);
            swMgrDeinit();
            return 1;
        }
    }

    std::atomic<int> stopSignal{0};
    std::thread stopper([&] {
        int sig = 0;
        while (sigwait(&stopSignals, &sig) != 0) {
        }
        stopSignal = sig;
        // Ends swMgrRun: the running wait returns once the request in hand
        // is done, and the loop sees the service stopped.
        swMgrDeinit();
    });

    std::fprintf(stderr, "swmgrd: serving %s on %s%s\n", db.c_str(), mbusPortBusDirGet(),
                 sim ? " (simulated hardware)" : "");
    swMgrRun();

    if (stopSignal == 0) pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    if (stateCtx != nullptr) mbusUnRegister(stateCtx);
    simHost = nullptr;
    host.stop();
    std::fprintf(stderr, "swmgrd: stopped (%s)\n", stopSignal == SIGINT ? "SIGINT" : "SIGTERM");
    return 0;
}
