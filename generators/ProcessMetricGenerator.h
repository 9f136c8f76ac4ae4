// The latest figures of every process of the host, one table per tick, and their report.
//
// `generate` runs on the collection thread; everything else on request threads.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

#include "generators/MetricGenerator.h"

namespace mendline {

// One process in one tick.
struct ProcessMetric {
  std::int32_t id = 0;            // pid
  std::uint64_t cpu = 0;          // whole percent of all CPUs over the last tick interval
  std::uint64_t mem = 0;          // resident bytes
  std::uint64_t disk = 0;         // bytes read and written over the last tick interval
  std::uint64_t create_time = 0;  // seconds since the epoch
  std::string name;
  std::string user_name;  // empty if the uid has no name
};

// Not noexcept: that makes the standard library keep the hash code in the element.
struct ProcessMetricHash {
  std::size_t operator()(const ProcessMetric& metric) const {
    return (metric.create_time + 527) * 31 +
           static_cast<std::uint64_t>(static_cast<std::int64_t>(metric.id));
  }
};

struct ProcessMetricEqual {
  bool operator()(const ProcessMetric& left, const ProcessMetric& right) const {
    return left.id == right.id && left.create_time == right.create_time;
  }
};

using ProcessMetricSet = std::unordered_set<ProcessMetric, ProcessMetricHash, ProcessMetricEqual>;

class ProcessMetricGenerator : public MetricGenerator {
 public:
  // The one object, created on first use; the caller shares its ownership.
  static std::shared_ptr<ProcessMetricGenerator> getInstance();

  // Compares the tick's processes with those of the previous call and publishes a new table in one
  // step. A source that fails degrades one figure: 0 for memory or creation time, an empty user
  // name, 0 for the timestamp; the reader that failed has logged it.
  void generate(const PerfSample& sample) override;

  // Removes one row, if it is there, and logs at Debug either way. A table published later brings
  // the row back if its sample still had the process.
  void removeProcess(std::int32_t pid, std::uint64_t createTime);

  // Adds "timestamp" and one "process" element per row to `tree`, in the table's own order, with
  // the table locked throughout.
  void fillProcessMetrics(boost::property_tree::ptree& tree);

 private:
  // Both guarded by processMetricsMutex of the source file.
  std::uint64_t timestamp = 0;  // seconds since boot at the end of the tick that built the table
  ProcessMetricSet processes;
};

// Percent of `elapsed` clock ticks, which count all CPUs. Not clamped, not guarded against 0.
double processCpuUsage(const ProcessInfo& prevInfo, const ProcessInfo& curInfo,
                       std::uint64_t elapsed);

// Bytes read and written between the two readings; wraps.
std::uint64_t processDiskDelta(const ProcessInfo& prevInfo, const ProcessInfo& curInfo);

// Appends a "processMetrics" element with the latest table to `responseTree`. Always true.
bool reportProcessMetrics(boost::property_tree::ptree& responseTree);

}  // namespace mendline
