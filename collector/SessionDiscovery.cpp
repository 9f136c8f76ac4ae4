#include "collector/SessionDiscovery.h"

#include <cstdio>
#include <fstream>
#include <utility>

#include "sources/SystemQuery.h"

namespace mendline {
namespace {

constexpr char kWorkerName[] = "FlareWorker";
constexpr char kWorkerUser[] = "qrsflare";
constexpr char kXServerName[] = "Xorg";
constexpr char kAgentMarker[] = "tarnhost";

// The worker found last, as a key: only `iPid` and `ullStartTime` are set, both 0 before the first.
// Only the collection thread uses it. Built when the library is loaded, so that it outlives that
// thread; never reset, so it survives a stop.
ProcessInfo workerIdentity;

}  // namespace

bool isWorkerKnown(const ProcessInfoSet& processes) {
  if (processes.contains(workerIdentity)) {
    return true;
  }
  for (const ProcessInfo& process : processes) {
    if (process.strProcessName != kWorkerName) {
      continue;
    }
    std::string user;
    static_cast<void>(getUserName(process.uiUserId, user));
    if (user == kWorkerUser) {
      workerIdentity.iPid = process.iPid;
      workerIdentity.ullStartTime = process.ullStartTime;
      return true;
    }
  }
  return false;
}

std::string displayOfCommandLine(const std::string& commandLine) {
  if (commandLine.find(kAgentMarker) == std::string::npos) {
    return {};
  }
  const std::size_t colon = commandLine.find(':');
  if (colon == std::string::npos) {
    return commandLine;
  }
  const std::size_t end = commandLine.find('\0', colon);
  return commandLine.substr(colon + 1, end == std::string::npos ? end : end - colon - 1);
}

std::vector<std::string> findSessions(const ProcessInfoSet& processes) {
  std::vector<std::string> displays;
  for (const ProcessInfo& process : processes) {
    if (process.strProcessName != kXServerName) {
      continue;
    }
    char path[32] = {};
    static_cast<void>(std::snprintf(path, sizeof(path), "/proc/%d/cmdline", process.iPid));
    std::ifstream file(path);
    if (!file) {
      continue;
    }
    // The separating NUL bytes stay inside the line.
    std::string commandLine;
    static_cast<void>(std::getline(file, commandLine));
    file.close();
    if (std::string display = displayOfCommandLine(commandLine); !display.empty()) {
      displays.push_back(std::move(display));
    }
  }
  return displays;
}

}  // namespace mendline
