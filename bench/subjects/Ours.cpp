// The library's own work, called as its collection thread and its callers call it.
//
// Only the headers' oldest names are used, so that the same source also compiles against an earlier
// state of the product. Orders:
//   tick         what one tick does on a host without sessions
//   list         its list of processes alone
//   report       a ProcessMetrics request
//   append       the text of that answer, put into an empty string piece by piece
//   history      a HistoricalMetrics request after 30 ticks
//   load         an LbMetrics request
//   level        a GetLogLevel request
//   report-lock  as a report; VALUE is the share of its duration, in millionths, that it holds a
//   lock
//                at a stretch, the longest of a request, the median over the repeats
//   report-peak  as a report; VALUE is the memory in bytes that it took at most, answer included
// The last two are those of programs of their own, since what they watch slows down what is timed.
#include <algorithm>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "Subject.h"
#include "gateway/MendLineOperation.h"
#include "generators/HistoricalMetricGenerator.h"
#include "generators/ProcessMetricGenerator.h"
#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

#ifdef MENDLINE_BENCH_ALLOCATIONS
#include "Allocations.h"
#endif
#ifdef MENDLINE_BENCH_LOCKS
#include "Locks.h"
#endif

namespace mendline::bench {
namespace {

[[noreturn]] void fail(const char* what) {
  std::cerr << "ours: " << what << '\n';
  std::exit(1);
}

std::string requestFor(const char* opcode, const char* parameters = "") {
  return std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<MendlineOperation><opcode>") +
         opcode + "</opcode>" + parameters + "</MendlineOperation>";
}

Seen seenIn(const PerfSample& sample) {
  Seen seen;
  for (const auto& process : sample.processes) {
    seen.add(process.iPid);
  }
  return seen;
}

void readHost(PerfSample& sample) {
  if (!ListProcesses(sample.processes) || !getSystemPerfStats(sample.system)) {
    fail("the host cannot be read");
  }
}

// Everything that a tick owns is gone when it returns, as in the collection thread. Noting what it
// saw takes a few instructions a process, too few to show.
Seen tick() {
  PerfSample sample;
  readHost(sample);
  ProcessMetricGenerator::getInstance()->generate(sample);
  HistoricalMetricGenerator::getInstance()->generate(sample);
  return seenIn(sample);
}

Seen list() {
  PerfSample sample;
  if (!ListProcesses(sample.processes)) {
    fail("the processes cannot be listed");
  }
  return seenIn(sample);
}

Work repeatedly(Seen once()) {
  return [once](int repeats) {
    Answer answer;
    answer.value = timed(repeats, [once, &answer] { answer.seen = once(); });
    return answer;
  };
}

// The requests' tables are those of this moment, after a second tick has compared them.
const Seen& prepared() {
  static const Seen seen = [] {
    static_cast<void>(tick());
    const Seen result = tick();
    PerfSample sample;
    readHost(sample);
    for (std::size_t record = 0; record < HistoricalMetricGenerator::kMaxRecords; ++record) {
      HistoricalMetricGenerator::getInstance()->generate(sample);
    }
    return result;
  }();
  return seen;
}

// An answer that is none would be a quick one.
std::string answerTo(const std::string& request, const char* element) {
  std::string answer;
  handleRequest(request, answer);
  if (answer.find(element) == std::string::npos) {
    fail("a request was refused");
  }
  return answer;
}

Work requests(const char* opcode, const char* parameters, const char* element) {
  return [request = requestFor(opcode, parameters), element](int repeats) {
    Answer answer{.value = 0, .seen = prepared()};
    static_cast<void>(answerTo(request, element));
    answer.value = timed(repeats, [&request] {
      std::string text;
      handleRequest(request, text);
    });
    return answer;
  };
}

std::string processReport() {
  return answerTo(requestFor("ProcessMetrics"), "<process>");
}

// Tags and texts.
std::vector<std::string_view> piecesOf(std::string_view text) {
  std::vector<std::string_view> pieces;
  while (!text.empty()) {
    const std::size_t end = text.front() == '<' ? text.find('>') + 1 : text.find('<');
    pieces.push_back(text.substr(0, end));
    text.remove_prefix(pieces.back().size());
  }
  return pieces;
}

Answer doAppend(int repeats) {
  Answer answer{.value = 0, .seen = prepared()};
  const std::string report = processReport();
  const std::vector<std::string_view> pieces = piecesOf(report);
  std::size_t length = 0;
  answer.value = timed(repeats, [&pieces, &length] {
    std::string text;
    for (const std::string_view piece : pieces) {
      text += piece;
    }
    length += text.size();
  });
  if (length != report.size() * static_cast<std::size_t>(repeats)) {
    fail("the answer was put together wrongly");
  }
  return answer;
}

#ifdef MENDLINE_BENCH_LOCKS
Answer doReportLock(int repeats) {
  using Clock = std::chrono::steady_clock;
  Answer answer{.value = 0, .seen = prepared()};
  const std::string request = requestFor("ProcessMetrics");
  static_cast<void>(processReport());
  std::vector<double> shares;
  for (int repeat = 0; repeat < repeats; ++repeat) {
    std::string text;
    forgetLocks();
    const Clock::time_point begin = Clock::now();
    handleRequest(request, text);
    const std::chrono::nanoseconds duration = Clock::now() - begin;
    shares.push_back(static_cast<double>(longestLock().count()) /
                     static_cast<double>(duration.count()));
  }
  const auto middle = shares.begin() + static_cast<std::ptrdiff_t>(shares.size() / 2);
  std::nth_element(shares.begin(), middle, shares.end());
  constexpr double kMillion = 1e6;
  answer.value = static_cast<std::uint64_t>(*middle * kMillion);
  if (answer.value == 0) {
    fail("no lock is held during a request");
  }
  return answer;
}
#endif

#ifdef MENDLINE_BENCH_ALLOCATIONS
Answer doReportPeak(int repeats) {
  Answer answer{.value = 0, .seen = prepared()};
  const std::string request = requestFor("ProcessMetrics");
  static_cast<void>(processReport());
  std::size_t most = 0;
  for (int repeat = 0; repeat < repeats; ++repeat) {
    std::string text;
    const std::size_t before = startHighWaterMark();
    handleRequest(request, text);
    most = std::max(most, highWaterMark() - before);
  }
  answer.value = most;
  return answer;
}
#endif

}  // namespace
}  // namespace mendline::bench

int main() {
  using namespace mendline::bench;
  return serve({
      {"tick", repeatedly(tick)},
      {"list", repeatedly(list)},
      {"report", requests("ProcessMetrics", "", "<process>")},
      {"append", doAppend},
      {"history", requests("HistoricalMetrics",
                           "<userName>bench07</userName><display>100</display>", "<metric>")},
      {"load", requests("LbMetrics", "", "<LB>")},
      {"level", requests("GetLogLevel", "", "<LOGLEVEL>")},
#ifdef MENDLINE_BENCH_LOCKS
      {"report-lock", doReportLock},
#endif
#ifdef MENDLINE_BENCH_ALLOCATIONS
      {"report-peak", doReportPeak},
#endif
  });
}
