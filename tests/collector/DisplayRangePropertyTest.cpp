// The display range and the index of a display, over every combination of their edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "collector/CollectorControl.h"
#include "collector/SessionCounters.h"
#include "tests/rules/Scanner.h"

namespace mendline {
namespace {

constexpr std::int64_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int32_t>::max();

// The numbers at which something may change, and their neighbours.
std::vector<std::int64_t> edges() {
  std::vector<std::int64_t> all;
  for (const std::int64_t edge :
       {kLowest, std::int64_t{-60000}, std::int64_t{-60}, std::int64_t{0}, std::int64_t{60},
        std::int64_t{100}, std::int64_t{160}, std::int64_t{59476}, std::int64_t{59535},
        std::int64_t{65536}, kHighest - 59, kHighest}) {
    for (std::int64_t value = edge - 2; value <= edge + 2; ++value) {
      if (value >= kLowest && value <= kHighest) {
        all.push_back(value);
      }
    }
  }
  return all;
}

struct Range {
  std::int64_t min;
  std::int64_t max;
};

// In wider numbers, where nothing overflows.
Range clamped(Range range) {
  const bool bothNegative = range.min < 0 && range.max < 0;
  const bool bothTooHigh = range.min > 59535 && range.max > 59535;
  if (range.min > range.max || bothNegative || bothTooHigh) {
    return {100, 159};
  }
  const std::int64_t max = std::clamp<std::int64_t>(range.max, 0, 59535);
  const std::int64_t min = std::max<std::int64_t>(0, std::min(range.min, max));
  return {min, std::min(max, min + 59)};
}

std::string text(std::int64_t min, std::int64_t max) {
  return '(' + std::to_string(min) + ", " + std::to_string(max) + ')';
}

TEST(DisplayRangeProperty, EveryPairOfEdgesIsClampedByTheRule) {
  std::string told;
  std::string failures;
  testing::internal::CaptureStdout();
  for (const std::int64_t low : edges()) {
    for (const std::int64_t high : edges()) {
      auto min = static_cast<std::int32_t>(low);
      auto max = static_cast<std::int32_t>(high);
      clampDisplayNumberConfig(min, max);
      const Range wanted = clamped({low, high});
      if (min != wanted.min || max != wanted.max) {
        failures += text(low, high) + " became " + text(min, max) + "\n";
      }
      told += "clampDisplayNumberConfig: Before clamping, the display numbers are " +
              text(low, high) +
              "\nclampDisplayNumberConfig: After clamping, the display numbers are" +
              text(wanted.min, wanted.max) + "\n";
    }
  }
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_EQ(failures, "");
  EXPECT_TRUE(output == told);
}

TEST(DisplayRangeProperty, AClampedRangeIsSoundAndStaysAsItIs) {
  std::string failures;
  testing::internal::CaptureStdout();
  for (const std::int64_t low : edges()) {
    for (const std::int64_t high : edges()) {
      auto min = static_cast<std::int32_t>(low);
      auto max = static_cast<std::int32_t>(high);
      clampDisplayNumberConfig(min, max);
      std::int32_t minAgain = min;
      std::int32_t maxAgain = max;
      clampDisplayNumberConfig(minAgain, maxAgain);
      if (min < 0 || min > max || max > 59535 || max - min > 59 || minAgain != min ||
          maxAgain != max) {
        failures += text(low, high) + " became " + text(min, max) + "\n";
      }
    }
  }
  static_cast<void>(testing::internal::GetCapturedStdout());
  EXPECT_EQ(failures, "");
}

std::vector<std::string> numberTexts() {
  std::vector<std::string> digits;
  for (const std::int64_t edge : edges()) {
    digits.push_back(std::to_string(edge));
  }
  for (const char* beyond : {"2147483648", "-2147483649", "4294967296", "4294967399",
                             "9223372036854775807", "9223372036854775808", "-9223372036854775808",
                             "18446744073709551719", "", "1000000000000000000000000000103", "-"}) {
    digits.emplace_back(beyond);
  }
  std::vector<std::string> texts;
  for (const std::string& number : digits) {
    for (const std::string start :
         {"", " ", "\t\n\v\f\r ", "+", "0", "0000000000000000000000", "-", "a", ":", "\xC2\xA0"}) {
      for (const std::string& rest :
           {std::string(), std::string("abc"), std::string(" 1"), std::string(".9"),
            std::string("e2"), std::string("\0001", 2)}) {
        texts.push_back(start + number + rest);
      }
    }
  }
  return texts;
}

TEST(DisplayIndexProperty, EveryTextHasTheIndexOfTheRule) {
  const std::vector<std::string> texts = numberTexts();
  for (const std::int64_t min : edges()) {
    // What a clamped range can begin with.
    if (min < 0 || min > 59535) {
      continue;
    }
    displayNumberMin = static_cast<std::int32_t>(min);
    for (const std::string& display : texts) {
      const auto number = rules::Scanner(display).number();
      std::int64_t wanted = -1;
      if (number && number->isWithin(kLowest, static_cast<std::uint64_t>(kHighest))) {
        wanted = static_cast<std::int64_t>(number->wrapped()) - min;
      }
      const std::int32_t index = displayIndex(display);
      if (wanted >= kLowest) {
        ASSERT_EQ(index, wanted) << testing::PrintToString(display) << " from " << min;
      }
      for (const std::int32_t count : {1, 2, 59, 60}) {
        maxSessionNumber = count;
        ASSERT_EQ(isAdmittedIndex(index), wanted >= 0 && wanted <= count)
            << testing::PrintToString(display) << " from " << min << " of " << count;
      }
    }
  }
}

}  // namespace
}  // namespace mendline
