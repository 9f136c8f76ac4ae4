#include "gateway/ProcessOperations.h"

#include <boost/property_tree/ptree.hpp>

#include "gateway/MendLineOperation.h"
#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "sources/ProcessTerminator.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("MendLineOperation");

}  // namespace

void processMetrics(const ptree& /*requestTree*/, ptree& responseTree) {
  if (!reportProcessMetrics(responseTree)) {
    // A safeguard: the report has no failure today.
    putResult(responseTree, "ERROR", "Failed to get process metrics");
  }
}

void endProcess(const ptree& requestTree, ptree& responseTree) {
  // Required: what is no number, or out of range, is as good as missing; "-1" as a creation time
  // reads as the largest one. Pinned by EndProcessOperation.*.
  const int pid = requestTree.get<int>("MendlineOperation.processId", 0);
  const auto createTime = requestTree.get<unsigned long long>("MendlineOperation.createTime", 0);
  if (pid == 0 || createTime == 0) {
    LogError(&kTag, "Incomplete parameters, pid: %d, ullCreationTime: %lu", pid,
             static_cast<unsigned long>(createTime));
    putResult(responseTree, "ERROR", "Miss some parameters");
    return;
  }
  if (!ProcessTerminator::terminate(pid, createTime, responseTree)) {
    putResult(responseTree, "ERROR", "Failed to terminate process");
  }
}

}  // namespace mendline
