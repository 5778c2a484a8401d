/* SPDX-License-Identifier: Apache-2.0 */
// Names and fields of the switch chip's device requests, decoded from the
// argument bytes as sent, for plan.
#ifndef SWMGR_TOOLS_CTL_IOCTL_DECODE_H
#define SWMGR_TOOLS_CTL_IOCTL_DECODE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace swctl {

struct DecodedIoctl {
    std::string name;
    nlohmann::ordered_json fields = nlohmann::ordered_json::object();
};

DecodedIoctl decodeIoctl(unsigned request, const std::vector<uint8_t> &arg, uintptr_t value);

}  // namespace swctl

#endif
