// Reads one figure per display, the round trip time, from the session counter segment.
//
// Called by the collection thread only.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace mendline {

// Stores the `rtt` of each display in `protocolMetrics` under the display's text, in list order, as
// the worker wrote it; a display that is there already is replaced. The first text that is no
// display number of the table is logged at Warn under the tag "ProtocolQuery" and ends the reading;
// what was stored so far stays. Not tested: that a segment is attached, as it is while the
// collection thread runs.
void readProtocolMetrics(const std::vector<std::string>& displayNames,
                         std::unordered_map<std::string, double>& protocolMetrics);

}  // namespace mendline
