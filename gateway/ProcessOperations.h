// The operations on the processes of the host. Any thread.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

namespace mendline {

// Answers with the latest table of processes; the request has no parameters.
void processMetrics(const boost::property_tree::ptree& requestTree,
                    boost::property_tree::ptree& responseTree);

// Ends the process `MendlineOperation.processId` that was created at `MendlineOperation.createTime`
// and answers with its name, or with an "ERROR" that does not give the reason: that is in the log.
// Blocks the caller for 100 milliseconds once the signal is out.
void endProcess(const boost::property_tree::ptree& requestTree,
                boost::property_tree::ptree& responseTree);

}  // namespace mendline
