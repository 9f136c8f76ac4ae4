// A look at an answer's text that knows nothing of the parser that the product uses.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Fuzz.h"

namespace mendline::fuzz {

inline constexpr std::string_view kFallback = "<ERROR>Failed to do mendline operation</ERROR>";
inline constexpr std::string_view kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

// Elements within and beside each other, without attributes, every tag closed by its own name; any
// text between them, in which '&' begins one of the known entities. Nothing else.
inline bool isWellFormed(std::string_view text) {
  std::vector<std::string_view> open;
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] == '&') {
      const std::size_t end = text.find(';', at);
      const std::string_view entity =
          text.substr(at, end == std::string_view::npos ? 0 : end - at + 1);
      if (entity != "&amp;" && entity != "&lt;" && entity != "&gt;" && entity != "&quot;" &&
          entity != "&apos;" && entity != "&#32;") {
        return false;
      }
      at = end + 1;
    } else if (text[at] == '<') {
      const std::size_t end = text.find('>', at);
      if (end == std::string_view::npos) {
        return false;
      }
      std::string_view name = text.substr(at + 1, end - at - 1);
      const bool closes = !name.empty() && name.front() == '/';
      const bool isWhole = !name.empty() && name.back() == '/';
      name.remove_prefix(closes ? 1 : 0);
      name.remove_suffix(!closes && isWhole ? 1 : 0);
      if (name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_") !=
              std::string_view::npos ||
          name.empty()) {
        return false;
      }
      if (closes) {
        if (open.empty() || open.back() != name) {
          return false;
        }
        open.pop_back();
      } else if (!isWhole) {
        open.push_back(name);
      }
      at = end + 1;
    } else if (text[at] == '>') {
      return false;
    } else {
      ++at;
    }
  }
  return open.empty();
}

inline bool isAnswer(std::string_view answer) {
  return answer == kFallback || (answer.substr(0, kDeclaration.size()) == kDeclaration &&
                                 isWellFormed(answer.substr(kDeclaration.size())));
}

}  // namespace mendline::fuzz
