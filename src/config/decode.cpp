// SPDX-License-Identifier: Apache-2.0
// Decoding rows of the three configuration tables, laid out as
// sqlite3_get_table gives them, into configuration records by column name.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/number.h"
#include "common/text.h"
#include "swmgr/swconf.h"
#include "swmgr/swmgr.h"
#include "swmgr/switch.h"

namespace {

// One row of a query result: column names first, row r's values at
// nCols * (r + 1).
class Row {
public:
    Row(char **result, int nCols, int row) : result_(result), nCols_(nCols), row_(row) {}

    // Value of the first column named exactly `name`; null when no column
    // has that name or the value is SQL NULL.
    const char *value(const char *name) const {
        if (result_ == nullptr || nCols_ <= 0 || row_ < 0) return nullptr;
        for (int c = 0; c < nCols_; ++c) {
            const char *col = result_[c];
            if (col != nullptr && std::strcmp(col, name) == 0)
                return result_[static_cast<long>(nCols_) * (row_ + 1) + c];
        }
        return nullptr;
    }

    // A number beyond 32 bits is refused: the row is not taken at all.
    void integer(int32_t &field, const char *name) {
        const char *v = value(name);
        if (v == nullptr) return;
        if (const std::optional<int32_t> n = swmgr::parseLeadingInt32(v)) {
            field = *n;
            return;
        }
        SWMGR_LOG_AS("", SW_LOG_ERR, "swCfgFromQueryResultRead", "column %s: %.32s is out of range\n",
                     name, v);
        refused_ = true;
    }

    int status() const { return refused_ ? SW_EINVAL : 0; }

    template <std::size_t N>
    void text(char (&field)[N], const char *name) const {
        if (const char *v = value(name)) swmgr::copyText(field, v);
    }

private:
    char **result_;
    int nCols_;
    int row_;
    bool refused_ = false;
};

// str2num's work; `ok` turns false when a token does not fit in 32 bits.
uint32_t portListConvert(char *text, bool &ok) {
    if (text == nullptr) return 0;
    uint32_t map = 0;
    // The view keeps the text's first length: each terminator written and each
    // token moved to the front lies before where the next search starts.
    const std::string_view all(text);
    for (std::size_t start = all.find_first_not_of(','); start != std::string_view::npos;) {
        const std::size_t end = std::min(all.find(',', start), all.size());
        text[end] = '\0';
        const std::optional<int32_t> n = swmgr::parseLeadingInt32(text + start);
        if (!n) ok = false;
        // Numbers with bit 5 set (32..63, negatives) name no port; larger
        // ones wrap onto the low 32 bits, as the shift on the target does.
        else if ((*n & 0x20) == 0)
            map |= 1u << (static_cast<unsigned>(*n) & 31u);
        // The token moves to the front of the text: what the text holds
        // afterwards is the last token, and the VLAN decoder relies on that.
        std::memmove(text, text + start, end - start + 1);
        start = all.find_first_not_of(',', end + 1);
    }
    return map;
}

constexpr std::size_t kPortListScratchLen = 512;

}  // namespace

extern "C" uint32_t str2num(char *text) {
    // A token beyond 32 bits names no port.
    bool ok = true;
    return portListConvert(text, ok);
}

extern "C" int swGlobalCfgFromQueryResultRead(SwitchConf *conf, char **result, int nCols, int row) {
    if (conf == nullptr) return 0;
    Row r(result, nCols, row);
    r.text(conf->switchName, "switchName");
    r.text(conf->switchDevice, "switchDevice");
    r.integer(conf->numPorts, "numPorts");
    r.integer(conf->vlanEnable, "vlanEnable");
    r.integer(conf->qosEnable, "qosEnable");
    r.integer(conf->pauseFrameEnable, "pauseFrameEnable");
    r.integer(conf->igmpSnoopingEnable, "igmpSnoopingEnable");
    r.integer(conf->mldSnoopingEnable, "mldSnoopingEnable");
    r.integer(conf->switchLevel, "switchLevel");
    return r.status();
}

extern "C" int swPortCfgFromQueryResultRead(SwitchPortConf *conf, char **result, int nCols, int row) {
    if (conf == nullptr) return 0;
    Row r(result, nCols, row);
    r.integer(conf->portNumber, "portNumber");
    r.integer(conf->portType, "portType");
    r.text(conf->phyDevice, "phyDevice");
    r.text(conf->switchName, "switchName");
    r.text(conf->interfaceName, "interfaceName");
    r.integer(conf->PVID, "PVID");
    r.integer(conf->mirroring, "mirroring");
    r.integer(conf->trustMode, "trustMode");
    r.integer(conf->qos.rateLimit, "rateLimit");
    r.integer(conf->qos.schedMode, "schedMode");
    r.integer(conf->qos.numQueues, "numQueues");
    r.integer(conf->qos.queue1Weight, "queue1Weight");
    r.integer(conf->qos.queue2Weight, "queue2Weight");
    r.integer(conf->qos.queue3Weight, "queue3Weight");
    r.integer(conf->qos.queue4Weight, "queue4Weight");
    return r.status();
}

extern "C" int swVlanCfgFromQueryResultRead(SwitchVlanConf *conf, char **result, int nCols, int row) {
    if (conf == nullptr) return 0;
    Row r(result, nCols, row);
    r.integer(conf->vlanId, "vlanId");
    r.integer(conf->inSwitchOnly, "inSwitchOnly");

    // One scratch text serves both bitmaps and is not cleared in between:
    // an absent untagMap converts whatever fwdMap's conversion left there.
    char scratch[kPortListScratchLen] = {};
    bool mapsOk = true;
    if (const char *v = r.value("fwdMap")) swmgr::copyText(scratch, v);
    conf->fwdMap = portListConvert(scratch, mapsOk);
    if (const char *v = r.value("untagMap")) swmgr::copyText(scratch, v);
    conf->untagMap = portListConvert(scratch, mapsOk);

    r.text(conf->ingressMap, "ingressMap");
    r.text(conf->egressMap, "egressMap");
    r.text(conf->interfaceName, "interfaceName");
    r.text(conf->LogicalIfName, "LogicalIfName");
    if (!mapsOk) {
        SWMGR_LOG_AS("", SW_LOG_ERR, "swVlanCfgFromQueryResultRead",
                     "VLAN %d: a port in fwdMap or untagMap is out of range\n", conf->vlanId);
        return SW_EINVAL;
    }
    return r.status();
}
