// The body of the collection thread: what a tick hands to its generators, and when the next comes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Eventually.h"
#include "FailingSyscalls.h"
#include "HostPaths.h"
#include "PrivateHost.h"
#include "TickClock.h"
#include "collector/CollectorControl.h"
#include "collector/PerfCollector.h"
#include "collector/SessionCounters.h"
#include "logging/InternalLogger.h"
#include "tests/collector/CollectorThread.h"
#include "tests/collector/RecordingGenerator.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using rig::eventually;
using rig::failSyscall;
using rig::PrivateHost;
using rig::Process;
using rig::Worker;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

// 30 seconds under the quick clock.
constexpr milliseconds kQuickWait(50);

std::shared_ptr<RecordingGenerator> registered() {
  const auto generator = std::make_shared<RecordingGenerator>();
  EXPECT_TRUE(PerfCollector::getInstance()->registerGenerator(generator));
  return generator;
}

// The collector of the test, with a generator that is called before the library's own. Stopped at
// the end of the test, so that the thread does not outlive the host.
class Collection {
 public:
  Collection() : generator_(registered()) {}
  ~Collection() { StopCollector(); }
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;

  void start() { ASSERT_TRUE(StartCollector()); }
  RecordingGenerator& generator() { return *generator_; }

  // The sample of the first tick.
  PerfSample firstSample() {
    start();
    EXPECT_TRUE(generator_->willHaveFinished(1));
    return generator_->samples().front();
  }
  // Whether a tick that begins from now on satisfies the condition, within a few.
  bool willHandOver(const std::function<bool(const PerfSample&)>& condition) {
    const std::size_t before = generator_->begun();
    return eventually(
        [&] { return generator_->finished() > before && condition(generator_->lastSample()); },
        seconds(20));
  }

 private:
  std::shared_ptr<RecordingGenerator> generator_;
};

const ProcessInfo* find(const PerfSample& sample, pid_t pid) {
  for (const ProcessInfo& process : sample.processes) {
    if (process.iPid == pid) {
      return &process;
    }
  }
  return nullptr;
}

// ---- What a tick hands over ----

TEST(CollectionLoop, HandsOverTheProcessesOfTheHost) {
  PrivateHost host;
  const Process process = host.process("xedit").ownedBy("bob").start();
  Collection collection;
  const PerfSample sample = collection.firstSample();
  const ProcessInfo* const info = find(sample, process.pid());
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->strProcessName, "xedit");
  EXPECT_EQ(info->uiUserId, host.uidOf("bob"));
  EXPECT_EQ(info->ullStartTime, process.startTime());
  EXPECT_NE(find(sample, getpid()), nullptr);
  EXPECT_NE(find(sample, 1), nullptr);
}

TEST(CollectionLoop, HandsOverTheCountersOfTheHost) {
  PrivateHost host;
  host.withProcStat("cpu  11 12 13 14 15 16\nbtime 17\n")
      .withDiskstats("8 0 sda 21 22 23 24 25 26 27 28 29 30 31\n");
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_EQ(sample.system.cpuUser, 11u);
  EXPECT_EQ(sample.system.cpuIdle, 14u);
  EXPECT_EQ(sample.system.diskReads, 21u);
  EXPECT_EQ(sample.system.diskWrites, 25u);
  struct sysinfo memory = {};
  ASSERT_EQ(sysinfo(&memory), 0);
  EXPECT_EQ(sample.system.memTotal, memory.totalram);
}

TEST(CollectionLoop, BeginsItsFirstTickAtOnce) {
  PrivateHost host;
  Collection collection;
  const nanoseconds start = realTime();
  collection.start();
  ASSERT_TRUE(collection.generator().willHaveBegun(1));
  EXPECT_LT(realTime() - start, seconds(10));
}

// Notes which generator got which sample.
struct Handed {
  char name;
  const PerfSample* sample;
};

class NotingGenerator : public MetricGenerator {
 public:
  NotingGenerator(char name, std::vector<Handed>& notes, std::atomic<int>& calls)
      : name_(name), notes_(notes), calls_(calls) {}
  void generate(const PerfSample& sample) override {
    notes_.push_back({name_, &sample});
    ++calls_;
  }

 private:
  char name_;
  std::vector<Handed>& notes_;
  std::atomic<int>& calls_;
};

TEST(CollectionLoopTicks, HandsOneSampleToEveryEntryOfTheRegistryInItsOrder) {
  PrivateHost host;
  std::vector<Handed> notes;
  std::atomic<int> calls = 0;
  const auto collector = PerfCollector::getInstance();
  const auto make = [&](char name) {
    return std::make_shared<NotingGenerator>(name, notes, calls);
  };
  const auto first = make('a');
  for (const std::shared_ptr<NotingGenerator>& generator :
       {first, make('c'), make('b'), first, make('d')}) {
    ASSERT_TRUE(collector->registerGenerator(generator));
  }
  ASSERT_TRUE(collector->start());
  ASSERT_TRUE(eventually([&] { return calls >= 15; }));
  collector->stop();
  std::string order;
  for (std::size_t i = 0; i < 15; ++i) {
    order += notes[i].name;
    EXPECT_EQ(notes[i].sample, notes[i - i % 5].sample) << i;
  }
  EXPECT_EQ(order, "acbadacbadacbad");
}

TEST(CollectionLoopTicks, BuildsEverySampleAfresh) {
  PrivateHost host;
  host.withProcStat("cpu  1 2 3 4\nbtime 5\n");
  Process process = host.process("xedit").start();
  Collection collection;
  const PerfSample first = collection.firstSample();
  EXPECT_NE(find(first, process.pid()), nullptr);
  const pid_t gone = process.pid();
  process.stop();
  const Process late = host.process("late").start();
  host.withProcStat("cpu  101 2 3 4\nbtime 5\n");
  EXPECT_TRUE(collection.willHandOver([&](const PerfSample& sample) {
    return find(sample, gone) == nullptr && find(sample, late.pid()) != nullptr &&
           sample.system.cpuUser == 101;
  }));
}

// Keeps a pointer to the tick's own sample.
class BorrowingGenerator : public MetricGenerator {
 public:
  void generate(const PerfSample& sample) override { borrowed_ = &sample; }
  const PerfSample* borrowed() const { return borrowed_; }

 private:
  std::atomic<const PerfSample*> borrowed_ = nullptr;
};

TEST(CollectionLoop, KeepsItsSampleThroughTheWait) {
  PrivateHost host;
  const auto borrower = std::make_shared<BorrowingGenerator>();
  ASSERT_TRUE(PerfCollector::getInstance()->registerGenerator(borrower));
  Collection collection;
  const PerfSample copy = collection.firstSample();
  pauseFor(milliseconds(50));  // into the wait of 30 seconds
  ASSERT_NE(borrower->borrowed(), nullptr);
  EXPECT_EQ(borrower->borrowed()->processes.size(), copy.processes.size());
  EXPECT_NE(find(*borrower->borrowed(), getpid()), nullptr);
}

nanoseconds cpuTime() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

TEST(CollectionLoop, SleepsThroughTheWait) {
  PrivateHost host;
  Collection collection;
  collection.firstSample();
  pauseFor(milliseconds(50));  // into the wait of 30 seconds
  const nanoseconds before = cpuTime();
  pauseFor(milliseconds(500));
  EXPECT_LT(cpuTime() - before, milliseconds(100));
}

TEST(CollectionLoop, LetsAnExceptionOfAGeneratorEndTheProcess) {
  PrivateHost host;
  EXPECT_EXIT(
      {
        const auto generator = registered();
        generator->doing([] { throw std::runtime_error("from a generator"); });
        PerfCollector::getInstance()->start();
        pauseFor(seconds(20));
      },
      testing::KilledBySignal(SIGABRT), "from a generator");
}

// ---- The sessions of a tick ----

TEST(CollectionLoop, HandsOverTheRoundTripTimesOfTheSessions) {
  PrivateHost host;
  const Process first = host.xServer(":100").start();
  const Process second = host.xServer(":159").ownedBy("alice").start();
  const Worker worker = host.worker();
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_TRUE(sample.hasProtocolData);
  EXPECT_THAT(sample.displayNames, UnorderedElementsAre("100", "159"));
  // A worker that has written nothing yet reports zero.
  EXPECT_THAT(sample.protocolMetrics, UnorderedElementsAre(Pair("100", 0.0), Pair("159", 0.0)));
}

TEST(CollectionLoopTicks, ReadsTheRoundTripTimesInEveryTick) {
  PrivateHost host;
  const Process server = host.xServer(":103").start();
  Worker worker = host.worker();
  Collection collection;
  collection.start();
  for (const double rtt : {12.5, 0.25, -1.0, 1e300}) {
    worker.writes(103, {.frameRate = 1, .rtt = rtt, .pkLoss = 2});
    EXPECT_TRUE(collection.willHandOver([&](const PerfSample& sample) {
      return sample.hasProtocolData && sample.protocolMetrics.size() == 1 &&
             sample.protocolMetrics.at("103") == rtt;
    })) << rtt;
  }
}

TEST(CollectionLoop, DoesNotLookForSessionsWithoutAWorker) {
  PrivateHost host;
  const Process server = host.xServer(":103").start();
  const Process impostor = host.process("FlareWorker").ownedBy("alice").start();
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_FALSE(sample.hasProtocolData);
  EXPECT_THAT(sample.displayNames, IsEmpty());
  EXPECT_THAT(sample.protocolMetrics, IsEmpty());
  EXPECT_NE(find(sample, server.pid()), nullptr) << "the rest of the tick goes on";
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
}

TEST(CollectionLoop, HasNoProtocolDataWithoutASession) {
  PrivateHost host;
  const Worker worker = host.worker();
  const Process foreign = host.process("Xorg").withArguments({"Xorg", ":103"}).start();
  const Process other =
      host.process("Xorg2").withArguments({"Xorg2", ":103", rig::kXConfigFile}).start();
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_FALSE(sample.hasProtocolData);
  EXPECT_THAT(sample.displayNames, IsEmpty());
  EXPECT_THAT(sample.protocolMetrics, IsEmpty());
  EXPECT_TRUE(host.log().hasNot("", "ProtocolQuery"));
}

TEST(CollectionLoop, HasProtocolDataEvenIfTheFirstDisplayIsNone) {
  PrivateHost host;
  const Worker worker = host.worker();
  const Process server = host.xServer(":99").start();
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_TRUE(sample.hasProtocolData);
  EXPECT_THAT(sample.displayNames, ElementsAre("99"));
  EXPECT_THAT(sample.protocolMetrics, IsEmpty());
  EXPECT_TRUE(host.log().has("Warn", "ProtocolQuery", "Invalid display number 99"));
}

TEST(CollectionLoop, TakesAServerWithoutADisplayNumberForASession) {
  PrivateHost host;
  const Worker worker = host.worker();
  const Process server =
      host.process("Xorg").withArguments({"Xorg", "-config", rig::kXConfigFile}).start();
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_TRUE(sample.hasProtocolData);
  const std::string line = std::string("Xorg") + '\0' + "-config" + '\0' + rig::kXConfigFile + '\0';
  EXPECT_THAT(sample.displayNames, ElementsAre(line));
  EXPECT_THAT(sample.protocolMetrics, IsEmpty());
  // The message ends at the first NUL.
  EXPECT_EQ(host.log().count("Warn", "ProtocolQuery"), 1u);
  EXPECT_THAT(loggedLines(host.log()), Contains("Warn ProtocolQuery: Invalid display number Xorg"));
}

TEST(CollectionLoop, StopsReadingAtTheFirstInvalidDisplay) {
  PrivateHost host;
  const Worker worker = host.worker();
  std::vector<Process> servers;
  for (const std::string display : {":100", ":101", ":99", ":102", ":103"}) {
    servers.push_back(host.xServer(display).start());
  }
  Collection collection;
  const PerfSample sample = collection.firstSample();
  EXPECT_TRUE(sample.hasProtocolData);
  ASSERT_EQ(sample.displayNames.size(), 5u);
  const auto invalid =
      std::find(sample.displayNames.begin(), sample.displayNames.end(), std::string("99"));
  ASSERT_NE(invalid, sample.displayNames.end());
  for (auto name = sample.displayNames.begin(); name != sample.displayNames.end(); ++name) {
    EXPECT_EQ(sample.protocolMetrics.count(*name), name < invalid ? 1u : 0u) << *name;
  }
  EXPECT_EQ(host.log().count("Warn", "ProtocolQuery", "Invalid display number 99"), 1u);
}

// Sessions on these displays of an invented host, which a tick finds in this order.
void serveDisplays(PrivateHost& host, const std::vector<std::string>& displays) {
  rig::SyntheticProc& proc = host.syntheticProc();
  proc.addProcess({.pid = 10, .name = "FlareWorker", .startTime = 5}, rig::kWorkerUid);
  for (std::size_t i = 0; i < displays.size(); ++i) {
    proc.addProcess({.pid = 20 + static_cast<pid_t>(i), .name = "Xorg", .startTime = 5}, 0);
  }
  ProcessInfoSet processes;
  ASSERT_TRUE(ListProcesses(processes));
  auto display = displays.begin();
  for (const ProcessInfo& process : processes) {
    if (process.strProcessName == "Xorg") {
      proc.setFile(std::to_string(process.iPid) + "/cmdline",
                   std::string("Xorg") + '\0' + ':' + *display++ + '\0' + rig::kXConfigFile + '\0');
    }
  }
}

TEST(CollectionLoop, StopsReadingExactlyAtADisplayBeyondTheRangeOrATextThatIsNoNumber) {
  for (const std::string invalid : {"161", "abc", "99999999999"}) {
    PrivateHost host;
    host.log().clear();
    serveDisplays(host, {"100", "101", invalid, "102", "103"});
    Collection collection;
    const PerfSample sample = collection.firstSample();
    EXPECT_THAT(sample.displayNames, ElementsAre("100", "101", invalid, "102", "103"));
    EXPECT_TRUE(sample.hasProtocolData);
    EXPECT_THAT(sample.protocolMetrics, UnorderedElementsAre(Pair("100", 0.0), Pair("101", 0.0)));
    EXPECT_EQ(host.log().count("Warn", "ProtocolQuery"), 1u);
    EXPECT_TRUE(host.log().has("Warn", "ProtocolQuery", "Invalid display number " + invalid));
  }
}

TEST(CollectionLoopTicks, StopsReadingAtTheSameDisplayInEveryTick) {
  PrivateHost host;
  Worker worker = host.worker();
  serveDisplays(host, {"100", "abc", "102"});
  Collection collection;
  collection.start();
  ASSERT_TRUE(collection.generator().willHaveFinished(1));
  worker.writes(102, {.rtt = 7.5});
  for (const double rtt : {12.5, 13.5}) {
    worker.writes(100, {.rtt = rtt});
    EXPECT_TRUE(collection.willHandOver([&](const PerfSample& sample) {
      return sample.protocolMetrics == std::unordered_map<std::string, double>{{"100", rtt}};
    })) << rtt;
  }
  StopCollector();
  const std::size_t ticks = collection.generator().finished();
  EXPECT_EQ(host.log().count("Warn", "ProtocolQuery", "Invalid display number abc"), ticks);
  EXPECT_EQ(host.log().count("Warn", "ProtocolQuery"), ticks);
  for (const PerfSample& sample : collection.generator().samples()) {
    EXPECT_EQ(sample.protocolMetrics.size(), 1u);
  }
}

TEST(CollectionLoopTicks, ReadsTheOtherDisplaysAgainOnceTheInvalidOneIsGone) {
  PrivateHost host;
  serveDisplays(host, {"161", "101"});
  Collection collection;
  EXPECT_THAT(collection.firstSample().protocolMetrics, IsEmpty());
  serveDisplays(host, {"160", "101"});
  EXPECT_TRUE(collection.willHandOver([](const PerfSample& sample) {
    return sample.protocolMetrics.count("160") == 1 && sample.protocolMetrics.count("101") == 1;
  }));
}

TEST(CollectionLoopTicks, TakesTheNextWorkerInTheTickThatMissesTheOld) {
  PrivateHost host;
  const Process server = host.xServer(":103").start();
  Collection collection;
  collection.start();
  ASSERT_TRUE(collection.willHandOver([](const PerfSample& s) { return !s.hasProtocolData; }));
  Worker first = host.worker();
  ASSERT_TRUE(collection.willHandOver([](const PerfSample& s) { return s.hasProtocolData; }));
  first.stop();
  EXPECT_TRUE(collection.willHandOver([](const PerfSample& s) { return !s.hasProtocolData; }));
  const Process impostor = host.process("FlareWorker").ownedBy("alice").start();
  EXPECT_TRUE(collection.willHandOver([](const PerfSample& s) { return !s.hasProtocolData; }));
  Worker second = host.worker();
  EXPECT_TRUE(collection.willHandOver([](const PerfSample& s) { return s.hasProtocolData; }));
  // One dies while the other lives already: no tick is without.
  const Worker third = host.worker();
  const std::size_t before = collection.generator().finished();
  second.stop();
  ASSERT_TRUE(collection.generator().willHaveFinished(before + 4));
  const std::vector<PerfSample> samples = collection.generator().samples();
  for (std::size_t i = before; i < samples.size(); ++i) {
    EXPECT_TRUE(samples[i].hasProtocolData) << i;
  }
}

TEST(CollectionLoop, KnowsTheWorkerStillAfterAStop) {
  PrivateHost host;
  const Process server = host.xServer(":103").start();
  Worker worker = host.worker();
  Collection collection;
  EXPECT_TRUE(collection.firstSample().hasProtocolData);
  StopCollector();
  // Were it looked for again, it would not be found.
  worker.process().rename("renamed");
  collection.start();
  ASSERT_TRUE(collection.generator().willHaveFinished(2));
  EXPECT_TRUE(collection.generator().lastSample().hasProtocolData);
}

TEST(CollectionLoopTicks, TakesAReusedPidForAnotherProcess) {
  PrivateHost host;
  rig::ProcEntry server;
  server.stat = rig::StatLine{.pid = 20, .name = "Xorg", .startTime = 5}.text();
  server.io = rig::IoCounters().text();
  server.cmdline = std::string("Xorg\0:103\0tarnhost\0", 19);
  host.syntheticProc()
      .addProcess(rig::StatLine{.pid = 10, .name = "FlareWorker", .startTime = 5}, rig::kWorkerUid)
      .addProcess(20, server);
  Collection collection;
  EXPECT_TRUE(collection.firstSample().hasProtocolData);
  host.syntheticProc().addProcess(rig::StatLine{.pid = 10, .name = "FlareWorker", .startTime = 6},
                                  2001);
  EXPECT_TRUE(collection.willHandOver([](const PerfSample& s) { return !s.hasProtocolData; }));
  // The worker of before under whatever name.
  host.syntheticProc().addProcess(rig::StatLine{.pid = 10, .name = "other", .startTime = 5}, 2001);
  EXPECT_TRUE(collection.willHandOver([](const PerfSample& s) { return s.hasProtocolData; }));
}

// ---- Ticks that fail ----

// A tick fails, again and again without a pause, and reaches no generator; a stop ends that.
void expectSpinning(PrivateHost& host, Collection& collection, const std::string& tag,
                    const std::string& message) {
  SetLogThreshold(LogLevel::Error);
  collection.start();
  EXPECT_TRUE(
      eventually([&] { return host.log().count("Error", tag, message) >= 100; }, seconds(20)))
      << "hundred ticks would wait for an hour";
  EXPECT_EQ(collection.generator().begun(), 0u);
  const nanoseconds start = realTime();
  StopCollector();
  EXPECT_LT(realTime() - start, seconds(5));
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(CollectionLoop, AnUnreadableHostIsReadAgainWithoutAWait) {
  PrivateHost host;
  Collection collection;
  {
    PrivateHost broken;
    broken.withUnopenable("/proc/stat");
    expectSpinning(host, collection, "SystemQuery", "Failed to get system performance statistics");
    // Started again, it goes on as soon as the host can be read.
    collection.start();
    pauseFor(milliseconds(20));
    EXPECT_EQ(collection.generator().begun(), 0u);
  }
  EXPECT_TRUE(collection.generator().willHaveFinished(1, seconds(10)));
}

TEST(CollectionLoop, ReadsAgainWithoutAWaitWhenProcCannotBeOpened) {
  PrivateHost host;
  Collection collection;
  host.withUnopenableProc();
  expectSpinning(host, collection, "ProcessQuery",
                 "Failed to open procfs, error is: Transport endpoint is not connected");
  EXPECT_TRUE(host.log().hasNot("", "SystemQuery")) << "the counters are not asked for any more";
}

TEST(CollectionLoop, ReadsAgainWithoutAWaitWhenTheDisksCannotBeRead) {
  PrivateHost host;
  Collection collection;
  host.withUnopenable("/proc/diskstats");
  expectSpinning(host, collection, "SystemQuery", "Failed to get system performance statistics");
}

TEST(CollectionLoop, ReadsAgainWithoutAWaitWhenTheMemoryCannotBeAskedFor) {
  PrivateHost host;
  Collection collection;
  failSyscall(SYS_sysinfo, EFAULT);
  expectSpinning(host, collection, "SystemQuery", "Failed to get system performance statistics");
}

TEST(CollectionLoop, LooksForNoWorkerInATickThatFails) {
  PrivateHost host;
  const Process candidate = host.process("FlareWorker").ownedBy(4242, 4242).start();
  host.withUnopenable("/proc/stat");
  Collection collection;
  collection.start();
  ASSERT_TRUE(host.log().willHave("Error", "SystemQuery"));
  pauseFor(milliseconds(20));
  StopCollector();
  EXPECT_TRUE(host.log().hasNot("", "", "Failed to get user name"));
}

TEST(CollectionLoop, SaysNothingOfItsOwnAboutATick) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  Collection collection;
  collection.firstSample();
  StopCollector();
  EXPECT_EQ(host.log().count("", "PerfCollector"), 1u);
  EXPECT_TRUE(host.log().has("Info", "PerfCollector", "Created collection thread"));
}

TEST(CollectionLoopTicks, RecoversFromTicksThatFailed) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Error);
  Collection collection;
  collection.firstSample();
  {
    PrivateHost broken;
    broken.withUnopenable("/proc/stat");
    ASSERT_TRUE(host.log().willHave("Error", "SystemQuery"));
    const std::size_t before = collection.generator().begun();
    pauseFor(milliseconds(200));
    EXPECT_EQ(collection.generator().begun(), before);
  }
  const std::size_t before = collection.generator().finished();
  EXPECT_TRUE(collection.generator().willHaveFinished(before + 3));
}

// ---- The wait ----

void expectPauses(const std::vector<RecordingGenerator::Call>& calls) {
  for (std::size_t i = 1; i < calls.size(); ++i) {
    EXPECT_GE(calls[i].start - calls[i - 1].end, kQuickWait)
        << "between ticks " << i - 1 << " and " << i;
  }
}

// The generator is the last of the registry: its work ends the tick.
TEST(CollectionLoopTicks, WaitsThirtySecondsFromTheEndOfATicksWork) {
  PrivateHost host;
  const auto generator = registered();
  generator->doing([] { pauseFor(milliseconds(120)); });
  const auto collector = PerfCollector::getInstance();
  ASSERT_TRUE(collector->start());
  ASSERT_TRUE(generator->willHaveFinished(4));
  collector->stop();
  expectPauses(generator->calls());
}

TEST(CollectionLoopTicks, DoesNotCatchUpAfterALongTick) {
  PrivateHost host;
  const auto generator = registered();
  generator->doing([first = true]() mutable {
    if (first) {
      pauseFor(milliseconds(300));
      first = false;
    }
  });
  const auto collector = PerfCollector::getInstance();
  ASSERT_TRUE(collector->start());
  ASSERT_TRUE(generator->willHaveFinished(6));
  collector->stop();
  expectPauses(generator->calls());
}

TEST(CollectionLoopTicks, AreNotCutShortByJumpsOfTheSystemClock) {
  PrivateHost host;
  ASSERT_TRUE(rig::clockIsQuick());
  const auto generator = registered();
  const auto collector = PerfCollector::getInstance();
  ASSERT_TRUE(collector->start());
  // Jumps into every part of the waits, each past the end of all of them.
  while (generator->finished() < 8) {
    rig::jumpSystemClock(3600);
    pauseFor(milliseconds(3));
  }
  collector->stop();
  expectPauses(generator->calls());
}

TEST(CollectionLoopTicks, EndAtOnceWhenAStopComesAfterAJump) {
  PrivateHost host;
  const auto generator = registered();
  const auto collector = PerfCollector::getInstance();
  ASSERT_TRUE(collector->start());
  ASSERT_TRUE(generator->willHaveFinished(1));
  rig::jumpSystemClock(3600);
  const nanoseconds start = realTime();
  collector->stop();
  EXPECT_LT(realTime() - start, seconds(5));
  const std::size_t finished = generator->finished();
  pauseFor(3 * kQuickWait);
  EXPECT_EQ(generator->finished(), finished);
}

TEST(CollectionLoopSlow, WaitsThirtyRealSeconds) {
  PrivateHost host;
  const auto generator = registered();
  const auto collector = PerfCollector::getInstance();
  ASSERT_TRUE(collector->start());
  ASSERT_TRUE(generator->willHaveFinished(1));
  const nanoseconds end = generator->calls().front().end;
  while (realTime() - end < seconds(29)) {
    pauseFor(milliseconds(100));
  }
  EXPECT_EQ(generator->begun(), 1u);
  EXPECT_TRUE(generator->willHaveFinished(2, milliseconds(2000)));
  EXPECT_GE(generator->calls().back().start - end, seconds(30));
  EXPECT_LT(generator->calls().back().start - end, seconds(31));
  collector->stop();
  EXPECT_EQ(generator->finished(), 2u);
}

}  // namespace
}  // namespace mendline
