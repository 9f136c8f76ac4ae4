// A line of the log against the least that a line of a file can cost, and a message that is not
// written.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Error.h"
#include "HostPaths.h"
#include "bench/micro/Population.h"
#include "logging/InternalLogger.h"

using namespace mendline;
using namespace mendline::bench;

namespace {

constinit const LogTag kTag("ProcessQuery");

// The log's own size before it is rotated, so that both files are of one size on average.
constexpr long kLargestFile = 25L * 1024 * 1024;

// A file of the tmpfs that holds the log.
class PlainFile {
 public:
  PlainFile() : stream_(std::fopen(path().c_str(), "a")) {
    if (stream_ == nullptr) {
      rig::throwErrno("cannot open " + path());
    }
  }
  ~PlainFile() {
    std::fclose(stream_);
    unlink(path().c_str());
  }
  PlainFile(const PlainFile&) = delete;
  PlainFile& operator=(const PlainFile&) = delete;

  // The line that writeLogLine makes, its time and thread being ready-made text here.
  void writeLine(int number) {
    std::fprintf(stream_, "%s %-5s <%lx> [%s] Process %d may not exist, %s\n",
                 "2026-03-09 14:05:31:142", "Info", 0x7f1c2a7fc700UL, kTag.name, number,
                 "no such file or directory");
    std::fflush(stream_);
  }

  void limit() {
    if (std::ftell(stream_) > kLargestFile && ftruncate(fileno(stream_), 0) != 0) {
      rig::throwErrno("cannot empty " + path());
    }
  }

 private:
  static std::string path() { return std::string(rig::kLogDirectory) + "/plain-file"; }

  std::FILE* stream_;
};

void writeLogLine(int number) {
  LogInfo(&kTag, "Process %d may not exist, %s", number, "no such file or directory");
}

void written(benchmark::State& state) {
  SetLogThreshold(LogLevel::Info);
  int number = 0;
  for (auto _ : state) {
    writeLogLine(++number % 10'000);
  }
}

void plain(benchmark::State& state) {
  PlainFile file;
  int number = 0;
  for (auto _ : state) {
    file.writeLine(++number % 10'000);
    if (number % 10'000 == 0) {
      file.limit();
    }
  }
}

void filtered(benchmark::State& state) {
  SetLogThreshold(LogLevel::Warn);
  int number = 0;
  for (auto _ : state) {
    writeLogLine(++number);
  }
  SetLogThreshold(LogLevel::Info);
}

double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double quantile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

// Both in turn, a thousand lines each, so that what else the machine does meets both alike.
void writtenAgainstPlain(benchmark::State& state) {
  constexpr int kLines = 1'000;
  SetLogThreshold(LogLevel::Info);
  PlainFile file;
  std::vector<double> ratios;
  for (auto _ : state) {
    const double begin = cpuSeconds();
    for (int line = 0; line < kLines; ++line) {
      writeLogLine(line);
    }
    const double middle = cpuSeconds();
    for (int line = 0; line < kLines; ++line) {
      file.writeLine(line);
    }
    const double end = cpuSeconds();
    ratios.push_back((middle - begin) / (end - middle));
    file.limit();
  }
  std::sort(ratios.begin(), ratios.end());
  state.counters["ratio"] = quantile(ratios, 0.5);
  state.counters["ratio_quartile1"] = quantile(ratios, 0.25);
  state.counters["ratio_quartile3"] = quantile(ratios, 0.75);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("log line, written", written);
  benchmark::RegisterBenchmark("fprintf and fflush of the same line", plain);
  benchmark::RegisterBenchmark("log line written / fprintf and fflush", writtenAgainstPlain)
      ->Iterations(400)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("log line, filtered", filtered);
  return runRegistered(argc, argv);
}
