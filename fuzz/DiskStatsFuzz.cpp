// The lines of /proc/diskstats, against the reading rule by hand.
#include "fuzz/Fuzz.h"
#include "tests/rules/ProcLines.h"

using namespace mendline;
using namespace mendline::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  requireNone(rules::brokenRuleOfLines(textOf(data, size), rules::DiskLines()));
  return 0;
}
