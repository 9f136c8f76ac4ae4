// The reading rules of the C library's scans and of streams, written down once more, so that tests
// and fuzz programs can compare the product with them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace mendline::rules {

// Up to its first zero byte, as a C string is read.
inline std::string cText(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

// White space of the C locale.
inline bool isBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

inline bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

// Takes a text apart from its start on; every function stops at the first thing that does not fit.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  void skipBlanks() {
    while (!rest_.empty() && isBlank(rest_.front())) {
      rest_.remove_prefix(1);
    }
  }

  std::optional<char> character() {
    if (rest_.empty()) {
      return std::nullopt;
    }
    const char first = rest_.front();
    rest_.remove_prefix(1);
    return first;
  }

  // Characters up to the next blank; nothing at the end of the text.
  std::optional<std::string> word() {
    skipBlanks();
    std::size_t length = 0;
    while (length < rest_.size() && !isBlank(rest_[length])) {
      ++length;
    }
    if (length == 0) {
      return std::nullopt;
    }
    std::string text(rest_.substr(0, length));
    rest_.remove_prefix(length);
    return text;
  }

  // A decimal number behind blanks and perhaps a sign.
  struct Number {
    bool negative = false;
    bool fits = true;  // its amount needs no more than 64 bits
    std::uint64_t amount = 0;

    std::uint64_t wrapped() const { return negative ? 0 - amount : amount; }
    bool isWithin(std::int64_t lowest, std::uint64_t highest) const {
      if (!negative || amount == 0) {
        return fits && amount <= highest;
      }
      return fits && lowest < 0 && amount - 1 <= static_cast<std::uint64_t>(-(lowest + 1));
    }
  };

  std::optional<Number> number() {
    skipBlanks();
    Number result;
    std::size_t length = 0;
    if (!rest_.empty() && (rest_[0] == '-' || rest_[0] == '+')) {
      result.negative = rest_[0] == '-';
      length = 1;
    }
    const std::size_t start = length;
    for (; length < rest_.size() && isDigit(rest_[length]); ++length) {
      const auto digit = static_cast<std::uint64_t>(rest_[length] - '0');
      const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
      result.fits = result.fits && result.amount <= (most - digit) / 10;
      result.amount = result.amount * 10 + digit;
    }
    if (length == start) {
      return std::nullopt;
    }
    rest_.remove_prefix(length);
    return result;
  }

  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace mendline::rules
