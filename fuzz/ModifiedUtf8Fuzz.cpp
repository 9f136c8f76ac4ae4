// Any bytes become legal modified UTF-8, by the rule and for good.
#include "gateway/ModifiedUtf8.h"

#include "fuzz/Fuzz.h"
#include "tests/rules/ModifiedUtf8Rule.h"

using namespace mendline;
using namespace mendline::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = textOf(data, size);
  std::string converted = text;
  makeModifiedUtf8(converted);
  require(rules::isModifiedUtf8(converted), "the result is modified UTF-8");
  require(converted == rules::toModifiedUtf8(text), "the result is the rule's");
  require(!rules::isModifiedUtf8(text) || converted == text, "legal text stays as it is");
  std::string again = converted;
  makeModifiedUtf8(again);
  require(again == converted, "a second conversion changes nothing");
  return 0;
}
