#include "Rows.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace mendline::bench {
namespace {

constexpr char kFloor[] = "floor";
constexpr char kRequiredFloor[] = "required floor";

// A virtual machine compiles what runs often; this long it is let do so.
constexpr double kJavaWarmUp = 4.0;

}  // namespace

std::vector<Row> tickRows() {
  return {
      {.name = kFloor, .program = "floor", .what = "floor", .base = kRequiredFloor},
      {.name = kRequiredFloor,
       .program = "floor",
       .what = "required-floor",
       .base = kRequiredFloor},
      {.name = "ours, tick", .program = "ours", .what = "tick", .base = kRequiredFloor},
      {.name = "against, tick", .program = "against", .what = "tick", .base = kRequiredFloor},
      {.name = "libproc2", .program = "libproc2", .what = "tick", .base = kRequiredFloor},
      {.name = "libstatgrab", .program = "libstatgrab", .what = "tick", .base = kRequiredFloor},
      {.name = "libgtop2", .program = "libgtop2", .what = "tick", .base = kRequiredFloor},
      {.name = "psutil", .program = "psutil", .what = "tick", .base = kRequiredFloor},
      {.name = "java",
       .program = "java",
       .what = "tick",
       .base = kRequiredFloor,
       .warmUpSeconds = kJavaWarmUp},
      {.name = "ps", .program = "ps", .what = "tick", .base = kRequiredFloor},
      {.name = "top", .program = "top", .what = "tick", .base = kRequiredFloor},
      {.name = "pidstat", .program = "pidstat", .what = "tick", .base = kRequiredFloor},
      {.name = "ours, list", .program = "ours", .what = "list", .base = kFloor},
      {.name = "against, list", .program = "against", .what = "list", .base = kFloor},
      {.name = "libproc2, list", .program = "libproc2", .what = "list", .base = kFloor},
  };
}

std::vector<Row> requestRows() {
  std::vector<Row> rows;
  for (const std::string state : {"ours", "against"}) {
    const std::string append = state + ", append floor";
    rows.push_back({.name = append, .program = state, .what = "append", .base = append});
    rows.push_back(
        {.name = state + ", ProcessMetrics", .program = state, .what = "report", .base = append});
    for (const auto& [name, what] :
         {std::pair<const char*, const char*>{"HistoricalMetrics", "history"},
          {"LbMetrics", "load"},
          {"GetLogLevel", "level"}}) {
      rows.push_back({.name = state + ", " + name,
                      .program = state,
                      .what = what,
                      .base = "",
                      .per = Per::kRequest});
    }
  }
  return rows;
}

std::vector<Row> rowsOf(const std::vector<Row>& rows, const std::vector<std::string>& programs) {
  std::vector<std::string> present;
  for (const SubjectProgram& program : allSubjectPrograms()) {
    if (programs.empty() ||
        std::find(programs.begin(), programs.end(), program.name) != programs.end()) {
      present.push_back(program.name);
    }
  }
  std::vector<Row> chosen;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(chosen), [&present](const Row& row) {
    return std::find(present.begin(), present.end(), row.program) != present.end();
  });
  return chosen;
}

}  // namespace mendline::bench
