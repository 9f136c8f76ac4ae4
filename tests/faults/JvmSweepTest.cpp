// A JVM lives on while one call after the other fails of those by which the library reads the host
// and writes its log. Built where there is a JVM.
#ifdef MENDLINE_DRIVER_CLASS_PATH

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "Eventually.h"
#include "FailingSyscalls.h"
#include "Inventory.h"
#include "tests/faults/SupervisedSession.h"
#include "tests/faults/SweptCalls.h"

namespace mendline {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct JvmSweep {
  SweptCall call;
  int error = 0;
};

void PrintTo(const JvmSweep& sweep, std::ostream* out) {
  *out << sweep.call.name << " " << std::strerror(sweep.error);
}

std::string nameOf(const testing::TestParamInfo<JvmSweep>& info) {
  return std::string(info.param.call.name) + "_" + strerrorname_np(info.param.error);
}

// The calls that have a file, and it is the host's or the log.
std::vector<JvmSweep> jvmSweeps() {
  std::vector<JvmSweep> result;
  for (const SweptCall& call : sweptCalls()) {
    for (const long number :
         {SYS_openat, SYS_read, SYS_write, SYS_newfstatat, SYS_getdents64, SYS_lseek}) {
      if (call.number == number) {
        result.push_back({call, call.errors.front()});
      }
    }
  }
  return result;
}

class JvmSweepSlow : public testing::TestWithParam<JvmSweep> {
 protected:
  JvmSweepSlow()
      : supervisor_([this](const rig::SupervisedCall& call) { return judge(call); },
                    {SYS_openat, SYS_read, SYS_write, SYS_newfstatat, SYS_getdents64, SYS_lseek}) {}

  rig::RunningProgram startJvm() {
    return supervisor_.start(
        rig::Program({MENDLINE_JAVA, "-Xmx256m", "-XX:ErrorFile=/dev/null",
                      "-XX:-CreateCoredumpOnCrash", "-XX:-UsePerfData", "-cp",
                      MENDLINE_DRIVER_CLASS_PATH, "JvmDriver", MENDLINE_LIBRARY})
            .withClockSpeed(kClockSpeed)
            .withEnvironment("TARNHOST_MENDLINE_LOGLEVEL", "Debug"));
  }

  // From now on the Nth call of this sweep fails; 0: none.
  void failNumber(int nth) {
    const std::lock_guard lock(mutex_);
    nth_ = nth;
    seen_ = 0;
    injected_.clear();
  }
  std::string injected() {
    const std::lock_guard lock(mutex_);
    return injected_;
  }
  // By the opening of /proc, which begins one.
  int ticks() {
    const std::lock_guard lock(mutex_);
    return ticks_;
  }
  bool waitForTicks(const rig::RunningProgram& jvm, int count) {
    const int goal = ticks() + count;
    return rig::eventually([&] { return ticks() >= goal || !jvm.isRunning(); }) && jvm.isRunning();
  }

  SmallHost small;

 private:
  static constexpr int kClockSpeed = 1000;  // 30 seconds pass in 30 ms

  static bool concernsTheLibrary(const std::string& path) {
    // The JVM looks at itself.
    return (path.rfind("/proc", 0) == 0 && path.rfind("/proc/self", 0) != 0) ||
           path == rig::kLogFile;
  }

  rig::Verdict judge(const rig::SupervisedCall& call) {
    const bool takesPath = call.number == SYS_openat || call.number == SYS_newfstatat;
    const std::string text = takesPath ? call.textAt(1) : "";
    const std::string path = text.empty() ? call.fileAt(0) : text;
    const std::lock_guard lock(mutex_);
    if (call.number == SYS_openat && path == "/proc") {
      ++ticks_;
    }
    if (call.number != GetParam().call.number || nth_ == 0 || !concernsTheLibrary(path) ||
        ++seen_ != nth_) {
      return rig::Verdict::goOn();
    }
    injected_ = "number " + std::to_string(nth_) + " " + path;
    return rig::Verdict::fail(GetParam().error);
  }

  std::mutex mutex_;
  int nth_ = 0;
  int seen_ = 0;
  int ticks_ = 0;
  std::string injected_;
  rig::SyscallSupervisor supervisor_;
};

TEST_P(JvmSweepSlow, LetsTheJvmLive) {
  const auto begin = std::chrono::steady_clock::now();
  rig::RunningProgram jvm = startJvm();
  ASSERT_EQ(jvm.ask(operation("StartCollector")), kStarted);
  ASSERT_TRUE(waitForTicks(jvm, 3)) << "two whole ones, so that there are figures";
  int injections = 0;
  for (int nth = 1;; ++nth) {
    failNumber(nth);
    ASSERT_TRUE(waitForTicks(jvm, 2)) << injected();
    EXPECT_THAT(jvm.ask(operation("ProcessMetrics")),
                StartsWith(kDeclaration + "<processMetrics><timestamp>"))
        << injected();
    EXPECT_THAT(jvm.ask(operation("LbMetrics")), StartsWith(kDeclaration + "<LB><cpuUsage>"))
        << injected();
    EXPECT_THAT(
        jvm.ask(operation("HistoricalMetrics", "<userName>alice</userName><display>101</display>")),
        StartsWith(kDeclaration + "<historicalMetrics><metric>"))
        << injected();
    EXPECT_THAT(jvm.ask(operation("ProtocolInfo", "<display>101</display>")),
                StartsWith(kDeclaration + "<protocol><flare>"))
        << injected();
    EXPECT_THAT(jvm.ask(operation("EndProcess", small.victim())),
                AnyOf(kDeclaration + "<terminatedProcessName>victim</terminatedProcessName>",
                      kDeclaration + "<ERROR>Failed to terminate process</ERROR>"))
        << injected();
    if (injected().empty()) {
      break;
    }
    ++injections;
  }
  failNumber(0);
  EXPECT_GT(injections, 0);
  // What failed once leaves no trace in the figures.
  ASSERT_TRUE(waitForTicks(jvm, 2));
  for (const char* name : {"Xorg", "FlareWorker", "victim"}) {
    EXPECT_THAT(jvm.ask(operation("ProcessMetrics")),
                HasSubstr("<name>" + std::string(name) + "</name>"));
  }
  EXPECT_EQ(jvm.ask(operation("StopCollector")), kStopped);
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(rig::kKeyFile));
  jvm.closeInput();
  EXPECT_EQ(jvm.wait(), 0);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - begin)
                                .count();
  std::cout << GetParam().call.name << ": " << injections << " failures in " << milliseconds
            << " ms\n";
}

INSTANTIATE_TEST_SUITE_P(EveryCall, JvmSweepSlow, testing::ValuesIn(jvmSweeps()), nameOf);

}  // namespace
}  // namespace mendline

#endif  // MENDLINE_DRIVER_CLASS_PATH
