// Reading the host: all processes, one process, the host's own figures.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "bench/micro/Population.h"
#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

using namespace mendline;
using namespace mendline::bench;

namespace {

void listProcesses(benchmark::State& state) {
  populate(state.range(0));
  for (auto _ : state) {
    ProcessInfoSet processes;
    if (!ListProcesses(processes) || processes.size() < static_cast<std::size_t>(state.range(0))) {
      fail(state, "the processes can't be read");
      break;
    }
  }
  reportPerProcess(state);
}

void getProcessInfo(benchmark::State& state) {
  const int self = getpid();
  for (auto _ : state) {
    ProcessInfo info;
    if (!GetProcessInfo(self, info)) {
      fail(state, "this process can't be read");
      break;
    }
  }
}

// Once per process and tick.
void getProcessCreateTime(benchmark::State& state) {
  ProcessInfo self;
  if (!GetProcessInfo(getpid(), self)) {
    fail(state, "this process can't be read");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(GetProcessCreateTime(self));
  }
}

// Once per process and tick; the user stands at the end of a list of 27.
void userNameOf(benchmark::State& state) {
  const Samples& host = samplesOf(state.range(0));
  std::uint32_t last = 0;
  for (const ProcessInfo& info : host.first.processes) {
    last = std::max(last, info.uiUserId);
  }
  for (auto _ : state) {
    std::string name;
    if (!getUserName(last, name)) {
      fail(state, "there is no such user");
      break;
    }
  }
}

void systemPerfStats(benchmark::State& state) {
  for (auto _ : state) {
    SystemPerfStats stats;
    if (!getSystemPerfStats(stats)) {
      fail(state, "the host can't be read");
      break;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("getSystemPerfStats", systemPerfStats);
  benchmark::RegisterBenchmark("GetProcessInfo", getProcessInfo);
  benchmark::RegisterBenchmark("GetProcessCreateTime", getProcessCreateTime);
  benchmark::RegisterBenchmark("getUserName", userNameOf)->Arg(kPopulations[0]);
  registerForEachPopulation([](std::int64_t processes) {
    benchmark::RegisterBenchmark("ListProcesses", listProcesses)
        ->Arg(processes)
        ->Unit(benchmark::kMicrosecond);
  });
  return runRegistered(argc, argv);
}
