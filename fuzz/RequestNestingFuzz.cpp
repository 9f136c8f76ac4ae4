// What the walk says about a request's nesting is what the parser makes of it. The first byte says
// how many levels are put around the rest, since no small input is deep by itself.
#include "gateway/RequestNesting.h"

#include <algorithm>

#include "fuzz/Fuzz.h"
#include "tests/rules/ParserVerdict.h"
#include "tests/rules/Scanner.h"

using namespace mendline;
using namespace mendline::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const int levels = data[0] % 4 == 3 ? 480 + data[0] / 4 : 0;
  std::string text;
  for (int i = 0; i < levels; ++i) {
    text += "<a>";
  }
  text += textOf(data + 1, size - 1);
  for (int i = 0; i < levels; ++i) {
    text += "</a>";
  }
  const std::optional<long> line = lineNestedTooDeeply(text);
  const std::string read = rules::cText(text);
  require(!line || (*line >= 1 && *line <= 1 + std::count(read.begin(), read.end(), '\n')),
          "the line is one of the text's");
  const rules::ParserVerdict parser = rules::parserVerdictOn(text);
  if (parser.depth) {
    require(line.has_value() == (*parser.depth > kDeepestNesting),
            "too deep is what the parser nests deeper than the limit");
  } else {
    require(!line || *line <= parser.lastLine,
            "nothing is too deep behind the place where the parser gives up");
  }
  return 0;
}
