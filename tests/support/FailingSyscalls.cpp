#include "FailingSyscalls.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Error.h"

extern "C" void __gcov_dump() __attribute__((weak));

namespace mendline::rig {
namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "state the audit architecture of this processor"
#endif

class FilterProgram {
 public:
  FilterProgram(long number, int error, std::initializer_list<ArgumentMatch> matches) {
    load(offsetof(seccomp_data, arch));
    allowUnlessEqual(kArchitecture);
    load(offsetof(seccomp_data, nr));
    allowUnlessEqual(static_cast<std::uint32_t>(number));
    for (const ArgumentMatch& match : matches) {
      const auto offset =
          static_cast<std::uint32_t>(offsetof(seccomp_data, args) + 8 * match.index);
      compareHalf(offset, static_cast<std::uint32_t>(match.mask),
                  static_cast<std::uint32_t>(match.value));
      compareHalf(offset + 4, static_cast<std::uint32_t>(match.mask >> 32),
                  static_cast<std::uint32_t>(match.value >> 32));
    }
    add(BPF_RET | BPF_K, 0, 0,
        SECCOMP_RET_ERRNO | (static_cast<std::uint32_t>(error) & SECCOMP_RET_DATA));
  }

  sock_fprog program() {
    return {static_cast<unsigned short>(instructions_.size()), instructions_.data()};
  }

 private:
  void add(int code, unsigned char ifTrue, unsigned char ifFalse, std::uint32_t operand) {
    instructions_.push_back({static_cast<std::uint16_t>(code), ifTrue, ifFalse, operand});
  }
  void load(std::size_t offset) {
    add(BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset));
  }
  void allowUnlessEqual(std::uint32_t value) {
    add(BPF_JMP | BPF_JEQ | BPF_K, 1, 0, value);
    add(BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW);
  }
  void compareHalf(std::uint32_t offset, std::uint32_t mask, std::uint32_t value) {
    load(offset);
    add(BPF_ALU | BPF_AND | BPF_K, 0, 0, mask);
    allowUnlessEqual(value);
  }

  std::vector<sock_filter> instructions_;
};

void flushCoverage() {
  if (__gcov_dump != nullptr) {
    __gcov_dump();
  }
}

}  // namespace

ArgumentMatch whenArgument(unsigned index, std::uint64_t value) {
  return {index, ~std::uint64_t{0}, value};
}

ArgumentMatch whenArgumentHas(unsigned index, std::uint64_t mask, std::uint64_t value) {
  return {index, mask, value & mask};
}

void failSyscall(long number, int error, std::initializer_list<ArgumentMatch> matches) {
  FilterProgram filter(number, error, matches);
  const sock_fprog program = filter.program();
  long result = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program);
  if (result != 0 && errno == EACCES) {
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    result = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program);
  }
  if (result > 0) {
    throw Error("thread " + std::to_string(result) + " cannot take over the system-call filter");
  }
  if (result != 0) {
    throwErrno("cannot install a system-call filter");
  }
}

testing::AssertionResult inChild(const std::function<void()>& body) {
  constexpr int kFailed = 1;
  constexpr int kThrew = 2;
  constexpr int kDone = 3;  // a body that calls exit(0) did not come to its end
  const bool failedBefore = testing::Test::HasFailure();
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) {
    throwErrno("cannot fork");
  }
  if (child == 0) {
    int status = kDone;
    try {
      body();
      if (testing::Test::HasFailure() && !failedBefore) {
        status = kFailed;
      }
    } catch (const std::exception& thrown) {
      std::fprintf(stderr, "in the child: %s\n", thrown.what());
      status = kThrew;
    }
    std::fflush(nullptr);
    flushCoverage();
    _exit(status);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      throwErrno("lost sight of the child");
    }
  }
  if (WIFSIGNALED(status)) {
    return testing::AssertionFailure() << "the child was killed by signal " << WTERMSIG(status);
  }
  switch (WEXITSTATUS(status)) {
    case kDone:
      return testing::AssertionSuccess();
    case kFailed:
      return testing::AssertionFailure() << "a check failed in the child; see above";
    case kThrew:
      return testing::AssertionFailure() << "an exception ended the child; see above";
    default:
      return testing::AssertionFailure()
             << "the child exited with status " << WEXITSTATUS(status) << " before its end";
  }
}

}  // namespace mendline::rig
