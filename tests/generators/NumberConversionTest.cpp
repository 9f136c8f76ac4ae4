#include "generators/NumberConversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <locale>
#include <random>
#include <string>

namespace mendline {
namespace {

__extension__ typedef unsigned __int128 Wide;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kTwoToThe64th = 18446744073709551616.0;
constexpr std::uint64_t kBit63Alone = 9223372036854775808u;
constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();

TEST(NumberConversion, CutsTheFractionOffTowardZero) {
  EXPECT_EQ(truncateToUnsigned(0.0), 0u);
  EXPECT_EQ(truncateToUnsigned(-0.0), 0u);
  EXPECT_EQ(truncateToUnsigned(0.6), 0u);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(1.0, 0.0)), 0u);
  EXPECT_EQ(truncateToUnsigned(1.0), 1u);
  EXPECT_EQ(truncateToUnsigned(37.9), 37u);
  EXPECT_EQ(truncateToUnsigned(-0.5), 0u);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(-1.0, 0.0)), 0u);
  EXPECT_EQ(truncateToUnsigned(std::numeric_limits<double>::denorm_min()), 0u);

  EXPECT_EQ(truncateToSigned(0.0), 0);
  EXPECT_EQ(truncateToSigned(-0.0), 0);
  EXPECT_EQ(truncateToSigned(0.9), 0);
  EXPECT_EQ(truncateToSigned(-0.5), 0);
  EXPECT_EQ(truncateToSigned(std::nextafter(-1.0, 0.0)), 0);
  EXPECT_EQ(truncateToSigned(-1.0), -1);
  EXPECT_EQ(truncateToSigned(-1.5), -1);
  EXPECT_EQ(truncateToSigned(std::nextafter(-2.0, 0.0)), -1);
  EXPECT_EQ(truncateToSigned(18.99), 18);
}

TEST(NumberConversion, NaNGivesBit63Alone) {
  EXPECT_EQ(truncateToUnsigned(kNaN), kBit63Alone);
  EXPECT_EQ(truncateToUnsigned(-kNaN), kBit63Alone);
  EXPECT_EQ(truncateToSigned(kNaN), kLowest);
  EXPECT_EQ(truncateToSigned(-kNaN), kLowest);
}

TEST(NumberConversion, InfinityGivesZeroAndItsNegativeBit63Alone) {
  EXPECT_EQ(truncateToUnsigned(kInfinity), 0u);
  EXPECT_EQ(truncateToUnsigned(-kInfinity), kBit63Alone);
  EXPECT_EQ(truncateToSigned(kInfinity), kLowest);
  EXPECT_EQ(truncateToSigned(-kInfinity), kLowest);
}

TEST(NumberConversion, UnsignedCoversTheWholeRange) {
  EXPECT_EQ(truncateToUnsigned(std::nextafter(kTwoToThe63rd, 0.0)), 9223372036854774784u);
  EXPECT_EQ(truncateToUnsigned(kTwoToThe63rd), 9223372036854775808u);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(kTwoToThe63rd, kInfinity)), 9223372036854777856u);
  EXPECT_EQ(truncateToUnsigned(1e19), 10000000000000000000u);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(kTwoToThe64th, 0.0)), 18446744073709549568u);
}

TEST(NumberConversion, UnsignedGivesZeroForWhatIsTooGreat) {
  EXPECT_EQ(truncateToUnsigned(kTwoToThe64th), 0u);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(kTwoToThe64th, kInfinity)), 0u);
  EXPECT_EQ(truncateToUnsigned(1e300), 0u);
  EXPECT_EQ(truncateToUnsigned(std::numeric_limits<double>::max()), 0u);
}

TEST(NumberConversion, UnsignedWrapsWhatIsNegative) {
  EXPECT_EQ(truncateToUnsigned(-1.0), 18446744073709551615u);
  EXPECT_EQ(truncateToUnsigned(-1.9), 18446744073709551615u);
  EXPECT_EQ(truncateToUnsigned(-10.0), 18446744073709551606u);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(-kTwoToThe63rd, 0.0)), 9223372036854776832u);
  EXPECT_EQ(truncateToUnsigned(-kTwoToThe63rd), kBit63Alone);
  EXPECT_EQ(truncateToUnsigned(std::nextafter(-kTwoToThe63rd, -kInfinity)), kBit63Alone);
  EXPECT_EQ(truncateToUnsigned(-1e300), kBit63Alone);
}

TEST(NumberConversion, SignedGivesTheLowestNumberForWhatDoesNotFit) {
  EXPECT_EQ(truncateToSigned(std::nextafter(kTwoToThe63rd, 0.0)), 9223372036854774784);
  EXPECT_EQ(truncateToSigned(kTwoToThe63rd), kLowest);
  EXPECT_EQ(truncateToSigned(1e19), kLowest);
  EXPECT_EQ(truncateToSigned(std::numeric_limits<double>::max()), kLowest);
  EXPECT_EQ(truncateToSigned(std::nextafter(-kTwoToThe63rd, 0.0)), -9223372036854774784);
  EXPECT_EQ(truncateToSigned(-kTwoToThe63rd), kLowest);
  EXPECT_EQ(truncateToSigned(std::nextafter(-kTwoToThe63rd, -kInfinity)), kLowest);
  EXPECT_EQ(truncateToSigned(-1e300), kLowest);
}

TEST(NumberConversion, AgreesWithWiderArithmeticWhereverTheNumberFits) {
  std::mt19937_64 random(4711);
  for (int i = 0; i < 100000; ++i) {
    const double value =
        std::ldexp(static_cast<double>(random()), -static_cast<int>(random() % 70));
    if (value < kTwoToThe64th) {
      const auto expected = static_cast<std::uint64_t>(static_cast<Wide>(value));
      ASSERT_EQ(truncateToUnsigned(value), expected) << value;
    }
    if (value < kTwoToThe63rd) {
      const auto expected = static_cast<std::int64_t>(static_cast<Wide>(value));
      ASSERT_EQ(truncateToSigned(value), expected) << value;
      ASSERT_EQ(truncateToSigned(-value), -expected) << value;
      ASSERT_EQ(truncateToUnsigned(-value), 0 - static_cast<std::uint64_t>(expected)) << value;
    }
  }
}

TEST(NumberConversion, TextIsPlainDigits) {
  EXPECT_EQ(decimalText(std::uint64_t{0}), "0");
  EXPECT_EQ(decimalText(std::uint64_t{18446744073709551615u}), "18446744073709551615");
  EXPECT_EQ(decimalText(kBit63Alone), "9223372036854775808");
  EXPECT_EQ(decimalText(kLowest), "-9223372036854775808");
  EXPECT_EQ(decimalText(std::numeric_limits<std::int64_t>::max()), "9223372036854775807");
  EXPECT_EQ(decimalText(std::numeric_limits<std::int32_t>::min()), "-2147483648");
  EXPECT_EQ(decimalText(std::int32_t{-1}), "-1");
}

class Grouping : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(NumberConversion, TextIsTheSameInEveryLocale) {
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  EXPECT_EQ(decimalText(std::uint64_t{1234567}), "1234567");
  std::locale::global(before);
}

}  // namespace
}  // namespace mendline
