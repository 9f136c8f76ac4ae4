// What a host pays for the collector: processor time per tick, and memory, for each number of
// processes given as an argument. Runs on a private host; bench/cost builds and starts it.
#include <time.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "Crowd.h"
#include "gateway/MendLineOperation.h"
#include "generators/HistoricalMetricGenerator.h"
#include "generators/ProcessMetricGenerator.h"
#include "subjects/Allocations.h"

namespace mendline::bench {
namespace {

constexpr int kTicks = 31;  // one more than the history holds

double processorMilliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// As the collection thread does it. The sample is there until the wait behind it is over.
std::unique_ptr<PerfSample> tick() {
  auto sample = std::make_unique<PerfSample>();
  if (!ListProcesses(sample->processes) || !getSystemPerfStats(sample->system)) {
    throw std::runtime_error("the host cannot be read");
  }
  ProcessMetricGenerator::getInstance()->generate(*sample);
  HistoricalMetricGenerator::getInstance()->generate(*sample);
  return sample;
}

void measure(int wanted) {
  const Crowd crowd(wanted);
  const std::size_t before = startHighWaterMark();
  std::array<double, kTicks> milliseconds = {};
  std::unique_ptr<PerfSample> sample;
  for (double& time : milliseconds) {
    sample.reset();
    const double began = processorMilliseconds();
    sample = tick();
    time = processorMilliseconds() - began;
  }
  const auto processes = static_cast<double>(sample->processes.size());
  const double atMost = static_cast<double>(highWaterMark() - before) / processes;
  const std::size_t kept = startHighWaterMark();
  std::string answer;
  handleRequest("<MendlineOperation><opcode>ProcessMetrics</opcode></MendlineOperation>", answer);
  const double request = static_cast<double>(highWaterMark() - kept) / processes;
  std::ranges::sort(milliseconds);
  const double median = milliseconds[kTicks / 2];
  constexpr double kInterval = 30e3;
  std::printf("%9.0f %12.1f %14.3f %% %12.1f %12.0f %12.0f %12.0f\n", processes, median,
              median * 100 / kInterval, static_cast<double>(kept - before) / 1024,
              static_cast<double>(kept - before) / processes, atMost, request);
  std::fflush(stdout);
}

}  // namespace
}  // namespace mendline::bench

int main(int argc, char** argv) {
  std::printf(
      "processes   ms per tick     of a core     kept, KiB    bytes of memory per process:\n"
      "                                                             kept   in a tick"
      "   a request\n");
  try {
    for (int i = 1; i < argc; ++i) {
      mendline::bench::measure(std::atoi(argv[i]));
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench-cost: %s\n", error.what());
    return 1;
  }
  return 0;
}
