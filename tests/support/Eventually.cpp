#include "Eventually.h"

#include <time.h>

namespace mendline::rig {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
  // The chrono clocks may run quickly here; nanosleep and this clock never do.
  const auto now = [] {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  };
  const auto end = now() + patience;
  while (!condition()) {
    if (now() >= end) {
      return condition();
    }
    const timespec pause = {0, 2'000'000};
    nanosleep(&pause, nullptr);
  }
  return true;
}

}  // namespace mendline::rig
