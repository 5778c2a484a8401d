/* SPDX-License-Identifier: Apache-2.0 */
// The switch manager run inside swmgrctl on simulated hardware, for check
// and plan: a private temporary directory holds the bus sockets and the
// simulated system's files, the service's log records are kept instead of
// sent, and (when asked) every command line, device request and file
// written is recorded in order.
#ifndef SWMGR_TOOLS_CTL_OFFLINE_H
#define SWMGR_TOOLS_CTL_OFFLINE_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "seam_tap.h"
#include "sim_host.h"

namespace swctl {

struct LogLine {
    int level;
    std::string text;
};

class Offline {
public:
    explicit Offline(bool record);
    ~Offline();
    Offline(const Offline &) = delete;
    Offline &operator=(const Offline &) = delete;

    // Sets up the directory, the bus and the models for the database at
    // `dbPath` (a copy is made; the service reads the copy at db()).
    bool start(const std::string &dbPath, std::string &err);
    const std::string &db() const { return db_; }

    // What happened since the last call, in order.
    std::vector<nlohmann::ordered_json> takeSteps();
    std::vector<LogLine> takeLog();

    const swtool::SimHost &sim() const { return sim_; }

private:
    void scanFiles();
    void record(const swtool::TapEvent &ev);
    static int onSend(void *ctx, int module, int cmd, const void *data, int dataLen, void *aux, int *auxLen,
                      int *result);

    bool record_;
    std::string dir_, db_;
    swtool::SimHost sim_;
    std::unique_ptr<swtool::SeamTap> tap_;
    std::map<std::string, std::string> files_;
    std::vector<nlohmann::ordered_json> steps_;
    std::vector<LogLine> log_;
};

// A step as one line of text.
std::string stepText(const nlohmann::ordered_json &step);

}  // namespace swctl

#endif
