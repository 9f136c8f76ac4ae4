// Several subjects' work, measured by turns.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Subjects.h"

namespace mendline::bench {

enum class Per { kProcess, kRequest };

// One line of a table.
struct Row {
  std::string name;
  std::string program;
  std::string what;  // the order
  std::string base;  // name of the row that the ratio is to; none when empty
  Per per = Per::kProcess;
  double warmUpSeconds = 0.0;  // processor time to be spent before anything counts
};

struct Result {
  Row row;
  double microseconds = 0.0;  // median over the rounds, for one process or one request
  double spread = 0.0;        // distance of the quartiles, in percent of the median
  double ratio = 0.0;         // median of the rounds' ratios to the base; 0 without one
  double ratioSpread = 0.0;   // distance of its quartiles, in percent of it
  std::uint64_t processes = 0;
  std::uint64_t hash = 0;
};

// Measures each row once per round, in another order in each, so that whatever disturbs the machine
// for a while disturbs all of them. Every measurement repeats its work until it has taken about
// that many seconds of processor time. A row whose base is not among the rows has no ratio.
std::vector<Result> compare(const std::vector<Row>& rows, int rounds, double sliceSeconds = 0.02);

// The middle, and the distance of the quartiles in percent of it.
struct Spread {
  double median = 0.0;
  double quartiles = 0.0;
};
Spread spreadOf(std::vector<double> values);

}  // namespace mendline::bench
