// Runs with MENDLINE_CLOCK_SPEED=600.
#include "TickClock.h"

#include <sys/time.h>
#include <time.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "HostPaths.h"
#include "PrivateHost.h"

using namespace mendline;
using namespace std::chrono_literals;

namespace {

std::chrono::nanoseconds realNow() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

class TickClock : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(rig::clockIsQuick()); }

  std::mutex mutex;
  std::condition_variable condition;
};

TEST_F(TickClock, ThirtySecondsOfSystemTimePassQuickly) {
  std::unique_lock lock(mutex);
  const auto start = realNow();
  const auto deadline = std::chrono::system_clock::now() + 30s;
  const std::cv_status status = condition.wait_until(lock, deadline);
  const auto taken = realNow() - start;
  EXPECT_EQ(status, std::cv_status::timeout);
  EXPECT_GE(std::chrono::system_clock::now(), deadline);
  EXPECT_GE(taken, 45ms);
  EXPECT_LT(taken, 1s);
}

TEST_F(TickClock, ThirtySecondsOfSteadyTimePassQuickly) {
  std::unique_lock lock(mutex);
  const auto start = realNow();
  EXPECT_FALSE(condition.wait_for(lock, 30s, [] { return false; }));
  const auto taken = realNow() - start;
  EXPECT_GE(taken, 45ms);
  EXPECT_LT(taken, 1s);
}

TEST_F(TickClock, SteadyTimeNeverGoesBack) {
  auto last = std::chrono::steady_clock::now();
  for (int i = 0; i < 10'000; ++i) {
    const auto now = std::chrono::steady_clock::now();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST_F(TickClock, StartsAtTheRealTime) {
  // Six hundred seconds of quick time, which a slow machine takes one second for.
  const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  EXPECT_GE(now, time(nullptr));
  EXPECT_LT(now, time(nullptr) + 6000);
}

TEST_F(TickClock, NotificationEndsAWait) {
  bool ready = false;
  std::thread other([&] {
    const timespec pause = {0, 20'000'000};
    nanosleep(&pause, nullptr);
    const std::lock_guard lock(mutex);
    ready = true;
    condition.notify_one();
  });
  std::unique_lock lock(mutex);
  const auto start = realNow();
  EXPECT_TRUE(
      condition.wait_until(lock, std::chrono::system_clock::now() + 24h, [&] { return ready; }));
  EXPECT_LT(realNow() - start, 5s);
  lock.unlock();
  other.join();
}

TEST_F(TickClock, AJumpEndsAWaitForSystemTime) {
  std::thread administrator([] {
    const timespec pause = {0, 30'000'000};
    nanosleep(&pause, nullptr);
    rig::jumpSystemClock(2 * 24 * 3600);
  });
  std::unique_lock lock(mutex);
  const auto steadyBefore = std::chrono::steady_clock::now();
  const auto start = realNow();
  EXPECT_FALSE(
      condition.wait_until(lock, std::chrono::system_clock::now() + 24h, [] { return false; }));
  EXPECT_LT(realNow() - start, 5s);
  EXPECT_LT(std::chrono::steady_clock::now() - steadyBefore, 24h);
  lock.unlock();
  administrator.join();
}

TEST_F(TickClock, AJumpBackMakesAWaitLonger) {
  std::unique_lock lock(mutex);
  const auto deadline = std::chrono::system_clock::now() + 30s;
  rig::jumpSystemClock(-60);
  const auto start = realNow();
  EXPECT_EQ(condition.wait_until(lock, deadline), std::cv_status::timeout);
  EXPECT_GE(realNow() - start, 140ms);
}

TEST_F(TickClock, GettimeofdayFailsOnRequest) {
  timeval now = {};
  EXPECT_EQ(gettimeofday(&now, nullptr), 0);
  EXPECT_NEAR(static_cast<double>(now.tv_sec), static_cast<double>(time(nullptr)), 2);
  rig::failGettimeofday(true);
  EXPECT_EQ(gettimeofday(&now, nullptr), -1);
  rig::failGettimeofday(false);
  EXPECT_EQ(gettimeofday(&now, nullptr), 0);
}

TEST_F(TickClock, SleepsStayReal) {
  const auto start = realNow();
  std::this_thread::sleep_for(20ms);
  EXPECT_GE(realNow() - start, 20ms);
}

TEST_F(TickClock, ServesTheProductsLibraryInAnyProgram) {
  rig::PrivateHost host;
  const rig::Run run =
      host.program({REQUEST_DRIVER_PROGRAM, ECHO_LIBRARY}).withInput("wait thirty seconds\n").run();
  ASSERT_EQ(run.outputLines().size(), 1U) << run.errors;
  EXPECT_GE(std::stol(run.output), 45);
  EXPECT_LT(std::stol(run.output), 1000);
}

TEST_F(TickClock, LeavesOtherLibrariesAlone) {
  rig::PrivateHost host;
  const std::string other = std::string(rig::kScratchDirectory) + "/libother.so";
  std::filesystem::copy_file(ECHO_LIBRARY, other,
                             std::filesystem::copy_options::overwrite_existing);
  const rig::Run run = host.program({REQUEST_DRIVER_PROGRAM, other})
                           .withInput("wait a second by the kernel's clock\n")
                           .run();
  ASSERT_EQ(run.outputLines().size(), 1U) << run.errors;
  EXPECT_GE(std::stol(run.output), 999);
}

TEST(Program, SetsASpeedOfItsOwn) {
  rig::PrivateHost host;
  const rig::Run run = host.program({REQUEST_DRIVER_PROGRAM, ECHO_LIBRARY})
                           .withoutEnvironment("LD_PRELOAD")
                           .withClockSpeed(60)
                           .withInput("wait thirty seconds\n!jump 10\n")
                           .run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_EQ(run.outputLines().size(), 1U) << run.errors;
  EXPECT_GE(std::stol(run.output), 495);
  EXPECT_LT(std::stol(run.output), 3000);
}

TEST_F(TickClock, IsNotInheritedByStandIns) {
  rig::PrivateHost host;
  rig::Process process = host.process("xedit").start();
  const std::string pid = std::to_string(process.pid());
  const rig::Run run = host.program({"/bin/grep", "-c", "tick-clock", "/proc/" + pid + "/maps"})
                           .withoutEnvironment("LD_PRELOAD")
                           .run();
  EXPECT_EQ(run.output, "0\n");
}

}  // namespace
