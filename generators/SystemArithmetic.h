// Two snapshots in, percentages, rates and latencies out.
//
// Pure functions, callable from anywhere; none can fail. `prev` is the older snapshot. Differences
// of counters wrap in unsigned 64-bit arithmetic and are converted to double afterwards, so a
// counter that went backwards gives a huge figure, never a negative one. Only the latencies guard
// against a zero divisor; elsewhere NaN and infinity pass on as values.
#pragma once

#include <cstdint>

#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

namespace mendline {

// Clock ticks over all CPUs: user, system and idle. Nice time makes no tick pass.
std::uint64_t elapsedTicks(const SystemPerfStats& prev, const SystemPerfStats& cur);

// Percent of all CPUs. NaN when no tick passed.
double cpuUsage(const SystemPerfStats& prev, const SystemPerfStats& cur);

// Percent of memTotal.
double memUsage(const SystemPerfStats& cur);

// Operations per second. Infinite or NaN when `uptime` did not advance.
double diskReadRate(const SystemPerfStats& prev, const SystemPerfStats& cur);
double diskWriteRate(const SystemPerfStats& prev, const SystemPerfStats& cur);

// Milliseconds per operation, cut to a whole number; 0 without operations.
double diskLatency(const SystemPerfStats& prev, const SystemPerfStats& cur);

// Milliseconds per operation, with its fraction; 0 without operations.
double diskReadLatency(const SystemPerfStats& prev, const SystemPerfStats& cur);
double diskWriteLatency(const SystemPerfStats& prev, const SystemPerfStats& cur);

// Clock ticks of a process since its start, and between two readings of it.
std::uint64_t processCpuTicks(const ProcessInfo& info);
std::uint64_t processCpuTicksDelta(const ProcessInfo& prevInfo, const ProcessInfo& curInfo);

}  // namespace mendline
