#include "gateway/ModifiedUtf8.h"

#include <cstddef>
#include <string_view>
#include <utility>

namespace mendline {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

unsigned byteAt(std::string_view text, std::size_t position) {
  return position < text.size() ? static_cast<unsigned char>(text[position]) : 0;
}

bool isContinuation(unsigned byte) {
  return (byte & 0xC0U) == 0x80U;
}

// The length of the legal sequence at `position`, 0 where there is none.
std::size_t legalLength(std::string_view text, std::size_t position) {
  const unsigned first = byteAt(text, position);
  const unsigned second = byteAt(text, position + 1);
  if (first >= 0x01 && first <= 0x7F) {
    return 1;
  }
  // Only the two bytes that stand for U+0000 may be longer than need be.
  if ((first >= 0xC2 && first <= 0xDF && isContinuation(second)) ||
      (first == 0xC0 && second == 0x80)) {
    return 2;
  }
  // Surrogates, in pairs or alone, are characters like any other here.
  const unsigned lowestSecond = first == 0xE0 ? 0xA0 : 0x80;
  if (first >= 0xE0 && first <= 0xEF && isContinuation(second) && second >= lowestSecond &&
      isContinuation(byteAt(text, position + 2))) {
    return 3;
  }
  return 0;
}

bool isFourByteSequence(std::string_view text, std::size_t position) {
  const unsigned first = byteAt(text, position);
  const unsigned second = byteAt(text, position + 1);
  const unsigned lowestSecond = first == 0xF0 ? 0x90 : 0x80;   // else it is longer than need be
  const unsigned highestSecond = first == 0xF4 ? 0x8F : 0xBF;  // else it is beyond U+10FFFF
  return first >= 0xF0 && first <= 0xF4 && second >= lowestSecond && second <= highestSecond &&
         isContinuation(byteAt(text, position + 2)) && isContinuation(byteAt(text, position + 3));
}

void appendThreeBytes(std::string& text, unsigned unit) {
  text += static_cast<char>(0xE0U | (unit >> 12U));
  text += static_cast<char>(0x80U | ((unit >> 6U) & 0x3FU));
  text += static_cast<char>(0x80U | (unit & 0x3FU));
}

void appendSurrogates(std::string& text, std::string_view sequence) {
  const unsigned character = ((byteAt(sequence, 0) & 0x07U) << 18U) |
                             ((byteAt(sequence, 1) & 0x3FU) << 12U) |
                             ((byteAt(sequence, 2) & 0x3FU) << 6U) | (byteAt(sequence, 3) & 0x3FU);
  const unsigned beyond = character - 0x10000U;
  appendThreeBytes(text, 0xD800U + (beyond >> 10U));
  appendThreeBytes(text, 0xDC00U + (beyond & 0x3FFU));
}

std::size_t legalPrefix(std::string_view text) {
  std::size_t position = 0;
  while (const std::size_t length = legalLength(text, position)) {
    position += length;
  }
  return position;
}

}  // namespace

void makeModifiedUtf8(std::string& text) {
  // Nearly every answer is legal as it is, and then nothing is copied.
  std::size_t position = legalPrefix(text);
  if (position == text.size()) {
    return;
  }
  std::string legal(text, 0, position);
  while (position < text.size()) {
    if (const std::size_t length = legalLength(text, position); length > 0) {
      legal.append(text, position, length);
      position += length;
    } else if (isFourByteSequence(text, position)) {
      appendSurrogates(legal, std::string_view(text).substr(position, 4));
      position += 4;
    } else {
      legal += kReplacement;
      ++position;
    }
  }
  text = std::move(legal);
}

}  // namespace mendline
