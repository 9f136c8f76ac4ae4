// Numbers as the kernel writes them into its text files: plain digits with blanks before them.
//
// Pure functions. They are here because a tick takes some sixty numbers for each process, for which
// sscanf needs more instructions than all system calls together. They know the kernel's own form
// only and refuse everything else; the caller then asks sscanf, so that signs, white space and
// overflow mean what they always meant.
#pragma once

#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>

namespace mendline {

// What isspace takes for white space in every locale of a desktop.
inline bool isWhiteSpace(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

inline bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

// Takes the number that begins at `at` and moves `at` behind it. False, with `number` unchanged and
// `at` anywhere, where there is none, or one that `Number` can't hold.
template <typename Number>
bool takeDigits(const char*& at, Number& number) {
  const char* const begin = at;
  if (std::numeric_limits<Number>::is_signed && *at == '-') {
    ++at;
  }
  const char* const digits = at;
  // May wrap around; then it is not used.
  std::uint64_t value = 0;
  for (; isDigit(*at); ++at) {
    value = value * 10 + static_cast<std::uint64_t>(*at - '0');
  }
  if (at - digits > std::numeric_limits<Number>::digits10) {
    // Perhaps too many digits.
    return std::from_chars(begin, at, number).ec == std::errc();
  }
  if (at == digits) {
    return false;
  }
  number = static_cast<Number>(digits == begin ? value : 0 - value);
  return true;
}

// The same for a number with one blank or more before it.
template <typename Number>
bool takeNumber(const char*& at, Number& number) {
  if (*at != ' ') {
    return false;
  }
  while (*at == ' ') {
    ++at;
  }
  return takeDigits(at, number);
}

// Takes one number after the other.
template <typename... Numbers>
bool takeNumbers(const char*& at, Numbers&... numbers) {
  return (takeNumber(at, numbers) && ...);
}

}  // namespace mendline
