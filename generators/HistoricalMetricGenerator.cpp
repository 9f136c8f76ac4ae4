#include "generators/HistoricalMetricGenerator.h"

#include <boost/property_tree/ptree.hpp>
#include <mutex>
#include <utility>

#include "generators/NumberConversion.h"
#include "generators/SystemArithmetic.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("HistoricalMetricGenerator");

// Guards `history` of the generator and `latestFigures`. No other lock is taken under it.
std::mutex historyMutex;
LatestSystemFigures latestFigures;

// The last sample that reached generate, in the zero state before the first. Only the collection
// thread uses it. It is built when the library is loaded and not at first use: a static that was
// built on the collection thread would be destroyed at exit before that thread has been joined.
PerfSample previousSample;

// What one user's processes add up to in one tick.
struct UserSums {
  std::uint64_t cpuTicks = 0;
  std::uint64_t memoryPages = 0;
};

void sampleSystem(const SystemPerfStats& prevStats, const SystemPerfStats& curStats,
                  HistoryRecord& record) {
  LatestSystemFigures figures;
  figures.cpuUsage = cpuUsage(prevStats, curStats);
  figures.memUsage = memUsage(curStats);
  figures.diskRead = diskReadLatency(prevStats, curStats);
  figures.diskWrite = diskWriteLatency(prevStats, curStats);
  const double readRate = diskReadRate(prevStats, curStats);
  const double writeRate = diskWriteRate(prevStats, curStats);
  figures.diskQueue = readRate + writeRate;
  LogTrace(&kTag, "cpuUsage %.2f, memUsage %.2f, diskRead %.2f, diskWrite %.2f, diskIops %.2f\n",
           figures.cpuUsage, figures.memUsage, figures.diskRead, figures.diskWrite,
           figures.diskQueue);

  record.systemMetrics = {{"overall_cpu", figures.cpuUsage},
                          {"overall_mem", figures.memUsage},
                          {"disk_iops_reads", readRate},
                          {"disk_iops_writes", writeRate},
                          {"disk_latency", diskLatency(prevStats, curStats)}};

  const std::lock_guard lock(historyMutex);
  latestFigures = figures;
}

void sampleUsers(const ProcessInfoSet& prevProcesses, const ProcessInfoSet& curProcesses,
                 std::uint64_t elapsed, std::uint64_t memTotal, HistoryRecord& record) {
  std::unordered_map<std::int32_t, UserSums> perUser;
  for (const ProcessInfo& cur : curProcesses) {
    const auto previous = prevProcesses.find(cur);
    UserSums& sums = perUser[static_cast<std::int32_t>(cur.uiUserId)];
    // Required: a process first seen now is charged with its whole life. Pinned by
    // HistoricalMetricGenerator.ChargesAProcessSeenForTheFirstTimeWithItsWholeLife.
    sums.cpuTicks += previous != prevProcesses.end() ? processCpuTicksDelta(*previous, cur)
                                                     : processCpuTicks(cur);
    sums.memoryPages += cur.ulMemory;
  }

  for (const auto& [uid, sums] : perUser) {
    record.userMetrics.push_back(
        {uid, "cpu", static_cast<double>(sums.cpuTicks * 100) / static_cast<double>(elapsed)});
    std::uint64_t pageSize = 0;
    static_cast<void>(getPageSize(pageSize));
    record.userMetrics.push_back(
        {uid, "mem",
         static_cast<double>(sums.memoryPages * pageSize * 100) / static_cast<double>(memTotal)});
  }
}

void sampleSessions(const PerfSample& current, HistoryRecord& record) {
  if (!current.hasProtocolData) {
    return;
  }
  for (const std::string& display : current.displayNames) {
    if (const auto found = current.protocolMetrics.find(display);
        found != current.protocolMetrics.end()) {
      record.sessionMetrics[display] = found->second;
    }
  }
}

void update(const PerfSample& previous, const PerfSample& current, HistoryRecord& record) {
  sampleSystem(previous.system, current.system, record);
  sampleUsers(previous.processes, current.processes, elapsedTicks(previous.system, current.system),
              current.system.memTotal, record);
  sampleSessions(current, record);
  static_cast<void>(getSystemUptime(record.uptime));
}

// A tree has no move: whatever is put into another one is copied with all its children. So an
// element goes in empty and is filled where it is. No name comes twice in a record.
void append(ptree& tree, const std::string& name, std::string text) {
  tree.push_back({name, ptree()})->second.data() = std::move(text);
}

// Required: figures are cut to whole numbers, so a share of 0.6 percent is sent as 0 and NaN as
// 9223372036854775808. Pinned by HistoricalMetricsReport.*.
void fillMetric(ptree& element, const HistoryRecord& record, std::uint32_t uid,
                const std::string& display) {
  append(element, "timestamp", decimalText(record.uptime));
  for (const NamedMetric& metric : record.systemMetrics) {
    append(element, metric.name, decimalText(truncateToUnsigned(metric.value)));
  }
  if (const auto latency = record.sessionMetrics.find(display);
      latency != record.sessionMetrics.end()) {
    append(element, "flare_latency", decimalText(truncateToSigned(latency->second)));
  }
  for (const UserMetric& metric : record.userMetrics) {
    if (metric.uid == static_cast<std::int32_t>(uid)) {
      append(element, metric.name, decimalText(truncateToUnsigned(metric.value)));
    }
  }
}

}  // namespace

std::shared_ptr<HistoricalMetricGenerator> HistoricalMetricGenerator::getInstance() {
  // This owner is never destroyed: a request may still be in here when the process exits.
  static const auto& owner = *new std::shared_ptr<HistoricalMetricGenerator>(
      std::make_shared<HistoricalMetricGenerator>());
  return owner;
}

void HistoricalMetricGenerator::generate(const PerfSample& sample) {
  HistoryRecord record;
  update(previousSample, sample, record);
  appendRecord(record);
  // A copy, because the sample is not this generator's. Assigned, because that reuses the memory of
  // what was there.
  previousSample = sample;
}

LatestSystemFigures HistoricalMetricGenerator::getLatestSystemFigures() {
  const std::lock_guard lock(historyMutex);
  return latestFigures;
}

bool HistoricalMetricGenerator::getHistoricalMetrics(const std::string& userName,
                                                     const std::string& display,
                                                     ptree& responseTree) {
  const auto generator = getInstance();
  std::uint32_t uid = 0;
  if (!getUserId(userName, uid)) {
    LogError(&kTag, "Failed to find specific user: %s in local system", userName.c_str());
    return false;
  }
  generator->buildReport(uid, display, responseTree);
  return true;
}

void HistoricalMetricGenerator::buildReport(std::uint32_t uid, const std::string& display,
                                            ptree& responseTree) {
  const std::lock_guard lock(historyMutex);
  if (history.empty()) {
    return;
  }
  ptree& metrics = responseTree.push_back({"historicalMetrics", ptree()})->second;
  for (const HistoryRecord& record : history) {
    fillMetric(metrics.push_back({"metric", ptree()})->second, record, uid, display);
  }
}

void HistoricalMetricGenerator::appendRecord(const HistoryRecord& record) {
  const std::lock_guard lock(historyMutex);
  if (history.size() >= kMaxRecords) {
    history.pop_front();
  }
  history.push_back(record);
}

}  // namespace mendline
