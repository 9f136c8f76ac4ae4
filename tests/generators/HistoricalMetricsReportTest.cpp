// The report of HistoricalMetricGenerator.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FailingSyscalls.h"
#include "PrivateHost.h"
#include "generators/HistoricalMetricGenerator.h"
#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

using Elements = std::vector<std::pair<std::string, std::string>>;

ptree reportOf(const std::string& user, const std::string& display) {
  ptree tree;
  EXPECT_TRUE(HistoricalMetricGenerator::getHistoricalMetrics(user, display, tree));
  return tree;
}

// The elements of each record, in order.
std::vector<Elements> metricsOf(const ptree& tree) {
  std::vector<Elements> metrics;
  for (const auto& [name, metric] : tree.get_child("historicalMetrics")) {
    EXPECT_EQ(name, "metric");
    Elements elements;
    for (const auto& [element, value] : metric) {
      EXPECT_TRUE(value.empty());
      elements.emplace_back(element, value.data());
    }
    metrics.push_back(elements);
  }
  return metrics;
}

std::string valueOf(const Elements& elements, const std::string& name) {
  for (const auto& [element, value] : elements) {
    if (element == name) {
      return value;
    }
  }
  return "absent";
}

void generate(const PerfSample& sample) {
  HistoricalMetricGenerator::getInstance()->generate(sample);
}

PerfSample sampleOf(std::uint64_t ticks) {
  PerfSample sample;
  sample.system.cpuUser = ticks * 379;
  sample.system.cpuIdle = ticks * 621;
  sample.system.memTotal = 1000;
  sample.system.memAvailable = 564;
  sample.system.diskReads = ticks * 39;
  sample.system.diskWrites = ticks * 179;
  sample.system.diskReadMs = ticks * 500;
  sample.system.uptime = static_cast<std::int64_t>(ticks) * 10;
  return sample;
}

PerfSample withDisplay(PerfSample sample, const std::string& display, double rtt) {
  sample.hasProtocolData = true;
  sample.displayNames.push_back(display);
  sample.protocolMetrics[display] = rtt;
  return sample;
}

class HistoricalMetricsReport : public testing::Test {
 protected:
  PerfSample withProcess(PerfSample sample, const std::string& user, std::uint64_t ticks,
                         std::uint64_t pages = 0) {
    ProcessInfo info;
    info.iPid = ++lastPid;
    info.uiUserId = host.uidOf(user);
    info.ulUserTime = ticks;
    info.ulMemory = pages;
    sample.processes.insert(info);
    return sample;
  }

  rig::PrivateHost host;
  std::int32_t lastPid = 0;
};

TEST_F(HistoricalMetricsReport, AddsNothingBeforeTheFirstTick) {
  EXPECT_THAT(reportOf("alice", "101"), IsEmpty());
}

TEST_F(HistoricalMetricsReport, LeavesTheTreeAloneForAnUnknownUser) {
  generate(sampleOf(1));
  ptree tree;
  tree.put("kept", "1");
  EXPECT_FALSE(HistoricalMetricGenerator::getHistoricalMetrics("nosuchuser", "101", tree));
  EXPECT_THAT(tree, SizeIs(1));
}

TEST_F(HistoricalMetricsReport, HasAllElementsInOrderCutToWholeNumbers) {
  generate(sampleOf(1));
  generate(withDisplay(withProcess(sampleOf(2), "alice", 46), "101", 18.9));
  const auto metrics = metricsOf(reportOf("alice", "101"));
  ASSERT_THAT(metrics, SizeIs(2));
  EXPECT_THAT(metrics[1], ElementsAre(Pair("timestamp", testing::MatchesRegex("[1-9][0-9]*")),
                                      Pair("overall_cpu", "37"), Pair("overall_mem", "43"),
                                      Pair("disk_iops_reads", "3"), Pair("disk_iops_writes", "17"),
                                      Pair("disk_latency", "2"), Pair("flare_latency", "18"),
                                      Pair("cpu", "4"), Pair("mem", "0")));
}

TEST_F(HistoricalMetricsReport, AppendsOneElementBesideWhatIsThere) {
  generate(sampleOf(1));
  ptree tree;
  tree.put("historicalMetrics", "old");
  EXPECT_TRUE(HistoricalMetricGenerator::getHistoricalMetrics("alice", "101", tree));
  EXPECT_EQ(tree.count("historicalMetrics"), 2U);
  EXPECT_EQ(tree.front().second.data(), "old");
}

TEST_F(HistoricalMetricsReport, HoldsTheThirtyLatestRecordsOldestFirst) {
  for (std::uint64_t tick = 1; tick <= 31; ++tick) {
    generate(withDisplay(sampleOf(tick), "101", static_cast<double>(tick)));
  }
  const auto metrics = metricsOf(reportOf("alice", "101"));
  ASSERT_THAT(metrics, SizeIs(30));
  for (std::size_t i = 0; i < metrics.size(); ++i) {
    EXPECT_EQ(valueOf(metrics[i], "flare_latency"), std::to_string(i + 2));
  }
}

TEST_F(HistoricalMetricsReport, LeavesOutTheUserInRecordsWithoutThatUsersProcesses) {
  generate(withProcess(sampleOf(1), "bob", 0));
  generate(withProcess(withProcess(sampleOf(2), "bob", 0), "alice", 500, 0));
  generate(withProcess(sampleOf(3), "bob", 0));
  const auto metrics = metricsOf(reportOf("alice", "101"));
  ASSERT_THAT(metrics, SizeIs(3));
  EXPECT_EQ(valueOf(metrics[0], "cpu"), "absent");
  EXPECT_EQ(valueOf(metrics[0], "mem"), "absent");
  EXPECT_EQ(valueOf(metrics[1], "cpu"), "50");
  EXPECT_EQ(valueOf(metrics[1], "mem"), "0");
  EXPECT_EQ(valueOf(metrics[2], "cpu"), "absent");
}

TEST_F(HistoricalMetricsReport, LooksForTheUsersNumberOfNow) {
  generate(withProcess(sampleOf(1), "alice", 10));
  EXPECT_NE(valueOf(metricsOf(reportOf("alice", "101"))[0], "cpu"), "absent");
  // Deleted and made again under another number.
  host.withoutUser("alice").withUser("alice", 2999);
  EXPECT_EQ(valueOf(metricsOf(reportOf("alice", "101"))[0], "cpu"), "absent");
}

TEST_F(HistoricalMetricsReport, MatchesTheDisplaysTextExactly) {
  generate(withDisplay(sampleOf(1), "101", 7));
  EXPECT_EQ(valueOf(metricsOf(reportOf("alice", "101"))[0], "flare_latency"), "7");
  for (const char* other : {":101", "101 ", "0101", "10", "102"}) {
    EXPECT_EQ(valueOf(metricsOf(reportOf("alice", other))[0], "flare_latency"), "absent") << other;
  }
}

TEST_F(HistoricalMetricsReport, TheLatencyComesAndGoesFromRecordToRecord) {
  generate(sampleOf(1));
  generate(withDisplay(sampleOf(2), "101", 5));
  generate(withDisplay(sampleOf(3), "102", 6));
  const auto metrics = metricsOf(reportOf("alice", "101"));
  EXPECT_EQ(valueOf(metrics[0], "flare_latency"), "absent");
  EXPECT_EQ(valueOf(metrics[1], "flare_latency"), "5");
  EXPECT_EQ(valueOf(metrics[2], "flare_latency"), "absent");
}

TEST_F(HistoricalMetricsReport, TheLatencyKeepsItsSign) {
  generate(withDisplay(sampleOf(1), "101", -1.5));
  generate(withDisplay(sampleOf(2), "101", -0.9));
  generate(withDisplay(sampleOf(3), "101", std::nan("")));
  generate(withDisplay(sampleOf(4), "101", 1e19));
  generate(withDisplay(sampleOf(5), "101", 9007199254740993.0));
  const auto metrics = metricsOf(reportOf("alice", "101"));
  EXPECT_EQ(valueOf(metrics[0], "flare_latency"), "-1");
  EXPECT_EQ(valueOf(metrics[1], "flare_latency"), "0");
  EXPECT_EQ(valueOf(metrics[2], "flare_latency"), "-9223372036854775808");
  EXPECT_EQ(valueOf(metrics[3], "flare_latency"), "-9223372036854775808");
  EXPECT_EQ(valueOf(metrics[4], "flare_latency"), "9007199254740992");
}

TEST_F(HistoricalMetricsReport, NotANumberAndInfinityGoOutAsTheirFixedNumbers) {
  generate(withProcess(sampleOf(1), "alice", 10));
  lastPid = 0;
  PerfSample again = withProcess(sampleOf(1), "alice", 10);
  again.system.diskReads += 3;
  generate(again);
  const auto metrics = metricsOf(reportOf("alice", "101"));
  ASSERT_THAT(metrics, SizeIs(2));
  EXPECT_EQ(valueOf(metrics[1], "overall_cpu"), "9223372036854775808");
  EXPECT_EQ(valueOf(metrics[1], "overall_mem"), "43");
  EXPECT_EQ(valueOf(metrics[1], "disk_iops_reads"), "0");  // infinity
  EXPECT_EQ(valueOf(metrics[1], "disk_iops_writes"), "9223372036854775808");
  EXPECT_EQ(valueOf(metrics[1], "disk_latency"), "0");
  EXPECT_EQ(valueOf(metrics[1], "cpu"), "9223372036854775808");
}

TEST_F(HistoricalMetricsReport, ACounterThatWentBackwardsGoesOutWhole) {
  PerfSample first = sampleOf(1);
  first.system.diskReads = 10;
  first.system.uptime = 1;
  PerfSample second = first;
  second.system.diskReads = 9;
  second.system.uptime = 2;
  generate(first);
  generate(second);
  // One less than nothing wraps to 2 to the 64th less one, and that is the nearest double's number.
  EXPECT_EQ(valueOf(metricsOf(reportOf("alice", "101"))[1], "disk_iops_reads"), "0");
  second.system.uptime = 4;
  second.system.diskReads = 8;
  generate(second);
  EXPECT_EQ(valueOf(metricsOf(reportOf("alice", "101"))[2], "disk_iops_reads"),
            "9223372036854775808");
}

TEST_F(HistoricalMetricsReport, TheWholeUnsignedRangeIsCovered) {
  // 1e19 pages of one byte each would be needed; a rate gives it directly.
  PerfSample first;
  PerfSample second;
  second.system.diskWrites = 10000000000000000000ULL;
  second.system.uptime = 1;
  generate(first);
  generate(second);
  EXPECT_EQ(valueOf(metricsOf(reportOf("alice", "101"))[1], "disk_iops_writes"),
            "10000000000000000000");
}

TEST_F(HistoricalMetricsReport, TwoReportsBetweenTicksAreTheSame) {
  generate(withDisplay(withProcess(sampleOf(1), "alice", 5), "101", 1));
  EXPECT_EQ(reportOf("alice", "101"), reportOf("alice", "101"));
}

TEST_F(HistoricalMetricsReport, ATimestampThatCannotBeReadIsZero) {
  rig::failSyscall(SYS_sysinfo, EPERM);
  generate(sampleOf(1));
  EXPECT_EQ(valueOf(metricsOf(reportOf("alice", "101"))[0], "timestamp"), "0");
}

// --- A whole host, read by the real readers.

// Wide enough for every product below.
__extension__ using Wide = unsigned __int128;

struct FixtureProcess {
  std::uint64_t startTime;
  std::string user;
  std::uint64_t userTicks;
  std::uint64_t systemTicks;
  std::int64_t pages;
};
using FixtureTick = std::map<pid_t, FixtureProcess>;

class FiveUsersHost : public HistoricalMetricsReport {
 protected:
  void SetUp() override {
    host.withUser("erin", 3001);
    struct sysinfo info {};
    ASSERT_EQ(sysinfo(&info), 0);
    totalMemory = info.totalram;
  }

  // One tick of a host with these processes and this many idle ticks.
  void tick(const FixtureTick& processes, std::uint64_t idle) {
    rig::SyntheticProc& proc = host.syntheticProc();
    for (const auto& [pid, old] : shown) {
      proc.removeProcess(pid);
    }
    for (const auto& [pid, process] : processes) {
      rig::StatLine stat;
      stat.pid = pid;
      stat.userTicks = process.userTicks;
      stat.systemTicks = process.systemTicks;
      stat.startTime = process.startTime;
      stat.residentPages = process.pages;
      proc.addProcess(stat, host.uidOf(process.user));
    }
    shown = processes;
    proc.setFile("stat", "cpu 0 0 0 " + std::to_string(idle) + "\nbtime 1700000000\n");
    PerfSample sample;
    ASSERT_TRUE(ListProcesses(sample.processes));
    ASSERT_EQ(sample.processes.size(), processes.size());
    ASSERT_TRUE(getSystemPerfStats(sample.system));
    generate(sample);
  }

  // "cpu mem" of a user as the fixture's own numbers have it, in 128 bits and without the product.
  std::string expected(const std::string& user, const FixtureTick& before, const FixtureTick& now,
                       std::uint64_t elapsed) const {
    Wide ticks = 0;
    Wide pages = 0;
    bool present = false;
    for (const auto& [pid, process] : now) {
      if (process.user != user) {
        continue;
      }
      present = true;
      ticks += process.userTicks + process.systemTicks;
      const auto old = before.find(pid);
      if (old != before.end() && old->second.startTime == process.startTime) {
        ticks -= old->second.userTicks + old->second.systemTicks;
      }
      pages += static_cast<std::uint64_t>(process.pages);
    }
    if (!present) {
      return "absent absent";
    }
    const auto pageSize = static_cast<std::uint64_t>(getpagesize());
    const std::string mem =
        std::to_string(static_cast<std::uint64_t>(pages * pageSize * 100 / totalMemory));
    if (elapsed == 0) {
      return (ticks == 0 ? "9223372036854775808 " : "0 ") + mem;
    }
    return std::to_string(static_cast<std::uint64_t>(ticks * 100 / elapsed)) + " " + mem;
  }

  std::string reported(const std::string& user, std::size_t record) {
    const Elements metric = metricsOf(reportOf(user, "101")).at(record);
    return valueOf(metric, "cpu") + " " + valueOf(metric, "mem");
  }

  FixtureTick shown;
  std::uint64_t totalMemory = 0;
};

TEST_F(FiveUsersHost, GivesEachUserTheShareThatTheFixtureSays) {
  const auto tenth = static_cast<std::int64_t>(totalMemory / 4096 / 10);
  const FixtureTick first = {
      {10, {100, "alice", 300, 50, tenth}},  {11, {110, "alice", 20, 0, tenth / 2}},
      {12, {120, "bob", 700, 1, 3 * tenth}}, {13, {130, "carol", 0, 0, 0}},
      {14, {140, "dave", 4000, 400, tenth}}, {15, {150, "erin", 5, 5, 7}},
      {16, {160, "root", 1000, 0, tenth}}};
  FixtureTick second = first;
  second.erase(11);                                // dies
  second[17] = {9000, "alice", 77, 3, tenth / 3};  // is born
  second[12] = {8000, "carol", 60, 40, tenth};     // the id is used again, by somebody else
  second[14].userTicks += 550;
  second[16].systemTicks += 121;
  FixtureTick third = second;  // the clock stands still
  third[14].userTicks += 3;    // and yet somebody has worked
  third.erase(15);

  tick(first, 100000);
  tick(second, 101000);
  tick(third, 101000);

  for (const char* user : {"alice", "bob", "carol", "dave", "erin", "root"}) {
    EXPECT_EQ(reported(user, 0), expected(user, {}, first, 100000)) << user;
    EXPECT_EQ(reported(user, 1), expected(user, first, second, 1000)) << user;
    EXPECT_EQ(reported(user, 2), expected(user, second, third, 0)) << user;
  }
  // The independent figures are worth something: they differ, and not all of them are 0.
  EXPECT_EQ(reported("dave", 1), "55 9");
  EXPECT_EQ(reported("bob", 1), "absent absent");
  EXPECT_EQ(reported("dave", 2).substr(0, 2), "0 ");
}

TEST_F(HistoricalMetricsReport, EveryReportBesideRunningTicksIsOfWholeRecords) {
  // In each record all figures are the tick's number, so a mixture would show.
  std::thread ticks([&] {
    PerfSample previous;
    for (std::uint64_t tick = 1; tick <= 200; ++tick) {
      PerfSample sample = previous;
      sample.system.memTotal = 100;
      sample.system.memAvailable = 100 - tick % 100;
      sample.system.uptime += 1;
      sample.system.diskReads += tick % 100;
      sample.system.diskWrites += tick % 100;
      generate(withDisplay(sample, "101", static_cast<double>(tick % 100)));
      previous = sample;
    }
  });
  std::vector<std::thread> readers;
  for (int i = 0; i < 10; ++i) {
    readers.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        const ptree tree = reportOf("alice", "101");
        if (tree.empty()) {
          continue;
        }
        for (const Elements& metric : metricsOf(tree)) {
          const std::string tick = valueOf(metric, "flare_latency");
          EXPECT_EQ(valueOf(metric, "overall_mem"), tick);
          EXPECT_EQ(valueOf(metric, "disk_iops_reads"), tick);
          EXPECT_EQ(valueOf(metric, "disk_iops_writes"), tick);
        }
        const LatestSystemFigures figures = HistoricalMetricGenerator::getLatestSystemFigures();
        EXPECT_EQ(figures.diskQueue, 2 * std::round(figures.memUsage));
      }
    });
  }
  ticks.join();
  for (std::thread& reader : readers) {
    reader.join();
  }
}

}  // namespace
}  // namespace mendline
