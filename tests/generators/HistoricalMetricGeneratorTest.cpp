#include "generators/HistoricalMetricGenerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <deque>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FailingSyscalls.h"
#include "PrivateHost.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"
#include "tests/sources/SysconfAnswers.h"

namespace mendline {

// An explicit instantiation may name what is private: the records themselves are what these tests
// are about, in full precision and all users at once.
const std::deque<HistoryRecord>& historyOf(const HistoricalMetricGenerator& generator);
template <std::deque<HistoryRecord> HistoricalMetricGenerator::*kHistory>
struct HistoryReader {
  friend const std::deque<HistoryRecord>& historyOf(const HistoricalMetricGenerator& generator) {
    return generator.*kHistory;
  }
};
template struct HistoryReader<&HistoricalMetricGenerator::history>;

namespace {

using rig::failSyscall;
using rig::PrivateHost;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

const std::deque<HistoryRecord>& history() {
  return historyOf(*HistoricalMetricGenerator::getInstance());
}

void generate(const PerfSample& sample) {
  HistoricalMetricGenerator::getInstance()->generate(sample);
}

LatestSystemFigures latest() {
  return HistoricalMetricGenerator::getLatestSystemFigures();
}

// "cpu" and "mem" of each user of a record.
std::map<std::int32_t, std::pair<double, double>> usersOf(const HistoryRecord& record) {
  std::map<std::int32_t, std::pair<double, double>> users;
  EXPECT_EQ(record.userMetrics.size() % 2, 0u);
  for (std::size_t i = 0; i + 1 < record.userMetrics.size(); i += 2) {
    const UserMetric& cpu = record.userMetrics[i];
    const UserMetric& mem = record.userMetrics[i + 1];
    EXPECT_EQ(cpu.name, "cpu");
    EXPECT_EQ(mem.name, "mem");
    EXPECT_EQ(cpu.uid, mem.uid);
    EXPECT_TRUE(users.emplace(cpu.uid, std::pair(cpu.value, mem.value)).second);
  }
  return users;
}

double cpuOf(std::int32_t uid) {
  return usersOf(history().back()).at(uid).first;
}
double memOf(std::int32_t uid) {
  return usersOf(history().back()).at(uid).second;
}

double overallMem(const HistoryRecord& record) {
  return record.systemMetrics.at(1).value;
}

ProcessInfo process(std::int32_t pid, std::uint32_t uid, std::uint64_t userTicks = 0,
                    std::uint64_t systemTicks = 0) {
  return {.iPid = pid,
          .uiUserId = uid,
          .ulUserTime = userTicks,
          .ulSystemTime = systemTicks,
          .ullStartTime = 1000,
          .strProcessName = "process"};
}

PerfSample sample(std::uint64_t ticks, ProcessInfoSet processes) {
  PerfSample sample;
  sample.system.cpuIdle = ticks;
  sample.system.memTotal = 4096000;
  sample.processes = std::move(processes);
  return sample;
}

// Two snapshots of which every figure is another.
SystemPerfStats early() {
  return {.cpuUser = 100,
          .cpuNice = 10,
          .cpuSystem = 50,
          .cpuIdle = 1000,
          .memTotal = 1000,
          .memAvailable = 400,
          .diskReads = 10,
          .diskWrites = 20,
          .diskInFlight = 1,
          .diskReadMs = 5,
          .diskWriteMs = 8,
          .diskIoMs = 100,
          .uptime = 100};
}

SystemPerfStats late() {
  return {.cpuUser = 150,
          .cpuNice = 9999,
          .cpuSystem = 100,
          .cpuIdle = 1100,
          .memTotal = 1000,
          .memAvailable = 250,
          .diskReads = 12,
          .diskWrites = 24,
          .diskInFlight = 77,
          .diskReadMs = 12,
          .diskWriteMs = 14,
          .diskIoMs = 9999,
          .uptime = 110};
}

PerfSample hostSample(const SystemPerfStats& stats) {
  PerfSample sample;
  sample.system = stats;
  return sample;
}

std::vector<std::pair<std::string, double>> systemOf(const HistoryRecord& record) {
  std::vector<std::pair<std::string, double>> figures;
  for (const NamedMetric& metric : record.systemMetrics) {
    figures.emplace_back(metric.name, metric.value);
  }
  return figures;
}

std::uint64_t kernelUptime() {
  struct sysinfo figures = {};
  EXPECT_EQ(sysinfo(&figures), 0);
  return static_cast<std::uint64_t>(figures.uptime);
}

TEST(HistoricalMetricGenerator, IsOneObject) {
  const auto first = HistoricalMetricGenerator::getInstance();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, HistoricalMetricGenerator::getInstance());
}

TEST(HistoricalMetricGenerator, HasFiveZerosAndNoHistoryBeforeTheFirstTick) {
  const LatestSystemFigures figures = latest();
  EXPECT_EQ(figures.cpuUsage, 0.0);
  EXPECT_EQ(figures.memUsage, 0.0);
  EXPECT_EQ(figures.diskRead, 0.0);
  EXPECT_EQ(figures.diskWrite, 0.0);
  EXPECT_EQ(figures.diskQueue, 0.0);
  EXPECT_THAT(history(), IsEmpty());
}

TEST(HistoricalMetricGenerator, PublishesLatenciesAndTheSumOfTheRates) {
  generate(hostSample(early()));
  generate(hostSample(late()));
  const LatestSystemFigures figures = latest();
  EXPECT_EQ(figures.cpuUsage, 50.0);
  EXPECT_EQ(figures.memUsage, 75.0);
  EXPECT_EQ(figures.diskRead, 3.5);
  EXPECT_EQ(figures.diskWrite, 1.5);
  EXPECT_EQ(figures.diskQueue, 2 / 10.0 + 4 / 10.0);
}

TEST(HistoricalMetricGenerator, TheFirstTickIsAveragedSinceBoot) {
  generate(hostSample(early()));
  const LatestSystemFigures figures = latest();
  EXPECT_EQ(figures.cpuUsage, 150 * 100.0 / 1150);
  EXPECT_EQ(figures.memUsage, 60.0);
  EXPECT_EQ(figures.diskRead, 0.5);
  EXPECT_EQ(figures.diskWrite, 0.4);
  EXPECT_EQ(figures.diskQueue, 10 / 100.0 + 20 / 100.0);
}

TEST(HistoricalMetricGenerator, TracesTheFiveFiguresWithALineFeedOfItsOwn) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  generate(hostSample(early()));
  generate(hostSample(late()));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Trace HistoricalMetricGenerator: cpuUsage 13.04, memUsage 60.00, "
                          "diskRead 0.50, diskWrite 0.40, diskIops 0.30",
                          "",
                          "Trace HistoricalMetricGenerator: cpuUsage 50.00, memUsage 75.00, "
                          "diskRead 3.50, diskWrite 1.50, diskIops 0.60",
                          ""));
}

TEST(HistoricalMetricGenerator, IsSilentAboveTrace) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  generate(sample(100, {process(1, 0)}));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(HistoricalMetricGenerator, TheSameSampleTwiceHasNoIntervalToShow) {
  PerfSample tick = hostSample(late());
  tick.processes = {process(1, 2001, 500)};
  generate(tick);
  generate(tick);
  const LatestSystemFigures figures = latest();
  EXPECT_TRUE(std::isnan(figures.cpuUsage));
  EXPECT_EQ(figures.memUsage, 75.0);
  EXPECT_EQ(figures.diskRead, 0.0);
  EXPECT_EQ(figures.diskWrite, 0.0);
  EXPECT_TRUE(std::isnan(figures.diskQueue));
  ASSERT_EQ(history().size(), 2u);
  const auto system = systemOf(history().back());
  EXPECT_TRUE(std::isnan(system.at(0).second));
  EXPECT_TRUE(std::isnan(system.at(2).second));
  EXPECT_TRUE(std::isnan(system.at(3).second));
  EXPECT_EQ(system.at(4).second, 0.0);
  EXPECT_TRUE(std::isnan(cpuOf(2001)));
}

TEST(HistoricalMetricGenerator, AHostWithoutAnyFigureYieldsARecordAllTheSame) {
  generate({});
  EXPECT_TRUE(std::isnan(latest().cpuUsage));
  EXPECT_TRUE(std::isnan(latest().memUsage));
  ASSERT_EQ(history().size(), 1u);
  EXPECT_EQ(history().back().systemMetrics.size(), 5u);
  EXPECT_THAT(history().back().userMetrics, IsEmpty());
  EXPECT_THAT(history().back().sessionMetrics, IsEmpty());
}

TEST(HistoricalMetricGenerator, ARecordHasTheFiveHostFiguresInOneOrder) {
  generate(hostSample(early()));
  generate(hostSample(late()));
  EXPECT_THAT(systemOf(history().front()),
              ElementsAre(Pair("overall_cpu", 150 * 100.0 / 1150), Pair("overall_mem", 60.0),
                          Pair("disk_iops_reads", 0.1), Pair("disk_iops_writes", 0.2),
                          Pair("disk_latency", 0.0)));
  EXPECT_THAT(systemOf(history().back()),
              ElementsAre(Pair("overall_cpu", 50.0), Pair("overall_mem", 75.0),
                          Pair("disk_iops_reads", 0.2), Pair("disk_iops_writes", 0.4),
                          Pair("disk_latency", 2.0)));
}

TEST(HistoricalMetricGenerator, ARecordIsStampedWithTheUptimeOfItsMaking) {
  PerfSample tick = hostSample(late());
  tick.system.uptime = 5;
  const std::uint64_t before = kernelUptime();
  generate(tick);
  EXPECT_GE(history().back().uptime, before);
  EXPECT_LE(history().back().uptime, kernelUptime());
}

TEST(HistoricalMetricGenerator, WithoutAnUptimeTheRecordIsKeptWithZero) {
  PrivateHost host;
  failSyscall(SYS_sysinfo, EPERM);
  generate(hostSample(late()));
  ASSERT_EQ(history().size(), 1u);
  EXPECT_EQ(history().back().uptime, 0u);
  EXPECT_EQ(overallMem(history().back()), 75.0);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Operation not "
                          "permitted",
                          "Error SystemQuery: Failed to get system uptime"));
}

TEST(HistoricalMetricGenerator, ChargesAProcessSeenForTheFirstTimeWithItsWholeLife) {
  PrivateHost host;
  generate(sample(1000, {process(1, 2001, 300, 200)}));
  EXPECT_EQ(cpuOf(2001), 50.0);
  generate(sample(1200, {process(1, 2001, 300, 200), process(2, 2001, 100, 50)}));
  EXPECT_EQ(cpuOf(2001), 75.0);
  generate(sample(1400, {process(1, 2001, 300, 200), process(2, 2001, 100, 50)}));
  EXPECT_EQ(cpuOf(2001), 0.0);
}

TEST(HistoricalMetricGenerator, ChargesAReusedPidWithItsWholeLifeAndDropsTheOldOne) {
  PrivateHost host;
  generate(sample(1000, {process(1, 2001, 900)}));
  ProcessInfo successor = process(1, 2001, 20, 10);
  successor.ullStartTime = 1001;
  generate(sample(1100, {successor}));
  EXPECT_EQ(cpuOf(2001), 30.0);
}

TEST(HistoricalMetricGenerator, ChargesAProcessSeenBeforeWithTheInterval) {
  PrivateHost host;
  generate(sample(1000, {process(1, 2001, 300, 200), process(2, 2002, 5, 5)}));
  generate(sample(1200, {process(1, 2001, 320, 210), process(2, 2002, 5, 5)}));
  EXPECT_EQ(cpuOf(2001), 15.0);
  EXPECT_EQ(cpuOf(2002), 0.0);
}

TEST(HistoricalMetricGenerator, ChargesAProcessToItsOwnerOfNow) {
  PrivateHost host;
  generate(sample(1000, {process(1, 2001, 100)}));
  generate(sample(1100, {process(1, 2002, 110)}));
  EXPECT_EQ(usersOf(history().back()).size(), 1u);
  EXPECT_EQ(cpuOf(2002), 10.0);
}

TEST(HistoricalMetricGenerator, ChargesNobodyForAProcessThatHasEnded) {
  PrivateHost host;
  generate(sample(1000, {process(1, 2001, 100), process(2, 2002, 100)}));
  generate(sample(1100, {process(2, 2002, 101)}));
  EXPECT_EQ(usersOf(history().back()).size(), 1u);
  EXPECT_EQ(cpuOf(2002), 1.0);
  EXPECT_EQ(usersOf(history().front()).size(), 2u);
}

TEST(HistoricalMetricGenerator, SumsUpWhatBelongsToAUserAndFiltersNone) {
  PrivateHost host;
  answerSysconf(_SC_PAGESIZE, 4096);
  ProcessInfo first = process(1, 2001, 10);
  first.ulMemory = 100;
  ProcessInfo second = process(2, 2001, 20, 5);
  second.ulMemory = 150;
  ProcessInfo ofRoot = process(3, 0, 40);
  ofRoot.ulMemory = 500;
  ProcessInfo ofAService = process(4, 33);
  generate(sample(100, {first, second, ofRoot, ofAService}));
  EXPECT_THAT(usersOf(history().back()),
              UnorderedElementsAre(Pair(2001, Pair(35.0, 25.0)), Pair(0, Pair(40.0, 50.0)),
                                   Pair(33, Pair(0.0, 0.0))));
}

TEST(HistoricalMetricGenerator, AUserNumberBeyond31BitsIsANegativeOne) {
  PrivateHost host;
  generate(sample(100, {process(1, 4294967295, 10)}));
  EXPECT_EQ(cpuOf(-1), 10.0);
}

TEST(HistoricalMetricGenerator, MemCountsEvenWhereNoTimeWasSpent) {
  PrivateHost host;
  answerSysconf(_SC_PAGESIZE, 4096);
  ProcessInfo info = process(1, 2001, 10);
  info.ulMemory = 250;
  generate(sample(100, {info}));
  generate(sample(200, {info}));
  EXPECT_EQ(cpuOf(2001), 0.0);
  EXPECT_EQ(memOf(2001), 25.0);
}

TEST(HistoricalMetricGenerator, MemIsOfTheTotalOfThisSampleAndMayExceedIt) {
  PrivateHost host;
  answerSysconf(_SC_PAGESIZE, 4096);
  ProcessInfo info = process(1, 2001);
  info.ulMemory = 1500;
  PerfSample tick = sample(100, {info});
  generate(tick);
  EXPECT_EQ(memOf(2001), 150.0);
  tick.system.memTotal = 8192000;
  generate(tick);
  EXPECT_EQ(memOf(2001), 75.0);
}

TEST(HistoricalMetricGenerator, PercentagesOfAUserAreMultipliedInWrappingIntegers) {
  PrivateHost host;
  answerSysconf(_SC_PAGESIZE, 4096);
  ProcessInfo info = process(1, 2001, (std::uint64_t{1} << 62) + 1);
  info.ulMemory = (std::uint64_t{1} << 52) + 1000;
  generate(sample(50, {info}));
  EXPECT_EQ(cpuOf(2001), 2.0);
  EXPECT_EQ(memOf(2001), 100.0);
  // Only the product with 100 wraps.
  info.ulMemory = (std::uint64_t{1} << 50) + 1000;
  generate(sample(100, {info}));
  EXPECT_EQ(memOf(2001), 100.0);
}

TEST(HistoricalMetricGenerator, AProcessWhoseTimeWentBackIsChargedWrapping) {
  PrivateHost host;
  generate(sample(100, {process(1, 2001, 10), process(2, 2001, 10)}));
  generate(sample(200, {process(1, 2001, 7), process(2, 2001, 33)}));
  EXPECT_EQ(cpuOf(2001), 20.0);
}

TEST(HistoricalMetricGenerator, NiceTimeOfTheHostIsNoPartOfAUsersShare) {
  PrivateHost host;
  PerfSample first = sample(0, {process(1, 2001)});
  first.system.cpuUser = 100;
  first.system.cpuSystem = 100;
  first.system.cpuIdle = 100;
  generate(first);
  PerfSample second = sample(0, {process(1, 2001, 10)});
  second.system.cpuUser = 110;
  second.system.cpuNice = 5000;
  second.system.cpuSystem = 120;
  second.system.cpuIdle = 170;
  generate(second);
  EXPECT_EQ(cpuOf(2001), 10.0);
}

TEST(HistoricalMetricGenerator, WithoutAPageSizeMemIsZeroAndIsLoggedOncePerUser) {
  PrivateHost host;
  failSysconf(_SC_PAGESIZE, EINVAL);
  ProcessInfo first = process(1, 2001, 10);
  first.ulMemory = 100;
  ProcessInfo second = process(2, 2001, 10);
  second.ulMemory = 100;
  ProcessInfo other = process(3, 2002, 10);
  other.ulMemory = 100;
  generate(sample(100, {first, second, other}));
  EXPECT_EQ(memOf(2001), 0.0);
  EXPECT_EQ(memOf(2002), 0.0);
  EXPECT_EQ(cpuOf(2001), 20.0);
  const std::string line = "Error SystemQuery: Failed to get page size, error is Invalid argument";
  EXPECT_THAT(loggedLines(host.log()), ElementsAre(line, line));
}

TEST(HistoricalMetricGenerator, TakesTheRoundTripTimeOfEachDisplayThatHasOne) {
  PerfSample tick;
  tick.hasProtocolData = true;
  tick.displayNames = {"100", "102", "103"};
  tick.protocolMetrics = {{"100", 12.5}, {"103", -1.5}, {"104", 5.0}};
  generate(tick);
  EXPECT_THAT(history().back().sessionMetrics,
              UnorderedElementsAre(Pair("100", 12.5), Pair("103", -1.5)));
}

TEST(HistoricalMetricGenerator, TakesNoRoundTripTimeFromASampleWithoutProtocolData) {
  PerfSample tick;
  tick.displayNames = {"100"};
  tick.protocolMetrics = {{"100", 12.5}};
  generate(tick);
  EXPECT_THAT(history().back().sessionMetrics, IsEmpty());
  tick.hasProtocolData = true;
  generate(tick);
  EXPECT_THAT(history().back().sessionMetrics, ElementsAre(Pair("100", 12.5)));
  EXPECT_THAT(history().front().sessionMetrics, IsEmpty());
}

TEST(HistoricalMetricGenerator, KeepsTheLastThirtyRecords) {
  for (unsigned tick = 1; tick <= 31; ++tick) {
    generate(hostSample({.memTotal = 1000, .memAvailable = 10 * tick}));
    ASSERT_EQ(history().size(), std::min(tick, 30u));
  }
  for (unsigned at = 0; at < 30; ++at) {
    EXPECT_EQ(overallMem(history()[at]), 100.0 - (at + 2.0));
  }
}

TEST(HistoricalMetricGenerator, ComparesWithTheSampleBeforeThoughThatIsGone) {
  PrivateHost host;
  {
    PerfSample first = hostSample(early());
    first.processes = {process(1, 2001, 100)};
    generate(first);
    first.processes.clear();
    first.system = {};
  }
  PerfSample second = hostSample(late());
  second.processes = {process(1, 2001, 150)};
  generate(second);
  EXPECT_EQ(latest().cpuUsage, 50.0);
  EXPECT_EQ(cpuOf(2001), 25.0);
}

TEST(HistoricalMetricGenerator, LeavesTheSampleAsItIs) {
  PrivateHost host;
  PerfSample tick = hostSample(late());
  tick.hasProtocolData = true;
  tick.displayNames = {"100"};
  tick.protocolMetrics = {{"100", 12.5}};
  tick.processes = {process(1, 2001, 500)};
  generate(tick);
  EXPECT_TRUE(tick.hasProtocolData);
  EXPECT_THAT(tick.displayNames, ElementsAre("100"));
  EXPECT_THAT(tick.protocolMetrics, ElementsAre(Pair("100", 12.5)));
  ASSERT_EQ(tick.processes.size(), 1u);
  EXPECT_EQ(tick.processes.begin()->ulUserTime, 500u);
  EXPECT_EQ(tick.system.cpuUser, 150u);
}

TEST(HistoricalMetricGenerator, ShowsTheFiguresOfOneIntervalToEveryThreadThatAsksMeanwhile) {
  PrivateHost host;
  const auto asVector = [](const LatestSystemFigures& figures) {
    return std::vector<double>{figures.cpuUsage, figures.memUsage, figures.diskRead,
                               figures.diskWrite, figures.diskQueue};
  };
  const PerfSample samples[] = {hostSample(early()), hostSample(late())};
  generate(samples[0]);
  generate(samples[1]);
  const auto forth = asVector(latest());
  generate(samples[0]);
  const auto back = asVector(latest());
  std::atomic<bool> done = false;
  std::atomic<int> mixtures = 0;
  std::thread reader([&] {
    while (!done) {
      const auto figures = asVector(latest());
      mixtures += figures != forth && figures != back;
    }
  });
  for (int i = 0; i < 3000; ++i) {
    generate(samples[(i + 1) % 2]);
  }
  done = true;
  reader.join();
  EXPECT_EQ(mixtures, 0);
}

}  // namespace
}  // namespace mendline
