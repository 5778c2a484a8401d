// SPDX-License-Identifier: Apache-2.0
// swmgrctl: the operator's tool for swmgrd. Most verbs talk to the daemon
// over the message bus; check and plan run the switch manager in-process on
// simulated hardware and need no daemon at all.
#include <signal.h>

#include "ctl.h"
#include "osa_port.h"

int main(int argc, char **argv) {
    using namespace swctl;
    CLI::App app{"swmgrctl - operate swmgrd and check configurations before they ship.", "swmgrctl"};
    app.footer("Exit status: 0 the request was accepted, 1 it was refused or could not be made,\n"
               "2 the daemon could not be reached (the bus could not deliver), 64 usage error.\n");
    app.fallthrough();
    app.require_subcommand(1);
    app.add_option("--bus-dir", opt.busDir,
                   "directory of the bus sockets (default: $" MBUS_PORT_DIR_ENV " or " MBUS_PORT_DEFAULT_DIR ")");
    app.add_option("--timeout", opt.timeoutMs, "how long to wait for a reply, in milliseconds")
        ->default_val(MBUS_PORT_TIMEOUT_MS)
        ->check(CLI::Range(1, 600000));
    app.add_flag("--time", opt.showTime, "print how long each request took (to standard error)");

    Verbs verbs;
    addDbVerbs(app, verbs);
    addRequestVerbs(app, verbs);
    addCmdVerb(app, verbs);
    addQueryVerbs(app, verbs);
    addLogVerb(app, verbs);
#if SWMGR_WITH_SIM
    addCheckVerb(app, verbs);
    addPlanVerb(app, verbs);
#endif

    signal(SIGPIPE, SIG_IGN);
    if (int status = swtool::parseCommandLine(app, argc, argv); status >= 0) return status;
    if (!opt.busDir.empty()) mbusPortBusDirSet(opt.busDir.c_str());
    for (auto &v : verbs)
        if (v.sub->parsed()) return v.run();
    return kUsage;
}
