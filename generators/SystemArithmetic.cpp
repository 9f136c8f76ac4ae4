#include "generators/SystemArithmetic.h"

namespace mendline {
namespace {

double perSecond(std::uint64_t operations, const SystemPerfStats& prev,
                 const SystemPerfStats& cur) {
  // The one difference that keeps its sign.
  const auto seconds = static_cast<std::int64_t>(static_cast<std::uint64_t>(cur.uptime) -
                                                 static_cast<std::uint64_t>(prev.uptime));
  return static_cast<double>(operations) / static_cast<double>(seconds);
}

double perOperation(std::uint64_t milliseconds, std::uint64_t operations) {
  if (operations == 0) {
    return 0.0;
  }
  return static_cast<double>(milliseconds) / static_cast<double>(operations);
}

}  // namespace

// Required: nice time counts neither as busy nor as passed. Pinned by SystemArithmetic.*Nice*.
std::uint64_t elapsedTicks(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  return (cur.cpuUser - prev.cpuUser) + (cur.cpuSystem - prev.cpuSystem) +
         (cur.cpuIdle - prev.cpuIdle);
}

double cpuUsage(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  const std::uint64_t busy = (cur.cpuUser - prev.cpuUser) + (cur.cpuSystem - prev.cpuSystem);
  const std::uint64_t total = busy + (cur.cpuIdle - prev.cpuIdle);
  return static_cast<double>(busy) * 100.0 / static_cast<double>(total);
}

double memUsage(const SystemPerfStats& cur) {
  return static_cast<double>(cur.memTotal - cur.memAvailable) * 100.0 /
         static_cast<double>(cur.memTotal);
}

double diskReadRate(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  return perSecond(cur.diskReads - prev.diskReads, prev, cur);
}

double diskWriteRate(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  return perSecond(cur.diskWrites - prev.diskWrites, prev, cur);
}

double diskLatency(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  const std::uint64_t operations =
      (cur.diskWrites - prev.diskWrites) + (cur.diskReads - prev.diskReads);
  if (operations == 0) {
    return 0.0;
  }
  const std::uint64_t milliseconds =
      (cur.diskReadMs - prev.diskReadMs) + (cur.diskWriteMs - prev.diskWriteMs);
  // Required: whole milliseconds, unlike the two latencies below. Pinned by
  // SystemArithmetic.DiskLatencyIsCutToWholeMilliseconds.
  const std::uint64_t wholeMilliseconds = milliseconds / operations;
  return static_cast<double>(wholeMilliseconds);
}

double diskReadLatency(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  return perOperation(cur.diskReadMs - prev.diskReadMs, cur.diskReads - prev.diskReads);
}

double diskWriteLatency(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  return perOperation(cur.diskWriteMs - prev.diskWriteMs, cur.diskWrites - prev.diskWrites);
}

std::uint64_t processCpuTicks(const ProcessInfo& info) {
  return info.ulUserTime + info.ulSystemTime;
}

std::uint64_t processCpuTicksDelta(const ProcessInfo& prevInfo, const ProcessInfo& curInfo) {
  return curInfo.ulUserTime + curInfo.ulSystemTime - prevInfo.ulSystemTime - prevInfo.ulUserTime;
}

}  // namespace mendline
