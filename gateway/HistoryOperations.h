// The operations on what the collector has gathered: one user's history, the load of the host. Any
// thread.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

namespace mendline {

// Answers with the history of `MendlineOperation.userName` and `MendlineOperation.display`, or with
// an "ERROR" that says which of them is missing. Before the first tick the answer is empty.
void historicalMetrics(const boost::property_tree::ptree& requestTree,
                       boost::property_tree::ptree& responseTree);

// Answers with the latest host figures, six decimals each; the request has no parameters. The
// memory figure is that of the fullest GPU where GPU figures are collected and it is the higher
// one.
void lbMetrics(const boost::property_tree::ptree& requestTree,
               boost::property_tree::ptree& responseTree);

}  // namespace mendline
