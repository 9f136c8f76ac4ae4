#include "Crowd.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Error.h"
#include "PrivateHost.h"

namespace mendline::bench {
namespace {

constexpr int kUsers = 20;
constexpr uid_t kFirstUid = 7000;

// Never returns, and calls nothing that a forked copy of a program with threads must not call. What
// fails is told as errno through the pipe, whose closing says that all is well.
[[noreturn]] void beIdle(uid_t user, pid_t parent, int tellParent) {
  if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 ||
      setresuid(user, user, user) != 0 ||
      // Whoever changed its user counts as undumpable, and root owns the folders of such processes
      // in /proc.
      prctl(PR_SET_DUMPABLE, 1) != 0 ||
      // Forgotten at every change of the user, hence last.
      prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || prctl(PR_SET_NAME, "bench-idle") != 0) {
    const int reason = errno;
    (void)!write(tellParent, &reason, sizeof reason);
    _exit(1);
  }
  close(tellParent);
  while (getppid() == parent) {
    pause();
  }
  _exit(0);
}

}  // namespace

Crowd::Crowd(int processes) : host_(std::make_unique<rig::PrivateHost>()) {
  for (int user = 0; user < kUsers; ++user) {
    char name[16];
    std::snprintf(name, sizeof name, "bench%02d", user);
    host_->withUser(name, kFirstUid + static_cast<uid_t>(user));
  }
  int pipeEnds[2];
  if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
    rig::throwErrno("cannot make a pipe");
  }
  const pid_t self = getpid();
  int reason = 0;
  pids_.reserve(static_cast<std::size_t>(processes));
  // A copy must not write again what a stream of this process still holds.
  std::fflush(nullptr);
  while (pids_.size() < static_cast<std::size_t>(processes)) {
    const pid_t child = fork();
    if (child == 0) {
      close(pipeEnds[0]);
      beIdle(kFirstUid + static_cast<uid_t>(pids_.size() % kUsers), self, pipeEnds[1]);
    }
    if (child < 0) {
      reason = errno;
      break;
    }
    pids_.push_back(child);
  }
  close(pipeEnds[1]);
  // Ends when the last process has closed its copy.
  int told = 0;
  while (true) {
    const ssize_t length = read(pipeEnds[0], &told, sizeof told);
    if (length == 0 || (length < 0 && errno != EINTR)) {
      break;
    }
    if (length > 0) {
      reason = told;
    }
  }
  close(pipeEnds[0]);
  if (reason != 0) {
    const std::size_t made = pids_.size();
    end();
    throw rig::Error("cannot make " + std::to_string(processes) + " idle processes (" +
                     std::to_string(made) + " were): " + std::strerror(reason) +
                     "; kernel.pid_max, kernel.threads-max and the control group's pids.max limit "
                     "their number");
  }
}

Crowd::~Crowd() {
  end();
}

void Crowd::end() {
  for (const pid_t pid : pids_) {
    kill(pid, SIGKILL);
  }
  for (const pid_t pid : pids_) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  pids_.clear();
}

}  // namespace mendline::bench
