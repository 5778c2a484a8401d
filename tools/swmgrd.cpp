// SPDX-License-Identifier: Apache-2.0
// swmgrd: the host daemon of the switch manager. Starts the service on a
// configuration database, serves the message bus until SIGINT or SIGTERM,
// and stops it, all on one thread: the stop signals arrive through a
// signalfd that the bus loop watches. With --sim the hardware is simulated
// and its state served on the bus for swmgrctl.
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "swmgr/swconf.h"
#include "swmgr/swmgr.h"
#include "cli.h"
#include "daemon_ctl.h"
#include "service_notify.h"
#include "swmgr_tools.h"
#if SWMGR_WITH_SIM
#include "sim_host.h"
#endif

namespace {

int stopSignal = 0;

// Runs in the bus loop, between requests, on the only thread.
void onStopSignal(void *, int fd) {
    signalfd_siginfo info{};
    if (::read(fd, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return;
    stopSignal = static_cast<int>(info.ssi_signo);
    swMgrDeinit();  // unregisters, so the listening wait returns and swMgrRun ends
}

#if SWMGR_WITH_SIM
swtool::SimHost *simHost = nullptr;

std::string daemonStateText() {
    return "daemon: " + std::to_string(mbusPortLogDropped()) + " log records dropped\n";
}

int stateRequest(MbusCtx *, const MbusMsgHeader *, int cmd, void *, int, void *aux, int *auxLen) {
    if (simHost == nullptr || aux == nullptr || auxLen == nullptr || *auxLen <= 0) return -22;
    std::string out;
    if (cmd == swtool::kSimStateText) {
        out = simHost->text() + daemonStateText();
    } else if (cmd == swtool::kSimStateJson) {
        auto j = simHost->json();
        j["daemon"]["logDropped"] = mbusPortLogDropped();
        out = j.dump();
    } else
        return -22;
    const size_t cap = static_cast<size_t>(*auxLen);
    const size_t n = std::min(out.size(), cap - 1);
    std::memcpy(aux, out.data(), n);
    static_cast<char *>(aux)[n] = '\0';
    *auxLen = static_cast<int>(n + 1);
    return out.size() < cap ? 0 : 1;  // 1: the text was cut at the buffer
}
#endif

std::string initFailure(int r) {
    if (pSwMgrMbusCtx == nullptr && r == -1) {
        std::string why = mbusPortLastError();
        return "cannot register on the bus" + (why.empty() ? std::string() : ": " + why);
    }
    if (pDB == nullptr) return "cannot open the database";
    return "the switch list could not be initialised";
}

#if SWMGR_WITH_SIM
bool onRamFs(const std::string &dir) {
    struct statfs fs {};
    constexpr decltype(fs.f_type) kTmpfs = 0x01021994;  // TMPFS_MAGIC; ramfs is 0x858458f6
    return ::statfs(dir.c_str(), &fs) == 0 && (fs.f_type == kTmpfs || fs.f_type == 0x858458f6);
}

// The simulated system's files are rewritten on every VLAN change; on the
// device they live in RAM (/var), so here too when a RAM file system is at
// hand: below the bus directory if that is one, else a private directory
// under the first that is. Returns the directory and whether it was made
// for this run (and so goes with it).
std::pair<std::string, bool> simStateDir() {
    const std::string bus = mbusPortBusDirGet();
    if (onRamFs(bus)) return {bus + "/sim", false};
    const char *xdg = std::getenv("XDG_RUNTIME_DIR");
    for (std::string ram : {std::string(xdg != nullptr ? xdg : ""), std::string("/dev/shm"), std::string("/run")}) {
        if (ram.empty() || ram[0] != '/' || !onRamFs(ram)) continue;
        std::string tmpl = ram + "/swmgrd-sim-XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) return {tmpl, true};
    }
    return {bus + "/sim", false};
}
#endif

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"swmgrd - switch manager daemon.\n"
                 "Loads the switch, port and VLAN configuration from an SQLite database, programs the\n"
                 "switches and serves requests on the message bus until SIGINT or SIGTERM.",
                 "swmgrd"};
    std::string db, busDir, stateDir, logTo = "bus";
    bool foreground = false, debug = false, sim = false;
    [[maybe_unused]] bool devicesOnly = false;  // only with the simulator built in
    int busyMs = SQLITE_PORT_BUSY_MS;
    unsigned busyPollUs = 100;
    app.add_option("--db", db, "configuration database (SQLite file)")->required();
    app.add_option("--log", logTo,
                   "where diagnostics go: bus (the bus's log service, see swmgrctl log), stderr, or syslog;\n"
                   "a log reader that is behind loses records (counted) rather than holding the daemon up")
        ->check(CLI::IsMember({"bus", "stderr", "syslog"}));
    app.add_flag("--foreground", foreground, "the same as --log stderr");
    app.add_flag("--debug", debug, "developer diagnostics: every message with its function name and line");
    app.add_option("--db-busy-ms", busyMs,
                   "how long a query may wait in all on a database that another program holds locked;\n"
                   "after that the request fails and the next one is served")
        ->check(CLI::Range(0, 600000));
    app.add_option("--busy-poll-us", busyPollUs,
                   "after serving a request, look for the next one this long before sleeping, yielding the CPU\n"
                   "between looks (0: sleep at once); requests come in bursts, and an idle CPU can be slow to wake")
        ->check(CLI::Range(0, MBUS_PORT_BUSY_POLL_MAX_US));
#if SWMGR_WITH_SIM
    app.add_flag("--sim", sim,
                 "simulate the hardware: switch chip at the BCM switch's device path, packet engine\n"
                 "tools, host VLAN interfaces; files go below the state directory; state for swmgrctl state");
    app.add_flag("--sim-devices-only", devicesOnly,
                 "simulate only the switch chip (at the BCM switch's device path) and keep files below the\n"
                 "state directory; command lines run for real with the PATH swmgrd was given")
        ->excludes("--sim");
    app.add_option("--state-dir", stateDir,
                   "with --sim or --sim-devices-only: where the simulated system's files go (default: on a RAM file system when\n"
                   "there is one: BUS-DIR/sim, else a new directory under $XDG_RUNTIME_DIR, /dev/shm or /run)");
#endif
    app.add_option("--bus-dir", busDir,
                   "directory of the bus sockets (default: $" MBUS_PORT_DIR_ENV " or " MBUS_PORT_DEFAULT_DIR ")");
    app.footer("swmgrd never forks: it runs in the foreground of whoever started it (a supervisor or a shell).\n"
               "Exit status: 0 stopped by SIGINT or SIGTERM, 1 start-up failed, 64 usage error.\n"
               "Under a service manager, readiness is announced on $NOTIFY_SOCKET once the\n"
               "service has started and registered on the bus.\n");
    if (int status = swtool::parseCommandLine(app, argc, argv); status >= 0) return status;

    if (!busDir.empty()) mbusPortBusDirSet(busDir.c_str());
    if (::access(db.c_str(), R_OK | W_OK) != 0) {
        std::fprintf(stderr, "swmgrd: cannot use database %s: %s\n", db.c_str(), std::strerror(errno));
        return 1;
    }

    if (foreground) logTo = "stderr";
    mbusPortLogTargetSet(logTo == "stderr" ? MBUS_PORT_LOG_STDERR
                                           : logTo == "syslog" ? MBUS_PORT_LOG_SYSLOG : MBUS_PORT_LOG_BUS,
                         nullptr);
    sqlitePortBusyTimeoutSet(busyMs);
    mbusPortBusyPollSet(busyPollUs);

    // The stop signals never interrupt anything: blocked here, they wait in
    // a signalfd until the bus loop is between requests.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    int stopFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stopFd < 0 || mbusPortWatch(stopFd, onStopSignal, nullptr) != 0) {
        std::fprintf(stderr, "swmgrd: cannot watch the stop signals: %s\n", std::strerror(errno));
        return 1;
    }

    swtool::DaemonCtl daemonCtl;
#if SWMGR_WITH_SIM
    struct MadeDir {  // a state directory made for this run goes with it, after the simulation
        std::string path;
        ~MadeDir() {
            std::error_code ec;
            if (!path.empty()) std::filesystem::remove_all(path, ec);
        }
    } madeDir;
    swtool::SimHost host;
    if (sim || devicesOnly) {
        if (stateDir.empty()) {
            bool made = false;
            std::tie(stateDir, made) = simStateDir();
            if (made) madeDir.path = stateDir;
        }
        std::string err;
        if (!(devicesOnly ? host.startDevicesOnly(db, stateDir, err) : host.start(db, stateDir, err))) {
            std::fprintf(stderr, "swmgrd: cannot set up the simulation: %s\n", err.c_str());
            return 1;
        }
        simHost = &host;
    }
#endif

    swMgrForeground = logTo == "stderr" ? 1 : 0;
    swMgrDevDebug = debug ? 1 : 0;
    int r = swMgrInit(db.c_str());
    if (r != 0) {
        std::fprintf(stderr, "swmgrd: start-up failed (%d): %s\n", r, initFailure(r).c_str());
        swMgrDeinit();
        return 1;
    }

    std::string ctlErr;
    if (!daemonCtl.serve(ctlErr)) {
        std::fprintf(stderr, "swmgrd: %s\n", ctlErr.c_str());
        swMgrDeinit();
        return 1;
    }

    MbusCtx *stateCtx = nullptr;
#if SWMGR_WITH_SIM
    if (sim) {
        stateCtx = mbusRegister(swtool::kSimModule, 2, stateRequest, nullptr);
        if (stateCtx == nullptr || mbusPortListenAlong(stateCtx, pSwMgrMbusCtx) != 0) {
            std::fprintf(stderr, "swmgrd: cannot serve the simulated state: %s\n", mbusPortLastError());
            if (stateCtx != nullptr) mbusUnRegister(stateCtx);
            swMgrDeinit();
            return 1;
        }
    }
#endif

    std::fprintf(stderr, "swmgrd: serving %s on %s%s%s\n", db.c_str(), mbusPortBusDirGet(),
                 sim ? " (simulated hardware, state in " : "", sim ? (stateDir + ")").c_str() : "");
    // Started and registered: a service manager may start what depends on us.
    swtool::notifyServiceManager("READY=1");
    swMgrRun();
    swMgrDeinit();  // already done when a signal stopped the loop; then harmless

    if (stateCtx != nullptr) mbusUnRegister(stateCtx);
#if SWMGR_WITH_SIM
    simHost = nullptr;
    host.stop();
#endif
    mbusPortUnwatch(stopFd);
    ::close(stopFd);
    std::fprintf(stderr, "swmgrd: stopped (%s)\n", stopSignal == SIGINT ? "SIGINT" : "SIGTERM");
    return 0;
}
