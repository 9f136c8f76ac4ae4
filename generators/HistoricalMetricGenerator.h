// The history of the host, its users and its displays: one record per tick, the last 30 of them,
// the latest host figures, and the report of one user's records.
//
// `generate` runs on the collection thread, everything else on request threads.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "generators/MetricGenerator.h"

namespace mendline {

// A figure of the host. In this order: "overall_cpu" and "overall_mem" in percent,
// "disk_iops_reads" and "disk_iops_writes" per second, "disk_latency" in whole milliseconds.
struct NamedMetric {
  std::string name;
  double value = 0.0;
};

// A figure of one user, "cpu" or "mem", in percent of the whole host.
struct UserMetric {
  std::int32_t uid = 0;
  std::string name;
  double value = 0.0;
};

// What one tick showed, compared with the sample before it.
struct HistoryRecord {
  std::uint64_t uptime = 0;  // seconds since boot when the record was made; 0 if it can't be read
  std::vector<NamedMetric> systemMetrics;
  std::vector<UserMetric> userMetrics;  // "cpu" and "mem" of each user with a process
  std::unordered_map<std::string, double> sessionMetrics;  // display to round trip time
};

// The host figures of the last interval, all 0 before the first tick.
// Required: the names are those of the answer's elements and promise other things than the values
// are. Pinned by HistoricalMetricGenerator.PublishesLatenciesAndTheSumOfTheRates.
struct LatestSystemFigures {
  double cpuUsage = 0.0;   // percent
  double memUsage = 0.0;   // percent
  double diskRead = 0.0;   // milliseconds per read
  double diskWrite = 0.0;  // milliseconds per write
  double diskQueue = 0.0;  // reads and writes per second
};

class HistoricalMetricGenerator : public MetricGenerator {
 public:
  // The one object, created on first use; the caller shares its ownership.
  static std::shared_ptr<HistoricalMetricGenerator> getInstance();

  // Makes exactly one record of the sample and the one of the call before, however old that is. The
  // first call compares with a sample of zeros, so its figures are averages since boot.
  void generate(const PerfSample& sample) override;

  // A copy, taken under the lock. Works before any tick and without a collector.
  static LatestSystemFigures getLatestSystemFigures();

  // Appends a "historicalMetrics" element to `responseTree`, one "metric" per record, oldest first;
  // nothing when there is no record. The user's and the display's figures are left out of a record
  // that lacks them. False, after a line at Error, when the user database has no such user.
  static bool getHistoricalMetrics(const std::string& userName, const std::string& display,
                                   boost::property_tree::ptree& responseTree);

  // At most this many records are kept, the oldest going first.
  static constexpr std::size_t kMaxRecords = 30;

 private:
  void appendRecord(const HistoryRecord& record);
  void buildReport(std::uint32_t uid, const std::string& display,
                   boost::property_tree::ptree& responseTree);

  // Oldest first. Guarded by historyMutex of the source file.
  std::deque<HistoryRecord> history;
};

}  // namespace mendline
