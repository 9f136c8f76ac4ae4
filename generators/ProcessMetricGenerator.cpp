#include "generators/ProcessMetricGenerator.h"

#include <boost/property_tree/ptree.hpp>
#include <mutex>
#include <utility>

#include "generators/NumberConversion.h"
#include "generators/SystemArithmetic.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("ProcessMetricGenerator");

// Guards `timestamp` and `processes` of the generator. The logger's mutex may be taken under it.
std::mutex processMetricsMutex;

// The sample of the last call, the generator's own copy. Only the collection thread uses the two.
// They are built when the library is loaded, so that they outlive the collection thread.
SystemPerfStats previousSystem;
ProcessInfoSet previousProcesses;

ProcessMetricSet buildTable(const ProcessInfoSet& processes, std::uint64_t elapsed) {
  std::uint64_t pageSize = 0;
  static_cast<void>(getPageSize(pageSize));

  ProcessMetricSet table;
  for (const ProcessInfo& info : processes) {
    ProcessMetric metric;
    if (const auto previous = previousProcesses.find(info); previous != previousProcesses.end()) {
      metric.cpu = truncateToUnsigned(processCpuUsage(*previous, info, elapsed));
      metric.disk = processDiskDelta(*previous, info);
    }
    metric.mem = pageSize * info.ulMemory;
    metric.create_time = GetProcessCreateTime(info);
    metric.id = info.iPid;
    metric.name = info.strProcessName;
    static_cast<void>(getUserName(info.uiUserId, metric.user_name));
    static_cast<void>(table.insert(std::move(metric)));
  }
  return table;
}

ptree processElement(const ProcessMetric& metric) {
  ptree element;
  element.put("id", decimalText(metric.id));
  element.put("create_time", decimalText(metric.create_time));
  element.put("name", metric.name);
  element.put("cpu", decimalText(metric.cpu));
  element.put("mem", decimalText(metric.mem));
  element.put("disk", decimalText(metric.disk));
  element.put("user_name", metric.user_name);
  return element;
}

}  // namespace

double processCpuUsage(const ProcessInfo& prevInfo, const ProcessInfo& curInfo,
                       std::uint64_t elapsed) {
  return static_cast<double>(processCpuTicksDelta(prevInfo, curInfo)) * 100.0 /
         static_cast<double>(elapsed);
}

std::uint64_t processDiskDelta(const ProcessInfo& prevInfo, const ProcessInfo& curInfo) {
  return (curInfo.ullReadBytesCount + curInfo.ullWriteBytesCount) -
         (prevInfo.ullReadBytesCount + prevInfo.ullWriteBytesCount);
}

std::shared_ptr<ProcessMetricGenerator> ProcessMetricGenerator::getInstance() {
  // This owner is never destroyed: a request may still be in here when the process exits.
  static const auto& owner =
      *new std::shared_ptr<ProcessMetricGenerator>(std::make_shared<ProcessMetricGenerator>());
  return owner;
}

void ProcessMetricGenerator::generate(const PerfSample& sample) {
  // Copies, because they are kept for the next tick and the sample is not this generator's.
  ProcessInfoSet currentProcesses = sample.processes;
  SystemPerfStats currentSystem = sample.system;

  // Required: called twice with one sample, the second call sees no tick pass, and its table, with
  // 9223372036854775808 as every `cpu`, is the one that stays. Pinned by
  // ProcessMetricGenerator.*Twice*.
  const std::uint64_t elapsed = elapsedTicks(previousSystem, currentSystem);
  ProcessMetricSet table = buildTable(currentProcesses, elapsed);
  std::uint64_t newTimestamp = 0;
  static_cast<void>(getSystemUptime(newTimestamp));

  std::swap(previousProcesses, currentProcesses);
  std::swap(previousSystem, currentSystem);

  const std::lock_guard lock(processMetricsMutex);
  timestamp = newTimestamp;
  processes = std::move(table);
}

void ProcessMetricGenerator::removeProcess(std::int32_t pid, std::uint64_t createTime) {
  ProcessMetric key;
  key.id = pid;
  key.create_time = createTime;

  const std::lock_guard lock(processMetricsMutex);
  processes.erase(key);
  LogDebug(&kTag, "process: %d which created at %llu is removed", pid,
           static_cast<unsigned long long>(createTime));
}

void ProcessMetricGenerator::fillProcessMetrics(ptree& tree) {
  const std::lock_guard lock(processMetricsMutex);
  tree.put("timestamp", decimalText(timestamp));
  for (const ProcessMetric& metric : processes) {
    tree.push_back(std::make_pair("process", processElement(metric)));
  }
}

bool reportProcessMetrics(ptree& responseTree) {
  ptree report;
  ProcessMetricGenerator::getInstance()->fillProcessMetrics(report);
  responseTree.push_back(std::make_pair("processMetrics", report));
  return true;
}

}  // namespace mendline
