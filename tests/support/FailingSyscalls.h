// Makes a chosen system call of this process fail with a chosen errno.
//
// For good: neither this process nor one it starts later can undo it. Every test is a process of
// its own, so it harms no other test; use inChild where one test needs both worlds.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>

#include <gtest/gtest.h>

namespace mendline::rig {

// A condition on an argument of the call, counted from 0. Pointers compare by address only: a
// filter cannot look at a path.
struct ArgumentMatch {
  unsigned index;
  std::uint64_t mask;
  std::uint64_t value;
};

// The argument is exactly this value. A negative int, such as AT_FDCWD, matches as the 32 bits the
// kernel looks at: use whenArgumentHas(index, 0xffffffff, value) for one.
ArgumentMatch whenArgument(unsigned index, std::uint64_t value);
// The bits under the mask are exactly this value.
ArgumentMatch whenArgumentHas(unsigned index, std::uint64_t mask, std::uint64_t value);

// From now on system call `number` (SYS_...) fails with `error` in every thread, if all matches
// hold; other calls are not affected. Throws Error when the filter cannot be installed.
void failSyscall(long number, int error, std::initializer_list<ArgumentMatch> matches = {});

// Runs the body in a forked copy of this process, which has this thread only, and waits for it.
// Fails if the body throws, records a failure or does not come to its end.
testing::AssertionResult inChild(const std::function<void()>& body);

}  // namespace mendline::rig
