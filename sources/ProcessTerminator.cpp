#include "sources/ProcessTerminator.h"

#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

constinit const LogTag kTag("ProcessTerminator");

// Long enough for most programs to go on SIGTERM, short enough for someone who waits.
void waitForTheProcessToGo() {
  constexpr long kNanoseconds = 100'000'000;
  timespec remaining{0, kNanoseconds};
  // The JVM's own signals interrupt a sleep now and then.
  while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
  }
}

}  // namespace

bool ProcessTerminator::terminate(std::int32_t pid, std::uint64_t createTime,
                                  boost::property_tree::ptree& responseTree) {
  ProcessInfo info;
  // Required: a failure updates the table with the process that was found and not with the one that
  // was asked for, so a stale row stays until the next tick. Pinned by
  // ProcessTerminator.LeavesTheRowOfAProcessThatIsGone.
  if (!GetProcessInfo(pid, info)) {
    LogWarn(&kTag, "GetProcessInfo failed, process: %d not exist.", pid);
    updateProcessList(info);
    return false;
  }
  if (GetProcessCreateTime(info) != createTime) {
    LogWarn(&kTag, "Process not exist, creation time not match, pid %d resued.", pid);
    updateProcessList(info);
    return false;
  }
  if (kill(pid, SIGTERM) == -1) {
    LogError(&kTag, "Failed to send TERM signal to process, error is %s", std::strerror(errno));
    updateProcessList(info);
    return false;
  }
  waitForTheProcessToGo();
  updateProcessList(info);
  responseTree.put("terminatedProcessName", info.strProcessName);
  return true;
}

void ProcessTerminator::updateProcessList(const ProcessInfo& info) {
  LogDebug(&kTag, "Update the process list to remove non-existing process");
  if (IsProcessAlive(info)) {
    return;
  }
  ProcessMetricGenerator::getInstance()->removeProcess(info.iPid, GetProcessCreateTime(info));
}

}  // namespace mendline
