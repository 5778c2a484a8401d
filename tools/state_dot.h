/* SPDX-License-Identifier: Apache-2.0 */
// The topology part of swmgrd --sim's state as a Graphviz graph.
#ifndef SWMGR_TOOLS_STATE_DOT_H
#define SWMGR_TOOLS_STATE_DOT_H

#include <string>

#include <nlohmann/json.hpp>

namespace swtool {

// One cluster per switch, top level first, with its ports and the VLANs it
// holds (member and untagged maps as the switch keeps them); an edge from
// each upper-level port to every lower-level port it stands for.
std::string topologyDot(const nlohmann::json &state);

}  // namespace swtool

#endif
