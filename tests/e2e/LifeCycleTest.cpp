// Start, stop, report and the end of the process in every order: whatever an agent does with the
// library, its JVM ends as it was told to, and the next one finds a host it can work with.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "FakeJvm.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "Jdks.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

using testing::HasSubstr;

std::string operation(const std::string& opcode) {
  return "<MendlineOperation><opcode>" + opcode + "</opcode></MendlineOperation>";
}

const std::string kStart = operation("StartCollector");
const std::string kStop = operation("StopCollector");
const std::string kReport = operation("ProcessMetrics");

// All sequences of at most three of them, the empty one left out.
std::vector<std::vector<std::string>> sequences() {
  std::vector<std::vector<std::string>> all;
  std::vector<std::vector<std::string>> longest = {{}};
  for (int length = 1; length <= 3; ++length) {
    std::vector<std::vector<std::string>> longer;
    for (const auto& sequence : longest) {
      for (const std::string& request : {kStart, kStop, kReport}) {
        longer.push_back(sequence);
        longer.back().push_back(request);
      }
    }
    all.insert(all.end(), longer.begin(), longer.end());
    longest = std::move(longer);
  }
  return all;
}

// Another process can still start and stop a collector. A segment may be left: a stop in a process
// that has started nothing removes the key file of the one before it, whose segment then has none.
void expectAUsableHost() {
  const rig::Run run = rig::Program({REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY})
                           .withInput(kStart + "\n" + kStop + "\n")
                           .run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("<INFO>Succeed to start collector</INFO>"));
  EXPECT_THAT(run.output, HasSubstr("<INFO>Finish to stop collector</INFO>"));
  EXPECT_FALSE(std::filesystem::exists(rig::kKeyFile));
}

// --- In real JVMs.

struct Ending {
  const char* name;
  const char* order;  // to the driver; null: a signal, or the end of its input
  int signalNumber;
  int exitStatus;
};

constexpr Ending kEndings[] = {
    {"Return", nullptr, 0, 0},
    {"SystemExit", "!exit 5", 0, 5},
    {"RuntimeHalt", "!halt 6", 0, 6},
    {"Sigterm", nullptr, SIGTERM, 128 + SIGTERM},
    {"Sigkill", nullptr, SIGKILL, 128 + SIGKILL},
};

struct Case {
  std::string java;
  Ending ending;
};

void PrintTo(const Case& example, std::ostream* out) {
  *out << example.java << " " << example.ending.name;
}

std::vector<Case> cases() {
  std::vector<Case> result;
  for (const std::string& java : javas()) {
    for (const Ending& ending : kEndings) {
      result.push_back({java, ending});
    }
  }
  return result;
}

std::string nameOf(const testing::TestParamInfo<Case>& info) {
  const std::filesystem::path jdk =
      std::filesystem::path(info.param.java).parent_path().parent_path();
  std::string name = jdk.filename().string() + "_" + info.param.ending.name;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name;
}

class LifeCycleInJvm : public testing::TestWithParam<Case> {
 protected:
  int runAndEnd(const std::vector<std::string>& sequence, int threads) const {
    rig::RunningProgram jvm =
        host.program({GetParam().java, "-Xmx64m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                      "-XX:-UsePerfData", "-XX:ErrorFile=/dev/null", "-XX:-CreateCoredumpOnCrash",
                      "-cp", MENDLINE_DRIVER_CLASS_PATH, "JvmDriver", MENDLINE_LIBRARY})
            .withClockSpeed(6000)
            .start();
    // All threads start, stop or report at the same time, but never one thing and its opposite.
    for (const std::string& request : sequence) {
      const char* const expected = request == kStart  ? "<INFO>Succeed to start collector</INFO>"
                                   : request == kStop ? "<INFO>Finish to stop collector</INFO>"
                                                      : "<processMetrics>";
      EXPECT_THAT(jvm.ask("!together " + std::to_string(threads) + " " + request),
                  HasSubstr(expected));
    }
    const Ending& ending = GetParam().ending;
    if (ending.signalNumber != 0) {
      return jvm.stop(ending.signalNumber);
    }
    if (ending.order != nullptr) {
      jvm.send(ending.order);
    }
    jvm.closeInput();
    return jvm.wait();
  }

  rig::PrivateHost host;
};

INSTANTIATE_TEST_SUITE_P(EveryJdkAndEnding, LifeCycleInJvm, testing::ValuesIn(cases()), nameOf);

TEST_P(LifeCycleInJvm, EndsAsToldAfterAnyOrderOfRequestsFromAnyNumberOfThreads) {
  std::vector<std::string> order = {kReport, kStart, kStop};
  std::sort(order.begin(), order.end());
  do {
    for (const int threads : {1, 2, 8}) {
      EXPECT_EQ(runAndEnd(order, threads), GetParam().ending.exitStatus)
          << testing::PrintToString(order) << " from " << threads << " threads";
    }
  } while (std::next_permutation(order.begin(), order.end()));
  expectAUsableHost();
}

// --- Loaded and unloaded as any program may do it.

class LifeCycle : public testing::Test {
 protected:
  rig::PrivateHost host;
};

// Makes the requests one after the other while so many more threads ask for reports.
void requestBesideReports(const rig::NativeLibrary& library,
                          const std::vector<std::string>& sequence, int readers) {
  std::atomic<bool> ended = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < readers; ++i) {
    threads.emplace_back([&] {
      while (!ended) {
        EXPECT_THAT(library.request(kReport).answer.value_or(""),
                    testing::EndsWith("</processMetrics>"));
      }
    });
  }
  for (const std::string& request : sequence) {
    const rig::Call call = library.request(request);
    EXPECT_TRUE(call.balanced());
    EXPECT_THAT(call.answer.value_or(""), testing::StartsWith("<?xml "));
  }
  ended = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(LifeCycle, UnloadingEndsTheThreadAfterEveryOrderOfRequests) {
  const std::size_t threadsBefore = rig::threadCount();
  for (const int readers : {0, 1, 7}) {
    for (const std::vector<std::string>& sequence : sequences()) {
      rig::NativeLibrary library;
      requestBesideReports(library, sequence, readers);
      library.unload();
      EXPECT_TRUE(rig::eventually([&] { return rig::threadCount() == threadsBefore; }))
          << testing::PrintToString(sequence) << " beside " << readers << " readers";
    }
  }
  expectAUsableHost();
}

TEST_F(LifeCycle, LoadingAgainBeginsAnew) {
  const std::size_t filesBefore = rig::openFileCount();
  for (int life = 0; life < 20; ++life) {
    rig::NativeLibrary library;
    EXPECT_EQ(library.request(kReport).answer,
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
              "<processMetrics><timestamp>0</timestamp></processMetrics>");
    library.request(kStart);
    EXPECT_TRUE(rig::eventually(
        [&] { return library.request(kReport).answer->find("<process>") != std::string::npos; }));
    library.request(kStop);
    EXPECT_THAT(rig::segments(), testing::IsEmpty());
    library.unload();
  }
  EXPECT_EQ(rig::openFileCount(), filesBefore);
  expectAUsableHost();
}

TEST_F(LifeCycle, ProcessesEndAtAnyMomentOfAStart) {
  for (int microseconds = 0; microseconds < 20'000; microseconds += 400) {
    rig::RunningProgram driver =
        host.program({REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY}).withClockSpeed(6000).start();
    driver.ask("!threads");  // the library is loaded then
    driver.send(kStart);
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    EXPECT_EQ(driver.stop(SIGKILL), 128 + SIGKILL);
  }
  expectAUsableHost();
}

// --- On a host that has been up for as long as no host has.

TEST_F(LifeCycle, CreationTimesAndUptimesHoldAfterALongLife) {
  constexpr long kShift = 4'000'000'000;  // seconds: 126 years, and a boot before the epoch
  const rig::Process guest = host.process("guest").ownedBy("alice").start();
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  const std::string shift = std::to_string(kShift);
  rig::RunningProgram driver =
      host.program({"unshare", "--time", "--boottime", shift, "--monotonic", shift, "--fork",
                    "--kill-child", REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY})
          .start();
  EXPECT_THAT(driver.ask(kStart), HasSubstr("Succeed"));
  std::string report;
  ASSERT_TRUE(rig::eventually([&] {
    return (report = driver.ask(kReport)).find("<name>guest</name>") != std::string::npos;
  }));

  const auto numberBehind = [](const std::string& text, const std::string& element) {
    return std::stoull(text.substr(text.find("<" + element + ">") + element.size() + 2));
  };
  const std::uint64_t uptime = numberBehind(report, "timestamp");
  EXPECT_GE(uptime, static_cast<std::uint64_t>(kShift));
  const std::string before = report.substr(0, report.find("<name>guest</name>"));
  const std::string row = before.substr(before.rfind("<process>"));
  const std::uint64_t created = numberBehind(row, "create_time");
  EXPECT_NEAR(static_cast<double>(created), static_cast<double>(now), 2.0);

  // And it is the very time that ends the process.
  const std::string answer = driver.ask(
      "<MendlineOperation><opcode>EndProcess</opcode><processId>" + std::to_string(guest.pid()) +
      "</processId><createTime>" + std::to_string(created) + "</createTime></MendlineOperation>");
  EXPECT_THAT(answer, HasSubstr("<terminatedProcessName>guest</terminatedProcessName>"));
  EXPECT_TRUE(rig::eventually([&] { return !guest.isRunning(); }));
  EXPECT_THAT(driver.ask(kStop), HasSubstr("Finish"));
  driver.closeInput();
  EXPECT_EQ(driver.wait(), 0);
}

}  // namespace
}  // namespace mendline
