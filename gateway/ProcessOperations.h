// The operations on the processes of the host. Any thread.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

namespace mendline {

// Answers with the latest table of processes; the request has no parameters.
void processMetrics(const boost::property_tree::ptree& requestTree,
                    boost::property_tree::ptree& responseTree);

}  // namespace mendline
