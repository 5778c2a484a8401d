// SPDX-License-Identifier: Apache-2.0
// What the system accepts from outside; see checks.h.
#include "config/checks.h"

#include <cstdio>
#include <cstring>

#include "common/names.h"
#include "common/number.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace swmgr {

namespace {
constexpr std::size_t kShownLen = 160;
constexpr std::size_t kWhyLen = 128;
}  // namespace

void escapedText(char *out, std::size_t outCap, const char *text, std::size_t textCap) {
    if (outCap == 0) return;
    std::size_t used = 0;
    for (std::size_t i = 0; text != nullptr && i < textCap && text[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        char piece[5];
        if (c >= 0x20 && c < 0x7f && c != '\\')
            std::snprintf(piece, sizeof piece, "%c", c);
        else
            std::snprintf(piece, sizeof piece, "\\x%02x", c);
        const std::size_t n = std::strlen(piece);
        if (used + n >= outCap) break;
        std::memcpy(out + used, piece, n);
        used += n;
    }
    out[used] = '\0';
}

int nameChecked(const char *origin, const char *field, const char *text, std::size_t cap, NameUse use,
                const char *fname) {
    if (use == NameUse::optional && (text == nullptr || text[0] == '\0')) return 0;
    const NameVerdict v = checkName(text, cap);
    if (v.ok()) return 0;
    char shown[kShownLen];
    char why[kWhyLen];
    escapedText(shown, sizeof shown, text, cap);
    SWMGR_LOG_AS("", SW_LOG_ERR, fname, "%s: %s \"%s\" refused: %s\n", origin, field, shown,
                 nameFaultText(why, v));
    return SW_EINVAL;
}

int rangeChecked(const char *origin, const char *field, int64_t value, int64_t lo, int64_t hi,
                 const char *fname) {
    if (value >= lo && value <= hi) return 0;
    SWMGR_LOG_AS("", SW_LOG_ERR, fname, "%s: %s %lld refused: outside %lld..%lld\n", origin, field,
                 static_cast<long long>(value), static_cast<long long>(lo), static_cast<long long>(hi));
    return SW_EINVAL;
}

int switchConfChecked(const SwitchConf &conf, const char *origin, const char *fname) {
    // The device path is opened as it stands; the packet engine has none.
    if (conf.switchDevice[0] != '\0') {
        const NameVerdict v = checkDevicePath(conf.switchDevice, sizeof conf.switchDevice);
        if (!v.ok()) {
            char shown[kShownLen];
            char why[kWhyLen];
            escapedText(shown, sizeof shown, conf.switchDevice, sizeof conf.switchDevice);
            if (v.fault == NameFault::badChar && v.pos == 0 && v.ch != '/')
                std::snprintf(why, sizeof why, "%s", "not an absolute path");
            else
                nameFaultText(why, v);
            SWMGR_LOG_AS("", SW_LOG_ERR, fname, "%s: switchDevice \"%s\" refused: %s\n", origin, shown,
                         why);
            return SW_EINVAL;
        }
    }
    return rangeChecked(origin, "switchLevel", conf.switchLevel, 0, kLevelMax, fname);
}

int portConfChecked(const SwitchPortConf &conf, const char *origin, const char *fname) {
    int r = nameChecked(origin, "interfaceName", conf.interfaceName, sizeof conf.interfaceName,
                        NameUse::required, fname);
    if (r == 0) r = rangeChecked(origin, "portNumber", conf.portNumber, 0, kPortMax, fname);
    if (r == 0) r = rangeChecked(origin, "PVID", conf.PVID, 0, kVlanIdMax, fname);
    return r;
}

int vlanConfChecked(const SwitchVlanConf &conf, const char *origin, const char *fname) {
    int r = nameChecked(origin, "interfaceName", conf.interfaceName, sizeof conf.interfaceName,
                        NameUse::required, fname);
    if (r == 0)
        r = nameChecked(origin, "LogicalIfName", conf.LogicalIfName, sizeof conf.LogicalIfName,
                        NameUse::optional, fname);
    if (r == 0) r = rangeChecked(origin, "vlanId", conf.vlanId, kVlanIdMin, kVlanIdMax, fname);
    return r;
}

}  // namespace swmgr
