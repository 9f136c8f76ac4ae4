#include "generators/SystemArithmetic.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

namespace mendline {
namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(SystemArithmetic, CpuUsageIsUserAndSystemTimeOutOfUserSystemAndIdleTime) {
  const SystemPerfStats prev = {.cpuUser = 100, .cpuSystem = 50, .cpuIdle = 1000};
  const SystemPerfStats cur = {.cpuUser = 150, .cpuSystem = 100, .cpuIdle = 1100};
  EXPECT_EQ(cpuUsage(prev, cur), 50.0);
  EXPECT_EQ(elapsedTicks(prev, cur), 200u);
  EXPECT_EQ(cpuUsage({}, {.cpuUser = 3, .cpuIdle = 1}), 75.0);
  EXPECT_EQ(cpuUsage({}, {.cpuSystem = 3, .cpuIdle = 1}), 75.0);
  EXPECT_EQ(cpuUsage({}, {.cpuIdle = 1}), 0.0);
}

TEST(SystemArithmetic, NiceTimeMakesNoTickPass) {
  const SystemPerfStats prev = {.cpuUser = 5, .cpuNice = 0, .cpuSystem = 6, .cpuIdle = 7};
  const SystemPerfStats cur = {.cpuUser = 5, .cpuNice = 1000, .cpuSystem = 6, .cpuIdle = 7};
  EXPECT_TRUE(std::isnan(cpuUsage(prev, cur)));
  EXPECT_EQ(elapsedTicks(prev, cur), 0u);
}

TEST(SystemArithmetic, TheZeroSampleMakesFiguresSinceBoot) {
  const SystemPerfStats cur = {.cpuUser = 150,
                               .cpuNice = 9,
                               .cpuSystem = 100,
                               .cpuIdle = 1000,
                               .diskReads = 500,
                               .diskWrites = 250,
                               .uptime = 100};
  EXPECT_EQ(elapsedTicks({}, cur), 1250u);
  EXPECT_EQ(cpuUsage({}, cur), 20.0);
  EXPECT_EQ(diskReadRate({}, cur), 5.0);
  EXPECT_EQ(diskWriteRate({}, cur), 2.5);
}

TEST(SystemArithmetic, PercentagesAreMultipliedBeforeTheyAreDivided) {
  // The other order gives 28.999999999999996.
  EXPECT_EQ(cpuUsage({}, {.cpuUser = 29, .cpuIdle = 71}), 29.0);
  EXPECT_EQ(memUsage({.memTotal = 100, .memAvailable = 71}), 29.0);
}

TEST(SystemArithmetic, MemUsageIsWhatIsNotAvailable) {
  EXPECT_EQ(memUsage({.memTotal = 1000, .memAvailable = 250}), 75.0);
  EXPECT_EQ(memUsage({.memTotal = 1000, .memAvailable = 1000}), 0.0);
  EXPECT_EQ(memUsage({.memTotal = 1000, .memAvailable = 0}), 100.0);
  EXPECT_EQ(memUsage({.memTotal = 8, .memAvailable = 7}), 12.5);
  EXPECT_TRUE(std::isnan(memUsage({})));
  EXPECT_EQ(memUsage({.memTotal = 0, .memAvailable = 1}), kInfinity);
}

TEST(SystemArithmetic, MemUsageWrapsWhenMoreIsAvailableThanThereIs) {
  EXPECT_EQ(memUsage({.memTotal = 1000, .memAvailable = 1001}), 1844674407370955161.6);
}

TEST(SystemArithmetic, RatesArePerSecond) {
  const SystemPerfStats prev = {.diskReads = 100, .diskWrites = 200, .uptime = 1000};
  const SystemPerfStats cur = {.diskReads = 103, .diskWrites = 205, .uptime = 1030};
  EXPECT_EQ(diskReadRate(prev, cur), 0.1);
  EXPECT_EQ(diskWriteRate(prev, cur), 5.0 / 30.0);
}

TEST(SystemArithmetic, RatesWithinOneSecondAreInfiniteOrNaN) {
  const SystemPerfStats prev = {.diskReads = 100, .diskWrites = 200, .uptime = 1000};
  SystemPerfStats cur = prev;
  EXPECT_TRUE(std::isnan(diskReadRate(prev, cur)));
  EXPECT_TRUE(std::isnan(diskWriteRate(prev, cur)));
  cur.diskReads = 101;
  EXPECT_EQ(diskReadRate(prev, cur), kInfinity);
  EXPECT_TRUE(std::isnan(diskWriteRate(prev, cur)));
  cur.diskWrites = 201;
  EXPECT_EQ(diskWriteRate(prev, cur), kInfinity);
}

TEST(SystemArithmetic, AnUptimeThatWentBackMakesANegativeRate) {
  const SystemPerfStats prev = {.uptime = 1000};
  const SystemPerfStats cur = {.diskReads = 20, .diskWrites = 40, .uptime = 990};
  EXPECT_EQ(diskReadRate(prev, cur), -2.0);
  EXPECT_EQ(diskWriteRate(prev, cur), -4.0);
}

TEST(SystemArithmetic, TheUptimesDifferenceWraps) {
  const SystemPerfStats prev = {.uptime = std::numeric_limits<std::int64_t>::min()};
  const SystemPerfStats cur = {
      .diskReads = 3, .diskWrites = 4, .uptime = std::numeric_limits<std::int64_t>::max()};
  EXPECT_EQ(diskReadRate(prev, cur), -3.0);
  EXPECT_EQ(diskWriteRate(prev, cur), -4.0);
}

TEST(SystemArithmetic, ACounterThatWentBackMakesAHugeRate) {
  const SystemPerfStats prev = {.diskReads = 100, .diskWrites = 100, .uptime = 0};
  const SystemPerfStats cur = {.diskReads = 99, .diskWrites = 98, .uptime = 10};
  EXPECT_EQ(diskReadRate(prev, cur), 1.8446744073709551615e18);
  EXPECT_EQ(diskWriteRate(prev, cur), 1.8446744073709551614e18);
}

TEST(SystemArithmetic, DiskLatencyIsCutToWholeMilliseconds) {
  const SystemPerfStats prev = {
      .diskReads = 10, .diskWrites = 20, .diskReadMs = 30, .diskWriteMs = 40};
  SystemPerfStats cur = {.diskReads = 12, .diskWrites = 20, .diskReadMs = 37, .diskWriteMs = 40};
  EXPECT_EQ(diskLatency(prev, cur), 3.0);
  EXPECT_EQ(diskReadLatency(prev, cur), 3.5);
  cur = {.diskReads = 10, .diskWrites = 22, .diskReadMs = 30, .diskWriteMs = 47};
  EXPECT_EQ(diskLatency(prev, cur), 3.0);
  EXPECT_EQ(diskWriteLatency(prev, cur), 3.5);
  cur = {.diskReads = 11, .diskWrites = 22, .diskReadMs = 31, .diskWriteMs = 41};
  EXPECT_EQ(diskLatency(prev, cur), 0.0);
}

TEST(SystemArithmetic, DiskLatencyIsOfReadsAndWritesTogether) {
  const SystemPerfStats cur = {.diskReads = 2, .diskWrites = 3, .diskReadMs = 7, .diskWriteMs = 18};
  EXPECT_EQ(diskLatency({}, cur), 5.0);
  EXPECT_EQ(diskReadLatency({}, cur), 3.5);
  EXPECT_EQ(diskWriteLatency({}, cur), 6.0);
}

TEST(SystemArithmetic, LatenciesWithoutOperationsAreZero) {
  const SystemPerfStats prev = {.diskReads = 10, .diskWrites = 20, .uptime = 5};
  const SystemPerfStats cur = {
      .diskReads = 10, .diskWrites = 20, .diskReadMs = 7, .diskWriteMs = 8, .uptime = 6};
  EXPECT_EQ(diskLatency(prev, cur), 0.0);
  EXPECT_EQ(diskReadLatency(prev, cur), 0.0);
  EXPECT_EQ(diskWriteLatency(prev, cur), 0.0);
  EXPECT_EQ(diskReadRate(prev, cur), 0.0);
  EXPECT_EQ(diskWriteRate(prev, cur), 0.0);
}

TEST(SystemArithmetic, LatencyIsZeroWhereReadsAndWritesCancelOut) {
  const SystemPerfStats prev = {.diskReads = 10, .diskWrites = 20};
  const SystemPerfStats cur = {.diskReads = 11, .diskWrites = 19, .diskReadMs = 7};
  EXPECT_EQ(diskLatency(prev, cur), 0.0);
  EXPECT_EQ(diskReadLatency(prev, cur), 7.0);
}

TEST(SystemArithmetic, LatencyIsAQuotientOf64BitIntegersBeforeItIsADouble) {
  // As a double, the dividend would be the divisor's multiple.
  EXPECT_EQ(diskLatency({}, {.diskReads = 1u << 20, .diskReadMs = kMax}), 17592186044415.0);
}

TEST(SystemArithmetic, LevelsEnterNoFigure) {
  SystemPerfStats prev = {.cpuUser = 1,
                          .cpuSystem = 2,
                          .cpuIdle = 3,
                          .memTotal = 100,
                          .memAvailable = 50,
                          .diskReads = 4,
                          .diskWrites = 5,
                          .diskReadMs = 6,
                          .diskWriteMs = 7,
                          .uptime = 8};
  SystemPerfStats cur = {.cpuUser = 11,
                         .cpuSystem = 22,
                         .cpuIdle = 33,
                         .memTotal = 100,
                         .memAvailable = 50,
                         .diskReads = 44,
                         .diskWrites = 55,
                         .diskReadMs = 66,
                         .diskWriteMs = 77,
                         .uptime = 88};
  const auto figures = [&] {
    return std::vector<double>{cpuUsage(prev, cur),        memUsage(cur),
                               diskReadRate(prev, cur),    diskWriteRate(prev, cur),
                               diskLatency(prev, cur),     diskReadLatency(prev, cur),
                               diskWriteLatency(prev, cur)};
  };
  const auto before = figures();
  prev.diskInFlight = 1000;
  prev.diskIoMs = 2000;
  cur.diskInFlight = 3000;
  cur.diskIoMs = 5000;
  EXPECT_EQ(figures(), before);
}

TEST(SystemArithmetic, ASampleComparedWithItselfHasNoInterval) {
  const SystemPerfStats same = {.cpuUser = 1,
                                .cpuNice = 2,
                                .cpuSystem = 3,
                                .cpuIdle = 4,
                                .memTotal = 1000,
                                .memAvailable = 250,
                                .diskReads = 5,
                                .diskWrites = 6,
                                .diskReadMs = 7,
                                .diskWriteMs = 8,
                                .uptime = 9};
  EXPECT_TRUE(std::isnan(cpuUsage(same, same)));
  EXPECT_TRUE(std::isnan(diskReadRate(same, same)));
  EXPECT_TRUE(std::isnan(diskWriteRate(same, same)));
  EXPECT_EQ(diskLatency(same, same), 0.0);
  EXPECT_EQ(diskReadLatency(same, same), 0.0);
  EXPECT_EQ(diskWriteLatency(same, same), 0.0);
  EXPECT_EQ(memUsage(same), 75.0);
  EXPECT_EQ(elapsedTicks(same, same), 0u);
}

TEST(SystemArithmetic, ProcessTicksAreUserAndSystemTime) {
  const ProcessInfo prev = {.ulUserTime = 300, .ulSystemTime = 200, .strProcessName = {}};
  const ProcessInfo cur = {.ulUserTime = 310, .ulSystemTime = 220, .strProcessName = {}};
  EXPECT_EQ(processCpuTicks(prev), 500u);
  EXPECT_EQ(processCpuTicksDelta(prev, cur), 30u);
  EXPECT_EQ(processCpuTicksDelta(prev, prev), 0u);
  EXPECT_EQ(processCpuTicksDelta(cur, prev), kMax - 29);
  EXPECT_EQ(processCpuTicks({.ulUserTime = kMax, .ulSystemTime = 3, .strProcessName = {}}), 2u);
}

// The same figures from arithmetic that is wider than any of the counters.
namespace wide {

__extension__ typedef unsigned __int128 Wide;

std::uint64_t difference(std::uint64_t prev, std::uint64_t cur) {
  const Wide modulus = Wide{1} << 64;
  return static_cast<std::uint64_t>((Wide{cur} + modulus - Wide{prev}) % modulus);
}

std::uint64_t sum(std::initializer_list<std::uint64_t> terms) {
  Wide total = 0;
  for (const std::uint64_t term : terms) {
    total += term;
  }
  return static_cast<std::uint64_t>(total % (Wide{1} << 64));
}

long double seconds(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  const std::uint64_t wrapped =
      difference(static_cast<std::uint64_t>(prev.uptime), static_cast<std::uint64_t>(cur.uptime));
  const long double value = static_cast<long double>(wrapped);
  return wrapped >> 63 == 0 ? value : value - 18446744073709551616.0L;
}

}  // namespace wide

// Equal but for the rounding of three operations.
testing::AssertionResult agrees(double actual, long double expected) {
  if (std::isnan(expected) || std::isinf(expected)) {
    const bool same =
        std::isnan(expected) ? std::isnan(actual) : static_cast<long double>(actual) == expected;
    return same ? testing::AssertionSuccess()
                : testing::AssertionFailure() << actual << " is not " << expected;
  }
  const long double tolerance = std::abs(expected) * 8.9e-16L;
  if (std::isfinite(actual) && std::abs(actual - expected) <= tolerance) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << actual << " is not " << static_cast<double>(expected);
}

class Snapshots {
 public:
  SystemPerfStats next() {
    SystemPerfStats stats;
    for (std::uint64_t* field :
         {&stats.cpuUser, &stats.cpuNice, &stats.cpuSystem, &stats.cpuIdle, &stats.memTotal,
          &stats.memAvailable, &stats.diskReads, &stats.diskWrites, &stats.diskInFlight,
          &stats.diskReadMs, &stats.diskWriteMs, &stats.diskIoMs}) {
      *field = number();
    }
    stats.uptime = static_cast<std::int64_t>(number());
    return stats;
  }

  // Small, large, around the ends of the ranges: so that equal fields, steps back and wraps occur.
  std::uint64_t number() {
    switch (random_() % 5) {
      case 0:
        return random_() % 3;
      case 1:
        return random_() % 100000;
      case 2:
        return (std::uint64_t{1} << 63) + random_() % 5 - 2;
      case 3:
        return kMax - random_() % 3;
      default:
        return random_();
    }
  }

 private:
  std::mt19937_64 random_{20260309};
};

TEST(SystemArithmetic, AgreesWithWiderArithmeticOnAnySnapshots) {
  using namespace wide;
  Snapshots snapshots;
  for (int i = 0; i < 50000; ++i) {
    const SystemPerfStats prev = snapshots.next();
    const SystemPerfStats cur = snapshots.next();
    const std::uint64_t user = difference(prev.cpuUser, cur.cpuUser);
    const std::uint64_t system = difference(prev.cpuSystem, cur.cpuSystem);
    const std::uint64_t idle = difference(prev.cpuIdle, cur.cpuIdle);
    const std::uint64_t reads = difference(prev.diskReads, cur.diskReads);
    const std::uint64_t writes = difference(prev.diskWrites, cur.diskWrites);
    const std::uint64_t readMs = difference(prev.diskReadMs, cur.diskReadMs);
    const std::uint64_t writeMs = difference(prev.diskWriteMs, cur.diskWriteMs);
    const std::uint64_t elapsed = sum({user, system, idle});
    const std::uint64_t operations = sum({reads, writes});

    ASSERT_EQ(elapsedTicks(prev, cur), elapsed);
    ASSERT_TRUE(agrees(cpuUsage(prev, cur), static_cast<long double>(sum({user, system})) * 100.0L /
                                                static_cast<long double>(elapsed)));
    ASSERT_TRUE(
        agrees(memUsage(cur), static_cast<long double>(difference(cur.memAvailable, cur.memTotal)) *
                                  100.0L / static_cast<long double>(cur.memTotal)));
    ASSERT_TRUE(
        agrees(diskReadRate(prev, cur), static_cast<long double>(reads) / seconds(prev, cur)));
    ASSERT_TRUE(
        agrees(diskWriteRate(prev, cur), static_cast<long double>(writes) / seconds(prev, cur)));
    ASSERT_TRUE(agrees(
        diskReadLatency(prev, cur),
        reads == 0 ? 0.0L : static_cast<long double>(readMs) / static_cast<long double>(reads)));
    ASSERT_TRUE(agrees(
        diskWriteLatency(prev, cur),
        writes == 0 ? 0.0L : static_cast<long double>(writeMs) / static_cast<long double>(writes)));
    ASSERT_EQ(diskLatency(prev, cur),
              operations == 0 ? 0.0 : static_cast<double>(sum({readMs, writeMs}) / operations));
  }
}

TEST(SystemArithmetic, AgreesWithWiderArithmeticOnAnyProcess) {
  using namespace wide;
  Snapshots numbers;
  for (int i = 0; i < 50000; ++i) {
    const ProcessInfo prev = {
        .ulUserTime = numbers.number(), .ulSystemTime = numbers.number(), .strProcessName = {}};
    const ProcessInfo cur = {
        .ulUserTime = numbers.number(), .ulSystemTime = numbers.number(), .strProcessName = {}};
    const std::uint64_t before = sum({prev.ulUserTime, prev.ulSystemTime});
    const std::uint64_t now = sum({cur.ulUserTime, cur.ulSystemTime});
    ASSERT_EQ(processCpuTicks(cur), now);
    ASSERT_EQ(processCpuTicksDelta(prev, cur), difference(before, now));
  }
}

}  // namespace
}  // namespace mendline
