#include "FailingSyscalls.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "Error.h"
#include "HostPaths.h"
#include "NotifyingFilter.h"

extern "C" void __gcov_dump() __attribute__((weak));

namespace mendline::rig {
namespace {

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

// The listener of a program that has just been started, as soon as it has put itself under
// supervision; -1 when it has ended instead.
int takeListener(const RunningProgram& program) {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, program.pid(), 0));
  if (process < 0) {
    throwErrno("cannot hold on to the program");
  }
  int listener = -1;
  while (listener < 0 && program.isRunning()) {
    listener = static_cast<int>(syscall(SYS_pidfd_getfd, process, kListenerDescriptor, 0));
    // Before, the loader has libraries open under the same number.
    std::uint64_t id = 0;
    if (listener >= 0 && ioctl(listener, SECCOMP_IOCTL_NOTIF_ID_VALID, &id) != 0 &&
        errno != ENOENT) {
      close(std::exchange(listener, -1));
    }
  }
  close(process);
  return listener;
}

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

std::string SupervisedCall::textAt(unsigned index) const {
  std::string text;
  // Up to the end of a page at a time: what is behind it need not be there.
  constexpr std::uint64_t kPage = 4096;
  std::array<char, kPage> piece = {};
  for (std::uint64_t address = arguments[index]; text.size() < kPage;) {
    const std::size_t wanted = kPage - address % kPage;
    const iovec here = {piece.data(), wanted};
    const iovec there = {reinterpret_cast<void*>(address), wanted};
    const ssize_t count = process_vm_readv(thread, &here, 1, &there, 1, 0);
    if (count <= 0) {
      return "";
    }
    const std::string read(piece.data(), static_cast<std::size_t>(count));
    const std::size_t end = read.find('\0');
    text += read.substr(0, end);
    if (end != std::string::npos) {
      return text;
    }
    address += static_cast<std::uint64_t>(count);
  }
  return text;
}

std::string SupervisedCall::fileAt(unsigned index) const {
  const std::string link = std::string(kTrueProc) + "/" + std::to_string(thread) + "/fd/" +
                           std::to_string(static_cast<int>(arguments[index]));
  std::array<char, 4096> target = {};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  return length < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(length));
}

SyscallSupervisor::SyscallSupervisor(Judge judge, std::vector<long> numbers)
    : judge_(std::move(judge)), numbers_(std::move(numbers)) {}

SyscallSupervisor::~SyscallSupervisor() {
  ended_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
  if (listener_ >= 0) {
    close(listener_);
  }
}

RunningProgram SyscallSupervisor::start(const Program& program) {
  std::string numbers;
  for (const long number : numbers_) {
    numbers += (numbers.empty() ? "" : ",") + std::to_string(number);
  }
  RunningProgram running =
      program.launchedBy({SUPERVISED_PROGRAM, numbers.empty() ? "all" : numbers}).start();
  listener_ = takeListener(running);
  if (listener_ < 0) {
    throw Error("the program cannot be started under supervision: status " +
                std::to_string(running.wait()));
  }
  thread_ = std::thread([this] { judgeCalls(); });
  return running;
}

void SyscallSupervisor::judgeCalls() {
  constexpr int kPatienceMs = 100;
  while (!ended_) {
    pollfd waiting = {listener_, POLLIN, 0};
    if (poll(&waiting, 1, kPatienceMs) <= 0) {
      continue;
    }
    if ((waiting.revents & POLLIN) == 0) {
      return;  // nobody is left who could call
    }
    seccomp_notif notice = {};
    if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &notice) != 0) {
      continue;  // the caller was killed in the meantime
    }
    SupervisedCall call;
    call.number = notice.data.nr;
    call.thread = static_cast<pid_t>(notice.pid);
    for (std::size_t i = 0; i < call.arguments.size(); ++i) {
      call.arguments[i] = notice.data.args[i];
    }
    // The launcher has execve reported whatever was chosen.
    const bool chosen =
        numbers_.empty() || std::ranges::find(numbers_, call.number) != numbers_.end();
    const Verdict verdict = chosen ? judge_(call) : Verdict::goOn();
    seccomp_notif_resp response = {};
    response.id = notice.id;
    switch (verdict.kind) {
      case Verdict::Kind::GoOn:
        response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        break;
      case Verdict::Kind::Fail:
        response.error = -static_cast<std::int32_t>(verdict.value);
        break;
      case Verdict::Kind::Pretend:
        response.val = verdict.value;
        break;
    }
    ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
  }
}

}  // namespace mendline::rig
