// What the collection thread hands to its generators once per tick, and their abstract base.
//
// Samples belong to the collection thread; what a generator shares with request threads it guards
// with a lock of its own.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

namespace mendline {

// One tick's view of the host. The tick owns it, until after its wait; whoever needs it longer
// copies it. The zero state is what a generator's first comparison runs against.
struct PerfSample {
  // The worker and at least one display were found, so the session counters were read.
  bool hasProtocolData = false;
  // Display number of each session as text, for example "103", in the order of discovery.
  std::vector<std::string> displayNames;
  ProcessInfoSet processes;
  SystemPerfStats system;
  // Display to round trip time, in the worker's unit. A display may lack an entry.
  std::unordered_map<std::string, double> protocolMetrics;
};

class MetricGenerator {
 public:
  virtual ~MetricGenerator() = default;

  // Called by the collection thread only, one call at a time. There is no error result, and nothing
  // catches what it throws: a generator handles its own failures.
  virtual void generate(const PerfSample& sample) = 0;
};

}  // namespace mendline
