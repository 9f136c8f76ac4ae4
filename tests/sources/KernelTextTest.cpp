#include "sources/KernelText.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <optional>
#include <string>

namespace mendline {
namespace {

// The number at the beginning of the text, where all of it is taken.
template <typename Number>
std::optional<Number> digitsOf(const std::string& text) {
  const char* at = text.c_str();
  Number number = 0;
  if (!takeDigits(at, number) || at != text.c_str() + text.size()) {
    return std::nullopt;
  }
  return number;
}

TEST(KernelText, WhiteSpaceIsThatOfTheCLocale) {
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(isWhiteSpace(static_cast<char>(byte)), std::isspace(byte) != 0) << byte;
    EXPECT_EQ(isDigit(static_cast<char>(byte)), std::isdigit(byte) != 0) << byte;
  }
}

TEST(KernelText, TakesNumbersOfEveryLength) {
  for (std::uint64_t number :
       {0UL, 1UL, 9UL, 10UL, 99UL, 1234567890UL, 999999999999999999UL, 1000000000000000000UL,
        9999999999999999999UL, 10000000000000000000UL, 18446744073709551615UL}) {
    EXPECT_EQ(digitsOf<std::uint64_t>(std::to_string(number)), number);
  }
  EXPECT_EQ(digitsOf<std::uint32_t>("4294967295"), 4294967295U);
  EXPECT_EQ(digitsOf<std::int32_t>("2147483647"), 2147483647);
  EXPECT_EQ(digitsOf<std::int64_t>("9223372036854775807"), 9223372036854775807);
  EXPECT_EQ(digitsOf<std::int32_t>("000000000000000000000000000012"), 12);
}

TEST(KernelText, TakesASignWhereTheTypeHasOne) {
  EXPECT_EQ(digitsOf<std::int32_t>("-1"), -1);
  EXPECT_EQ(digitsOf<std::int32_t>("-2147483648"), -2147483647 - 1);
  EXPECT_EQ(digitsOf<std::int64_t>("-123456789012345678"), -123456789012345678);
  EXPECT_EQ(digitsOf<std::int64_t>("-9223372036854775808"), -9223372036854775807 - 1);
  EXPECT_EQ(digitsOf<std::uint64_t>("-1"), std::nullopt);
  EXPECT_EQ(digitsOf<std::uint32_t>("-1"), std::nullopt);
}

TEST(KernelText, RefusesWhatTheTypeCannotHold) {
  EXPECT_EQ(digitsOf<std::uint64_t>("18446744073709551616"), std::nullopt);
  EXPECT_EQ(digitsOf<std::uint64_t>("100000000000000000000"), std::nullopt);
  EXPECT_EQ(digitsOf<std::int64_t>("9223372036854775808"), std::nullopt);
  EXPECT_EQ(digitsOf<std::int32_t>("2147483648"), std::nullopt);
  EXPECT_EQ(digitsOf<std::int32_t>("-2147483649"), std::nullopt);
  EXPECT_EQ(digitsOf<std::uint32_t>("4294967296"), std::nullopt);
}

TEST(KernelText, RefusesWhatIsNoNumber) {
  for (const char* text : {"", "-", "--1", "+1", " 1", "x", "-x", "- 1"}) {
    EXPECT_EQ(digitsOf<std::int64_t>(text), std::nullopt) << text;
  }
}

TEST(KernelText, LeavesTheNumberThatItRefuses) {
  for (const char* text : {"x", "18446744073709551616", ""}) {
    std::uint64_t number = 7;
    const char* at = text;
    EXPECT_FALSE(takeDigits(at, number));
    EXPECT_EQ(number, 7U) << text;
  }
}

TEST(KernelText, StopsBehindTheLastDigit) {
  const std::string text = "12ab";
  const char* at = text.c_str();
  int number = 0;
  EXPECT_TRUE(takeDigits(at, number));
  EXPECT_EQ(number, 12);
  EXPECT_STREQ(at, "ab");
}

TEST(KernelText, ANumberHasOneBlankOrMoreBeforeIt) {
  for (const char* text : {" 5;", "   5;"}) {
    const char* at = text;
    int number = 0;
    EXPECT_TRUE(takeNumber(at, number));
    EXPECT_EQ(number, 5);
    EXPECT_STREQ(at, ";");
  }
  for (const char* text : {"5", "\t5", "", " ", " \t5", "x 5"}) {
    const char* at = text;
    int number = 0;
    EXPECT_FALSE(takeNumber(at, number)) << text;
  }
}

TEST(KernelText, TakesOneNumberAfterTheOtherUpToTheFirstThatIsNone) {
  const char* at = " 1 -2  3 x 5";
  unsigned first = 0;
  int second = 0;
  std::uint64_t third = 0;
  int fourth = 7;
  int fifth = 7;
  EXPECT_FALSE(takeNumbers(at, first, second, third, fourth, fifth));
  EXPECT_EQ(first, 1U);
  EXPECT_EQ(second, -2);
  EXPECT_EQ(third, 3U);
  EXPECT_EQ(fourth, 7);
  EXPECT_EQ(fifth, 7);
  at = " 1 -2";
  EXPECT_TRUE(takeNumbers(at, first, second));
  EXPECT_STREQ(at, "");
}

}  // namespace
}  // namespace mendline
