#include "collector/PerfCollector.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Eventually.h"
#include "FailingSyscalls.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "tests/collector/CollectorThread.h"
#include "tests/collector/RecordingGenerator.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using rig::eventually;
using rig::failSyscall;
using rig::PrivateHost;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;

PerfCollector& collector() {
  return *PerfCollector::getInstance();
}

std::shared_ptr<RecordingGenerator> registered() {
  const auto generator = std::make_shared<RecordingGenerator>();
  EXPECT_TRUE(collector().registerGenerator(generator));
  return generator;
}

// A tick that reads no real process is a short one.
void makeTicksCheap(PrivateHost& host) {
  host.syntheticProc();
}

TEST(PerfCollector, IsOneObject) {
  const std::shared_ptr<PerfCollector> first = PerfCollector::getInstance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, PerfCollector::getInstance());
}

TEST(PerfCollector, StartsOneThreadHoweverOftenItIsStarted) {
  PrivateHost host;
  EXPECT_TRUE(collector().start());
  EXPECT_TRUE(collector().start());
  EXPECT_TRUE(collector().start());
  EXPECT_EQ(collectorThreads(), 1u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Info PerfCollector: Created collection thread"));
  collector().stop();
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(PerfCollector, StartsOneThreadForManyCallersAtOnce) {
  PrivateHost host;
  std::atomic<int> succeeded = 0;
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] { succeeded += collector().start() ? 1 : 0; });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(succeeded, 8);
  EXPECT_EQ(host.log().count("Info", "PerfCollector", "Created collection thread"), 1u);
  EXPECT_TRUE(eventually([] { return collectorThreads() == 1; }));
  collector().stop();
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(PerfCollector, MayBeStoppedWithoutAThread) {
  PrivateHost host;
  collector().stop();
  collector().stop();
  EXPECT_EQ(host.log().text(), "");
  // Both flags are down again: it takes a generator and starts.
  const auto generator = registered();
  EXPECT_TRUE(collector().start());
  EXPECT_TRUE(generator->willHaveFinished(1));
  collector().stop();
}

TEST(PerfCollector, StartsANewThreadAfterAStop) {
  PrivateHost host;
  const auto generator = registered();
  for (std::size_t round = 1; round <= 3; ++round) {
    ASSERT_TRUE(collector().start());
    ASSERT_TRUE(generator->willHaveFinished(round));
    collector().stop();
    EXPECT_TRUE(collectorThreadHasEnded());
    EXPECT_EQ(generator->finished(), round) << "the registry stays as it is";
  }
  EXPECT_EQ(host.log().count("Info", "PerfCollector", "Created collection thread"), 3u);
}

TEST(PerfCollector, SaysNothingWhenItIsStopped) {
  PrivateHost host;
  const auto generator = registered();
  ASSERT_TRUE(collector().start());
  ASSERT_TRUE(generator->willHaveFinished(1));
  host.log().clear();
  collector().stop();
  EXPECT_EQ(host.log().text(), "");
}

TEST(PerfCollector, StopsAtOnceDuringTheWait) {
  PrivateHost host;
  const auto generator = registered();
  std::chrono::nanoseconds quickest = seconds(30);
  for (std::size_t round = 1; round <= 5; ++round) {
    ASSERT_TRUE(collector().start());
    ASSERT_TRUE(generator->willHaveFinished(round));
    pauseFor(milliseconds(20));
    const auto start = realTime();
    collector().stop();
    const auto taken = realTime() - start;
    EXPECT_LT(taken, seconds(5));
    quickest = std::min(quickest, taken);
  }
  EXPECT_LT(quickest, milliseconds(100));
}

TEST(PerfCollector, StopsWhenTheGeneratorsHaveFinishedTheirTick) {
  PrivateHost host;
  const auto slow = registered();
  const auto behind = registered();
  slow->hold();
  ASSERT_TRUE(collector().start());
  ASSERT_TRUE(slow->willHaveBegun(1));
  std::atomic<bool> stopped = false;
  std::thread request([&] {
    collector().stop();
    stopped = true;
  });
  pauseFor(milliseconds(100));
  EXPECT_FALSE(stopped);
  EXPECT_EQ(behind->begun(), 0u);
  slow->release();
  request.join();
  EXPECT_EQ(slow->finished(), 1u);
  EXPECT_EQ(behind->finished(), 1u) << "the tick goes on to its end";
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(PerfCollector, MakesOtherRequestsWaitBehindAStop) {
  PrivateHost host;
  const auto slow = registered();
  slow->hold();
  ASSERT_TRUE(collector().start());
  ASSERT_TRUE(slow->willHaveBegun(1));
  std::atomic<bool> stopping = false;
  std::thread stopper([&] {
    stopping = true;
    collector().stop();
  });
  ASSERT_TRUE(eventually([&] { return stopping.load(); }));
  pauseFor(milliseconds(50));
  std::atomic<int> answered = 0;
  const auto late = std::make_shared<RecordingGenerator>();
  bool lateWasTaken = false;
  std::thread registrar([&] {
    lateWasTaken = collector().registerGenerator(late);
    ++answered;
  });
  std::thread secondStopper([&] {
    collector().stop();
    ++answered;
  });
  pauseFor(milliseconds(100));
  EXPECT_EQ(answered, 0);
  slow->release();
  stopper.join();
  registrar.join();
  secondStopper.join();
  EXPECT_TRUE(lateWasTaken);
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
}

TEST(PerfCollector, RefusesAGeneratorWhileItRuns) {
  PrivateHost host;
  const auto generator = registered();
  ASSERT_TRUE(collector().start());
  ASSERT_TRUE(generator->willHaveFinished(1));
  host.log().clear();
  const auto late = std::make_shared<RecordingGenerator>();
  EXPECT_FALSE(collector().registerGenerator(late));
  EXPECT_FALSE(collector().registerGenerator(generator));
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn PerfCollector: Collector has started, failed to register new generator",
                  "Warn PerfCollector: Collector has started, failed to register new generator"));
  EXPECT_EQ(late.use_count(), 1) << "it has not been kept";
  collector().stop();
}

TEST(PerfCollectorTicks, NeverCallsAGeneratorThatItRefused) {
  PrivateHost host;
  const auto generator = registered();
  ASSERT_TRUE(collector().start());
  const auto late = std::make_shared<RecordingGenerator>();
  ASSERT_FALSE(collector().registerGenerator(late));
  ASSERT_TRUE(generator->willHaveFinished(4));
  EXPECT_EQ(late->begun(), 0u);
  collector().stop();
  ASSERT_TRUE(collector().registerGenerator(late));
  ASSERT_TRUE(collector().start());
  EXPECT_TRUE(late->willHaveFinished(2));
  collector().stop();
}

TEST(PerfCollector, TakesAGeneratorAgainAfterAStop) {
  PrivateHost host;
  const auto generator = registered();
  EXPECT_TRUE(collector().registerGenerator(generator));
  ASSERT_TRUE(collector().start());
  ASSERT_TRUE(generator->willHaveFinished(2));
  collector().stop();
  EXPECT_EQ(generator->finished(), 2u) << "once per entry";
  EXPECT_TRUE(collector().registerGenerator(generator));
  ASSERT_TRUE(collector().start());
  ASSERT_TRUE(generator->willHaveFinished(5));
  collector().stop();
  EXPECT_EQ(generator->finished(), 5u);
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
}

TEST(PerfCollector, SharesTheOwnershipOfItsGenerators) {
  PrivateHost host;
  const auto generator = registered();
  EXPECT_EQ(generator.use_count(), 2);
  collector().registerGenerator(generator);
  EXPECT_EQ(generator.use_count(), 3);
  ASSERT_TRUE(collector().start());
  collector().stop();
  EXPECT_EQ(generator.use_count(), 3);
}

TEST(PerfCollector, LetsTheFailureToCreateTheThreadOut) {
  PrivateHost host;
  const auto generator = registered();
  // In a child, whose end needs no thread: a leak checker's would.
  EXPECT_TRUE(rig::inChild([&] {
    failSyscall(SYS_clone3, EAGAIN);
    failSyscall(SYS_clone, EAGAIN);
    for (int attempt = 0; attempt < 2; ++attempt) {
      try {
        static_cast<void>(collector().start());
        ADD_FAILURE() << "no exception";
      } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
      }
    }
    EXPECT_EQ(host.log().text(), "");
    // The lock is free, and the collector does not take itself for started.
    EXPECT_TRUE(collector().registerGenerator(generator));
    collector().stop();
    EXPECT_TRUE(collector().registerGenerator(generator));
  }));
}

TEST(PerfCollector, LeavesNothingAfterTwoHundredStarts) {
  PrivateHost host;
  makeTicksCheap(host);
  const auto generator = registered();
  const std::size_t files = rig::openFileCount();
  for (std::size_t cycle = 1; cycle <= 200; ++cycle) {
    const std::size_t before = generator->begun();
    ASSERT_TRUE(collector().start());
    if (cycle % 2 == 0) {
      ASSERT_TRUE(generator->willHaveBegun(before + 1));
    }
    collector().stop();
  }
  EXPECT_GE(generator->finished(), 100u);
  EXPECT_TRUE(collectorThreadHasEnded());
  EXPECT_EQ(rig::openFileCount(), files);
  EXPECT_EQ(generator.use_count(), 2);
}

TEST(PerfCollector, ServesManyCallersAtOnce) {
  PrivateHost host;
  makeTicksCheap(host);
  std::vector<std::thread> callers;
  for (int i = 0; i < 6; ++i) {
    callers.emplace_back([i] {
      for (int round = 0; round < 30; ++round) {
        if ((i + round) % 3 == 0) {
          collector().stop();
        } else if ((i + round) % 3 == 1) {
          EXPECT_TRUE(collector().start());
        } else {
          static_cast<void>(collector().registerGenerator(std::make_shared<RecordingGenerator>()));
        }
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  collector().stop();
  EXPECT_TRUE(collectorThreadHasEnded());
}

// ---- The end of the process ----

// What becomes of a copy of this process that runs the body and then calls exit. Its static objects
// are destroyed as at any end of the program.
testing::AssertionResult exitsCleanlyAfter(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    body();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    return testing::AssertionFailure() << "killed by signal " << WTERMSIG(status);
  }
  if (WEXITSTATUS(status) != 0) {
    return testing::AssertionFailure() << "exit status " << WEXITSTATUS(status);
  }
  return testing::AssertionSuccess();
}

// A file that outlives a child process and to which it can append.
class Diary {
 public:
  Diary() { std::snprintf(path_, sizeof path_, "/run/diary"); }

  void add(const std::string& text) const {
    const int file = open(path_, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(file);
  }
  std::string text() const {
    std::string result(1000, '\0');
    const int file = open(path_, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
      return "";
    }
    const ssize_t size = read(file, result.data(), result.size());
    close(file);
    result.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return result;
  }

 private:
  char path_[32];
};

// Notes in a diary when it is called and when it is destroyed.
class DiaryGenerator : public MetricGenerator {
 public:
  DiaryGenerator(std::string name, milliseconds work) : name_(std::move(name)), work_(work) {}
  DiaryGenerator(const DiaryGenerator&) = delete;
  DiaryGenerator& operator=(const DiaryGenerator&) = delete;
  ~DiaryGenerator() override { diary_.add('-' + name_); }

  void generate(const PerfSample& /*sample*/) override {
    begun_ = true;
    pauseFor(work_);
    diary_.add('+' + name_);
  }

  bool hasBegun() const { return begun_; }

 private:
  Diary diary_;
  std::string name_;
  milliseconds work_;
  std::atomic<bool> begun_ = false;
};

// Forked from a program with one thread: the collector of the parent never runs in these tests.
void exitManyTimes(int times) {
  PrivateHost host;
  for (int i = 0; i < times; ++i) {
    ASSERT_TRUE(exitsCleanlyAfter([i] {
      if (i % 3 == 1) {
        // Then the collector is created before the generators, and destroyed behind them.
        StopCollector();
      }
      EXPECT_TRUE(StartCollector());
      pauseFor(milliseconds(i % 7));
      if (i % 3 == 2) {
        StopCollector();
        EXPECT_TRUE(StartCollector());
      }
    })) << i;
  }
}

TEST(PerfCollectorExit, IsCleanWhileTheThreadRuns) {
  exitManyTimes(50);
}

TEST(PerfCollectorExitSlow, IsCleanWhileTheThreadRunsAThousandTimes) {
  exitManyTimes(1000);
}

TEST(PerfCollectorExit, IsCleanAfterAStop) {
  PrivateHost host;
  EXPECT_TRUE(exitsCleanlyAfter([] { StopCollector(); }));
  EXPECT_TRUE(exitsCleanlyAfter([] {
    EXPECT_TRUE(StartCollector());
    StopCollector();
  }));
  EXPECT_TRUE(exitsCleanlyAfter([] { PerfCollector::getInstance(); }));
}

TEST(PerfCollectorExit, IsCleanForTheShippedLibrary) {
  PrivateHost host;
  const std::string start =
      "<MendlineOperation><opcode>StartCollector</opcode></MendlineOperation>\n";
  const std::string stop =
      "<MendlineOperation><opcode>StopCollector</opcode></MendlineOperation>\n";
  for (int i = 0; i < 5; ++i) {
    for (const std::string& requests :
         {start, start + "!exit 0\n", stop + start + "!exit 0\n", start + stop + start,
          start + "!sleep 0.0" + std::to_string(i) + "\n!exit 0\n", start + stop}) {
      const rig::Run run =
          host.program({REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY}).withInput(requests).run();
      EXPECT_EQ(run.exitStatus, 0) << requests << run.errors;
      EXPECT_NE(run.output.find("Succeed to start collector"), std::string::npos) << run.output;
    }
  }
}

TEST(PerfCollectorExit, WaitsForAGeneratorsWork) {
  PrivateHost host;
  EXPECT_TRUE(exitsCleanlyAfter([] {
    auto generator = std::make_shared<DiaryGenerator>("a", milliseconds(100));
    const DiaryGenerator& seen = *generator;
    EXPECT_TRUE(collector().registerGenerator(std::move(generator)));
    EXPECT_TRUE(collector().start());
    EXPECT_TRUE(eventually([&] { return seen.hasBegun(); }));
  }));
  EXPECT_EQ(Diary().text(), "+a-a");
}

TEST(PerfCollectorExit, ReleasesTheGeneratorsInTheOrderOfRegistration) {
  PrivateHost host;
  EXPECT_TRUE(exitsCleanlyAfter([] {
    const auto twice = std::make_shared<DiaryGenerator>("a", milliseconds(0));
    EXPECT_TRUE(collector().registerGenerator(twice));
    for (const std::string name : {"b", "c", "d"}) {
      EXPECT_TRUE(
          collector().registerGenerator(std::make_shared<DiaryGenerator>(name, milliseconds(0))));
    }
    EXPECT_TRUE(collector().registerGenerator(twice));
  }));
  EXPECT_EQ(Diary().text(), "-b-c-d-a");
}

}  // namespace
}  // namespace mendline
