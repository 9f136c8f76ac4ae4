// Makes chosen system calls fail with a chosen errno.
//
// failSyscall is for good: neither this process nor one it starts later can undo it. Every test is
// a process of its own, so it harms no other test; use inChild where one test needs both worlds. A
// SyscallSupervisor decides call by call, for a program that it starts and for nothing else.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Program.h"

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

// One system call of a supervised program, which waits until it has been judged.
struct SupervisedCall {
  long number = -1;   // SYS_...
  pid_t thread = -1;  // the main thread has the number of the process
  std::array<std::uint64_t, 6> arguments = {};

  // The text that a pointer argument leads to, "" if there is none.
  std::string textAt(unsigned index) const;
  // The path behind an argument that is a descriptor, "" if there is none.
  std::string fileAt(unsigned index) const;
};

struct Verdict {
  enum class Kind { GoOn, Fail, Pretend };
  Kind kind = Kind::GoOn;
  std::int64_t value = 0;

  static Verdict goOn() { return {}; }
  // The kernel does nothing and the call fails with this errno.
  static Verdict fail(int error) { return {Kind::Fail, error}; }
  // The kernel does nothing and the call returns this.
  static Verdict pretend(std::int64_t value) { return {Kind::Pretend, value}; }
};

// Puts system calls of a program to a judge. A call made by any thread of the program, or by what
// it starts, waits for its verdict; the judge is asked on a thread of the supervisor, one call at a
// time, and must neither wait for the program nor throw.
class SyscallSupervisor {
 public:
  using Judge = std::function<Verdict(const SupervisedCall&)>;

  // Only calls with these numbers are put to the judge; without any, all are.
  explicit SyscallSupervisor(Judge judge, std::vector<long> numbers = {});
  // What is still running of the program can make none of those calls any more.
  ~SyscallSupervisor();
  SyscallSupervisor(const SyscallSupervisor&) = delete;
  SyscallSupervisor& operator=(const SyscallSupervisor&) = delete;

  // Starts the program, which is named by its path; once for each supervisor. The judge sees it
  // from before its first instruction, so the loader's calls too. Throws Error where that cannot be
  // done.
  RunningProgram start(const Program& program);

 private:
  void judgeCalls();

  Judge judge_;
  std::vector<long> numbers_;
  int listener_ = -1;
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

}  // namespace mendline::rig
