// A line of /proc/<pid>/stat, against the reading rule by hand.
#include "fuzz/Fuzz.h"
#include "tests/rules/ProcLines.h"

using namespace mendline;
using namespace mendline::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static_cast<void>(host());
  requireNone(rules::brokenStatRule(rules::cText(textOf(data, size))));
  return 0;
}
