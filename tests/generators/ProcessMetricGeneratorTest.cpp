#include "generators/ProcessMetricGenerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <atomic>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cmath>
#include <limits>
#include <locale>
#include <map>
#include <optional>
#include <set>
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
namespace {

using boost::property_tree::ptree;
using rig::failSyscall;
using rig::PrivateHost;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

const std::string kNaNAsCpu = "9223372036854775808";

struct Row {
  std::string id;
  std::string createTime;
  std::string name;
  std::string cpu;
  std::string mem;
  std::string disk;
  std::string userName;
};

ptree metrics() {
  ptree tree;
  ProcessMetricGenerator::getInstance()->fillProcessMetrics(tree);
  return tree;
}

std::vector<Row> rows() {
  std::vector<Row> all;
  for (const auto& [key, process] : metrics()) {
    if (key == "process") {
      all.push_back({process.get<std::string>("id"), process.get<std::string>("create_time"),
                     process.get<std::string>("name"), process.get<std::string>("cpu"),
                     process.get<std::string>("mem"), process.get<std::string>("disk"),
                     process.get<std::string>("user_name")});
    }
  }
  return all;
}

Row rowOf(std::int32_t pid) {
  std::optional<Row> found;
  for (const Row& row : rows()) {
    if (row.id == std::to_string(pid)) {
      EXPECT_FALSE(found.has_value()) << pid << " is there twice";
      found = row;
    }
  }
  EXPECT_TRUE(found.has_value()) << pid << " is not there";
  return found.value_or(Row{});
}

std::vector<std::string> ids() {
  std::vector<std::string> all;
  for (const Row& row : rows()) {
    all.push_back(row.id);
  }
  return all;
}

ProcessInfo process(std::int32_t pid, std::uint64_t userTicks = 0, std::uint64_t systemTicks = 0) {
  return {.iPid = pid,
          .ulUserTime = userTicks,
          .ulSystemTime = systemTicks,
          .ullStartTime = 1000,
          .strProcessName = "process"};
}

// A host on which this many clock ticks have passed since its start.
PerfSample sample(std::uint64_t ticks, ProcessInfoSet processes) {
  PerfSample sample;
  sample.system.cpuIdle = ticks;
  sample.processes = std::move(processes);
  return sample;
}

void generate(const PerfSample& sample) {
  ProcessMetricGenerator::getInstance()->generate(sample);
}

std::uint64_t kernelUptime() {
  struct sysinfo figures = {};
  EXPECT_EQ(sysinfo(&figures), 0);
  return static_cast<std::uint64_t>(figures.uptime);
}

TEST(ProcessMetricGenerator, IsOneObject) {
  const auto first = ProcessMetricGenerator::getInstance();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, ProcessMetricGenerator::getInstance());
}

TEST(ProcessMetricGenerator, HasATimestampOfZeroAloneBeforeTheFirstTick) {
  const ptree tree = metrics();
  ASSERT_EQ(tree.size(), 1u);
  EXPECT_EQ(tree.front().first, "timestamp");
  EXPECT_EQ(tree.front().second.data(), "0");
}

TEST(ProcessMetricGenerator, AnEmptySampleGivesAnEmptyTableAndAFreshTimestamp) {
  generate(sample(100, {process(4711)}));
  const std::uint64_t before = kernelUptime();
  generate(sample(200, {}));
  const auto timestamp = std::stoull(metrics().get<std::string>("timestamp"));
  EXPECT_GE(timestamp, before);
  EXPECT_LE(timestamp, kernelUptime());
  EXPECT_GT(timestamp, 0u);
  EXPECT_THAT(ids(), IsEmpty());
}

TEST(ProcessMetricGenerator, EveryProcessIsNewInTheFirstTick) {
  PrivateHost host;
  generate(sample(1000, {process(4711, 500, 300), process(4712, 1, 1)}));
  for (const std::int32_t pid : {4711, 4712}) {
    EXPECT_EQ(rowOf(pid).cpu, "0");
    EXPECT_EQ(rowOf(pid).disk, "0");
  }
}

TEST(ProcessMetricGenerator, CpuIsAWholePercentageCutDown) {
  PrivateHost host;
  generate(sample(5000, {process(1), process(2), process(3, 10, 490), process(4, 7, 7)}));
  generate(sample(6000, {process(1, 1), process(2, 10, 9), process(3, 20, 510), process(4, 7, 7)}));
  EXPECT_EQ(rowOf(1).cpu, "0");
  EXPECT_EQ(rowOf(2).cpu, "1");
  EXPECT_EQ(rowOf(3).cpu, "3");
  EXPECT_EQ(rowOf(4).cpu, "0");
  generate(sample(7200, {process(3, 45, 515)}));
  EXPECT_EQ(rowOf(3).cpu, "2");
}

TEST(ProcessMetricGenerator, CpuIsOfTheHostsUserSystemAndIdleTime) {
  PrivateHost host;
  PerfSample first = sample(0, {process(1)});
  first.system = {.cpuUser = 100, .cpuNice = 1000, .cpuSystem = 200, .cpuIdle = 300};
  generate(first);
  PerfSample second = sample(0, {process(1, 50)});
  second.system = {.cpuUser = 120, .cpuNice = 9000, .cpuSystem = 230, .cpuIdle = 350};
  generate(second);
  EXPECT_EQ(rowOf(1).cpu, "50");
}

TEST(ProcessMetricGenerator, CpuIsNotClamped) {
  PrivateHost host;
  generate(sample(0, {process(1), process(2, 100), process(3, 100)}));
  generate(sample(200, {process(1, 500), process(2, 100), process(3, 99)}));
  EXPECT_EQ(rowOf(1).cpu, "250");
  // One tick back counts as almost 2^64 ticks forward, here out of 200.
  EXPECT_EQ(rowOf(3).cpu, "9223372036854775808");
}

TEST(ProcessMetricGenerator, CpuBeyondItsRangeIsZero) {
  PrivateHost host;
  generate(sample(0, {process(1, 100)}));
  generate(sample(1, {process(1, 99)}));
  EXPECT_EQ(rowOf(1).cpu, "0");
}

TEST(ProcessMetricGenerator, CpuWithoutTimePassingIsZeroOrBit63Alone) {
  PrivateHost host;
  generate(sample(500, {process(1, 100), process(2, 100)}));
  generate(sample(500, {process(1, 101), process(2, 100)}));
  EXPECT_EQ(rowOf(1).cpu, "0");
  EXPECT_EQ(rowOf(2).cpu, kNaNAsCpu);
}

TEST(ProcessMetricGenerator, TheSameSampleTwiceMakesEveryCpuBit63AndNoDisk) {
  PrivateHost host;
  PerfSample first = sample(1000, {process(1, 10), process(2, 20)});
  PerfSample second = sample(2000, {process(1, 40), process(2, 90)});
  for (const PerfSample* tick : {&first, &second}) {
    generate(*tick);
    generate(*tick);
    ASSERT_EQ(rows().size(), 2u);
    for (const Row& row : rows()) {
      EXPECT_EQ(row.cpu, kNaNAsCpu);
      EXPECT_EQ(row.disk, "0");
    }
  }
}

TEST(ProcessMetricGenerator, TheSameSampleTwiceDoesSoForAProcessInItsFirstTickToo) {
  PrivateHost host;
  generate(sample(1000, {process(1, 10)}));
  generate(sample(1000, {process(1, 10)}));
  ProcessInfo young = process(2, 20);
  young.ullReadBytesCount = 1000;
  const PerfSample tick = sample(2000, {process(1, 15), young});
  generate(tick);
  EXPECT_EQ(rowOf(2).cpu, "0");
  generate(tick);
  EXPECT_EQ(rowOf(1).cpu, kNaNAsCpu);
  EXPECT_EQ(rowOf(2).cpu, kNaNAsCpu);
  EXPECT_EQ(rowOf(2).disk, "0");
}

TEST(ProcessMetricGenerator, DiskIsWhatWasReadAndWrittenMeanwhile) {
  PrivateHost host;
  ProcessInfo info = process(1);
  info.ullReadBytesCount = 1000;
  info.ullWriteBytesCount = 2000;
  generate(sample(100, {info}));
  info.ullReadBytesCount = 1300;
  info.ullWriteBytesCount = 2050;
  generate(sample(200, {info}));
  EXPECT_EQ(rowOf(1).disk, "350");
  generate(sample(300, {info}));
  EXPECT_EQ(rowOf(1).disk, "0");
  info.ullReadBytesCount = 1299;
  generate(sample(400, {info}));
  EXPECT_EQ(rowOf(1).disk, "18446744073709551615");
}

TEST(ProcessMetricGenerator, MemIsPagesTimesPageSizeWrapping) {
  PrivateHost host;
  answerSysconf(_SC_PAGESIZE, 4096);
  ProcessInfo info = process(1);
  info.ulMemory = 1000;
  ProcessInfo other = process(2);
  other.ulMemory = (std::uint64_t{1} << 52) + 3;
  generate(sample(100, {info, other}));
  EXPECT_EQ(rowOf(1).mem, "4096000");
  EXPECT_EQ(rowOf(2).mem, "12288");
  EXPECT_EQ(sysconfQuestions, 1u);
  answerSysconf(_SC_PAGESIZE, 65536);
  info.ulMemory = 2;
  generate(sample(200, {info}));
  EXPECT_EQ(rowOf(1).mem, "131072");
}

TEST(ProcessMetricGenerator, WithoutAPageSizeMemIsZeroInEveryRow) {
  PrivateHost host;
  failSysconf(_SC_PAGESIZE, EINVAL);
  ProcessInfo info = process(1);
  info.ulMemory = 1000;
  ProcessInfo other = process(2);
  other.ulMemory = 2000;
  generate(sample(100, {info, other}));
  EXPECT_EQ(rowOf(1).mem, "0");
  EXPECT_EQ(rowOf(2).mem, "0");
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to get page size, error is Invalid "
                          "argument"));
}

TEST(ProcessMetricGenerator, CreateTimeIsInSecondsSinceTheEpoch) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  answerSysconf(_SC_CLK_TCK, 100);
  ProcessInfo info = process(1);
  info.ullStartTime = 6199;
  generate(sample(100, {info}));
  EXPECT_EQ(rowOf(1).createTime, "1700000061");
}

TEST(ProcessMetricGenerator, WithoutABootTimeRowsStayApartByPidAlone) {
  PrivateHost host;
  host.withUnopenable("/proc/stat");
  generate(sample(100, {process(1), process(2)}));
  EXPECT_EQ(rowOf(1).createTime, "0");
  EXPECT_EQ(rowOf(2).createTime, "0");
  EXPECT_EQ(host.log().count("Error", "SystemQuery", "Failed to get system boot time"), 2u);
}

TEST(ProcessMetricGenerator, TwoProcessesOfOnePidAndCreateTimeShareOneRow) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  answerSysconf(_SC_CLK_TCK, 100);
  ProcessInfo first = process(1);
  first.ullStartTime = 1000;
  first.strProcessName = "first";
  ProcessInfo second = process(1);
  second.ullStartTime = 1099;
  second.strProcessName = "second";
  ProcessInfo later = process(1);
  later.ullStartTime = 1100;
  later.strProcessName = "later";
  const PerfSample tick = sample(100, {first, second, later});
  generate(tick);
  // Which of the two was the first is a matter of the set's order.
  std::map<std::string, std::string> nameOfCreateTime;
  for (const Row& row : rows()) {
    EXPECT_EQ(row.id, "1");
    EXPECT_TRUE(nameOfCreateTime.emplace(row.createTime, row.name).second);
  }
  ASSERT_EQ(nameOfCreateTime.size(), 2u);
  EXPECT_THAT(nameOfCreateTime["1700000010"], testing::AnyOf("first", "second"));
  EXPECT_EQ(nameOfCreateTime["1700000011"], "later");
}

TEST(ProcessMetricGenerator, NamesTheUserOrLeavesTheNameEmpty) {
  PrivateHost host;
  ProcessInfo ofAlice = process(1);
  ofAlice.uiUserId = host.uidOf("alice");
  ProcessInfo ofRoot = process(2);
  ProcessInfo ofNobodyKnown = process(3);
  ofNobodyKnown.uiUserId = 4711;
  ProcessInfo ofAHighNumber = process(4);
  ofAHighNumber.uiUserId = 4294967290;
  host.withUser("frank", 4294967290);
  generate(sample(100, {ofAlice, ofRoot, ofNobodyKnown, ofAHighNumber}));
  EXPECT_EQ(rowOf(1).userName, "alice");
  EXPECT_EQ(rowOf(2).userName, "root");
  EXPECT_EQ(rowOf(3).userName, "");
  EXPECT_EQ(rowOf(4).userName, "frank");
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre(StartsWith("Warn SystemQuery: Failed to get user name for uid: 4711, "
                                     "error is ")));
}

TEST(ProcessMetricGenerator, AsksForEachUserAfreshInEveryTick) {
  PrivateHost host;
  ProcessInfo info = process(1);
  info.uiUserId = host.uidOf("alice");
  generate(sample(100, {info}));
  host.withoutUser("alice");
  generate(sample(200, {info}));
  EXPECT_EQ(rowOf(1).userName, "");
}

TEST(ProcessMetricGenerator, WithoutAnUptimeTheTableStillGoesOutWithTimestampZero) {
  PrivateHost host;
  generate(sample(100, {process(1)}));
  EXPECT_NE(metrics().get<std::string>("timestamp"), "0");
  failSyscall(SYS_sysinfo, EPERM);
  generate(sample(200, {process(2)}));
  EXPECT_EQ(metrics().get<std::string>("timestamp"), "0");
  EXPECT_THAT(ids(), ElementsAre("2"));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Operation not "
                          "permitted",
                          "Error SystemQuery: Failed to get system uptime"));
}

TEST(ProcessMetricGenerator, AReusedPidIsANewProcess) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  ProcessInfo old = process(1, 500);
  old.ullReadBytesCount = 5000;
  generate(sample(1000, {old}));
  ProcessInfo successor = process(1, 10);
  successor.ullStartTime = 99999;
  generate(sample(2000, {successor}));
  EXPECT_EQ(rowOf(1).cpu, "0");
  EXPECT_EQ(rowOf(1).disk, "0");
}

TEST(ProcessMetricGenerator, AProcessThatWasAbsentForATickIsANewOne) {
  PrivateHost host;
  generate(sample(1000, {process(1, 100)}));
  generate(sample(2000, {}));
  EXPECT_THAT(ids(), IsEmpty());
  generate(sample(3000, {process(1, 600)}));
  EXPECT_EQ(rowOf(1).cpu, "0");
  generate(sample(4000, {process(1, 700)}));
  EXPECT_EQ(rowOf(1).cpu, "10");
}

TEST(ProcessMetricGenerator, ComparesWithTheSampleBeforeThoughThatIsGone) {
  PrivateHost host;
  {
    PerfSample first = sample(1000, {process(1, 100)});
    generate(first);
    first.processes.clear();
    first.system.cpuIdle = 0;
  }
  generate(sample(2000, {process(1, 350)}));
  EXPECT_EQ(rowOf(1).cpu, "25");
}

TEST(ProcessMetricGenerator, LeavesTheSampleAsItIs) {
  PrivateHost host;
  const PerfSample tick = sample(1000, {process(1, 100), process(2, 200)});
  generate(tick);
  generate(tick);
  EXPECT_EQ(tick.processes.size(), 2u);
  EXPECT_EQ(tick.processes.find(process(2))->ulUserTime, 200u);
  EXPECT_EQ(tick.system.cpuIdle, 1000u);
}

TEST(ProcessMetricGenerator, LogsNothingOfItsOwnInATick) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  generate(sample(1000, {process(1), process(2)}));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ProcessMetricGenerator, RemovesTheRowOfAPidAndCreateTime) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  generate(sample(1000, {process(1), process(2)}));
  const Row row = rowOf(1);
  ProcessMetricGenerator::getInstance()->removeProcess(1, std::stoull(row.createTime));
  EXPECT_THAT(ids(), ElementsAre("2"));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Debug ProcessMetricGenerator: process: 1 which created at " +
                          row.createTime + " is removed"));
}

TEST(ProcessMetricGenerator, RemovesARowWhoseCreateTimeIsBeyond32Bits) {
  PrivateHost host;
  host.withProcStat("btime 9000000000\n");
  answerSysconf(_SC_CLK_TCK, 100);
  generate(sample(1000, {process(1)}));
  const auto generator = ProcessMetricGenerator::getInstance();
  generator->removeProcess(1, 9000000010 - 8589934592);
  EXPECT_THAT(ids(), ElementsAre("1"));
  generator->removeProcess(1, 9000000010);
  EXPECT_THAT(ids(), IsEmpty());
}

TEST(ProcessMetricGenerator, RemovingAnUnknownPairChangesNothingAndIsLoggedAllTheSame) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  generate(sample(1000, {process(1)}));
  const std::uint64_t createTime = std::stoull(rowOf(1).createTime);
  const auto generator = ProcessMetricGenerator::getInstance();
  generator->removeProcess(1, createTime + 1);
  generator->removeProcess(2, createTime);
  generator->removeProcess(-1, 18446744073709551615u);
  EXPECT_THAT(ids(), ElementsAre("1"));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Debug ProcessMetricGenerator: process: 1 which created at " +
                              std::to_string(createTime + 1) + " is removed",
                          "Debug ProcessMetricGenerator: process: 2 which created at " +
                              std::to_string(createTime) + " is removed",
                          "Debug ProcessMetricGenerator: process: -1 which created at "
                          "18446744073709551615 is removed"));
}

TEST(ProcessMetricGenerator, ARemovedRowIsBackWithTheNextSampleThatHasTheProcess) {
  PrivateHost host;
  generate(sample(1000, {process(1, 100)}));
  ProcessMetricGenerator::getInstance()->removeProcess(1, std::stoull(rowOf(1).createTime));
  EXPECT_THAT(ids(), IsEmpty());
  generate(sample(2000, {process(1, 200)}));
  EXPECT_EQ(rowOf(1).cpu, "10");
}

TEST(ProcessMetricGenerator, ReportsTheTimestampAndThenEveryRowInOneOrder) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  answerSysconf(_SC_CLK_TCK, 100);
  ProcessInfo info = process(-5);
  info.strProcessName = "<a> & \"b\" 'c'";
  info.uiUserId = host.uidOf("alice");
  generate(sample(1000, {info, process(2)}));
  const ptree tree = metrics();
  ASSERT_EQ(tree.size(), 3u);
  EXPECT_EQ(tree.front().first, "timestamp");
  for (auto child = std::next(tree.begin()); child != tree.end(); ++child) {
    EXPECT_EQ(child->first, "process");
    EXPECT_EQ(child->second.data(), "");
    std::vector<std::string> names;
    for (const auto& [name, value] : child->second) {
      names.push_back(name);
      EXPECT_TRUE(value.empty());
    }
    EXPECT_THAT(names, ElementsAre("id", "create_time", "name", "cpu", "mem", "disk", "user_name"));
  }
  EXPECT_EQ(rowOf(-5).name, "<a> & \"b\" 'c'");
  EXPECT_EQ(rowOf(-5).userName, "alice");
  EXPECT_EQ(rowOf(-5).createTime, "1700000010");
}

TEST(ProcessMetricGenerator, ReportsTheSameUntilTheNextTick) {
  PrivateHost host;
  ProcessInfoSet processes;
  for (std::int32_t pid = 1; pid <= 200; ++pid) {
    processes.insert(process(pid));
  }
  generate(sample(1000, processes));
  EXPECT_EQ(metrics(), metrics());
  EXPECT_EQ(rows().size(), 200u);
}

class Grouping : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(ProcessMetricGenerator, ReportsPlainDigitsInEveryLocale) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  generate(sample(1000, {process(1000000), process(2)}));
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  const auto all = ids();
  const Row row = rowOf(2);
  std::locale::global(before);
  EXPECT_THAT(all, UnorderedElementsAre("1000000", "2"));
  EXPECT_THAT(row.createTime, StartsWith("17000000"));
}

TEST(ProcessMetricGenerator, FillingATreeAgainReplacesTheTimestampAndAddsTheRows) {
  PrivateHost host;
  generate(sample(1000, {process(1)}));
  ptree tree;
  ProcessMetricGenerator::getInstance()->fillProcessMetrics(tree);
  ProcessMetricGenerator::getInstance()->fillProcessMetrics(tree);
  EXPECT_EQ(tree.count("timestamp"), 1u);
  EXPECT_EQ(tree.count("process"), 2u);
}

TEST(ReportProcessMetrics, AppendsItsElementToWhateverStandsThere) {
  PrivateHost host;
  generate(sample(1000, {process(1)}));
  ptree response;
  response.put("processMetrics.other", "5");
  EXPECT_TRUE(reportProcessMetrics(response));
  EXPECT_TRUE(reportProcessMetrics(response));
  ASSERT_EQ(response.size(), 3u);
  EXPECT_EQ(response.count("processMetrics"), 3u);
  EXPECT_EQ(response.front().second.get<std::string>("other"), "5");
  EXPECT_EQ(response.front().second.size(), 1u);
  EXPECT_EQ(response.back().second, metrics());
  EXPECT_EQ(response.back().second.count("process"), 1u);
}

TEST(ReportProcessMetrics, BeforeTheFirstTickItsElementHasATimestampAlone) {
  ptree response;
  EXPECT_TRUE(reportProcessMetrics(response));
  ASSERT_EQ(response.size(), 1u);
  EXPECT_EQ(response.front().first, "processMetrics");
  EXPECT_EQ(response.front().second.size(), 1u);
  EXPECT_EQ(response.get<std::string>("processMetrics.timestamp"), "0");
}

TEST(ReportProcessMetrics, ShowsRealProcessesAsTheKernelDoes) {
  PrivateHost host;
  auto editor = host.process("editor").ownedBy("alice").start();
  PerfSample first;
  ASSERT_TRUE(ListProcesses(first.processes));
  ASSERT_TRUE(getSystemPerfStats(first.system));
  generate(first);
  editor.burn(std::chrono::milliseconds(300));
  editor.write(500000);
  PerfSample second;
  ASSERT_TRUE(ListProcesses(second.processes));
  ASSERT_TRUE(getSystemPerfStats(second.system));
  generate(second);
  const Row row = rowOf(editor.pid());
  EXPECT_EQ(row.name, "editor");
  EXPECT_EQ(row.userName, "alice");
  EXPECT_GT(std::stoull(row.cpu), 0u);
  EXPECT_LE(std::stoull(row.cpu), 200u);
  EXPECT_GE(std::stoull(row.disk), 500000u);
  EXPECT_GT(std::stoull(row.mem), 0u);
  EXPECT_EQ(std::stoul(row.mem) % static_cast<unsigned long>(getpagesize()), 0u);
  EXPECT_EQ(row.createTime, std::to_string(GetProcessCreateTime(
                                {.ullStartTime = editor.startTime(), .strProcessName = {}})));
}

TEST(ReportProcessMetrics, KeepsEachOfFiveThousandProcessesOnce) {
  PrivateHost host;
  const auto parent = host.idleProcesses(5000);
  PerfSample tick;
  ASSERT_TRUE(ListProcesses(tick.processes));
  generate(tick);
  ptree response;
  EXPECT_TRUE(reportProcessMetrics(response));
  std::set<std::int32_t> pids;
  for (const auto& [key, row] : response.get_child("processMetrics")) {
    if (key == "process") {
      EXPECT_TRUE(pids.insert(std::stoi(row.get<std::string>("id"))).second);
    }
  }
  EXPECT_EQ(pids.size(), tick.processes.size());
  EXPECT_EQ(pids.count(parent.pid()), 1u);
  for (const pid_t child : parent.children()) {
    EXPECT_EQ(pids.count(child), 1u);
  }
}

// Each tick has other processes and another number of them, so that a mixture would show.
TEST(ReportProcessMetrics, ShowsOneWholeTickToEveryThreadThatAsksMeanwhile) {
  PrivateHost host;
  const auto tickOf = [](int tick) {
    ProcessInfoSet processes;
    for (std::int32_t i = 0; i < 5 + 3 * tick; ++i) {
      ProcessInfo info = process(100 * tick + i + 1);
      info.strProcessName = std::to_string(tick);
      processes.insert(info);
    }
    return sample(static_cast<std::uint64_t>(1000 * tick), processes);
  };
  generate(tickOf(1));
  std::atomic<bool> done = false;
  std::atomic<int> mixtures = 0;
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 2; ++reader) {
    readers.emplace_back([&] {
      while (!done) {
        const auto all = rows();
        const bool whole =
            !all.empty() &&
            all.size() == static_cast<std::size_t>(5 + 3 * std::stoi(all.front().name)) &&
            std::all_of(all.begin(), all.end(),
                        [&](const Row& row) { return row.name == all.front().name; });
        mixtures += !whole;
        ProcessMetricGenerator::getInstance()->removeProcess(-7, 0);
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    generate(tickOf(1 + i % 3));
  }
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(mixtures, 0);
}

TEST(ProcessCpuUsage, IsPercentOfTheElapsedTicks) {
  EXPECT_EQ(processCpuUsage(process(1, 300, 200), process(1, 310, 220), 1200), 2.5);
  EXPECT_EQ(processCpuUsage(process(1), process(1, 29), 100), 29.0);
  EXPECT_EQ(processCpuUsage(process(1, 5, 5), process(1, 9, 1), 100), 0.0);
  EXPECT_EQ(processCpuUsage(process(1), process(1, 300), 100), 300.0);
}

TEST(ProcessCpuUsage, IsUnsignedAndUnguarded) {
  EXPECT_EQ(processCpuUsage(process(1, 1), process(1), 1), 1.8446744073709551615e21);
  EXPECT_EQ(processCpuUsage(process(1), process(1, 1), 18446744073709551615u),
            100.0 / 18446744073709551615.0);
  EXPECT_TRUE(std::isnan(processCpuUsage(process(1), process(1), 0)));
  EXPECT_EQ(processCpuUsage(process(1), process(1, 1), 0), std::numeric_limits<double>::infinity());
}

TEST(ProcessDiskDelta, IsTheDifferenceOfBothCountersTogether) {
  const ProcessInfo prev = {
      .ullReadBytesCount = 1000, .ullWriteBytesCount = 2000, .strProcessName = {}};
  const ProcessInfo cur = {
      .ullReadBytesCount = 900, .ullWriteBytesCount = 2150, .strProcessName = {}};
  EXPECT_EQ(processDiskDelta(prev, cur), 50u);
  EXPECT_EQ(processDiskDelta(cur, prev), 18446744073709551566u);
  EXPECT_EQ(processDiskDelta({.ullReadBytesCount = 18446744073709551615u,
                              .ullWriteBytesCount = 1,
                              .strProcessName = {}},
                             {.ullReadBytesCount = 3, .strProcessName = {}}),
            3u);
}

TEST(ProcessMetricSet, APidWithACreateTimeIsOneElement) {
  ProcessMetricSet rows = {{.id = 5, .create_time = 6, .name = "first", .user_name = {}}};
  EXPECT_FALSE(
      rows.insert({.id = 5, .cpu = 9, .create_time = 6, .name = "second", .user_name = {}}).second);
  EXPECT_TRUE(rows.insert({.id = 5, .create_time = 7, .name = {}, .user_name = {}}).second);
  EXPECT_TRUE(rows.insert({.id = 6, .create_time = 6, .name = {}, .user_name = {}}).second);
  EXPECT_EQ(rows.size(), 3u);
}

TEST(ProcessMetricSet, HashesCreateTimeAndPidInWrappingArithmetic) {
  const auto hash = [](std::int32_t id, std::uint64_t createTime) {
    return ProcessMetricHash{}({.id = id, .create_time = createTime, .name = {}, .user_name = {}});
  };
  EXPECT_EQ(hash(0, 0), 16337u);
  EXPECT_EQ(hash(4711, 1000), 52048u);
  EXPECT_EQ(hash(-1, 0), 16336u);
  EXPECT_EQ(hash(-16338, 0), 18446744073709551615u);
  EXPECT_EQ(hash(7, 18446744073709551088u), 18446744073709551592u);
}

}  // namespace
}  // namespace mendline
