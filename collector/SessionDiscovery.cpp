#include "collector/SessionDiscovery.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <optional>
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

// The arguments of a process with the NUL bytes between them, up to a line feed; nothing when the
// file can't be opened, as when the process has just gone.
std::optional<std::string> readCommandLine(std::int32_t pid) {
  char path[32] = {};
  static_cast<void>(std::snprintf(path, sizeof(path), "/proc/%d/cmdline", pid));
  std::ifstream file(path);
  if (!file) {
    return std::nullopt;
  }
  std::string line;
  static_cast<void>(std::getline(file, line));
  return line;
}

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
  // Required: the first colon of the whole line counts, wherever the marker stands, and a line
  // without one is taken whole; what is no number is refused when it is read. Pinned by
  // SessionDiscovery.*Colon*.
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
    const std::optional<std::string> commandLine = readCommandLine(process.iPid);
    if (!commandLine) {
      continue;
    }
    if (std::string display = displayOfCommandLine(*commandLine); !display.empty()) {
      displays.push_back(std::move(display));
    }
  }
  return displays;
}

}  // namespace mendline
