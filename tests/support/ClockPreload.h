// What a program has to preload so that its waits pass quickly; see TickClock.h.
#pragma once

#include <string>

namespace mendline::rig {

inline constexpr const char* kClockSpeedVariable = "MENDLINE_CLOCK_SPEED";
inline constexpr const char* kGettimeofdayVariable = "MENDLINE_CLOCK_GETTIMEOFDAY";

// A value for LD_PRELOAD that keeps what was there. A sanitizer's runtime goes first, because it
// refuses to run behind anything else.
inline std::string withClockPreloaded(const char* previous) {
  const std::string before = previous == nullptr ? "" : previous;
  if (before.find(TICK_CLOCK_LIBRARY) != std::string::npos) {
    return before;
  }
  std::string list = SANITIZER_RUNTIME;
  if (!list.empty()) {
    list += ' ';
  }
  list += TICK_CLOCK_LIBRARY;
  if (!before.empty()) {
    list += ' ' + before;
  }
  return list;
}

}  // namespace mendline::rig
