// Starts and stops the collector: display range, session counter segment, generators, thread.
//
// Called by request threads, without a lock of its own: overlapping calls are guarded against each
// other only inside PerfCollector. Messages go out under the tag "MendLineOperation".
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstdint>

namespace mendline {

// True when the collection thread runs at the end of the call. Each failure is logged at Error and
// ends the call at once; nothing is rolled back, and a later StopCollector cleans up. While the
// thread runs, a further call repeats every step: all records are zeroed, and the segment is
// attached once more, the former attachment staying.
bool StartCollector();

// Ends the thread, removes the segment and the key file, and ends NVML if it runs. Never fails,
// also when nothing runs.
void StopCollector();

// Starts the GPU memory figures of LbMetrics; true when they are there. They end with
// StopCollector, and a later StartCollector does not bring them back.
bool StartvGPUMemoryCollector();

// Zeroes the record of the display that the request names; a display that is missing or no number
// of the table is logged at Warn. Nothing tests that a segment is attached: without one the process
// ends.
void ClearShm(const boost::property_tree::ptree& request);

// Corrects a configured display range in place, to at most 60 displays between 0 and 59535, and
// tells it before and after on standard output.
void clampDisplayNumberConfig(std::int32_t& min, std::int32_t& max);

}  // namespace mendline
