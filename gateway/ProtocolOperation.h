// The operation on the live counters of one remote session. Any thread.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

namespace mendline {

// Answers with the counters of the session on `MendlineOperation.display`; with an empty "protocol"
// element for what is no display of the range, and with an "ERROR" when the parameter is missing.
// Nothing asks whether the collector runs: the session table has to be attached.
void protocolInfo(const boost::property_tree::ptree& requestTree,
                  boost::property_tree::ptree& responseTree);

}  // namespace mendline
