// The command line of an X server, against the rule by hand.
#include "collector/SessionDiscovery.h"

#include "fuzz/Fuzz.h"

using namespace mendline;
using namespace mendline::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line = textOf(data, size);
  std::string wanted;
  if (line.find("tarnhost") != std::string::npos) {
    std::size_t start = 0;
    while (start < line.size() && line[start] != ':') {
      ++start;
    }
    if (start == line.size()) {
      wanted = line;
    } else {
      for (std::size_t at = start + 1; at < line.size() && line[at] != '\0'; ++at) {
        wanted += line[at];
      }
    }
  }
  require(displayOfCommandLine(line) == wanted, "the display text is the rule's");
  return 0;
}
