// The level word of the environment, and the level word of a request.
#include <stdlib.h>

#include <array>
#include <utility>

#include "fuzz/Fuzz.h"
#include "fuzz/Xml.h"
#include "gateway/MendLineOperation.h"
#include "logging/InternalLogger.h"
#include "tests/rules/Scanner.h"

using namespace mendline;
using namespace mendline::fuzz;

namespace {

int thresholdFor(const std::string& word) {
  const std::array<const char*, 7> words = {"Verbose", "Trace", "Debug", "Info",
                                            "Warn",    "Error", "Faltal"};
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (std::string_view(words[i]).substr(0, word.size()) == word) {
      return static_cast<int>(i) + 1;
    }
  }
  return 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static_cast<void>(host());
  const std::string word = rules::cText(textOf(data, size));
  setenv("TARNHOST_MENDLINE_LOGLEVEL", word.c_str(), 1);
  InternalLogger logger;
  require(logger.threshold() == thresholdFor(word), "the threshold is the first word's it begins");
  logger.close();

  SetLogThreshold(LogLevel::Warn);
  std::string answer;
  handleRequest("<MendlineOperation><opcode>SetLogLevel</opcode><loglevel><![CDATA[" + word +
                    "]]></loglevel></MendlineOperation>",
                answer);
  const std::array<std::string_view, 4> known = {"VERBOSE", "TRACE", "DEBUG", "INFO"};
  int wanted = LogLevel::Warn;
  for (std::size_t i = 0; i < known.size(); ++i) {
    wanted = word == known[i] ? static_cast<int>(i) + 1 : wanted;
  }
  if (word.find("]]>") == std::string::npos) {
    require(GetLogThreshold() == wanted, "a request sets the level that its word names");
  }
  require(GetLogThreshold() >= LogLevel::Verbose && GetLogThreshold() <= LogLevel::Faltal,
          "the threshold is a level");
  require(isAnswer(answer), "the answer is well-formed");
  return 0;
}
