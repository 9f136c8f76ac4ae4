// bench-compare: compares the library's work with its floors and its peers on a host of many idle
// processes. For the launcher `private-host`; bench/compare builds it, starts it and says what it
// takes.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "Comparison.h"
#include "Counts.h"
#include "Crowd.h"
#include "Guard.h"
#include "Rows.h"
#include "Subjects.h"

namespace mendline::bench {
namespace {

constexpr int kWrongCall = 64;

struct Options {
  std::vector<int> processes = {100, 1000, 10000};
  int rounds = 0;                     // 0: by the number of processes
  std::vector<std::string> subjects;  // all of them when empty
  bool times = true;
  bool guard = false;
};

// Throws std::logic_error where a number is none.
Options parse(int argc, char** argv) {
  const auto split = [](const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');) {
      parts.push_back(part);
    }
    return parts;
  };
  static const option kLong[] = {
      {"processes", required_argument, nullptr, 'p'}, {"rounds", required_argument, nullptr, 'r'},
      {"subjects", required_argument, nullptr, 's'},  {"counts", no_argument, nullptr, 'c'},
      {"guard", no_argument, nullptr, 'g'},           {nullptr, 0, nullptr, 0}};
  Options options;
  for (int choice = 0; (choice = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
    switch (choice) {
      case 'p':
        options.processes.clear();
        for (const std::string& number : split(optarg)) {
          options.processes.push_back(std::stoi(number));
        }
        break;
      case 'r':
        options.rounds = std::stoi(optarg);
        break;
      case 's':
        options.subjects = split(optarg);
        for (const std::string& subject : options.subjects) {
          static_cast<void>(subjectProgram(subject));
        }
        // Nothing says much without it.
        options.subjects.push_back("floor");
        break;
      case 'c':
        options.times = false;
        break;
      case 'g':
        options.guard = true;
        break;
      default:
        std::exit(kWrongCall);
    }
  }
  return options;
}

bool isChosen(const Options& options, const std::string& program) {
  return !rowsOf({{.name = "", .program = program, .what = "", .base = ""}}, options.subjects)
              .empty();
}

// About a minute for each number of processes.
int roundsFor(const Options& options, int processes) {
  constexpr int kMost = 30;
  constexpr int kLeast = 9;
  constexpr int kLarge = 5000;
  if (options.rounds > 0) {
    return options.rounds;
  }
  return processes >= kLarge ? kLeast : kMost;
}

void printHeading(const char* base) {
  std::printf("%-28s %12s %9s %9s %9s   %-24s %s\n", "", "us each", "spread", "ratio", "spread",
              base, "saw");
}

// What the subjects saw is measured by what the floor saw.
void printResult(const Result& result, const Result& reference) {
  std::printf("%-28s %12.3f %7.1f %% ", result.row.name.c_str(), result.microseconds,
              result.spread);
  if (result.row.base.empty() || result.ratio <= 0.0) {
    std::printf("%9s %9s   %-24s ", "", "", result.row.per == Per::kRequest ? "(one request)" : "");
  } else {
    std::printf("%9.3f %7.1f %%   %-24s ", result.ratio, result.ratioSpread,
                result.row.base.c_str());
  }
  if (result.processes == reference.processes && result.hash == reference.hash) {
    std::printf("the same\n");
  } else {
    std::printf("OTHERS (%lu)\n", result.processes);
  }
}

void printResults(const std::vector<Row>& rows, int rounds, const char* what) {
  if (rows.empty()) {
    return;
  }
  const std::vector<Result> results = compare(rows, rounds);
  std::printf("\n%s: %lu processes, %d rounds\n", what, results.front().processes, rounds);
  printHeading("to");
  for (const Result& result : results) {
    printResult(result, results.front());
  }
}

void printReportCosts(const Options& options) {
  constexpr int kRepeats = 31;
  constexpr double kPercent = 1e-4;  // of millionths
  for (const std::string program : {"ours", "against"}) {
    if (!isChosen(options, program)) {
      continue;
    }
    const Measurement peak = Subject(subjectProgram(program + "-memory")).order("report-peak", 3);
    const Measurement lock =
        Subject(subjectProgram(program + "-locks")).order("report-lock", kRepeats);
    std::printf("%-28s %12.0f bytes per process at most; a lock is held for %.1f %% of the time\n",
                (program + ", ProcessMetrics").c_str(),
                peak.value / static_cast<double>(peak.processes), lock.value * kPercent);
  }
}

void printCounts(const Options& options) {
  constexpr int kProcesses = 300;
  const Crowd crowd(kProcesses);
  std::printf("\nCounts per process, %d processes: instructions, system calls\n", kProcesses);
  for (const Row& row : tickRows()) {
    if ((row.program == "floor" || row.program == "ours" || row.program == "against") &&
        isChosen(options, row.program)) {
      const Counts counts = countPerProcess(subjectProgram(row.program), row.what);
      std::printf("%-28s %12.0f %9.2f\n", row.name.c_str(), counts.instructions,
                  counts.systemCalls);
    }
  }
}

void printTimes(const Options& options) {
  for (const int processes : options.processes) {
    const Crowd crowd(processes);
    const int rounds = roundsFor(options, processes);
    std::printf("\n== %d idle processes and those of the comparison\n", processes);
    printResults(rowsOf(tickRows(), options.subjects), rounds, "Ticks and lists, per process");
    printResults(rowsOf(requestRows(), options.subjects), rounds,
                 "Requests, per process where not said otherwise");
    printReportCosts(options);
    std::fflush(stdout);
  }
}

int run(int argc, char** argv) {
  const Options options = parse(argc, argv);
  if (options.guard) {
    return keepsTargets() ? 0 : 1;
  }
  if (options.times) {
    printTimes(options);
  }
  printCounts(options);
  return 0;
}

}  // namespace
}  // namespace mendline::bench

int main(int argc, char** argv) {
  try {
    return mendline::bench::run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench-compare: %s\n", error.what());
    return 1;
  }
}
