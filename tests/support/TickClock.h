// Run-time control of the quick clock that `private-host --clock-speed N` preloads.
//
// Under it the chrono clocks of every caller, and the deadlines of condition-variable waits made by
// the program itself or by a library named libmendline*, run N times as fast. Everything else
// keeps real time: sleeps, futures, gettimeofday, time, the JVM's own waits, the kernel.
#pragma once

namespace mendline::rig {

// Whether the quick clock is loaded into this process.
bool clockIsQuick();

// Steps the system clock, as an administrator would; a wait whose deadline that passes ends with a
// time-out. The steady clock is not affected. Throws Error without a quick clock.
void jumpSystemClock(long seconds);

// Makes gettimeofday fail with EFAULT for the program and libmendline*, or work again. Throws Error
// without a quick clock.
void failGettimeofday(bool failing);

}  // namespace mendline::rig
