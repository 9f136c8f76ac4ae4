// What one tick costs behind the reading of the host: each generator's work on a sample.
#include "bench/micro/Population.h"
#include "generators/HistoricalMetricGenerator.h"
#include "generators/ProcessMetricGenerator.h"

using namespace mendline;
using namespace mendline::bench;

namespace {

// Two samples in turn, so that figures move and every process is found in the sample before.
template <typename Generator>
void generate(benchmark::State& state) {
  const Samples& host = samplesOf(state.range(0));
  Generator& generator = *Generator::getInstance();
  generator.generate(host.first);
  bool second = true;
  for (auto _ : state) {
    generator.generate(second ? host.second : host.first);
    second = !second;
  }
  reportPerProcess(state);
}

}  // namespace

int main(int argc, char** argv) {
  registerForEachPopulation([](std::int64_t processes) {
    benchmark::RegisterBenchmark("ProcessMetricGenerator::generate",
                                 generate<ProcessMetricGenerator>)
        ->Arg(processes)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("HistoricalMetricGenerator::generate",
                                 generate<HistoricalMetricGenerator>)
        ->Arg(processes)
        ->Unit(benchmark::kMicrosecond);
  });
  return runRegistered(argc, argv);
}
