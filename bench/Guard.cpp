#include "Guard.h"

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Comparison.h"
#include "Counts.h"
#include "Crowd.h"
#include "Error.h"
#include "PrivateHost.h"
#include "Rows.h"

namespace mendline::bench {
namespace {

// What is aimed at, and by how much of it more is still let pass: of times, what a busy machine and
// another kind of processor may add to a ratio; of counts, what another compiler may.
struct Target {
  const char* name;
  double target;
  double marginPercent;
};

constexpr Target kTick{"tick / required floor, 1,000 processes", 1.12, 10};
constexpr Target kList{"list / floor, 1,000 processes", 1.20, 12};
constexpr Target kReport{"ProcessMetrics / append floor, 1,000 processes", 25, 20};
constexpr Target kLargeReport{"ProcessMetrics / append floor, 10,000 processes", 34, 20};
constexpr Target kPeak{"bytes per process while ProcessMetrics is answered", 3000, 3};
constexpr Target kLock{"percent of a ProcessMetrics request under one lock", 50, 10};
constexpr Target kInstructions{"instructions per process and tick", 50000, 3};
constexpr Target kSystemCalls{"system calls per process and tick", 18.5, 1};

// The file that a tick reads for every process. Its length goes with the number of processors, so
// what is counted is counted with that of two.
std::string statOfTwoProcessors() {
  constexpr int kInterrupts = 250;
  constexpr int kSoftInterrupts = 10;
  std::string text =
      "cpu  184562 301 96480 9482310 4410 0 2305 118 0 0\n"
      "cpu0 92811 150 48302 4740722 2190 0 1201 60 0 0\n"
      "cpu1 91751 151 48178 4741588 2220 0 1104 58 0 0\n"
      "intr 21870345";
  for (int interrupt = 0; interrupt < kInterrupts; ++interrupt) {
    text += interrupt % kSoftInterrupts == 0 ? " 48210" : " 0";
  }
  text += "\nctxt 60114892\nbtime 1700000000\nprocesses 51823\nprocs_running 2\nprocs_blocked 0\n";
  text += "softirq 9120337";
  for (int kind = 0; kind < kSoftInterrupts; ++kind) {
    text += " 912033";
  }
  return text + '\n';
}

struct Finding {
  Target target;
  double measured = 0.0;

  double limit() const { return target.target * (1.0 + target.marginPercent / 100.0); }
  // Not a number is no good result either.
  bool good() const { return measured > 0.0 && measured <= limit(); }
};

// Measures a few targets in a crowd of that size, `effort` times as long as it has to.
struct Step {
  int processes;
  std::function<std::vector<Finding>(int effort)> measure;
};

double ratioOf(const std::vector<Result>& results, const std::string& name) {
  for (const Result& result : results) {
    if (result.row.name == name) {
      return result.ratio;
    }
  }
  throw rig::Error("nothing was measured of '" + name + "'");
}

std::vector<Row> ownRows() {
  std::vector<Row> rows = rowsOf(tickRows(), {"floor", "ours"});
  for (const Row& row : rowsOf(requestRows(), {"ours"})) {
    if (row.per == Per::kProcess) {
      rows.push_back(row);
    }
  }
  return rows;
}

std::vector<Finding> measureTimes(int effort) {
  constexpr int kRounds = 25;
  const std::vector<Result> results = compare(ownRows(), kRounds * effort);
  // A tick that overlooks processes is a cheap one.
  for (const Result& result : results) {
    if (result.hash != results.front().hash) {
      throw rig::Error("'" + result.row.name + "' saw other processes than the floor");
    }
  }
  return {{kTick, ratioOf(results, "ours, tick")},
          {kList, ratioOf(results, "ours, list")},
          {kReport, ratioOf(results, "ours, ProcessMetrics")}};
}

std::vector<Finding> measureLargeReport(int effort) {
  constexpr int kRounds = 9;
  std::vector<Row> rows;
  for (const Row& row : ownRows()) {
    if (row.what == "report" || row.what == "append") {
      rows.push_back(row);
    }
  }
  return {{kLargeReport, ratioOf(compare(rows, kRounds * effort), "ours, ProcessMetrics")}};
}

std::vector<Finding> measurePeakAndLock(int effort) {
  constexpr int kRepeats = 31;
  constexpr double kPercent = 1e-4;  // of millionths
  const Measurement peak = Subject(subjectProgram("ours-memory")).order("report-peak", 1);
  const Measurement lock =
      Subject(subjectProgram("ours-locks")).order("report-lock", kRepeats * effort);
  return {{kPeak, peak.value / static_cast<double>(peak.processes)},
          {kLock, lock.value * kPercent}};
}

std::vector<Finding> measureCounts(int /*effort*/) {
  rig::PrivateHost host;
  host.withProcStat(statOfTwoProcessors());
  const Counts counts = countPerProcess(subjectProgram("ours"), "tick");
  return {{kInstructions, counts.instructions}, {kSystemCalls, counts.systemCalls}};
}

bool areGood(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    if (!finding.good()) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool keepsTargets() {
  constexpr int kProcesses = 1000;
  constexpr int kManyProcesses = 10000;
  // Every instruction and every call is gone through one by one, which takes its time.
  constexpr int kFewProcesses = 300;
  // Whatever was too much is measured once more, for longer, before it is held against a change.
  constexpr int kSecondEffort = 3;
  const std::vector<Step> steps = {{kProcesses, measureTimes},
                                   {kProcesses, measurePeakAndLock},
                                   {kFewProcesses, measureCounts},
                                   {kManyProcesses, measureLargeReport}};

  int passed = 0;
  int failed = 0;
  for (const Step& step : steps) {
    const Crowd crowd(step.processes);
    std::vector<Finding> findings = step.measure(1);
    if (!areGood(findings)) {
      findings = step.measure(kSecondEffort);
    }
    for (const Finding& finding : findings) {
      std::printf("%-52s %9.2f   target %9.2f   limit %9.2f   %s\n", finding.target.name,
                  finding.measured, finding.target.target, finding.limit(),
                  finding.good() ? "ok" : "TOO MUCH");
      ++(finding.good() ? passed : failed);
    }
    std::fflush(stdout);
  }
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed == 0;
}

}  // namespace mendline::bench
