// Asking for the log level and changing it while the library runs.
#include "gateway/LogLevelOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "PrivateHost.h"
#include "Program.h"
#include "gateway/MendLineOperation.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

constexpr const char* kTag = "MendLineOperation";
const LogTag kOtherTag("Other");

// The top-level elements of an answer, as name and text.
std::vector<std::pair<std::string, std::string>> elementsOf(const ptree& answer) {
  std::vector<std::pair<std::string, std::string>> elements;
  for (const auto& [name, element] : answer) {
    EXPECT_TRUE(element.empty()) << name;
    elements.emplace_back(name, element.data());
  }
  return elements;
}

class LogLevelOperations : public testing::Test {
 protected:
  static ptree get() {
    ptree answer;
    getLogLevel(ptree(), answer);
    return answer;
  }

  static ptree set(const std::string& word) {
    ptree request;
    request.put("MendlineOperation.loglevel", word);
    ptree answer;
    setLogLevel(request, answer);
    return answer;
  }

  static std::string answerTo(const std::string& request) {
    std::string answer;
    handleRequest(request, answer);
    return answer;
  }

  // Level, tag and message of every record, in their order.
  std::vector<std::string> records() {
    std::vector<std::string> texts;
    for (const rig::LogRecord& record : host.log().records()) {
      texts.push_back(record.level + " [" + record.tag + "] " + record.message);
    }
    return texts;
  }

  rig::PrivateHost host;
};

constexpr std::array<std::pair<const char*, std::int32_t>, 4> kWords = {
    {{"VERBOSE", 1}, {"TRACE", 2}, {"DEBUG", 3}, {"INFO", 4}}};

TEST_F(LogLevelOperations, GetAnswersTheWordOfEachOfTheFourLevelsAndLogsNothing) {
  for (const auto& [word, level] : kWords) {
    SetLogThreshold(level);
    EXPECT_THAT(elementsOf(get()), ElementsAre(Pair("LOGLEVEL", word)));
    EXPECT_EQ(GetLogThreshold(), level);
  }
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(LogLevelOperations, GetAnswersInfoForAThresholdOfWarnAndLogsTheWarning) {
  SetLogThreshold(LogLevel::Warn);
  EXPECT_THAT(elementsOf(get()), ElementsAre(Pair("LOGLEVEL", "INFO")));
  EXPECT_THAT(records(),
              ElementsAre("Warn [MendLineOperation] No matched loglevel found for GetLogLevel"));
  EXPECT_EQ(GetLogThreshold(), 5);
}

TEST_F(LogLevelOperations, GetAnswersInfoForHigherThresholdsWhichDropTheWarning) {
  for (const std::int32_t level : {LogLevel::Error, LogLevel::Faltal}) {
    SetLogThreshold(level);
    EXPECT_THAT(elementsOf(get()), ElementsAre(Pair("LOGLEVEL", "INFO")));
    EXPECT_EQ(GetLogThreshold(), level);
  }
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(LogLevelOperations, GetReadsNothingOfItsRequest) {
  SetLogThreshold(LogLevel::Trace);
  ptree request;
  request.put("MendlineOperation.loglevel", "VERBOSE");
  ptree answer;
  getLogLevel(request, answer);
  EXPECT_THAT(elementsOf(answer), ElementsAre(Pair("LOGLEVEL", "TRACE")));
}

TEST_F(LogLevelOperations, SetTakesTheFourWordsAndLogsTheChange) {
  std::vector<std::string> expected;
  for (const auto& [word, level] : kWords) {
    for (std::int32_t before = 1; before <= 7; ++before) {
      SetLogThreshold(before);
      EXPECT_THAT(elementsOf(set(word)), ElementsAre(Pair("INFO", "Succeed to set loglevel")));
      EXPECT_EQ(GetLogThreshold(), level) << "from " << before;
      expected.push_back("Info [MendLineOperation] Change log level to " + std::string(word));
    }
  }
  // The new level decides on the line, so that none is ever dropped.
  EXPECT_EQ(records(), expected);
}

TEST_F(LogLevelOperations, SetRefusesEveryOtherWordAndLeavesTheLevel) {
  for (const std::int32_t before : {LogLevel::Trace, LogLevel::Error}) {
    SetLogThreshold(before);
    for (const char* word :
         {"WARN",   "ERROR",   "FALTAL",  "FATAL", "Debug",   "debug", "Info",     "info",
          "Trace",  "Verbose", "verbose", "INF",   "INFOO",   "I",     "V",        "D",
          " INFO",  "INFO ",   "INFO\n",  "4",     "DEBUG x", "",      " ",        "VERBOSETRACE",
          "%s%n%d", "TRACe",   "DEBU",    "TRAC",  "VERBOS",  "XINFO", "J\xC3\xA9"}) {
      host.log().clear();
      const std::string text = word;
      EXPECT_THAT(elementsOf(set(text)), ElementsAre(Pair("ERROR", "Invalid loglevel " + text)));
      EXPECT_EQ(GetLogThreshold(), before) << text;
      if (text.find('\n') == std::string::npos) {
        EXPECT_THAT(records(), ElementsAre("Error [MendLineOperation] Invalid loglevel " + text +
                                           " at SetLogLevel"));
      }
    }
  }
}

TEST_F(LogLevelOperations, SetComparesTheWholeWord) {
  SetLogThreshold(LogLevel::Trace);
  const std::string word("INFO\0", 5);
  EXPECT_THAT(elementsOf(set(word)), ElementsAre(Pair("ERROR", "Invalid loglevel " + word)));
  EXPECT_EQ(GetLogThreshold(), 2);
}

TEST_F(LogLevelOperations, SetTakesAMissingWordForAnEmptyOne) {
  SetLogThreshold(LogLevel::Info);
  for (const char* path :
       {"MendlineOperation.opcode", "loglevel", "Other.loglevel", "MendlineOperation.LOGLEVEL"}) {
    host.log().clear();
    ptree request;
    request.put(path, "TRACE");
    ptree answer;
    setLogLevel(request, answer);
    EXPECT_THAT(elementsOf(answer), ElementsAre(Pair("ERROR", "Invalid loglevel ")));
    EXPECT_THAT(records(),
                ElementsAre("Error [MendLineOperation] Invalid loglevel  at SetLogLevel"));
  }
  EXPECT_EQ(GetLogThreshold(), 4);
}

TEST_F(LogLevelOperations, SetAnswersTheSameWhenTheLogIsSilent) {
  SetLogThreshold(LogLevel::Faltal);
  EXPECT_THAT(elementsOf(set("WARN")), ElementsAre(Pair("ERROR", "Invalid loglevel WARN")));
  EXPECT_EQ(GetLogThreshold(), 7);
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(LogLevelOperations, SetEchoesALongWordWhole) {
  const std::string word(100000, 'x');
  EXPECT_THAT(elementsOf(set(word)), ElementsAre(Pair("ERROR", "Invalid loglevel " + word)));
}

TEST_F(LogLevelOperations, SetActsAtOnceForAllThreadsAndTags) {
  set("DEBUG");
  LogDebug(&kOtherTag, "one");
  std::thread([] { LogDebug(&kOtherTag, "two"); }).join();
  set("INFO");
  LogDebug(&kOtherTag, "three");
  std::thread([] {
    LogDebug(&kOtherTag, "four");
    set("TRACE");
  }).join();
  LogTrace(&kOtherTag, "five");
  EXPECT_TRUE(host.log().has("Debug", "Other", "one"));
  EXPECT_TRUE(host.log().has("Debug", "Other", "two"));
  EXPECT_TRUE(host.log().hasNot("Debug", "Other", "three"));
  EXPECT_TRUE(host.log().hasNot("Debug", "Other", "four"));
  EXPECT_TRUE(host.log().has("Trace", "Other", "five"));
}

TEST_F(LogLevelOperations, SetChangesNothingForTheNextLoad) {
  setenv("TARNHOST_MENDLINE_LOGLEVEL", "Trace", 1);
  set("INFO");
  EXPECT_STREQ(getenv("TARNHOST_MENDLINE_LOGLEVEL"), "Trace");
  const rig::Run run =
      host.program({REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY})
          .withInput("<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>\n")
          .run();
  EXPECT_THAT(run.output, HasSubstr("<LOGLEVEL>TRACE</LOGLEVEL>"));
}

TEST_F(LogLevelOperations, AnswerInXml) {
  SetLogThreshold(LogLevel::Info);
  const std::string declaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode>"
                     "<loglevel>TRACE</loglevel></MendlineOperation>"),
            declaration + "<INFO>Succeed to set loglevel</INFO>");
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>"),
            declaration + "<LOGLEVEL>TRACE</LOGLEVEL>");
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode>"
                     "<loglevel>XYZ</loglevel></MendlineOperation>"),
            declaration + "<ERROR>Invalid loglevel XYZ</ERROR>");
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode></MendlineOperation>"),
            declaration + "<ERROR>Invalid loglevel </ERROR>");
}

TEST_F(LogLevelOperations, EchoReservedCharactersAsEntities) {
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode>"
                     "<loglevel>&lt;a&gt; &amp; &quot;b&quot; &apos;c&apos; &#65;&#xe9;</loglevel>"
                     "</MendlineOperation>"),
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<ERROR>Invalid loglevel &lt;a&gt; &amp; &quot;b&quot; &apos;c&apos; A\xC3\xA9"
            "</ERROR>");
  // The log gets the word itself.
  EXPECT_TRUE(
      host.log().has("Error", kTag, "Invalid loglevel <a> & \"b\" 'c' A\xC3\xA9 at SetLogLevel"));
}

TEST_F(LogLevelOperations, LeaveAThresholdOfWarnFromTheEnvironmentInForce) {
  const rig::Run run =
      host.program({REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY})
          .withEnvironment("TARNHOST_MENDLINE_LOGLEVEL", "Warn")
          .withInput(
              "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>\n"
              "<MendlineOperation><opcode>StopCollector</opcode></MendlineOperation>\n"
              "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>\n"
              "<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>INFO</loglevel>"
              "</MendlineOperation>\n"
              "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>\n")
          .run();
  const std::string info = R"(<?xml version="1.0" encoding="utf-8"?>\n<LOGLEVEL>INFO</LOGLEVEL>)";
  const std::vector<std::string> lines = run.outputLines();
  ASSERT_EQ(lines.size(), 5u) << run.errors;
  EXPECT_EQ(lines[0], info);
  EXPECT_EQ(lines[2], info);
  EXPECT_EQ(lines[4], info);
  const std::string warning = "Warn [MendLineOperation] No matched loglevel found for GetLogLevel";
  EXPECT_THAT(records(),
              ElementsAre(warning, warning, "Info [MendLineOperation] Change log level to INFO"));
}

}  // namespace
}  // namespace mendline
