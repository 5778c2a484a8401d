/* SPDX-License-Identifier: Apache-2.0 */
// What swmgrd and swmgrctl share about their command lines: the version
// they print, how a command line that cannot be parsed ends, and the exit
// statuses that scripts and service managers rely on.
#ifndef SWMGR_TOOLS_CLI_H
#define SWMGR_TOOLS_CLI_H

#include <CLI/CLI.hpp>
#include <string>

#include "swmgr_version.h"

namespace swtool {

// 64 is the usage error of the BSD sysexits convention; CLI11's own codes
// (105, 106, 109, ...) never reach the shell.
enum { kExitOk = 0, kExitFailed = 1, kExitNoBus = 2, kExitUsage = 64 };

// "swmgrctl 0.1 (git 1a2b3c4d5e6f)": the name and version first, as
// help2man and packaging scripts read them.
inline std::string versionText(const std::string &program) { return program + " " SWMGR_VERSION_TEXT; }

// Adds --version and parses. Returns -1 when the program should go on,
// else the status to exit with: 0 after --help or --version, kExitUsage
// after a parse error (whose reason CLI11 has printed).
inline int parseCommandLine(CLI::App &app, int argc, char **argv) {
    app.set_version_flag("--version", versionText(app.get_name()), "print the version and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }
    return -1;
}

}  // namespace swtool

#endif
