#include "bench/micro/Population.h"

#include <condition_variable>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

#include "Crowd.h"
#include "Error.h"
#include "PrivateHost.h"
#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

namespace mendline::bench {
namespace {

std::unique_ptr<Crowd> crowd;
std::int64_t population = -1;
std::unique_ptr<Samples> samples;
bool failed = false;

PerfSample readHost() {
  PerfSample sample;
  if (!ListProcesses(sample.processes) || !getSystemPerfStats(sample.system)) {
    throw rig::Error("the private host can't be read");
  }
  sample.hasProtocolData = true;
  sample.displayNames = {"103"};
  sample.protocolMetrics = {{"103", 42.0}};
  return sample;
}

PerfSample halfAMinuteLater(const PerfSample& before) {
  PerfSample after = before;
  after.system.uptime += 30;
  after.system.cpuUser += 1'500;
  after.system.cpuSystem += 500;
  after.system.cpuIdle += 4'000;
  after.system.diskReads += 700;
  after.system.diskReadMs += 900;
  after.system.diskWrites += 800;
  after.system.diskWriteMs += 1'700;
  after.processes.clear();
  for (ProcessInfo info : before.processes) {
    info.ulUserTime += static_cast<std::uint64_t>(info.iPid % 7);
    info.ulSystemTime += static_cast<std::uint64_t>(info.iPid % 5);
    info.ullReadBytesCount += static_cast<std::uint64_t>(info.iPid) * 512;
    info.ullWriteBytesCount += static_cast<std::uint64_t>(info.iPid % 3) * 4'096;
    after.processes.insert(std::move(info));
  }
  return after;
}

}  // namespace

void populate(std::int64_t processes) {
  if (processes != population) {
    samples.reset();
    crowd.reset();
    population = -1;
    crowd = std::make_unique<Crowd>(static_cast<int>(processes));
    population = processes;
  }
}

const Samples& samplesOf(std::int64_t processes) {
  populate(processes);
  if (samples == nullptr) {
    auto taken = std::make_unique<Samples>();
    taken->first = readHost();
    taken->second = halfAMinuteLater(taken->first);
    samples = std::move(taken);
  }
  return *samples;
}

void registerForEachPopulation(const std::function<void(std::int64_t processes)>& registerOne) {
  for (const std::int64_t processes : kPopulations) {
    registerOne(processes);
  }
}

void reportPerProcess(benchmark::State& state) {
  using benchmark::Counter;
  state.counters["cpu/process"] =
      Counter(static_cast<double>(state.range(0)),
              Counter::Flags(Counter::kIsIterationInvariantRate | Counter::kInvert));
}

void fail(benchmark::State& state, const std::string& why) {
  failed = true;
  state.SkipWithError(why.c_str());
}

int runRegistered(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 64;
  }
  // The C and C++ libraries spare a process of one thread their locks and atomic operations; a JVM
  // has many threads.
  const std::jthread other([](const std::stop_token& stop) {
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable_any().wait(lock, stop, [] { return false; });
  });
  try {
    // Throws where there is no private host, whose log and whose processes these are to be.
    const rig::PrivateHost host;
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "%s: %s\n", argv[0], problem.what());
    failed = true;
  }
  samples.reset();
  crowd.reset();
  benchmark::Shutdown();
  return failed ? 1 : 0;
}

}  // namespace mendline::bench
