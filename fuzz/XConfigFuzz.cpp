// A line of the X configuration file, against the rule by hand.
#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "sources/NvmlWrapper.h"
#include "tests/rules/Scanner.h"

using namespace mendline;
using namespace mendline::fuzz;

namespace {

struct Outcome {
  bool raises = false;
  std::optional<std::string> busId;
};

Outcome byTheRule(const std::string& whole) {
  if (whole.size() < 5 || whole.find("BusID") == std::string::npos) {
    return {};
  }
  std::size_t start = 0;
  std::size_t end = whole.size();
  while (rules::isBlank(whole[start])) {
    ++start;
  }
  while (rules::isBlank(whole[end - 1])) {
    --end;
  }
  const std::string line = whole.substr(start, end - start);
  if (line[0] == '#') {
    return {};
  }
  // Positions of absent quotes are -1; a count below 0 is endless.
  const auto first = static_cast<std::int64_t>(line.find('"'));
  const auto last = static_cast<std::int64_t>(line.rfind('"'));
  const auto length = static_cast<std::int64_t>(line.size());
  const std::int64_t from = first + 5;
  if (from > length) {
    return {true, std::nullopt};
  }
  std::int64_t count = last - first - 5;
  if (count < 0 || from + count > length) {
    count = length - from;
  }
  std::string value(line, static_cast<std::size_t>(from), static_cast<std::size_t>(count));
  if (value.find(':') == std::string::npos) {
    return {true, std::nullopt};
  }
  const std::size_t at = value.rfind('@');
  if (at != std::string::npos) {
    const std::size_t colon = value.find(':');
    // With the ':' before the '@' the domain has a negative length, which is an endless one.
    const std::string domain =
        colon > at ? value.substr(at + 1, colon - at - 1) : value.substr(at + 1);
    value = domain + ":" + value.substr(0, at) + value.substr(colon);
  }
  value[value.rfind(':')] = '.';
  return {false, value};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string line = textOf(data, size);
  line = line.substr(0, line.find('\n'));
  const Outcome wanted = byTheRule(line);
  Outcome actual;
  try {
    actual.busId = busIdOfLine(line);
  } catch (const std::out_of_range&) {
    actual.raises = true;
  }
  require(actual.raises == wanted.raises, "what has no bus id raises");
  require(actual.busId == wanted.busId, "the bus id is the rule's");
  return 0;
}
