// One life of the shipped library in a program of its own: loaded, started, two ticks, every
// operation, stopped. Each of its system calls is seen, and any one of them can be made to fail.
//
// What the host holds is invented and small, so that a life makes a few hundred calls and always
// about the same ones.
#pragma once

#include <sys/syscall.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "Eventually.h"
#include "FailingSyscalls.h"
#include "GpuDriver.h"
#include "HostPaths.h"
#include "PrivateHost.h"
#include "tests/faults/LibraryProgram.h"

namespace mendline {

// A host with a worker, a session, an editor of alice's and a process that can be ended; with a
// configuration, and with one GPU.
class SmallHost {
 public:
  SmallHost()
      : victim_(host.process("victim").ownedBy("alice").ignoringSigterm().start()), driver_(host) {
    host.withConfig("Desktop.displayNumberMin=100\nDesktop.displayNumberMax=110\n");
    host.withFile(rig::kXConfigFile, "BusID \"PCI:1:0:0\"\n");
    driver_.withGpu("1:0.0", 50, 100);
    const uid_t alice = host.uidOf("alice");
    rig::SyntheticProc& proc = host.syntheticProc();
    proc.addProcess({.pid = 70, .name = "FlareWorker", .startTime = 100}, rig::kWorkerUid);
    proc.addProcess({.pid = victim_.pid(), .name = "victim", .startTime = 300}, alice);
    rig::ProcEntry server;
    server.stat = rig::StatLine{.pid = 71, .name = "Xorg", .startTime = 200}.text();
    server.io = rig::IoCounters{}.text();
    server.cmdline = std::string("/usr/lib/norvane/tarnhost/Xorg\0:101\0", 36);
    proc.addProcess(71, server);
  }

  // Names the process that can be ended, by what the invented /proc says of it.
  std::string victim() const {
    return "<processId>" + std::to_string(victim_.pid()) +
           "</processId><createTime>1700000003</createTime>";
  }
  pid_t victimPid() const { return victim_.pid(); }

  rig::PrivateHost host;

 private:
  rig::Process victim_;
  rig::GpuDriver driver_;
};

// The request-driver under supervision. The judge is asked for what the library does, and for what
// the driver does in between, only from the library's first call on: that is how it opens its log.
class SupervisedSession {
 public:
  using Judge = std::function<rig::Verdict(const rig::SupervisedCall&)>;

  explicit SupervisedSession(Judge judge)
      : judge_(std::move(judge)),
        supervisor_([this](const rig::SupervisedCall& call) { return decide(call); }),
        library_(supervisor_.start(LibraryProgram::program()
                                       .withClockSpeed(kClockSpeed)
                                       .withEnvironment("TARNHOST_MENDLINE_LOGLEVEL", "Debug"))) {}

  int ticks() const { return ticks_; }

  // Without an answer when the driver has ended.
  std::optional<std::string> request(const std::string& text) { return library_.request(text); }

  // The driver answers an order by itself, so the judge is not asked.
  std::optional<std::string> order(const std::string& text) {
    const bool before = judging_.exchange(false);
    std::optional<std::string> answer = request(text);
    judging_ = before;
    return answer;
  }

  void judgeNoMore() { judging_ = false; }

  // Returns early when the driver has ended.
  bool waitForTicks(int count) {
    const int goal = ticks_ + count;
    return rig::eventually([&] { return ticks_ >= goal || !library_.isRunning(); }) &&
           ticks_ >= goal;
  }

  int end() { return library_.end(); }
  int wait() { return library_.wait(); }

 private:
  static constexpr int kClockSpeed = 2000;  // 30 seconds pass in 15 ms

  rig::Verdict decide(const rig::SupervisedCall& call) {
    if (!loaded_) {
      loaded_ = call.number == SYS_openat && call.textAt(1) == rig::kLogFile;
      if (!loaded_) {
        return rig::Verdict::goOn();
      }
    }
    noteTick(call);
    if (isOfTheDriver(call)) {
      return rig::Verdict::goOn();
    }
    rig::Verdict verdict = judging_ ? judge_(call) : rig::Verdict::goOn();
    if (verdict.kind == rig::Verdict::Kind::GoOn && call.number == SYS_clock_nanosleep) {
      return rig::Verdict::pretend(0);  // nobody is served by the 100 ms behind a signal
    }
    return verdict;
  }

  // A tick begins with the opening of /proc and ends in a wait with a time-out.
  void noteTick(const rig::SupervisedCall& call) {
    if (call.number == SYS_openat && call.textAt(1) == "/proc") {
      inTick_ = true;
    } else if (inTick_ && call.number == SYS_futex && call.arguments[3] != 0 &&
               call.thread != driverThread_) {
      inTick_ = false;
      ++ticks_;
    } else if (driverThread_ < 0) {
      driverThread_ = call.thread;
    }
  }

  // It reads its orders and prints the answers; what instruments it looks at the process itself.
  static bool isOfTheDriver(const rig::SupervisedCall& call) {
    if (call.number == SYS_openat && call.textAt(1).rfind("/proc/self/", 0) == 0) {
      return true;
    }
    return (call.number == SYS_read && call.arguments[0] == 0) ||
           (call.number == SYS_write && call.arguments[0] == 1) ||
           ((call.number == SYS_newfstatat || call.number == SYS_fstat) && call.arguments[0] <= 1);
  }

  Judge judge_;
  std::atomic<bool> judging_ = true;
  std::atomic<int> ticks_ = 0;
  // Of the supervisor's thread alone.
  bool loaded_ = false;
  bool inTick_ = false;
  pid_t driverThread_ = -1;
  rig::SyscallSupervisor supervisor_;
  LibraryProgram library_;
};

}  // namespace mendline
