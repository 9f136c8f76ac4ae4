// What holds for any snapshots, and the conversion of numbers over all magnitudes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "generators/NumberConversion.h"
#include "generators/ProcessMetricGenerator.h"
#include "generators/SystemArithmetic.h"
#include "tests/rules/WholePart.h"

namespace mendline {
namespace {

__extension__ typedef unsigned __int128 Wide;

// --- Snapshots ----------------------------------------------------------------------------------

class Numbers {
 public:
  // Small, large, around the ends of the range and its middle.
  std::uint64_t any() {
    switch (random_() % 5) {
      case 0:
        return random_() % 3;
      case 1:
        return random_() % 100000;
      case 2:
        return (std::uint64_t{1} << 63) + random_() % 5 - 2;
      case 3:
        return std::numeric_limits<std::uint64_t>::max() - random_() % 3;
      default:
        return random_();
    }
  }

  SystemPerfStats snapshot() {
    SystemPerfStats stats;
    forEachCounter(stats, [this](std::uint64_t& field) { field = any(); });
    stats.uptime = static_cast<std::int64_t>(any());
    return stats;
  }

  // Every counter of `stats` has gone on by less than 2^32.
  SystemPerfStats after(SystemPerfStats stats) {
    forEachCounter(stats, [this](std::uint64_t& field) { field += random_() % 4294967296U; });
    stats.uptime = static_cast<std::int64_t>(static_cast<std::uint64_t>(stats.uptime) + 30);
    return stats;
  }

  template <typename Function>
  static void forEachCounter(SystemPerfStats& stats, Function function) {
    for (std::uint64_t* field :
         {&stats.cpuUser, &stats.cpuNice, &stats.cpuSystem, &stats.cpuIdle, &stats.diskReads,
          &stats.diskWrites, &stats.diskReadMs, &stats.diskWriteMs}) {
      function(*field);
    }
  }

 private:
  std::mt19937_64 random_{20260313};
};

// Bit for bit, NaN included.
bool isSame(double left, double right) {
  return std::memcmp(&left, &right, sizeof left) == 0 || (std::isnan(left) && std::isnan(right));
}

std::vector<double> figuresOf(const SystemPerfStats& prev, const SystemPerfStats& cur) {
  return {cpuUsage(prev, cur),    diskReadRate(prev, cur),    diskWriteRate(prev, cur),
          diskLatency(prev, cur), diskReadLatency(prev, cur), diskWriteLatency(prev, cur)};
}

void expectSameFigures(const std::vector<double>& left, const std::vector<double>& right) {
  for (std::size_t i = 0; i < left.size(); ++i) {
    ASSERT_TRUE(isSame(left[i], right[i])) << "figure " << i << ": " << left[i] << ", " << right[i];
  }
}

TEST(SystemArithmeticProperty, OnlyDifferencesCountWhereverTheCountersStand) {
  Numbers numbers;
  for (int i = 0; i < 20000; ++i) {
    SystemPerfStats prev = numbers.snapshot();
    SystemPerfStats cur = numbers.snapshot();
    const std::vector<double> figures = figuresOf(prev, cur);
    const std::uint64_t elapsed = elapsedTicks(prev, cur);
    std::vector<std::uint64_t> shifts;
    Numbers::forEachCounter(prev, [&](std::uint64_t& field) {
      shifts.push_back(numbers.any());
      field += shifts.back();
    });
    std::size_t next = 0;
    Numbers::forEachCounter(cur, [&](std::uint64_t& field) { field += shifts[next++]; });
    ASSERT_EQ(elapsedTicks(prev, cur), elapsed);
    expectSameFigures(figuresOf(prev, cur), figures);
    ASSERT_FALSE(HasFatalFailure());
  }
}

TEST(SystemArithmeticProperty, TicksOfTwoIntervalsAddUp) {
  Numbers numbers;
  for (int i = 0; i < 20000; ++i) {
    const SystemPerfStats first = numbers.snapshot();
    const SystemPerfStats second = numbers.snapshot();
    const SystemPerfStats third = numbers.snapshot();
    ASSERT_EQ(elapsedTicks(first, second) + elapsedTicks(second, third),
              elapsedTicks(first, third));
    ASSERT_EQ(elapsedTicks(first, second) + elapsedTicks(second, first), 0U);
  }
}

TEST(SystemArithmeticProperty, CountersThatGoOnGiveFiguresInTheirRange) {
  Numbers numbers;
  for (int i = 0; i < 20000; ++i) {
    const SystemPerfStats prev = numbers.snapshot();
    const SystemPerfStats cur = numbers.after(prev);
    const double usage = cpuUsage(prev, cur);
    if (elapsedTicks(prev, cur) > 0) {
      ASSERT_GE(usage, 0.0);
      ASSERT_LE(usage, 100.0);
    }
    ASSERT_GE(diskReadRate(prev, cur), 0.0);
    ASSERT_LE(diskReadRate(prev, cur), 4294967296.0 / 30);
    ASSERT_GE(diskLatency(prev, cur), 0.0);
    // The latency of all lies between those of the reads and of the writes, cut to whole ones.
    const double low = std::min(diskReadLatency(prev, cur), diskWriteLatency(prev, cur));
    const double high = std::max(diskReadLatency(prev, cur), diskWriteLatency(prev, cur));
    ASSERT_GE(diskLatency(prev, cur), std::floor(low) - 1e-6);
    ASSERT_LE(diskLatency(prev, cur), high);
    ASSERT_EQ(diskLatency(prev, cur), std::floor(diskLatency(prev, cur)));
  }
}

TEST(SystemArithmeticProperty, ReadsAndWritesAreTakenAlike) {
  const auto exchanged = [](SystemPerfStats stats) {
    std::swap(stats.diskReads, stats.diskWrites);
    std::swap(stats.diskReadMs, stats.diskWriteMs);
    return stats;
  };
  Numbers numbers;
  for (int i = 0; i < 20000; ++i) {
    const SystemPerfStats prev = numbers.snapshot();
    const SystemPerfStats cur = numbers.snapshot();
    const SystemPerfStats prevExchanged = exchanged(prev);
    const SystemPerfStats curExchanged = exchanged(cur);
    ASSERT_TRUE(isSame(diskReadRate(prev, cur), diskWriteRate(prevExchanged, curExchanged)));
    ASSERT_TRUE(isSame(diskReadLatency(prev, cur), diskWriteLatency(prevExchanged, curExchanged)));
    ASSERT_TRUE(isSame(diskLatency(prev, cur), diskLatency(prevExchanged, curExchanged)));
  }
}

// --- Processes ----------------------------------------------------------------------------------

TEST(SystemArithmeticProperty, AProcessesFiguresAgreeWithWiderArithmetic) {
  Numbers numbers;
  const Wide modulus = Wide{1} << 64;
  for (int i = 0; i < 50000; ++i) {
    ProcessInfo prev;
    ProcessInfo cur;
    for (ProcessInfo* info : {&prev, &cur}) {
      info->ulUserTime = numbers.any();
      info->ulSystemTime = numbers.any();
      info->ullReadBytesCount = numbers.any();
      info->ullWriteBytesCount = numbers.any();
    }
    const std::uint64_t elapsed = numbers.any();
    const auto difference = [&](Wide before, Wide now) {
      return static_cast<std::uint64_t>((now + modulus + modulus - before) % modulus);
    };
    ASSERT_EQ(processDiskDelta(prev, cur),
              difference(Wide{prev.ullReadBytesCount} + prev.ullWriteBytesCount,
                         Wide{cur.ullReadBytesCount} + cur.ullWriteBytesCount));
    const std::uint64_t ticks = difference(Wide{prev.ulUserTime} + prev.ulSystemTime,
                                           Wide{cur.ulUserTime} + cur.ulSystemTime);
    const double usage = processCpuUsage(prev, cur, elapsed);
    if (elapsed == 0) {
      ASSERT_TRUE(ticks == 0 ? std::isnan(usage) : std::isinf(usage));
      continue;
    }
    const long double wanted =
        static_cast<long double>(ticks) * 100.0L / static_cast<long double>(elapsed);
    ASSERT_LE(std::abs(usage - wanted), wanted * 8.9e-16L) << ticks << " of " << elapsed;
  }
}

// --- Numbers ------------------------------------------------------------------------------------

// Every exponent with either sign, and the mantissas at which something may change.
template <typename Function>
void forEveryMagnitude(const std::vector<std::uint64_t>& mantissas, Function function) {
  for (std::uint64_t exponent = 0; exponent < 2048; ++exponent) {
    for (const std::uint64_t mantissa : mantissas) {
      for (const std::uint64_t sign : {0U, 1U}) {
        const std::uint64_t bits = sign << 63 | exponent << 52 | mantissa;
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        function(bits, value);
      }
    }
  }
}

constexpr std::uint64_t kAllMantissaBits = (std::uint64_t{1} << 52) - 1;

TEST(NumberConversionProperty, CutsNumbersOfEveryMagnitudeByTheRule) {
  std::vector<std::uint64_t> mantissas = {0, kAllMantissaBits, 0x5555555555555, 0xAAAAAAAAAAAAA};
  for (int bit = 0; bit < 52; ++bit) {
    mantissas.push_back(std::uint64_t{1} << bit);
    mantissas.push_back(kAllMantissaBits ^ std::uint64_t{1} << bit);
  }
  forEveryMagnitude(mantissas, [](std::uint64_t bits, double value) {
    ASSERT_EQ(truncateToUnsigned(value), rules::wholePart(bits)) << value;
    ASSERT_EQ(truncateToSigned(value), rules::signedWholePart(bits)) << value;
  });
}

TEST(NumberConversionProperty, CutsNumbersAroundEveryWholeOneByTheRule) {
  for (int power = 0; power <= 64; ++power) {
    for (int offset = -40; offset <= 40; ++offset) {
      for (const double sign : {1.0, -1.0}) {
        double value = sign * (std::ldexp(1.0, power) + offset / 8.0);
        for (int step = 0; step < 3; ++step) {
          std::uint64_t bits = 0;
          std::memcpy(&bits, &value, sizeof bits);
          ASSERT_EQ(truncateToUnsigned(value), rules::wholePart(bits)) << value;
          ASSERT_EQ(truncateToSigned(value), rules::signedWholePart(bits)) << value;
          value = std::nextafter(value, step == 0 ? 1e300 : -1e300);
        }
      }
    }
  }
}

TEST(NumberConversionProperty, WritesWholeNumbersOfEveryLength) {
  std::vector<std::uint64_t> edges = {0};
  for (std::uint64_t power = 1;; power *= 10) {
    edges.push_back(power);
    if (power > std::numeric_limits<std::uint64_t>::max() / 10) {
      break;
    }
  }
  for (int bit = 0; bit < 64; ++bit) {
    edges.push_back(std::uint64_t{1} << bit);
  }
  for (const std::uint64_t edge : edges) {
    for (const std::uint64_t value : {edge - 1, edge, edge + 1}) {
      ASSERT_EQ(decimalText(value), std::to_string(value));
      ASSERT_EQ(decimalText(static_cast<std::int64_t>(value)),
                std::to_string(static_cast<std::int64_t>(value)));
      ASSERT_EQ(decimalText(static_cast<std::int32_t>(value)),
                std::to_string(static_cast<std::int32_t>(value)));
    }
  }
}

}  // namespace
}  // namespace mendline
