// What the benchmarks have in common: a host of N processes, and two samples of it.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>

#include "generators/MetricGenerator.h"

namespace mendline::bench {

inline constexpr std::int64_t kPopulations[] = {100, 1'000, 10'000};

struct Samples {
  PerfSample first;
  // The same processes 30 seconds later, each of which has used the processor and a disk.
  PerfSample second;
};

// Makes sure that the private host has that many idle processes of 20 users. They live until
// another number is asked for, since making 10,000 takes seconds: benchmarks of one number should
// run one after the other. Throws rig::Error where the machine does not let them live.
void populate(std::int64_t processes);

// The host of that many processes as the library reads it.
const Samples& samplesOf(std::int64_t processes);

// Registers the benchmarks of each population together, so that each is made once.
void registerForEachPopulation(const std::function<void(std::int64_t processes)>& registerOne);

// Adds the CPU time per process to what is reported.
void reportPerProcess(benchmark::State& state);

// Gives a benchmark up: what it was to measure is not what happens. The program will fail.
void fail(benchmark::State& state, const std::string& why);

// Runs what has been registered, as BENCHMARK_MAIN does but beside a second, idle thread, and ends
// the processes.
int runRegistered(int argc, char** argv);

}  // namespace mendline::bench
