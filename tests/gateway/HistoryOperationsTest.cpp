#include "gateway/HistoryOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "CommaLocale.h"
#include "Eventually.h"
#include "GpuDriver.h"
#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "gateway/MendLineOperation.h"
#include "generators/HistoricalMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

std::string answer(const std::string& opcode, const std::string& parameters = "") {
  std::string response;
  handleRequest(
      "<MendlineOperation><opcode>" + opcode + "</opcode>" + parameters + "</MendlineOperation>",
      response);
  EXPECT_EQ(response.compare(0, kDeclaration.size(), kDeclaration), 0) << response;
  return response.substr(kDeclaration.size());
}

std::string history(const std::string& user, const std::string& display) {
  return answer("HistoricalMetrics",
                "<userName>" + user + "</userName><display>" + display + "</display>");
}

// A sample whose figures are easy to tell: 25 percent of the memory used.
PerfSample sampleAt(std::int64_t uptime) {
  PerfSample sample;
  sample.system.cpuUser = 10 * static_cast<std::uint64_t>(uptime);
  sample.system.cpuIdle = 30 * static_cast<std::uint64_t>(uptime);
  sample.system.memTotal = 1000;
  sample.system.memAvailable = 750;
  sample.system.diskReads = 2 * static_cast<std::uint64_t>(uptime);
  sample.system.diskReadMs = 3 * static_cast<std::uint64_t>(uptime);
  sample.system.diskWrites = 4 * static_cast<std::uint64_t>(uptime);
  sample.system.diskWriteMs = 5 * static_cast<std::uint64_t>(uptime);
  sample.system.uptime = uptime;
  return sample;
}

void generate(const PerfSample& sample) {
  HistoricalMetricGenerator::getInstance()->generate(sample);
}

class HistoryOperations : public testing::Test {
 protected:
  rig::PrivateHost host;
};

TEST_F(HistoryOperations, HistoryNeedsAUserName) {
  EXPECT_EQ(answer("HistoricalMetrics", "<display>101</display>"),
            "<ERROR>Parameter userName missed</ERROR>");
  EXPECT_EQ(history("", "101"), "<ERROR>Parameter userName missed</ERROR>");
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error MendLineOperation: Parameter userName missed",
                          "Error MendLineOperation: Parameter userName missed"));
}

TEST_F(HistoryOperations, HistoryNeedsADisplay) {
  EXPECT_EQ(answer("HistoricalMetrics", "<userName>alice</userName>"),
            "<ERROR>Parameter display missed</ERROR>");
  EXPECT_EQ(history("alice", ""), "<ERROR>Parameter display missed</ERROR>");
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error MendLineOperation: Parameter display missed",
                          "Error MendLineOperation: Parameter display missed"));
}

TEST_F(HistoryOperations, HistoryAsksForTheUserNameFirst) {
  EXPECT_EQ(answer("HistoricalMetrics"), "<ERROR>Parameter userName missed</ERROR>");
}

TEST_F(HistoryOperations, HistoryOfAnUnknownUserFailsWhateverThereIs) {
  EXPECT_EQ(history("nosuchuser", "101"), "<ERROR>Failed to get historical metrics</ERROR>");
  generate(sampleAt(10));
  host.log().clear();
  EXPECT_EQ(history("nosuchuser", "101"), "<ERROR>Failed to get historical metrics</ERROR>");
  const std::vector<std::string> lines = loggedLines(host.log());
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], testing::StartsWith(
                            "Warn SystemQuery: Failed to get user id for user: nosuchuser, error"));
  EXPECT_EQ(lines[1],
            "Error HistoricalMetricGenerator: Failed to find specific user: nosuchuser in local "
            "system");
}

TEST_F(HistoryOperations, HistoryBeforeTheFirstTickIsTheDeclarationAlone) {
  EXPECT_EQ(history("alice", "101"), "");
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST_F(HistoryOperations, HistoryDoesNotLookAtTheDisplaysForm) {
  EXPECT_EQ(history("alice", "no number"), "");
}

TEST_F(HistoryOperations, HistoryTakesParametersUntrimmed) {
  EXPECT_EQ(history(" alice", "101"), "<ERROR>Failed to get historical metrics</ERROR>");
}

TEST_F(HistoryOperations, LoadIsZeroBeforeTheFirstTick) {
  EXPECT_EQ(answer("LbMetrics"),
            "<LB><cpuUsage>0.000000</cpuUsage><memUsage>0.000000</memUsage>"
            "<diskRead>0.000000</diskRead><diskWrite>0.000000</diskWrite>"
            "<diskQueue>0.000000</diskQueue></LB>");
}

TEST_F(HistoryOperations, LoadGivesTheLatestFiguresWithSixDecimals) {
  generate(sampleAt(10));
  generate(sampleAt(20));
  EXPECT_EQ(answer("LbMetrics"),
            "<LB><cpuUsage>25.000000</cpuUsage><memUsage>25.000000</memUsage>"
            "<diskRead>1.500000</diskRead><diskWrite>1.250000</diskWrite>"
            "<diskQueue>6.000000</diskQueue></LB>");
}

TEST_F(HistoryOperations, LoadWritesWhatIsNotFiniteInLetters) {
  generate(sampleAt(10));
  PerfSample later = sampleAt(10);
  later.system.diskReads += 5;
  generate(later);
  // Whether a not-a-number has a sign is the platform's affair.
  EXPECT_THAT(answer("LbMetrics"),
              testing::MatchesRegex("<LB><cpuUsage>-?nan</cpuUsage><memUsage>25.000000</memUsage>"
                                    "<diskRead>0.000000</diskRead><diskWrite>0.000000</diskWrite>"
                                    "<diskQueue>-?(nan|inf)</diskQueue></LB>"));
}

TEST_F(HistoryOperations, LoadWritesLargeNegativeAndTinyFiguresWithAllTheirDigits) {
  generate(sampleAt(10));
  PerfSample later = sampleAt(10);
  later.system.uptime = 9;
  later.system.cpuUser += 1;
  later.system.diskReads += 2'000'000;
  later.system.diskReadMs += 3;
  later.system.diskWrites += 1;
  later.system.diskWriteMs += std::uint64_t{1} << 63;
  generate(later);
  EXPECT_EQ(answer("LbMetrics"),
            "<LB><cpuUsage>100.000000</cpuUsage><memUsage>25.000000</memUsage>"
            "<diskRead>0.000002</diskRead><diskWrite>9223372036854775808.000000</diskWrite>"
            "<diskQueue>-2000001.000000</diskQueue></LB>");
}

TEST_F(HistoryOperations, LoadHasTheDecimalCommaOfTheProcesssLocale) {
  const rig::CommaLocale locale;
  generate(sampleAt(10));
  generate(sampleAt(20));
  ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr);
  EXPECT_EQ(answer("LbMetrics"),
            "<LB><cpuUsage>25,000000</cpuUsage><memUsage>25,000000</memUsage>"
            "<diskRead>1,500000</diskRead><diskWrite>1,250000</diskWrite>"
            "<diskQueue>6,000000</diskQueue></LB>");
}

TEST_F(HistoryOperations, LoadIgnoresItsRequestsOtherElements) {
  EXPECT_EQ(answer("LbMetrics", "<userName>x</userName><display>y</display>"), answer("LbMetrics"));
}

// --- Beside a running collector.

class HistoryOperationsTicks : public HistoryOperations {
 protected:
  void SetUp() override { ASSERT_TRUE(StartCollector()); }
  void TearDown() override { StopCollector(); }

  static std::size_t recordsIn(const std::string& report) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = report.find("<metric>", at)) != std::string::npos; ++at) {
      ++count;
    }
    return count;
  }
};

TEST_F(HistoryOperationsTicks, OneRecordAppearsPerTickUpToThirty) {
  ASSERT_TRUE(rig::eventually([] { return recordsIn(history("root", "101")) >= 3; }));
  const std::string report = history("root", "101");
  EXPECT_EQ(report.compare(0, 26, "<historicalMetrics><metric"), 0) << report;
  EXPECT_NE(report.find("<mem>"), std::string::npos);
  ASSERT_TRUE(rig::eventually([] { return recordsIn(history("root", "101")) == 30; },
                              std::chrono::seconds(30)));
  EXPECT_FALSE(rig::eventually([] { return recordsIn(history("root", "101")) > 30; },
                               std::chrono::milliseconds(300)));
}

TEST_F(HistoryOperationsTicks, TenThreadsGetWholeAnswers) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 10; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 30; ++round) {
        const std::string report = history("root", "101");
        if (!report.empty()) {
          EXPECT_EQ(report.compare(0, 27, "<historicalMetrics><metric>"), 0);
          EXPECT_TRUE(report.ends_with("</metric></historicalMetrics>"));
        }
        EXPECT_TRUE(answer("LbMetrics").ends_with("</diskQueue></LB>"));
        EXPECT_TRUE(answer("ProcessMetrics").ends_with("</processMetrics>"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(HistoryOperationsTicks, FiguresStayAfterAStop) {
  ASSERT_TRUE(rig::eventually([] { return recordsIn(history("root", "101")) >= 2; }));
  StopCollector();
  const std::string report = history("root", "101");
  const std::string load = answer("LbMetrics");
  EXPECT_GE(recordsIn(report), 2U);
  EXPECT_EQ(history("root", "101"), report);
  EXPECT_EQ(answer("LbMetrics"), load);
}

// --- GPUs.

class LoadWithGpus : public HistoryOperations {
 protected:
  LoadWithGpus() : driver(host) {
    host.withFile("/usr/lib/norvane/tarnhost/resources/X11/xorg.conf",
                  "BusID \"PCI:1:0:0\"\nBusID \"PCI:2:0:0\"\n");
    generate(sampleAt(10));
  }

  std::string memUsage() {
    const std::string load = answer("LbMetrics");
    const std::size_t begin = load.find("<memUsage>") + std::string("<memUsage>").size();
    return load.substr(begin, load.find("</memUsage>") - begin);
  }

  rig::GpuDriver driver;
};

TEST_F(LoadWithGpus, StartIsAnsweredAndLoggedAsEntered) {
  driver.withGpu("1:0.0", 80, 100).withGpu("2:0.0", 10, 100);
  EXPECT_EQ(answer("StartvGPUMemoryCollector"),
            "<INFO>Finish to start vGPU memory collector</INFO>");
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Info MendLineOperation: Enter StartvGPUMemoryCollector"));
}

TEST_F(LoadWithGpus, TheFullestGpuTakesThePlaceOfASmallerMemoryFigure) {
  driver.withGpu("1:0.0", 10, 100).withGpu("2:0.0", 801, 1000);
  EXPECT_EQ(memUsage(), "25.000000");
  answer("StartvGPUMemoryCollector");
  SetLogThreshold(LogLevel::Debug);
  EXPECT_EQ(memUsage(), "80.100000");
  EXPECT_TRUE(host.log().has("Debug", "MendLineOperation",
                             "Select vGPU memUsage: 80.10, system memUsage: 25.00"));
  // In its old place, and nothing else has changed.
  EXPECT_THAT(answer("LbMetrics"),
              testing::MatchesRegex("<LB><cpuUsage>[0-9.]+</cpuUsage><memUsage>80.100000</memUsage>"
                                    "<diskRead>[0-9.]+</diskRead><diskWrite>[0-9.]+</diskWrite>"
                                    "<diskQueue>[0-9.]+</diskQueue></LB>"));
}

TEST_F(LoadWithGpus, AnEmptierOrEquallyFullGpuChangesNothing) {
  answer("StartvGPUMemoryCollector");
  SetLogThreshold(LogLevel::Debug);
  driver.withGpu("1:0.0", 20, 100).withGpu("2:0.0", 0, 100);
  EXPECT_EQ(memUsage(), "25.000000");
  driver.withoutGpus().withGpu("1:0.0", 25, 100).withGpu("2:0.0", 0, 100);
  EXPECT_EQ(memUsage(), "25.000000");
  EXPECT_TRUE(host.log().hasNot("Debug", "MendLineOperation", "Select vGPU"));
}

TEST_F(LoadWithGpus, AGpuThatCannotBeReadLeavesTheMemoryFigureAlone) {
  driver.withGpu("1:0.0", 90, 100);
  answer("StartvGPUMemoryCollector");
  EXPECT_EQ(memUsage(), "25.000000");
  EXPECT_TRUE(host.log().has("Error", "NvmlWrapper",
                             "Failed to get nvml device by pcibus id 2:0.0, result 6"));
}

TEST_F(LoadWithGpus, WithoutTheStartNoGpuIsAsked) {
  driver.withGpu("1:0.0", 90, 100).withGpu("2:0.0", 90, 100);
  EXPECT_EQ(memUsage(), "25.000000");
  EXPECT_EQ(driver.calls("nvmlInit_v2"), 0U);
}

TEST_F(LoadWithGpus, StopCollectorEndsThemAndARestartDoesNotBringThemBack) {
  driver.withGpu("1:0.0", 90, 100).withGpu("2:0.0", 50, 100);
  answer("StartvGPUMemoryCollector");
  EXPECT_EQ(memUsage(), "90.000000");
  EXPECT_EQ(answer("StopCollector"), "<INFO>Finish to stop collector</INFO>");
  EXPECT_EQ(driver.calls("nvmlShutdown"), 1U);
  EXPECT_FALSE(rig::GpuDriver::isLoaded());
  EXPECT_EQ(memUsage(), "25.000000");
  answer("StopCollector");
  EXPECT_EQ(driver.calls("nvmlShutdown"), 1U);

  // The same ids once more: each GPU is asked twice, and the figure is the same.
  answer("StartvGPUMemoryCollector");
  EXPECT_EQ(memUsage(), "90.000000");
  EXPECT_EQ(driver.calls("nvmlDeviceGetHandleByPciBusId_v2", "2:0.0"), 3U);
  answer("StopCollector");
}

TEST(StartvGPUMemoryCollector, FailsWithoutTheLibraryAndSaysSoAtInfo) {
  rig::PrivateHost host;
  EXPECT_EQ(answer("StartvGPUMemoryCollector"),
            "<ERROR>Failed to start vGPU memory collector</ERROR>");
  const std::vector<std::string> lines = loggedLines(host.log());
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "Info MendLineOperation: Enter StartvGPUMemoryCollector");
  EXPECT_THAT(lines[1],
              testing::StartsWith("Warn NvmlWrapper: Failed to load library nvidia-ml: "));
  EXPECT_EQ(lines[2], "Info MendLineOperation: Failed to execute NvmlInit function");
}

}  // namespace
}  // namespace mendline
