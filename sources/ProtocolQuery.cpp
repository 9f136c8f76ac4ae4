#include "sources/ProtocolQuery.h"

#include "collector/SessionCounters.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

constinit const LogTag kTag("ProtocolQuery");

}  // namespace

void readProtocolMetrics(const std::vector<std::string>& displayNames,
                         std::unordered_map<std::string, double>& protocolMetrics) {
  if (displayNames.empty()) {
    return;
  }
  void* const base = loadShared(sessionShmBase);
  for (const std::string& display : displayNames) {
    const std::int32_t index = displayIndex(display);
    // Required: the first display that is none ends the reading of the rest. Pinned by
    // ReadProtocolMetrics.*.
    if (!isAdmittedIndex(index)) {
      LogWarn(&kTag, "Invalid display number %s", display.c_str());
      return;
    }
    protocolMetrics[display] = loadShared(sessionRecord(base, index)->rtt);
    // "%1f" is a width, not a precision: the value has six decimals.
    LogTrace(&kTag, "display %s, rtt is %1f", display.c_str(), protocolMetrics.at(display));
    LogTrace(&kTag, "display length is %d", static_cast<int>(display.size()));
  }
}

}  // namespace mendline
