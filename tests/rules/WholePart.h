// The whole part of a double as 64 bits, told from the double's own bits.
#pragma once

#include <cstdint>

namespace mendline::rules {

// Negative amounts wrap. Bit 63 alone stands for NaN and for what is too far below zero, 0 for what
// is too great.
inline std::uint64_t wholePart(std::uint64_t bits) {
  constexpr std::uint64_t kBit63 = std::uint64_t{1} << 63;
  const bool negative = bits >> 63 != 0;
  const int exponent = static_cast<int>(bits >> 52 & 0x7ff) - 1023;
  const std::uint64_t fraction = bits & ((std::uint64_t{1} << 52) - 1);
  const std::uint64_t mantissa = fraction | std::uint64_t{1} << 52;
  if (exponent == 1024 && fraction != 0) {
    return kBit63;
  }
  if (exponent < 0) {
    return 0;
  }
  if (exponent >= (negative ? 63 : 64)) {
    return negative ? kBit63 : 0;
  }
  const std::uint64_t amount =
      exponent <= 52 ? mantissa >> (52 - exponent) : mantissa << (exponent - 52);
  return negative ? 0 - amount : amount;
}

// The same in signed numbers: whatever does not fit is the lowest one.
inline std::int64_t signedWholePart(std::uint64_t bits) {
  const bool negative = bits >> 63 != 0;
  const int exponent = static_cast<int>(bits >> 52 & 0x7ff) - 1023;
  return static_cast<std::int64_t>(!negative && exponent >= 63 ? std::uint64_t{1} << 63
                                                               : wholePart(bits));
}

}  // namespace mendline::rules
