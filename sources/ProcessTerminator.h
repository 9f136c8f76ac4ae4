// Ends one process of the host at a console's request, and takes it out of the table of processes
// at once, so that the next report does not show it until a tick confirms it.
//
// Called by request threads, several at a time; no state is kept between calls.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstdint>

#include "sources/ProcessQuery.h"

namespace mendline {

class ProcessTerminator {
 public:
  // Sends SIGTERM, once, to the process `pid` if it was created at `createTime`, in seconds since
  // the epoch: a report may be minutes old, and the pid another process's by now. True when the
  // signal went out; then waits 100 milliseconds for the process to go and puts its name under
  // "terminatedProcessName" in `responseTree`. False, with the reason logged and nothing put, when
  // the process can't be read, is another one, or can't be signalled. Required: a process that
  // outlives the wait is answered as terminated. Pinned by
  // ProcessTerminator.AnswersForAProcessThatIgnoresTheSignalAllTheSame.
  static bool terminate(std::int32_t pid, std::uint64_t createTime,
                        boost::property_tree::ptree& responseTree);

  // Drops the process from the table of ProcessMetricGenerator unless it exists with the same start
  // time; a zombie still exists. Logs at Debug.
  static void updateProcessList(const ProcessInfo& info);
};

}  // namespace mendline
