#include "TickClock.h"

#include <dlfcn.h>

#include "Error.h"

namespace mendline::rig {
namespace {

template <typename Function>
Function find(const char* name) {
  const auto function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
  if (function == nullptr) {
    throw Error("no quick clock here; start this program with MENDLINE_CLOCK_SPEED set");
  }
  return function;
}

}  // namespace

bool clockIsQuick() {
  return dlsym(RTLD_DEFAULT, "tickClockJumpSystem") != nullptr;
}

void jumpSystemClock(long seconds) {
  find<void (*)(long)>("tickClockJumpSystem")(seconds);
}

void failGettimeofday(bool failing) {
  find<void (*)(bool)>("tickClockFailGettimeofday")(failing);
}

}  // namespace mendline::rig
