#include "Comparison.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <map>
#include <memory>
#include <numeric>
#include <random>

namespace mendline::bench {
namespace {

constexpr double kNanoseconds = 1e9;
constexpr double kNanosecondsPerMicrosecond = 1e3;
constexpr int kMostRepeats = 20000;

// Programs are shared by the rows that name them.
class Players {
 public:
  Subject& of(const Row& row) {
    std::unique_ptr<Subject>& subject = subjects_[row.program];
    if (!subject) {
      subject = std::make_unique<Subject>(subjectProgram(row.program));
    }
    return *subject;
  }

 private:
  std::map<std::string, std::unique_ptr<Subject>> subjects_;
};

// Once everything is loaded, compiled and prepared; the first order pays for all that.
int repeatsFor(const Row& row, Subject& subject, double sliceSeconds) {
  double once = subject.order(row.what, 1).value;
  double spent = 0.0;
  do {
    once = subject.order(row.what, 1).value;
    spent += std::max(once, 1.0) / kNanoseconds;
  } while (spent < row.warmUpSeconds);
  const double repeats = std::ceil(sliceSeconds * kNanoseconds / std::max(once, 1.0));
  return static_cast<int>(std::clamp(repeats, 1.0, double{kMostRepeats}));
}

}  // namespace

Spread spreadOf(std::vector<double> values) {
  if (values.empty()) {
    return {};
  }
  std::sort(values.begin(), values.end());
  const auto at = [&values](double share) {
    const double position = share * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(position);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return std::lerp(values[below], values[above], position - std::floor(position));
  };
  const double median = at(0.5);
  return {.median = median, .quartiles = (at(0.75) - at(0.25)) * 100.0 / median};
}

std::vector<Result> compare(const std::vector<Row>& rows, int rounds, double sliceSeconds) {
  Players players;
  // All programs are there before anything is measured: they are part of the host that is seen.
  for (const Row& row : rows) {
    players.of(row);
  }
  std::vector<Result> results;
  std::vector<int> repeats;
  std::map<std::string, std::size_t> indexes;
  for (const Row& row : rows) {
    indexes[row.name] = results.size();
    repeats.push_back(repeatsFor(row, players.of(row), sliceSeconds));
    results.push_back({.row = row});
  }

  std::vector<std::vector<double>> values(rows.size());
  std::vector<std::size_t> order(rows.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(1);
  for (int round = 0; round < rounds; ++round) {
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t index : order) {
      const Row& row = rows[index];
      const Measurement measured = players.of(row).order(row.what, repeats[index]);
      const double units = static_cast<double>(repeats[index]) *
                           (row.per == Per::kProcess ? static_cast<double>(measured.processes) : 1);
      values[index].push_back(measured.value / kNanosecondsPerMicrosecond / units);
      results[index].processes = measured.processes;
      results[index].hash = measured.hash;
    }
  }

  for (std::size_t index = 0; index < rows.size(); ++index) {
    Result& result = results[index];
    const Spread spread = spreadOf(values[index]);
    result.microseconds = spread.median;
    result.spread = spread.quartiles;
    const auto base = indexes.find(result.row.base);
    if (base == indexes.end()) {
      continue;
    }
    std::vector<double> ratios;
    std::transform(values[index].begin(), values[index].end(), values[base->second].begin(),
                   std::back_inserter(ratios),
                   [](double own, double other) { return own / other; });
    const Spread ratio = spreadOf(ratios);
    result.ratio = ratio.median;
    result.ratioSpread = ratio.quartiles;
  }
  return results;
}

}  // namespace mendline::bench
