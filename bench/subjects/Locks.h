// How long locks are held, for a program whose linker was told to wrap the calls of pthread.h that
// take and free them (see CMakeLists.txt). Only one thread may take any.
#pragma once

#include <chrono>

namespace mendline::bench {

// Forgets what was noted.
void forgetLocks();

// The longest that a lock was held at a stretch since then, 0 when none was.
std::chrono::nanoseconds longestLock();

}  // namespace mendline::bench
