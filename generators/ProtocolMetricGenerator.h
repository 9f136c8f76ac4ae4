// The live counters of one remote session as a report, read from its record in shared memory at the
// moment of the request.
//
// Called by request threads, whose reports take turns; the collection thread never comes here.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <memory>
#include <string>

#include "generators/MetricGenerator.h"

namespace mendline {

// Keeps no sample and is never registered with the collector.
class ProtocolMetricGenerator : public MetricGenerator {
 public:
  // The one object, created on first use; the caller shares its ownership.
  static std::shared_ptr<ProtocolMetricGenerator> getInstance();

  void generate(const PerfSample& /*sample*/) override {}

  // Adds a "flare" element with the counters of a display, such as "103", to `tree`. Leaves `tree`
  // as it is, with a line at Warn, when that is no display of the segment. Each counter is one
  // whole word, but the worker may write between two of them.
  // Required: nothing tests that a segment is attached; without one an admitted display ends the
  // process. Pinned by ProtocolOperation.EndsTheProcessWithNoSegmentAttached.
  void report(const std::string& display, boost::property_tree::ptree& tree);
};

// Appends a "protocol" element, empty for what is no display, to `responseTree`. Always true.
bool protocolInfoReport(const std::string& display, boost::property_tree::ptree& responseTree);

}  // namespace mendline
