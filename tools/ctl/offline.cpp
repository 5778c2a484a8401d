// SPDX-License-Identifier: Apache-2.0
#include "offline.h"

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ioctl_decode.h"
#include "osa_port.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace swctl {
namespace fs = std::filesystem;
using ojson = nlohmann::ordered_json;

namespace {

std::string readWhole(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

Offline::Offline(bool record) : record_(record) {}

Offline::~Offline() {
    sim_.stop();
    tap_.reset();
    mbusPortSendHookRemove(onSend, this);
    if (!dir_.empty()) {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
}

bool Offline::start(const std::string &dbPath, std::string &err) {
    std::error_code ec;
    fs::path tmp = fs::temp_directory_path(ec);
    std::string tmpl = ((ec ? fs::path("/tmp") : tmp) / "swmgrctl-XXXXXX").string();
    if (ec || ::mkdtemp(tmpl.data()) == nullptr) {
        err = "cannot create a temporary directory: " + (ec ? ec.message() : std::string(std::strerror(errno)));
        return false;
    }
    dir_ = tmpl;
    db_ = dir_ + "/config.db";
    if (!fs::copy_file(dbPath, db_, ec)) {
        err = "cannot read " + dbPath + ": " + ec.message();
        return false;
    }
    // Nothing reaches a daemon or a log service that may be running.
    mbusPortBusDirSet((dir_ + "/bus").c_str());
    mbusPortSendHookAdd(onSend, this);
    swMgrForeground = 0;
    if (record_) {
        tap_ = std::make_unique<swtool::SeamTap>([this](const swtool::TapEvent &ev) { record(ev); });
        tap_->watchCommands();
    }
    if (!sim_.start(db_, dir_ + "/state", err)) return false;
    if (tap_) tap_->watchSystem();
    // A fixed clock: uptime stamps read the same in every plan.
    fs::create_directories(sim_.fileRoot() + "/proc", ec);
    std::ofstream(sim_.fileRoot() + "/proc/uptime") << "0.00 0.00\n";
    scanFiles();
    steps_.clear();
    return true;
}

int Offline::onSend(void *ctx, int module, int cmd, const void *data, int dataLen, void *aux, int *auxLen,
                    int *result) {
    if (module != MBUS_MODULE_LOG || cmd != MBUS_LOG_CMD) return 0;
    auto *self = static_cast<Offline *>(ctx);
    SwLogRecordHeader h{};
    if (data != nullptr && dataLen >= SW_LOG_HEADER_LEN) std::memcpy(&h, data, sizeof h);
    std::string text;
    if (aux != nullptr && auxLen != nullptr && *auxLen > 0)
        text.assign(static_cast<const char *>(aux), strnlen(static_cast<const char *>(aux), static_cast<size_t>(*auxLen)));
    self->log_.push_back({static_cast<int>(h.level), text});
    // Errors go into the order too; the line every command run echoes adds
    // nothing to the recorded command and its status.
    if (self->record_ && h.level == SW_LOG_ERR && text.rfind("cmd (", 0) != 0)
        self->steps_.push_back(ojson{{"kind", "log"}, {"text", text}});
    *result = 0;
    return 1;
}

// Files have no seam of their own: the root is compared before each step,
// and what changed is put in the order at that point.
void Offline::scanFiles() {
    std::map<std::string, std::string> now;
    std::error_code ec;
    const fs::path root = sim_.fileRoot();
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        if (!it->is_regular_file()) continue;
        std::string path = "/" + fs::relative(it->path(), root).string();
        if (path.rfind("/proc/", 0) == 0) continue;
        now[path] = readWhole(it->path());
    }
    for (const auto &[path, content] : now) {
        auto old = files_.find(path);
        if (old == files_.end() || old->second != content)
            steps_.push_back(ojson{{"kind", "file"}, {"op", "write"}, {"path", path}, {"content", content}});
    }
    for (const auto &[path, content] : files_)
        if (!now.count(path)) steps_.push_back(ojson{{"kind", "file"}, {"op", "remove"}, {"path", path}});
    files_ = std::move(now);
}

void Offline::record(const swtool::TapEvent &ev) {
    scanFiles();
    if (ev.kind == swtool::TapEvent::kIoctl) {
        DecodedIoctl d = decodeIoctl(ev.request, ev.arg, ev.value);
        char code[16];
        std::snprintf(code, sizeof code, "0x%08x", ev.request);
        steps_.push_back(ojson{{"kind", "ioctl"}, {"request", code}, {"name", d.name}, {"fields", d.fields}, {"result", ev.status}});
    } else {
        steps_.push_back(ojson{{"kind", ev.kind == swtool::TapEvent::kSystem ? "system" : "command"},
                               {"line", ev.line},
                               {"status", ev.status}});
    }
}

std::vector<ojson> Offline::takeSteps() {
    scanFiles();
    return std::exchange(steps_, {});
}

std::vector<LogLine> Offline::takeLog() { return std::exchange(log_, {}); }

namespace {
// Command lines may carry a newline inside an argument; a plan shows it.
std::string visible(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}
}  // namespace

std::string stepText(const ojson &step) {
    const std::string kind = step["kind"];
    std::string out;
    if (kind == "file") {
        out = step["op"].get<std::string>() + " " + step["path"].get<std::string>();
        if (step.contains("content")) {
            std::string c = step["content"];
            while (!c.empty() && c.back() == '\n') c.pop_back();
            out += ": " + visible(c);
        }
        return out;
    }
    if (kind == "log") {
        std::string t = step["text"];
        while (!t.empty() && (t.back() == '\n' || t.back() == ' ')) t.pop_back();
        return "error logged: " + t;
    }
    if (kind == "ioctl") {
        out = "ioctl " + step["name"].get<std::string>();
        for (const auto &[k, v] : step["fields"].items()) out += " " + k + "=" + (v.is_string() ? v.get<std::string>() : v.dump());
        if (step["result"] != 0) out += "  [result " + step["result"].dump() + "]";
        return out;
    }
    out = (kind == "system" ? "system: " : "run: ") + visible(step["line"]);
    if (step["status"] != 0) out += "  [status " + step["status"].dump() + "]";
    return out;
}

}  // namespace swctl
