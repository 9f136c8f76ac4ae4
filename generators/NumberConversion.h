// Figures as whole numbers, and whole numbers as text: the one rule of every report.
//
// Pure functions, callable from any thread.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace mendline {

inline constexpr double kTwoToThe63rd = 9223372036854775808.0;

// Cuts the fraction off. What does not fit, NaN included, gives the number with only bit 63 set:
// what x86-64's own conversion gives, here on every machine and without undefined behaviour.
inline std::int64_t truncateToSigned(double value) {
  if (!(value >= -kTwoToThe63rd && value < kTwoToThe63rd)) {
    return std::numeric_limits<std::int64_t>::min();
  }
  return static_cast<std::int64_t>(value);
}

// Cuts the fraction off and covers the whole unsigned range. Required: there is no clamping; a
// negative value wraps, NaN gives 9223372036854775808 and infinity 0. Pinned by
// NumberConversion.*.
inline std::uint64_t truncateToUnsigned(double value) {
  constexpr std::uint64_t kBit63 = std::uint64_t{1} << 63;
  if (value >= kTwoToThe63rd) {
    return static_cast<std::uint64_t>(truncateToSigned(value - kTwoToThe63rd)) ^ kBit63;
  }
  return static_cast<std::uint64_t>(truncateToSigned(value));
}

// Plain decimal digits. Not through a stream: the text never depends on the process's locale.
template <typename Integer>
std::string decimalText(Integer value) {
  constexpr std::size_t kLongest = std::numeric_limits<std::uint64_t>::digits10 + 2;
  char digits[kLongest];
  char* const end = std::to_chars(digits, digits + kLongest, value).ptr;
  return {digits, end};
}

}  // namespace mendline
