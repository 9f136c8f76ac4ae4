// The collector's thread as the kernel counts it, for tests whose other threads are all their own.
#pragma once

#include <cstddef>

#include "Eventually.h"
#include "Inventory.h"

namespace mendline {

// Threads of a program that has not been forked besides the test's: 1 while the collector runs,
// else 0. A thread that was joined just now may still be counted.
inline std::size_t collectorThreads() {
#ifdef __SANITIZE_THREAD__
  constexpr std::size_t kOthers = 2;  // the sanitizer's own is one of them
#else
  constexpr std::size_t kOthers = 1;
#endif
  return rig::threadCount() - kOthers;
}

inline bool collectorThreadHasEnded() {
  return rig::eventually([] { return collectorThreads() == 0; });
}

}  // namespace mendline
