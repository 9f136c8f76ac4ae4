#include "gateway/RequestNesting.h"

#include <algorithm>
#include <string_view>

namespace mendline {
namespace {

constexpr std::string_view kBlanks = " \n\r\t";
constexpr std::string_view kEndOfName = " \n\r\t/>?";
constexpr std::string_view kEndOfAttributeName = " \n\r\t/<>=?!";

// Walks over a request as the parser does. Where that would complain, the walk ends: the parser
// gets no further either.
class Walk {
 public:
  explicit Walk(std::string_view text) : text_(text), rest_(text) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    static_cast<void>(skip(kByteOrderMark));
  }

  bool goesTooDeep() {
    while (toNextTag()) {
      if (depth_ > 0 && skip("/")) {
        if (!endElement()) {
          return false;
        }
      } else if (rest_.starts_with('!') || rest_.starts_with('?')) {
        if (!skipWhatIsNoElement()) {
          return false;
        }
      } else {
        if (!hasName()) {
          return false;
        }
        // An element without content takes up a level, too.
        if (depth_ == kDeepestNesting) {
          return true;
        }
        if (!beginElement()) {
          return false;
        }
      }
    }
    return false;
  }

  long line() const {
    return 1 + std::count(text_.begin(), text_.end() - static_cast<long>(rest_.size()), '\n');
  }

 private:
  bool skip(std::string_view expected) {
    if (!rest_.starts_with(expected)) {
      return false;
    }
    rest_.remove_prefix(expected.size());
    return true;
  }

  // Skips to the first of the characters, or to the end.
  void skipTo(std::string_view characters) {
    rest_.remove_prefix(std::min(rest_.find_first_of(characters), rest_.size()));
  }

  void skipBlanks() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(kBlanks), rest_.size()));
  }

  // Skips to behind the text; false where it does not come.
  bool skipBehind(std::string_view expected) {
    const std::size_t position = rest_.find(expected);
    if (position == std::string_view::npos) {
      return false;
    }
    rest_.remove_prefix(position + expected.size());
    return true;
  }

  // To behind the next "<"; outside the root only blanks may be in front of it.
  bool toNextTag() {
    if (depth_ == 0) {
      skipBlanks();
    } else {
      skipTo("<");
    }
    return skip("<");
  }

  bool endElement() {
    skipTo(kEndOfName);
    skipBlanks();
    --depth_;
    return skip(">");
  }

  bool hasName() const {
    return !rest_.empty() && kEndOfName.find(rest_.front()) == std::string_view::npos;
  }

  bool beginElement() {
    skipTo(kEndOfName);
    skipBlanks();
    if (!skipAttributes()) {
      return false;
    }
    if (skip("/")) {
      return skip(">");
    }
    ++depth_;
    return skip(">");
  }

  bool skipAttributes() {
    while (!rest_.empty() && kEndOfAttributeName.find(rest_.front()) == std::string_view::npos) {
      skipTo(kEndOfAttributeName);
      skipBlanks();
      if (!skip("=")) {
        return false;
      }
      skipBlanks();
      if (!rest_.starts_with('\'') && !rest_.starts_with('"')) {
        return false;
      }
      const std::string_view quote = rest_.substr(0, 1);
      rest_.remove_prefix(1);
      if (!skipBehind(quote)) {
        return false;
      }
      skipBlanks();
    }
    return true;
  }

  bool skipWhatIsNoElement() {
    constexpr std::string_view kDoctype = "!DOCTYPE";
    if (skip("?")) {
      return skipBehind("?>");
    }
    if (skip("!--")) {
      return skipBehind("-->");
    }
    if (skip("![CDATA[")) {
      return skipBehind("]]>");
    }
    if (rest_.starts_with(kDoctype) && rest_.size() > kDoctype.size() &&
        kBlanks.find(rest_[kDoctype.size()]) != std::string_view::npos) {
      return skipDoctype();
    }
    return skipBehind(">");
  }

  // To behind the first ">" outside all brackets.
  bool skipDoctype() {
    int brackets = 0;
    for (; !rest_.empty(); rest_.remove_prefix(1)) {
      const char character = rest_.front();
      if (character == '>' && brackets == 0) {
        rest_.remove_prefix(1);
        return true;
      }
      if (character == '[') {
        ++brackets;
      } else if (character == ']' && brackets > 0) {
        --brackets;
      }
    }
    return false;
  }

  std::string_view text_;
  std::string_view rest_;
  int depth_ = 0;
};

}  // namespace

std::optional<long> lineNestedTooDeeply(const std::string& request) {
  // No element takes less than its "<a>", so most requests need no walk.
  constexpr std::size_t kShortestElement = 3;
  if (request.size() < kDeepestNesting * kShortestElement) {
    return std::nullopt;
  }
  Walk walk(request.c_str());
  if (!walk.goesTooDeep()) {
    return std::nullopt;
  }
  return walk.line();
}

}  // namespace mendline
