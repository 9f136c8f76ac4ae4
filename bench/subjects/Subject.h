// What the programs that are compared have in common: an order per line of standard input, an
// answer per line of standard output.
//
//   order:  WHAT REPEATS
//   answer: VALUE PROCESSES HASH
//
// VALUE is the processor time of all repeats in nanoseconds, user and system, or what the order
// says; "-" leaves the measuring to whoever gave the order. PROCESSES and HASH tell of the last
// repeat how many processes it saw, and which, whatever order it saw them in.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace mendline::bench {

// The processes that a repeat saw. A copy of `add` is in every language that a subject is written
// in.
struct Seen {
  std::uint64_t processes = 0;
  std::uint64_t hash = 0;

  void add(pid_t pid) {
    constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
    constexpr int kShift = 29;
    std::uint64_t mixed = static_cast<std::uint64_t>(pid) * kFactor;
    mixed ^= mixed >> kShift;
    hash += mixed * kFactor;
    ++processes;
  }
};

struct Answer {
  std::uint64_t value = 0;
  Seen seen;
};

// Does its work that many times.
using Work = std::function<Answer(int repeats)>;

inline std::uint64_t processorNanoseconds() {
  constexpr std::uint64_t kPerSecond = 1'000'000'000;
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kPerSecond +
         static_cast<std::uint64_t>(now.tv_nsec);
}

// The processor time of `once` over all repeats.
template <typename Once>
std::uint64_t timed(int repeats, const Once& once) {
  const std::uint64_t begin = processorNanoseconds();
  for (int repeat = 0; repeat < repeats; ++repeat) {
    once();
  }
  return processorNanoseconds() - begin;
}

// Takes orders until the end of input. The exit status of the program: 0, or 64 after an order that
// is none.
int serve(const std::map<std::string, Work>& works);

}  // namespace mendline::bench
