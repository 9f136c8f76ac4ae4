// supervised NUMBERS PATH ARGUMENT...: runs a program so that its system calls wait for a
// supervisor. See SyscallSupervisor in FailingSyscalls.h, which starts it. NUMBERS are those of the
// calls, with commas between them, or "all".
//
// The filter is installed here and not in the test: a thread of the test that waits for a verdict
// may hold a lock of the allocator that the judge needs.
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "NotifyingFilter.h"

namespace {

std::vector<long> parseNumbers(const char* text) {
  std::vector<long> numbers;
  char* end = nullptr;
  for (long number = std::strtol(text, &end, 10); end != text;
       number = std::strtol(text, &end, 10)) {
    numbers.push_back(number);
    text = *end == ',' ? end + 1 : end;
  }
  if (!numbers.empty()) {
    // The program begins only when somebody listens.
    numbers.push_back(SYS_execve);
  }
  return numbers;
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kUsage = 64;
  if (argc < 3) {
    return kUsage;
  }
  using namespace mendline::rig;
  char** const command = argv + 2;
  if (access(command[0], X_OK) != 0) {
    return kCannotExecute;
  }
  std::vector<sock_filter> instructions = notifyingFilter(parseNumbers(argv[1]));
  const sock_fprog program = {static_cast<unsigned short>(instructions.size()),
                              instructions.data()};
  close_range(kListenerDescriptor, ~0U, 0);  // so that the listener gets this number
  const auto install = [&] {
    return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER,
                   &program);
  };
  long listener = install();
  if (listener < 0 && errno == EACCES) {
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    listener = install();
  }
  if (listener != kListenerDescriptor) {
    _exit(kCannotSupervise);
  }
  execv(command[0], command);
  _exit(kCannotExecute);
}
