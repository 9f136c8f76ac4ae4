#include "sources/NvmlWrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "GpuDriver.h"
#include "PrivateHost.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using testing::Eq;
using testing::Optional;

constexpr char kXConfig[] = "/usr/lib/norvane/tarnhost/resources/X11/xorg.conf";
constexpr char kTwoGpus[] =
    "Section \"Device\"\n"
    "  Identifier \"gpu\"\n"
    "  BusID \"PCI:1:0:0\"\n"
    "EndSection\n"
    "  BusID \"PCI:1@0:2:0\"\n";
constexpr unsigned long long kMib = 1ULL << 20U;

// --- The rule for one line.

TEST(BusIdOfLine, TakesTheNumbersAndPutsAPointBeforeTheFunction) {
  EXPECT_THAT(busIdOfLine("BusID \"PCI:1:0:0\""), Optional(Eq("1:0.0")));
  EXPECT_THAT(busIdOfLine(" \t BusID  \"PCI:2:0:0\" \t\r"), Optional(Eq("2:0.0")));
  EXPECT_THAT(busIdOfLine("BusID \"PCI:12:31:7\""), Optional(Eq("12:31.7")));
}

TEST(BusIdOfLine, PutsTheDomainInFront) {
  EXPECT_THAT(busIdOfLine("BusID \"PCI:1@0:2:0\""), Optional(Eq("0:1:2.0")));
  EXPECT_THAT(busIdOfLine("BusID \"PCI:101@65535:2:0\""), Optional(Eq("65535:101:2.0")));
}

TEST(BusIdOfLine, TakesTheLastAtSignAndTheFirstColon) {
  // Between the "@" and the ":" lies nothing that counts forward, so the rest of the value is
  // taken.
  EXPECT_THAT(busIdOfLine("BusID \"PCI:0:1@2\""), Optional(Eq("2:0:1.1@2")));
  EXPECT_THAT(busIdOfLine("BusID \"PCI:1@2@3:4:5\""), Optional(Eq("3:1@2:4.5")));
}

TEST(BusIdOfLine, SkipsShortLinesOtherLinesAndComments) {
  EXPECT_EQ(busIdOfLine(""), std::nullopt);
  EXPECT_EQ(busIdOfLine("Bus"), std::nullopt);
  EXPECT_EQ(busIdOfLine("usID"), std::nullopt);
  EXPECT_EQ(busIdOfLine("Identifier \"gpu\""), std::nullopt);
  EXPECT_EQ(busIdOfLine("busid \"PCI:1:0:0\""), std::nullopt);
  EXPECT_EQ(busIdOfLine("#BusID \"PCI:1:0:0\""), std::nullopt);
  EXPECT_EQ(busIdOfLine("   # BusID \"PCI:1:0:0\""), std::nullopt);
}

TEST(BusIdOfLine, CountsACommentBehindTheValueAndAKeywordAnywhere) {
  EXPECT_THAT(busIdOfLine("Option \"MyBusIDs\" \"PCI:1:0:0\""), Optional(Eq("sIDs\" \"PCI:1:0.0")));
  // The last quote of the line ends the value, in a comment too.
  EXPECT_THAT(busIdOfLine("BusID \"PCI:1:0:0\" # \"x\""), Optional(Eq("1:0.0\" # \"x")));
}

TEST(BusIdOfLine, DoesNotCompareThePrefix) {
  EXPECT_THAT(busIdOfLine("BusID \"ABCD1:0:0\""), Optional(Eq("1:0.0")));
}

TEST(BusIdOfLine, WithOneQuoteRunsToTheEndOfTheLine) {
  EXPECT_THAT(busIdOfLine("BusID \"PCI:1:0:0"), Optional(Eq("1:0.0")));
  // Which the blanks at its end are not part of.
  EXPECT_THAT(busIdOfLine("BusID \"PCI:1:0:0 \t\v\f\r "), Optional(Eq("1:0.0")));
}

TEST(BusIdOfLine, WithoutAQuoteStartsAtTheFifthCharacter) {
  EXPECT_THAT(busIdOfLine("BusID PCI:1:0:0"), Optional(Eq("D PCI:1:0.0")));
  EXPECT_THAT(busIdOfLine("BusID PCI:1:0 :0 \r"), Optional(Eq("D PCI:1:0 .0")));
}

TEST(BusIdOfLine, WrapsANegativeCount) {
  // Fewer than four characters between the quotes: the value runs to the end of the line.
  EXPECT_THAT(busIdOfLine("BusID \"1\"  : 2:3"), Optional(Eq(": 2.3")));
}

TEST(BusIdOfLine, RaisesWhereTheValueHasNoColon) {
  EXPECT_THROW(busIdOfLine("BusID \"PCI:1\""), std::out_of_range);
  EXPECT_THROW(busIdOfLine("BusID"), std::out_of_range);
  EXPECT_THROW(busIdOfLine("BusID \"PCI:\""), std::out_of_range);
}

TEST(BusIdOfLine, RaisesWhereTheValueHasAnAtSignAndNoColon) {
  EXPECT_THROW(busIdOfLine("BusID \"PCI:1@2\""), std::out_of_range);
}

TEST(BusIdOfLine, RaisesWhereTheValueStartsBeyondTheEnd) {
  EXPECT_THROW(busIdOfLine("BusID \"PCI"), std::out_of_range);
  EXPECT_THROW(busIdOfLine("BusID \""), std::out_of_range);
}

// --- The library.

class NvmlWrapperOnAHost : public testing::Test {
 protected:
  rig::PrivateHost host;
  NvmlWrapper& nvml = NvmlWrapper::getInstance();

  double usage() {
    double value = -1;
    EXPECT_TRUE(nvml.maxMemoryUsage(&value));
    return value;
  }
};

TEST_F(NvmlWrapperOnAHost, FailsWithAWarningOnAHostWithoutTheLibrary) {
  EXPECT_FALSE(nvml.init());
  EXPECT_FALSE(nvml.isReady());
  EXPECT_TRUE(host.log().has("Warn", "NvmlWrapper",
                             "Failed to load library nvidia-ml: libnvidia-ml.so.1: cannot open "
                             "shared object file: No such file or directory"));
}

TEST_F(NvmlWrapperOnAHost, FailsWithALibraryThatLacksAFunction) {
  for (const char* function : {"nvmlInit_v2", "nvmlShutdown", "nvmlDeviceGetHandleByPciBusId_v2",
                               "nvmlDeviceGetMemoryInfo"}) {
    const rig::GpuDriver driver(host, function);
    host.log().clear();
    EXPECT_FALSE(nvml.init()) << function;
    EXPECT_FALSE(nvml.isReady());
    EXPECT_TRUE(host.log().has("Error", "NvmlWrapper", "Failed to map nvml library functions"));
    EXPECT_EQ(driver.calls("nvmlInit_v2"), 0U);
    EXPECT_FALSE(rig::GpuDriver::isLoaded()) << function;
  }
}

TEST_F(NvmlWrapperOnAHost, FailsWhenTheLibraryCannotBeInitialised) {
  rig::GpuDriver driver(host);
  driver.failing("nvmlInit_v2", 9);
  EXPECT_FALSE(nvml.init());
  EXPECT_FALSE(nvml.isReady());
  EXPECT_TRUE(host.log().has("Error", "NvmlWrapper", "Failed to execute nvmlInit, result 9"));
  EXPECT_EQ(driver.calls("nvmlShutdown"), 0U);
  EXPECT_FALSE(rig::GpuDriver::isLoaded());
}

TEST_F(NvmlWrapperOnAHost, FailsWithoutAGpuInTheXConfiguration) {
  rig::GpuDriver driver(host);
  for (const char* config : {static_cast<const char*>(nullptr), "", "Identifier \"gpu\"\n"}) {
    if (config == nullptr) {
      host.without(kXConfig);
    } else {
      host.withFile(kXConfig, config);
    }
    host.log().clear();
    EXPECT_FALSE(nvml.init());
    EXPECT_FALSE(nvml.isReady());
    EXPECT_TRUE(host.log().has("Error", "NvmlWrapper", "Nvidia GPU device pcibus id is empty"));
    EXPECT_FALSE(rig::GpuDriver::isLoaded());
  }
  EXPECT_EQ(driver.calls("nvmlInit_v2"), 3U);
  EXPECT_EQ(driver.calls("nvmlShutdown"), 3U);
}

TEST_F(NvmlWrapperOnAHost, GivesTheFullestGpu) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 105, 1000).withGpu("0:1:2.0", 8025, 10000);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  EXPECT_TRUE(nvml.isReady());
  EXPECT_EQ(usage(), 80.25);
  EXPECT_EQ(driver.calls("nvmlDeviceGetHandleByPciBusId_v2", "1:0.0"), 1U);
  EXPECT_EQ(driver.calls("nvmlDeviceGetHandleByPciBusId_v2", "0:1:2.0"), 1U);
}

TEST_F(NvmlWrapperOnAHost, KeepsTheFirstOfTwoEquallyFullGpusAndTheFractionOfAPercent) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 1, 3).withGpu("0:1:2.0", 1, 3);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(usage(), 100.0 / 3.0);
}

TEST_F(NvmlWrapperOnAHost, LogsMebibytesAndThePercentageOfEachGpu) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 512 * kMib + 5, 2048 * kMib).withGpu("0:1:2.0", 0, 4096 * kMib);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  SetLogThreshold(LogLevel::Debug);
  static_cast<void>(usage());
  EXPECT_TRUE(host.log().has("Debug", "NvmlWrapper",
                             "BusID 1:0.0, Memory used 512, Memory total 2048, usage 25.00"));
  EXPECT_TRUE(host.log().has("Debug", "NvmlWrapper",
                             "BusID 0:1:2.0, Memory used 0, Memory total 4096, usage 0.00"));
}

TEST_F(NvmlWrapperOnAHost, MultipliesInUnsignedIntegersThatWrap) {
  rig::GpuDriver driver(host);
  constexpr unsigned long long kUsed = 1ULL << 63U;  // times 100 is 0 modulo 2 to the 64th
  driver.withGpu("1:0.0", kUsed + 1, 1000).withGpu("0:1:2.0", 0, 1);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(usage(), 0.1);
}

TEST_F(NvmlWrapperOnAHost, DoesNotGuardAgainstAGpuWithoutMemory) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 0, 0).withGpu("0:1:2.0", 5, 100);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(usage(), 5.0);  // not a number is not greater
  driver.withoutGpus().withGpu("1:0.0", 5, 0).withGpu("0:1:2.0", 5, 100);
  EXPECT_EQ(usage(), std::numeric_limits<double>::infinity());
}

TEST_F(NvmlWrapperOnAHost, EndsTheScanAtADeviceThatIsNotThere) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 50, 100);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  double value = -1;
  EXPECT_FALSE(nvml.maxMemoryUsage(&value));
  EXPECT_EQ(value, 50.0);
  EXPECT_TRUE(host.log().has("Error", "NvmlWrapper",
                             "Failed to get nvml device by pcibus id 0:1:2.0, result 6"));
  EXPECT_TRUE(nvml.isReady());
}

TEST_F(NvmlWrapperOnAHost, EndsTheScanAtADeviceWhoseMemoryCannotBeRead) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 50, 100).withGpu("0:1:2.0", 60, 100);
  driver.failing("nvmlDeviceGetMemoryInfo", 3);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  double value = -1;
  EXPECT_FALSE(nvml.maxMemoryUsage(&value));
  EXPECT_EQ(value, 0.0);
  EXPECT_TRUE(
      host.log().has("Error", "NvmlWrapper", "Failed to get nvml device memory info, result 3"));
  EXPECT_EQ(driver.calls("nvmlDeviceGetMemoryInfo"), 1U);
}

TEST_F(NvmlWrapperOnAHost, KeepsTheBusIdsOfEveryInitAndChangesNoFigureByIt) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 50, 100).withGpu("0:1:2.0", 60, 100);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(usage(), 60.0);
  EXPECT_EQ(driver.calls("nvmlDeviceGetMemoryInfo"), 2U);
  nvml.shutdown();
  EXPECT_FALSE(nvml.isReady());
  EXPECT_EQ(driver.calls("nvmlShutdown"), 1U);
  EXPECT_FALSE(rig::GpuDriver::isLoaded());

  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(usage(), 60.0);
  EXPECT_EQ(driver.calls("nvmlDeviceGetMemoryInfo"), 6U);

  // They count for an init that finds none itself.
  host.without(kXConfig);
  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(usage(), 60.0);
}

TEST_F(NvmlWrapperOnAHost, ASecondInitGoesThroughAllStepsAndOneShutdownUndoesOne) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 50, 100).withGpu("0:1:2.0", 60, 100);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  ASSERT_TRUE(nvml.init());
  EXPECT_EQ(driver.calls("nvmlInit_v2"), 2U);
  nvml.shutdown();
  EXPECT_EQ(driver.calls("nvmlShutdown"), 1U);
  EXPECT_FALSE(nvml.isReady());
  EXPECT_TRUE(rig::GpuDriver::isLoaded());
}

TEST_F(NvmlWrapperOnAHost, IsNotReadyAfterAnInitThatFailedBehindOneThatHadSucceeded) {
  rig::GpuDriver driver(host);
  driver.withGpu("1:0.0", 50, 100).withGpu("0:1:2.0", 60, 100);
  host.withFile(kXConfig, kTwoGpus);
  ASSERT_TRUE(nvml.init());
  driver.failing("nvmlInit_v2", 4);
  EXPECT_FALSE(nvml.init());
  EXPECT_FALSE(nvml.isReady());
}

TEST_F(NvmlWrapperOnAHost, ALineThatRaisesLeavesTheLibraryOpenAndNotReady) {
  rig::GpuDriver driver(host);
  host.withFile(kXConfig, "BusID \"PCI:1:0:0\"\nBusID \"PCI:1\"\nBusID \"PCI:2:0:0\"\n");
  EXPECT_THROW(nvml.init(), std::out_of_range);
  EXPECT_FALSE(nvml.isReady());
  EXPECT_EQ(driver.calls("nvmlInit_v2"), 1U);
  EXPECT_EQ(driver.calls("nvmlShutdown"), 0U);
  EXPECT_TRUE(rig::GpuDriver::isLoaded());
}

TEST_F(NvmlWrapperOnAHost, IsNotReadyBeforeItsFirstInit) {
  EXPECT_FALSE(nvml.isReady());
}

TEST_F(NvmlWrapperOnAHost, ShutdownWithoutAnInitDoesNothing) {
  nvml.shutdown();
  EXPECT_FALSE(nvml.isReady());
}

TEST_F(NvmlWrapperOnAHost, HasNoFigureWithoutABusId) {
  EXPECT_EQ(usage(), 0.0);
}

}  // namespace
}  // namespace mendline
