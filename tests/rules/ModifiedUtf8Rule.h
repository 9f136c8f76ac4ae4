// Modified UTF-8 and the conversion into it, by what the bytes stand for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace mendline::rules {

// The character that starts there, when all its bytes are there; length 0: none.
struct Character {
  std::size_t length = 0;
  std::uint32_t value = 0;
};

inline Character characterAt(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t index) -> std::uint32_t {
    return static_cast<unsigned char>(text[index]);
  };
  const std::uint32_t lead = byte(at);
  Character found;
  if (lead < 0x80) {
    return {1, lead};
  }
  if (lead / 32 == 6) {
    found = {2, lead % 32};
  } else if (lead / 16 == 14) {
    found = {3, lead % 16};
  } else if (lead / 8 == 30) {
    found = {4, lead % 8};
  }
  if (found.length == 0 || text.size() - at < found.length) {
    return {};
  }
  for (std::size_t i = 1; i < found.length; ++i) {
    if (byte(at + i) / 64 != 2) {
      return {};
    }
    found.value = found.value * 64 + byte(at + i) % 64;
  }
  return found;
}

inline bool isModifiedUtf8Character(const Character& character) {
  return (character.length == 1 && character.value != 0) ||
         (character.length == 2 && (character.value == 0 || character.value >= 0x80)) ||
         (character.length == 3 && character.value >= 0x800);
}

inline bool isModifiedUtf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const Character character = characterAt(text, at);
    if (!isModifiedUtf8Character(character)) {
      return false;
    }
    at += character.length;
  }
  return true;
}

inline std::string toModifiedUtf8(const std::string& text) {
  const auto threeBytes = [](std::uint32_t value) -> std::string {
    return {static_cast<char>(0xE0 + value / 4096), static_cast<char>(0x80 + value / 64 % 64),
            static_cast<char>(0x80 + value % 64)};
  };
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const Character character = characterAt(text, at);
    if (isModifiedUtf8Character(character)) {
      result += text.substr(at, character.length);
      at += character.length;
    } else if (character.length == 4 && character.value >= 0x10000 && character.value <= 0x10FFFF) {
      result += threeBytes(0xD800 + (character.value - 0x10000) / 1024);
      result += threeBytes(0xDC00 + (character.value - 0x10000) % 1024);
      at += 4;
    } else {
      result += "\xEF\xBF\xBD";
      ++at;
    }
  }
  return result;
}

}  // namespace mendline::rules
