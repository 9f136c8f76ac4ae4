// From the text of a request to the text of its answer, and from an opcode to its operation.
#include "gateway/MendLineOperation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FakeJvm.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "Worker.h"
#include "collector/CollectorControl.h"
#include "logging/InternalLogger.h"

// Only its address is used here.
extern "C" void
Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest();

namespace {

// How many more allocations of this thread succeed before one fails; negative: all of them.
thread_local long allocationsLeft = -1;

}  // namespace

// Not inlined: the compiler would take one of a pair for the mate of malloc or free.
[[gnu::noinline]] void* operator new(std::size_t size) {
  const bool fails = allocationsLeft == 0;
  if (allocationsLeft >= 0) {
    --allocationsLeft;
  }
  void* memory = fails ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace mendline {
namespace {

using boost::property_tree::ptree;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

constexpr const char* kTag = "MendLineOperation";
constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
constexpr const char* kFallback = "<ERROR>Failed to do mendline operation</ERROR>";
constexpr const char* kGetLogLevel =
    "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>";

std::string inEnvelope(const std::string& element) {
  return kDeclaration + element;
}

const std::string kInvalid = inEnvelope("<ERROR>Invalid mendline opcode</ERROR>");
const std::string kInfoLevel = inEnvelope("<LOGLEVEL>INFO</LOGLEVEL>");

// The top-level elements of an answer, as name and text.
std::vector<std::pair<std::string, std::string>> elementsOf(const ptree& answer) {
  std::vector<std::pair<std::string, std::string>> elements;
  for (const auto& [name, element] : answer) {
    elements.emplace_back(name, element.data());
  }
  return elements;
}

class GatewayHost : public testing::Test {
 protected:
  // Level, tag and message of every record, in their order.
  std::vector<std::string> records() {
    std::vector<std::string> texts;
    for (const rig::LogRecord& record : host.log().records()) {
      texts.push_back(record.wellFormed() ? record.level + " [" + record.tag + "] " + record.message
                                          : record.message);
    }
    return texts;
  }

  rig::PrivateHost host;
};

// --- handleRequest -----------------------------------------------------------------------------

class HandleRequest : public GatewayHost {
 protected:
  void SetUp() override { SetLogThreshold(LogLevel::Info); }

  static std::string answerTo(const std::string& request) {
    std::string answer;
    handleRequest(request, answer);
    return answer;
  }
};

TEST_F(HandleRequest, AnswersWithTheDeclarationAndTheOperationsElement) {
  EXPECT_EQ(answerTo(kGetLogLevel),
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<LOGLEVEL>INFO</LOGLEVEL>");
}

TEST_F(HandleRequest, TakesADeclarationOfTheRequest) {
  EXPECT_EQ(answerTo(std::string("<?xml version=\"1.0\"?>") + kGetLogLevel), kInfoLevel);
  EXPECT_EQ(
      answerTo(std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n") + kGetLogLevel + "\n"),
      kInfoLevel);
}

TEST_F(HandleRequest, ReplacesWhatTheAnswerHeld) {
  std::string answer = "from before";
  handleRequest(kGetLogLevel, answer);
  EXPECT_EQ(answer, kInfoLevel);
  handleRequest("no xml", answer);
  EXPECT_EQ(answer, kFallback);
}

TEST_F(HandleRequest, TakesAnEmptyRequestForOneWithoutAnOpcode) {
  for (const char* request : {"", " ", "\n", " \t\r\n  ", "\xEF\xBB\xBF", "\xEF\xBB\xBF \n"}) {
    EXPECT_EQ(answerTo(request), kInvalid) << request;
  }
  EXPECT_TRUE(host.log().hasNot("Error", ""));
}

TEST_F(HandleRequest, TakesWhiteSpaceAndAByteOrderMarkBeforeTheRequest) {
  for (const char* before : {" ", "\n\t ", "\xEF\xBB\xBF", "\xEF\xBB\xBF\n "}) {
    EXPECT_EQ(answerTo(before + std::string(kGetLogLevel)), kInfoLevel) << before;
  }
}

TEST_F(HandleRequest, FallsBackForTextThatDoesNotStartAnElement) {
  for (const char* request :
       {"x", "no xml", " \n x", "\xEF\xBB\xBFx", "\xEF\xBB\xBF x", "&lt;", ">",
        "x<MendlineOperation/>", "<MendlineOperation/>x",
        "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>x",
        " \xEF\xBB\xBF<MendlineOperation/>"}) {
    EXPECT_EQ(answerTo(request), "<ERROR>Failed to do mendline operation</ERROR>") << request;
  }
}

TEST_F(HandleRequest, FallsBackForAnUnterminatedRequest) {
  const std::string request = kGetLogLevel;
  for (std::size_t length = 1; length < request.size(); ++length) {
    EXPECT_EQ(answerTo(request.substr(0, length)), kFallback) << length;
  }
}

TEST_F(HandleRequest, FallsBackForOtherBrokenXml) {
  for (const char* request : {"<",
                              "< a/>",
                              "<>",
                              "</a>",
                              "<a",
                              "<a/",
                              "<a / >",
                              "<a><b></a>",
                              "<a b></a>",
                              "<a b=></a>",
                              "<a b=c/>",
                              "<a b=\"c/>",
                              "<a b='c\"/>",
                              "<a>&#xZZ;</a>",
                              "<a>&#65</a>",
                              "<!-- x",
                              "<![CDATA[x",
                              "<?xml version=\"1.0\"",
                              "<a><![CDATA[x]]></a",
                              "<!DOCTYPE a"}) {
    EXPECT_EQ(answerTo(request), kFallback) << request;
  }
}

// Whether a closing tag's name is looked at is the parser's business, as it comes without flags.
TEST_F(HandleRequest, TakesTheParsersWordOnMismatchedTags) {
  for (const char* request :
       {"<MendlineOperation><opcode>GetLogLevel</other></MendlineOperation>",
        "<MendlineOperation><opcode>GetLogLevel</opcode></other>",
        "<MendlineOperation><opcode>GetLogLevel</MendlineOperation></opcode>",
        "<MendlineOperation><opcode>GetLogLevel</MendlineOperation>", "<a></b></a>"}) {
    std::string expected = kFallback;
    try {
      std::istringstream stream(request);
      ptree tree;
      boost::property_tree::read_xml(stream, tree, 0);
      expected = tree.get("MendlineOperation.opcode", "") == "GetLogLevel" ? kInfoLevel : kInvalid;
    } catch (const boost::property_tree::xml_parser_error&) {
    }
    EXPECT_EQ(answerTo(request), expected) << request;
  }
}

TEST_F(HandleRequest, DoesNotTrimValues) {
  for (const char* opcode :
       {" GetLogLevel ", " GetLogLevel", "GetLogLevel ", "\nGetLogLevel\n", "&#32;GetLogLevel"}) {
    EXPECT_EQ(answerTo("<MendlineOperation><opcode>" + std::string(opcode) +
                       "</opcode></MendlineOperation>"),
              kInvalid)
        << opcode;
  }
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>  A \n B </loglevel>"
                     "</MendlineOperation>"),
            inEnvelope("<ERROR>Invalid loglevel   A \n B </ERROR>"));
}

TEST_F(HandleRequest, PutsTheTextPiecesOfAValueTogether) {
  for (const char* opcode :
       {"Get<!-- x -->LogLevel", "<!-- x -->GetLogLevel<!-- y -->", "<![CDATA[GetLogLevel]]>",
        "Get<![CDATA[Log]]>Level", "<![CDATA[Get]]><![CDATA[LogLevel]]>", "Get<x/>LogLevel",
        "Get<x>Set</x>LogLevel", "Get<?pi x?>LogLevel"}) {
    EXPECT_EQ(answerTo("<MendlineOperation><opcode>" + std::string(opcode) +
                       "</opcode></MendlineOperation>"),
              kInfoLevel)
        << opcode;
  }
}

TEST_F(HandleRequest, KeepsCommentsApart) {
  EXPECT_EQ(answerTo("<!-- a --><MendlineOperation><!-- <opcode>SetLogLevel</opcode> -->"
                     "<opcode>GetLogLevel</opcode><!-- b --></MendlineOperation><!-- c -->"),
            kInfoLevel);
  EXPECT_EQ(
      answerTo("<MendlineOperation><!-- <opcode>GetLogLevel</opcode> --></MendlineOperation>"),
      kInvalid);
}

TEST_F(HandleRequest, DecodesEntities) {
  EXPECT_EQ(
      answerTo("<MendlineOperation><opcode>Get&#76;og&#x4C;evel</opcode></MendlineOperation>"),
      kInfoLevel);
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>"
                     "&lt;&amp;amp;&gt;&quot;&apos;&unknown;<![CDATA[<&amp;>]]></loglevel>"
                     "</MendlineOperation>"),
            inEnvelope("<ERROR>Invalid loglevel &lt;&amp;amp;&gt;&quot;&apos;&amp;unknown;"
                       "&lt;&amp;amp;&gt;</ERROR>"));
}

TEST_F(HandleRequest, DoesNotReadAttributes) {
  EXPECT_EQ(answerTo("<MendlineOperation opcode=\"GetLogLevel\"/>"), kInvalid);
  EXPECT_EQ(answerTo("<MendlineOperation><opcode value=\"GetLogLevel\"/></MendlineOperation>"),
            kInvalid);
  EXPECT_EQ(answerTo("<MendlineOperation opcode=\"SetLogLevel\" x='y'><opcode loglevel=\"z\">"
                     "GetLogLevel</opcode></MendlineOperation>"),
            kInfoLevel);
}

TEST_F(HandleRequest, IgnoresTheOrderAndWhatNoOperationAsksFor) {
  EXPECT_EQ(answerTo("<other/>\n<MendlineOperation>\n  text <unknown><opcode>x</opcode></unknown>\n"
                     "  <loglevel>INFO</loglevel>\n  <opcode>SetLogLevel</opcode>\n"
                     "</MendlineOperation>\n<other>x</other>"),
            inEnvelope("<INFO>Succeed to set loglevel</INFO>"));
}

TEST_F(HandleRequest, DoesNotMindARepeatedParameter) {
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode><opcode>SetLogLevel</opcode>"
                     "<loglevel>INFO</loglevel><loglevel>TRACE</loglevel></MendlineOperation>"),
            inEnvelope("<INFO>Succeed to set loglevel</INFO>"));
}

TEST_F(HandleRequest, AnswersInvalidWithoutAnOpcodeWhereItBelongs) {
  for (const char* request :
       {"<MendlineOperation/>", "<MendlineOperation></MendlineOperation>",
        "<MendlineOperation><opcode/></MendlineOperation>",
        "<MendlineOperation>GetLogLevel</MendlineOperation>", "<opcode>GetLogLevel</opcode>",
        "<Other><opcode>GetLogLevel</opcode></Other>",
        "<mendlineoperation><opcode>GetLogLevel</opcode></mendlineoperation>",
        "<MendLineOperation><opcode>GetLogLevel</opcode></MendLineOperation>",
        "<MendlineOperation><Opcode>GetLogLevel</Opcode></MendlineOperation>",
        "<MendlineOperation><a><opcode>GetLogLevel</opcode></a></MendlineOperation>",
        "<a><MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation></a>"}) {
    EXPECT_EQ(answerTo(request), kInvalid) << request;
  }
  EXPECT_TRUE(host.log().hasNot("", ""));
}

TEST_F(HandleRequest, LogsRequestAndAnswerAtDebug) {
  SetLogThreshold(LogLevel::Debug);
  answerTo(kGetLogLevel);
  EXPECT_THAT(records(), ElementsAre("Debug [MendLineOperation] Receive mendline request " +
                                         std::string(kGetLogLevel),
                                     "Debug [MendLineOperation] Send mendline response "
                                     "<?xml version=\"1.0\" encoding=\"utf-8\"?>",
                                     "<LOGLEVEL>DEBUG</LOGLEVEL>"));
}

TEST_F(HandleRequest, LogsAMalformedRequestBeforeItsErrorAndTheAnswerBehindIt) {
  SetLogThreshold(LogLevel::Debug);
  answerTo("100%s no xml");
  EXPECT_THAT(records(),
              ElementsAre("Debug [MendLineOperation] Receive mendline request 100%s no xml",
                          "Error [MendLineOperation] Failed to parse xml, error is "
                          "<unspecified file>(1): expected <",
                          "Debug [MendLineOperation] Send mendline response "
                          "<ERROR>Failed to do mendline operation</ERROR>"));
}

TEST_F(HandleRequest, LogsTheRequestBeforeWhatTheOperationLogs) {
  SetLogThreshold(LogLevel::Debug);
  answerTo(
      "<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>X</loglevel>"
      "</MendlineOperation>");
  EXPECT_THAT(records(), ElementsAre(StartsWith("Debug [MendLineOperation] Receive mendline"),
                                     "Error [MendLineOperation] Invalid loglevel X at SetLogLevel",
                                     StartsWith("Debug [MendLineOperation] Send mendline"),
                                     "<ERROR>Invalid loglevel X</ERROR>"));
}

TEST_F(HandleRequest, LogsNothingOfAGoodRequestAboveDebug) {
  answerTo(kGetLogLevel);
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(HandleRequest, LogsWhatTheParserSays) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"x", "(1): expected <"},
      {"\n\nx", "(3): expected <"},
      {"<a>\n<b></b>", "(2): unexpected end of data"},
      {"<", "(1): expected element name"},
      {"<a b></a>", "(1): expected ="},
      {"<a b=c/>", "(1): expected ' or \""},
      {"<a", "(1): expected >"},
      {"<a>&#65</a>", "(1): expected ;"},
      {"<!-- x", "(1): unexpected end of data"}};
  for (const auto& [request, text] : cases) {
    host.log().clear();
    answerTo(request);
    EXPECT_THAT(records(), ElementsAre("Error [MendLineOperation] Failed to parse xml, error is "
                                       "<unspecified file>" +
                                       std::string(text)))
        << request;
  }
}

TEST_F(HandleRequest, LogsAPartOfALongRequestAndAnswersItWhole) {
  SetLogThreshold(LogLevel::Debug);
  const std::string word(5000, 'x');
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>" + word +
                     "</loglevel></MendlineOperation>"),
            inEnvelope("<ERROR>Invalid loglevel " + word + "</ERROR>"));
  const std::vector<std::string> lines = host.log().lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].size(), 511u);
  EXPECT_THAT(lines[0], EndsWith("xxxxxxxx"));
  EXPECT_EQ(lines[1].size(), 511u);
  // The answer's record is one of 511 characters too, with a line feed in its midst.
  EXPECT_EQ(lines[2].size() + 1 + lines[3].size(), 511u);
}

// Every allocation of a request fails once. Most failures leave as they came, for there is no
// catch-all; one in the answer's stream is a write error to the writer.
TEST_F(HandleRequest, AnswersNoFailureButTheParsersAndTheWriters) {
  const std::string request = kGetLogLevel;
  int passed = 0;
  int answered = 0;
  bool finished = false;
  for (long successes = 0; !finished; ++successes) {
    std::string answer;
    bool threw = false;
    allocationsLeft = successes;
    try {
      handleRequest(request, answer);
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    finished = allocationsLeft >= 0;
    allocationsLeft = -1;
    if (threw) {
      ++passed;
      EXPECT_EQ(answer, "");
    } else if (finished) {
      EXPECT_EQ(answer, kInfoLevel);
    } else {
      ++answered;
      EXPECT_EQ(answer, kFallback);
    }
  }
  EXPECT_GT(passed, 10);
  EXPECT_GT(answered, 0);
  EXPECT_EQ(host.log().count("Error", kTag,
                             "Failed to parse xml, error is <unspecified file>: write error"),
            static_cast<std::size_t>(answered));
}

TEST_F(HandleRequest, FailsThroughTheExportedFunctionAsItDoesByItself) {
  const std::string request = kGetLogLevel;
  auto* const function = reinterpret_cast<void*>(
      &Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest);
  int passed = 0;
  std::size_t answered = 0;
  for (long successes = 0;; ++successes) {
    rig::Call call;
    bool threw = false;
    allocationsLeft = successes;
    try {
      call = rig::callExported(function, request);
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    const bool finished = allocationsLeft >= 0;
    allocationsLeft = -1;
    if (finished) {
      EXPECT_EQ(call.answer, kInfoLevel);
      break;
    }
    passed += threw ? 1 : 0;
    answered += threw ? 0 : 1;
    EXPECT_TRUE(threw || call.answer == kFallback);
  }
  EXPECT_GT(passed, 10);
  // Every answer there was is the writer's failure.
  EXPECT_EQ(host.log().count("Error", kTag, "write error"), answered);
}

TEST_F(HandleRequest, LetsTheEffectOfAnOperationStandWhoseAnswerIsLost) {
  const std::string request =
      "<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>TRACE</loglevel>"
      "</MendlineOperation>";
  int lost = 0;
  for (long successes = 0;; ++successes) {
    SetLogThreshold(LogLevel::Info);
    std::string answer;
    allocationsLeft = successes;
    try {
      handleRequest(request, answer);
    } catch (const std::bad_alloc&) {
    }
    const bool finished = allocationsLeft >= 0;
    allocationsLeft = -1;
    if (finished) {
      break;
    }
    if (answer == kFallback) {
      ++lost;
      EXPECT_EQ(GetLogThreshold(), 2);
    }
  }
  EXPECT_GT(lost, 0);
}

TEST_F(HandleRequest, LetsTheNextReportBeMadeAfterOneThatRanOutOfMemory) {
  ASSERT_TRUE(StartCollector());
  const std::string request =
      "<MendlineOperation><opcode>ProtocolInfo</opcode><display>103</display></MendlineOperation>";
  const std::string whole = answerTo(request);
  int failed = 0;
  for (long successes = 0;; ++successes) {
    std::string answer;
    allocationsLeft = successes;
    try {
      handleRequest(request, answer);
    } catch (const std::bad_alloc&) {
      ++failed;
    }
    const bool finished = allocationsLeft >= 0;
    allocationsLeft = -1;
    if (finished) {
      break;
    }
    ASSERT_EQ(answerTo(request), whole) << successes;
  }
  EXPECT_GT(failed, 10);
  StopCollector();
}

TEST_F(HandleRequest, ServesTenThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 10; ++t) {
    threads.emplace_back([t] {
      const std::string word = "thread" + std::to_string(t);
      for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(answerTo("<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>" + word +
                           "</loglevel></MendlineOperation>"),
                  inEnvelope("<ERROR>Invalid loglevel " + word + "</ERROR>"));
        EXPECT_EQ(answerTo("<" + word), kFallback);
        EXPECT_EQ(answerTo(kGetLogLevel), kInfoLevel);
        EXPECT_EQ(
            answerTo("<MendlineOperation><opcode>ProcessMetrics</opcode></MendlineOperation>"),
            inEnvelope("<processMetrics><timestamp>0</timestamp></processMetrics>"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// --- dispatchOperation -------------------------------------------------------------------------

class DispatchOperation : public GatewayHost {
 protected:
  void SetUp() override { SetLogThreshold(LogLevel::Verbose); }
  void TearDown() override { StopCollector(); }

  using Parameters = std::vector<std::pair<std::string, std::string>>;

  static ptree requestOf(const std::string& opcode, const Parameters& parameters = {}) {
    ptree request;
    request.put("MendlineOperation.opcode", opcode);
    for (const auto& [name, value] : parameters) {
      request.put("MendlineOperation." + name, value);
    }
    return request;
  }

  static Parameters answerTo(const std::string& opcode, const Parameters& parameters = {}) {
    ptree answer;
    dispatchOperation(requestOf(opcode, parameters), answer);
    return elementsOf(answer);
  }
};

TEST_F(DispatchOperation, StartsAndStopsTheCollector) {
  const std::size_t threads = rig::threadCount();
  EXPECT_THAT(answerTo("StartCollector"), ElementsAre(Pair("INFO", "Succeed to start collector")));
  EXPECT_EQ(rig::threadCount(), threads + 1);
  EXPECT_TRUE(host.log().has("Info", kTag, "Enter StartCollector"));
  EXPECT_THAT(answerTo("StopCollector"), ElementsAre(Pair("INFO", "Finish to stop collector")));
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_EQ(host.log().count("Info", kTag, "Enter StopCollector"), 1u);
}

TEST_F(DispatchOperation, SaysThatTheCollectorDidNotStart) {
  host.withoutWorkerAccount();
  EXPECT_THAT(answerTo("StartCollector"), ElementsAre(Pair("ERROR", "Failed to start collector")));
  EXPECT_TRUE(host.log().has("Info", kTag, "Enter StartCollector"));
}

TEST_F(DispatchOperation, AnswersStopCollectorTheSameWithNothingToStop) {
  EXPECT_THAT(answerTo("StopCollector"), ElementsAre(Pair("INFO", "Finish to stop collector")));
  EXPECT_THAT(answerTo("StopCollector"), ElementsAre(Pair("INFO", "Finish to stop collector")));
  EXPECT_EQ(host.log().count("Info", kTag, "Enter StopCollector"), 2u);
}

TEST_F(DispatchOperation, AnswersAClearShmThatWipes) {
  answerTo("StartCollector");
  rig::Worker worker = host.worker();
  const rig::SessionRecord record = {25, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  worker.writes(103, record);
  worker.writes(104, record);
  EXPECT_THAT(answerTo("ClearShm", {{"display", "103"}}),
              ElementsAre(Pair("INFO", "Finish to clear shared memory")));
  EXPECT_EQ(worker.reads(103), rig::SessionRecord());
  EXPECT_EQ(worker.reads(104), record);
}

TEST_F(DispatchOperation, AnswersClearShmTheSameWhenNothingIsWiped) {
  const auto answer = ElementsAre(Pair("INFO", "Finish to clear shared memory"));
  EXPECT_THAT(answerTo("ClearShm"), answer);
  EXPECT_THAT(answerTo("ClearShm", {{"display", ""}}), answer);
  EXPECT_EQ(host.log().count("Warn", kTag, "Parameter display missed"), 2u);
  for (const char* display : {"99", "161", "-5", "none", "99999999999", " ", "12345"}) {
    EXPECT_THAT(answerTo("ClearShm", {{"display", display}}), answer) << display;
    EXPECT_TRUE(host.log().has("Warn", kTag, "Invalid display number " + std::string(display)));
  }
}

TEST_F(DispatchOperation, AnswersClearShmTheSameWhenTheCollectorRunsAndNothingIsWiped) {
  answerTo("StartCollector");
  rig::Worker worker = host.worker();
  const rig::SessionRecord record = {25, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  worker.writes(100, record);
  const auto answer = ElementsAre(Pair("INFO", "Finish to clear shared memory"));
  EXPECT_THAT(answerTo("ClearShm"), answer);
  EXPECT_THAT(answerTo("ClearShm", {{"display", "99"}}), answer);
  EXPECT_THAT(answerTo("ClearShm", {{"display", "none"}}), answer);
  EXPECT_EQ(worker.reads(100), record);
}

TEST_F(DispatchOperation, RunsTheProcessAndLogLevelOperations) {
  ptree answer;
  dispatchOperation(requestOf("ProcessMetrics"), answer);
  ASSERT_EQ(answer.size(), 1u);
  EXPECT_EQ(answer.front().first, "processMetrics");
  EXPECT_EQ(answer.get<std::string>("processMetrics.timestamp"), "0");
  EXPECT_THAT(answerTo("GetLogLevel"), ElementsAre(Pair("LOGLEVEL", "VERBOSE")));
  EXPECT_THAT(answerTo("SetLogLevel", {{"loglevel", "DEBUG"}}),
              ElementsAre(Pair("INFO", "Succeed to set loglevel")));
  EXPECT_THAT(answerTo("GetLogLevel"), ElementsAre(Pair("LOGLEVEL", "DEBUG")));
  EXPECT_THAT(answerTo("SetLogLevel"), ElementsAre(Pair("ERROR", "Invalid loglevel ")));
}

TEST_F(DispatchOperation, RunsTheOperationsOnOneProcessAndOnOneSession) {
  EXPECT_THAT(answerTo("EndProcess"), ElementsAre(Pair("ERROR", "Miss some parameters")));
  EXPECT_THAT(answerTo("EndProcess", {{"processId", "-5"}, {"createTime", "1"}}),
              ElementsAre(Pair("ERROR", "Failed to terminate process")));
  EXPECT_THAT(answerTo("ProtocolInfo"), ElementsAre(Pair("ERROR", "Display parameter missed")));
  EXPECT_THAT(answerTo("ProtocolInfo", {{"display", "none"}}), ElementsAre(Pair("protocol", "")));
}

TEST_F(DispatchOperation, AnswersInvalidForWhatIsNoOpcodeAndLogsNothing) {
  const auto invalid = ElementsAre(Pair("ERROR", "Invalid mendline opcode"));
  for (const std::string opcode : {"",
                                   " ",
                                   "x",
                                   "getloglevel",
                                   "GETLOGLEVEL",
                                   "getLogLevel",
                                   "GetLogLeve",
                                   "GetLogLevell",
                                   " GetLogLevel",
                                   "GetLogLevel ",
                                   "GetLogLevel\n",
                                   "SetLoglevel",
                                   "LogLevel",
                                   "startcollector",
                                   "StartCollectors",
                                   "StartCollecto",
                                   "StopCollector ",
                                   "Stop",
                                   "Clearshm",
                                   "ClearSHM",
                                   "ProcessMetric",
                                   "processMetrics",
                                   "ProtocolInf",
                                   "ProtocolInfos",
                                   "protocolInfo",
                                   "ProtocolInfo ",
                                   "EndProces",
                                   "Endprocess",
                                   "EndProcess ",
                                   "10",
                                   "GetLogLevelSetLogLevel",
                                   "StartCollector\t"}) {
    EXPECT_THAT(answerTo(opcode), invalid) << opcode;
  }
  EXPECT_THAT(answerTo(std::string("GetLogLevel\0", 12)), invalid);
  EXPECT_THAT(answerTo(std::string("GetLogLevel\0x", 13)), invalid);
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(DispatchOperation, AnswersInvalidWithoutAnOpcode) {
  const auto invalid = ElementsAre(Pair("ERROR", "Invalid mendline opcode"));
  for (const char* path :
       {"opcode", "Other.opcode", "MendlineOperation", "MendlineOperation.Opcode",
        "MendlineOperation.a.opcode", "a.MendlineOperation.opcode"}) {
    ptree request;
    request.put(path, "GetLogLevel");
    ptree answer;
    dispatchOperation(request, answer);
    EXPECT_THAT(elementsOf(answer), invalid) << path;
  }
  ptree answer;
  dispatchOperation(ptree(), answer);
  EXPECT_THAT(elementsOf(answer), invalid);
  EXPECT_THAT(records(), IsEmpty());
}

// --- putResult ---------------------------------------------------------------------------------

TEST(PutResult, AppendsANewElementBehindTheOthers) {
  ptree tree;
  putResult(tree, "a", "1");
  putResult(tree, "c", "2");
  putResult(tree, "b", " 3 <&>\n");
  putResult(tree, "empty", "");
  EXPECT_THAT(elementsOf(tree), ElementsAre(Pair("a", "1"), Pair("c", "2"), Pair("b", " 3 <&>\n"),
                                            Pair("empty", "")));
}

TEST(PutResult, ReplacesTheTextAloneWhereTheElementIs) {
  ptree tree;
  putResult(tree, "a", "1");
  putResult(tree, "a.child", "kept");
  putResult(tree, "b", "2");
  putResult(tree, "a", "new");
  EXPECT_THAT(elementsOf(tree), ElementsAre(Pair("a", "new"), Pair("b", "2")));
  EXPECT_EQ(tree.get<std::string>("a.child"), "kept");
}

TEST(PutResult, SeparatesItsPathAtDots) {
  ptree tree;
  putResult(tree, "a.b.c", "deep");
  putResult(tree, "a.d", "beside");
  putResult(tree, "x|y", "one name");
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree.front().first, "a");
  EXPECT_THAT(elementsOf(tree.front().second), ElementsAre(Pair("b", ""), Pair("d", "beside")));
  EXPECT_EQ(tree.front().second.front().second.front().second.data(), "deep");
  EXPECT_EQ(tree.back().first, "x|y");
}

}  // namespace
}  // namespace mendline
