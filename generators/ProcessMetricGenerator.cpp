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
  table.reserve(processes.size());
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

// A tree has no move: whatever is put into another one is copied with all its children. So an
// element goes in empty and is filled where it is, and the empty ones are made once per report.
struct RowElements {
  const ptree::value_type process{"process", ptree()};
  const ptree::value_type id{"id", ptree()};
  const ptree::value_type createTime{"create_time", ptree()};
  const ptree::value_type name{"name", ptree()};
  const ptree::value_type cpu{"cpu", ptree()};
  const ptree::value_type mem{"mem", ptree()};
  const ptree::value_type disk{"disk", ptree()};
  const ptree::value_type userName{"user_name", ptree()};
};

void append(ptree& tree, const ptree::value_type& empty, std::string text) {
  tree.push_back(empty)->second.data() = std::move(text);
}

void appendRow(ptree& tree, const RowElements& elements, const ProcessMetric& metric) {
  ptree& row = tree.push_back(elements.process)->second;
  append(row, elements.id, decimalText(metric.id));
  append(row, elements.createTime, decimalText(metric.create_time));
  append(row, elements.name, metric.name);
  append(row, elements.cpu, decimalText(metric.cpu));
  append(row, elements.mem, decimalText(metric.mem));
  append(row, elements.disk, decimalText(metric.disk));
  append(row, elements.userName, metric.user_name);
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
  // Required: called twice with one sample, the second call sees no tick pass, and its table, with
  // 9223372036854775808 as every `cpu`, is the one that stays. Pinned by
  // ProcessMetricGenerator.*Twice*.
  const std::uint64_t elapsed = elapsedTicks(previousSystem, sample.system);
  ProcessMetricSet table = buildTable(sample.processes, elapsed);
  std::uint64_t newTimestamp = 0;
  static_cast<void>(getSystemUptime(newTimestamp));

  // Copies, because the sample is not this generator's. Assigned, because that reuses the memory of
  // the elements that were there.
  previousProcesses = sample.processes;
  previousSystem = sample.system;

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
  const RowElements elements;
  const std::lock_guard lock(processMetricsMutex);
  tree.put("timestamp", decimalText(timestamp));
  for (const ProcessMetric& metric : processes) {
    appendRow(tree, elements, metric);
  }
}

bool reportProcessMetrics(ptree& responseTree) {
  ptree report;
  ProcessMetricGenerator::getInstance()->fillProcessMetrics(report);
  responseTree.push_back({"processMetrics", ptree()})->second.swap(report);
  return true;
}

}  // namespace mendline
