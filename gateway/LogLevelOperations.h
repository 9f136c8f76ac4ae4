// Reads and sets the log threshold. Any thread; a change acts at once for the whole library and
// lasts until the next one or until the library is unloaded.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

namespace mendline {

// Puts "LOGLEVEL" with VERBOSE, TRACE, DEBUG or INFO.
void getLogLevel(const boost::property_tree::ptree& requestTree,
                 boost::property_tree::ptree& responseTree);

// Sets the threshold that `MendlineOperation.loglevel` names with one of those words, or puts an
// "ERROR" and leaves it.
void setLogLevel(const boost::property_tree::ptree& requestTree,
                 boost::property_tree::ptree& responseTree);

}  // namespace mendline
