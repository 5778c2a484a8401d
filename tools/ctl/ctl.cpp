// SPDX-License-Identifier: Apache-2.0
#include "ctl.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include "osa_port.h"
#include "swmgr_tools.h"

namespace swctl {

Options opt;

Reply request(int module, int cmd, const Bytes &data, Bytes *aux) {
    Reply r;
    Bytes body = data;
    int auxLen = aux != nullptr ? static_cast<int>(aux->size()) : 0;
    auto t0 = std::chrono::steady_clock::now();
    r.result = mbusIoctl(nullptr, module, cmd, body.empty() ? nullptr : body.data(), static_cast<int>(body.size()),
                         aux != nullptr && !aux->empty() ? aux->data() : nullptr, aux != nullptr ? &auxLen : nullptr,
                         0, opt.timeoutMs, 0);
    auto t1 = std::chrono::steady_clock::now();
    r.delivered = *mbusPortLastError() == '\0';
    if (aux != nullptr) {
        if (auxLen >= 0 && static_cast<size_t>(auxLen) <= aux->size()) aux->resize(static_cast<size_t>(auxLen));
        r.aux = *aux;
    }
    if (opt.showTime)
        std::fprintf(stderr, "time: %.3f ms\n", std::chrono::duration<double, std::milli>(t1 - t0).count());
    return r;
}

int report(const std::string &what, const Reply &r) {
    if (!r.delivered) {
        std::fprintf(stderr, "swmgrctl: %s: %s (%d)\n", what.c_str(), mbusPortLastError(), r.result);
        return kUnreachable;
    }
    if (opt.json)
        printJson({{"request", what}, {"result", r.result}, {"meaning", swtool::resultName(r.result)}});
    else
        std::printf("%s: result %d (%s)\n", what.c_str(), r.result, swtool::resultName(r.result).c_str());
    return r.result < 0 ? kFailed : kOk;
}

int fail(const std::string &why, int code) {
    std::fprintf(stderr, "swmgrctl: %s\n", why.c_str());
    return code;
}

void printJson(const json &j) { std::printf("%s\n", j.dump(2).c_str()); }

std::string replyText(const Reply &r) {
    std::string text(r.aux.begin(), r.aux.end());
    text.resize(strnlen(text.c_str(), text.size()));
    return text;
}

uint32_t portBits(const std::vector<int> &ports) {
    uint32_t map = 0;
    for (int p : ports) map |= 1u << p;  // the option's check keeps p in 0..31
    return map;
}

CLI::Option *addPortList(CLI::App *sub, const std::string &name, std::vector<int> &ports, const std::string &help) {
    return sub->add_option(name, ports, help + " (port numbers 0 to 31, comma-separated)")
        ->delimiter(',')
        ->check(CLI::Range(0, 31));
}

bool parseHex(const std::vector<std::string> &words, Bytes &out, std::string &err) {
    out.clear();
    for (std::string w : words) {
        if (w.rfind("0x", 0) == 0 || w.rfind("0X", 0) == 0) w = w.substr(2);
        if (w.size() % 2 != 0) {
            err = "hex bytes come in pairs of digits: " + w;
            return false;
        }
        for (size_t i = 0; i < w.size(); i += 2) {
            char pair[3] = {w[i], w[i + 1], 0};
            char *end = nullptr;
            unsigned long v = std::strtoul(pair, &end, 16);
            if (end != pair + 2) {
                err = "not a hex byte: " + std::string(pair);
                return false;
            }
            out.push_back(static_cast<uint8_t>(v));
        }
    }
    return true;
}

void addJsonFlag(CLI::App *sub) { sub->add_flag("--json", opt.json, "print the answer as JSON (shapes in the README)"); }

}  // namespace swctl
