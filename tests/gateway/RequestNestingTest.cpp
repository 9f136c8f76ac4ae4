#include "gateway/RequestNesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "PrivateHost.h"
#include "gateway/MendLineOperation.h"
#include "logging/InternalLogger.h"
#include "tests/rules/ParserVerdict.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using testing::ElementsAre;

constexpr const char* kFallback = "<ERROR>Failed to do mendline operation</ERROR>";
constexpr const char* kInvalid =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<ERROR>Invalid mendline opcode</ERROR>";

std::string repeated(const std::string& text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i) {
    result += text;
  }
  return result;
}

// Elements within each other, `inside` in the innermost one.
std::string nested(int levels, const std::string& inside = "") {
  return repeated("<a>", levels) + inside + repeated("</a>", levels);
}

std::string answerTo(const std::string& request) {
  std::string answer;
  handleRequest(request, answer);
  return answer;
}

// On a stack of half a megabyte or less; what overflows it ends the test.
void onASmallStack(const std::function<void()>& work) {
#ifdef MENDLINE_INSTRUMENTED
  constexpr std::size_t kStack = 4 << 20;  // what instruments needs a multiple
#else
  constexpr std::size_t kStack = 384 << 10;  // the deepest request takes 280 KiB of it
#endif
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStack), 0);
  pthread_t thread = {};
  const auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  std::function<void()> copy = work;
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &copy), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

// --- Which levels count -------------------------------------------------------------------------

TEST(RequestNesting, AdmitsFiveHundredAndTwelveLevels) {
  EXPECT_EQ(kDeepestNesting, 512);
  EXPECT_EQ(lineNestedTooDeeply(nested(1)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(511)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(512)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(513)), 1);
  EXPECT_EQ(lineNestedTooDeeply(nested(514)), 1);
}

TEST(RequestNesting, CountsElementsThatCloseThemselves) {
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b/>")), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(512, "<b/>")), 1);
  EXPECT_EQ(lineNestedTooDeeply(nested(512, "<b />")), 1);
  EXPECT_EQ(lineNestedTooDeeply(nested(512, "<b c='d'/>")), 1);
  EXPECT_EQ(lineNestedTooDeeply(nested(511, repeated("<b/>", 1000))), std::nullopt);
}

TEST(RequestNesting, CountsElementsBesideEachOtherOnce) {
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a></a>", 5000)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply("<r>" + repeated("<a></a>", 5000) + "</r>"), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(repeated(nested(512), 3)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(repeated(nested(512), 3) + "\n" + nested(513)), 2);
}

TEST(RequestNesting, TakesWhatOnlyLooksLikeElementsForNone) {
  const std::string tags = repeated("<a>", 600);
  for (const std::string& inside : {
           "<!--" + tags + "-->",
           "<![CDATA[" + tags + "]]>",
           "<?note " + tags + "?>",
           "<b c=\"" + tags + "\"/>",
       }) {
    EXPECT_EQ(lineNestedTooDeeply(nested(511, inside)), std::nullopt) << inside.substr(0, 20);
    // And they do not hide what comes behind them.
    EXPECT_EQ(lineNestedTooDeeply(nested(511, inside + "<x><y/></x>")), 1) << inside.substr(0, 20);
  }
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b c='" + tags + "'></b>")), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply("<!DOCTYPE r [" + repeated("<!ELEMENT a ANY>", 600) + "]><r/>"),
            std::nullopt);
  for (const std::string subset :
       {"[<!ELEMENT a ANY>]", "[ [>] > ]", "]", "] [>] ", "SYSTEM 'a'", ""}) {
    EXPECT_EQ(lineNestedTooDeeply("<!DOCTYPE r " + subset + ">\n" + nested(513)), 2) << subset;
  }
  EXPECT_EQ(lineNestedTooDeeply("<?xml version=\"1.0\"?>\n<!-- x -->\n" + nested(512)),
            std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply("<?xml version=\"1.0\"?>\n<!-- x -->\n" + nested(513)), 3);
}

TEST(RequestNesting, TakesAQuoteOfTheOtherKindForPartOfAnAttribute) {
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b c='\"'>x</b>")), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b c='\"'><c/></b>")), 1);
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b c=\"'>\" d='/>'><c/></b>")), 1);
}

TEST(RequestNesting, TakesBlanksOnEitherSideOfAnAttributesSign) {
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b c = 'x'  d\n=\t'y' >x</b>")), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(511, "<b c = 'x'  d\n=\t'y' ><c/></b>")), 2);
}

TEST(RequestNesting, ClosingTagsTakeALevelBackWhateverTheyName) {
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a></b>", 5000)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply("<r>" + repeated("<a></ b >", 5000) + "</r>"), std::nullopt);
}

TEST(RequestNesting, CountsLevelsThatNothingCloses) {
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a>", 512)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a>", 513)), 1);
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a>\n", 513)), 513);
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a>x<b/>", 513)), 1);
}

TEST(RequestNesting, SaysTheLineOfTheFirstElementThatIsTooDeep) {
  EXPECT_EQ(lineNestedTooDeeply(repeated("\n", 9) + nested(513)), 10);
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a>\n", 512) + "<b>"), 513);
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a>\n", 512) + "\n\n<b\n\n>"), 515);
  EXPECT_EQ(lineNestedTooDeeply(repeated("<a\n>", 512) + "<b/>"), 513);
  EXPECT_EQ(lineNestedTooDeeply("<!--\n\n-->" + nested(512, "<![CDATA[\n]]><b d='\n'/>\n<c/>")), 4);
  EXPECT_EQ(lineNestedTooDeeply("<r>" + nested(512) + "\n" + nested(512) + "</r>"), 1);
}

TEST(RequestNesting, PassesOverAByteOrderMarkAndWhiteSpace) {
  EXPECT_EQ(lineNestedTooDeeply("\xEF\xBB\xBF" + nested(512)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply("\xEF\xBB\xBF \t\r\n" + nested(513)), 2);
}

TEST(RequestNesting, EndsAtAZeroByte) {
  EXPECT_EQ(lineNestedTooDeeply("<r/>" + std::string(1, '\0') + nested(600)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply("<r>" + std::string(1, '\0') + nested(600)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(std::string(1, '\0') + nested(600)), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(nested(513) + std::string(1, '\0')), 1);
}

TEST(RequestNesting, EndsWhereTheParserGivesUp) {
  for (const std::string start : {
           "hello",
           "x",
           "<",
           "</a>",
           "<!",
           "<!x>",
           "<?",
           "<?xml",
           "<!--",
           "<![CDATA[",
           "<!DOCTYPE",
           "<a b>",
           "<a b=c>",
           "<a b='>",
           "< a>",
           "\xEF\xBB",
           "<r>&#xZZ;",
           "<r></r",
           "<!DOCTYPE r [<a>]",
       }) {
    // A text this long is not taken for harmless unread.
    EXPECT_EQ(lineNestedTooDeeply(start + std::string(1, '\0') + nested(600)), std::nullopt)
        << start;
    EXPECT_EQ(answerTo(start + nested(40)).find("<processMetrics>"), std::string::npos) << start;
  }
  // Nor does what follows count.
  for (const std::string start : {
           "hello",    "</a>",       "< a>",           "<a b>",       "<a b=c>",
           "<a b=>",   "<a b=/>",    "<a b c='>",      "<a b c='d'>", "<a b='>",
           "<a b=\">", "<a b='",     "<a b='/>",       "<a/ >",       "<a b='c'/ ",
           "<a =''>",  "<a b='c'=>", "<!--",           "<!-->",       "<![CDATA[>",
           "<?>",      "<?xml >",    "<!DOCTYPE r [>", "<a></a b>",   "<a></a ",
       }) {
    EXPECT_EQ(lineNestedTooDeeply(start + nested(600)), std::nullopt) << start;
  }
}

TEST(RequestNesting, PassesOverCharacterReferences) {
  for (const std::string start : {"<r>&amp", "<r>&x;", "<r>& #1", "<r b='&'>", "<r>&#1;"}) {
    EXPECT_EQ(lineNestedTooDeeply(start + nested(600)), 1) << start;
  }
  // The parser refuses these, and the answer is the same.
  for (const std::string start : {"<r>&#zz;", "<r>&#12", "<r>&#x110000;", "<r b='&#1'>"}) {
    EXPECT_EQ(lineNestedTooDeeply(start + nested(600)), 1) << start;
  }
}

TEST(RequestNesting, NeedsANameForALevel) {
  std::string open;
  for (int i = 0; i < 512; ++i) {
    open += "<a>";
  }
  EXPECT_EQ(lineNestedTooDeeply(open + "<"), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(open + "< a>"), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(open + "<a"), 1);
}

TEST(RequestNesting, OfNothingIsNone) {
  EXPECT_EQ(lineNestedTooDeeply(""), std::nullopt);
  EXPECT_EQ(lineNestedTooDeeply(" \n "), std::nullopt);
}

// --- Against the parser -------------------------------------------------------------------------

class RandomDocuments {
 public:
  std::string fragments(std::uint64_t most) {
    static const std::vector<std::string> kPieces = {"<a>",
                                                     "<a>",
                                                     "<a>",
                                                     "</a>",
                                                     "</a>",
                                                     "</a>",
                                                     "<b/>",
                                                     "<c />",
                                                     "<d e='f'>",
                                                     "</d>",
                                                     "<c x='<d>'/>",
                                                     "<c x=\"</a>\">",
                                                     "</c>",
                                                     "<c x='\">' y=\"'\"/>",
                                                     "<!-- <e> -->",
                                                     "<![CDATA[<f>]]>",
                                                     "<?pi <g> ?>",
                                                     "<!DOCTYPE h [<!ELEMENT i ANY>]>",
                                                     "<!ELEMENT j>",
                                                     "text",
                                                     "&lt;",
                                                     "&#60;a&#62;",
                                                     "&amp",
                                                     "&",
                                                     ">",
                                                     "/",
                                                     " ",
                                                     "\n",
                                                     "\n<k>\n</k\n>",
                                                     "\xEF\xBB\xBF",
                                                     "<",
                                                     "<!",
                                                     "]]>",
                                                     "]",
                                                     "[",
                                                     "'",
                                                     "\"",
                                                     "=",
                                                     "x",
                                                     "<?xml version='1.0'?>",
                                                     "<!--",
                                                     "-->",
                                                     "<?",
                                                     "?>",
                                                     "<![CDATA[",
                                                     "</",
                                                     "/>",
                                                     "<l",
                                                     "<l m",
                                                     "<l m=",
                                                     "<l m='",
                                                     "<\xC3\xA9>",
                                                     "<<n>",
                                                     "<o/p>",
                                                     "<q!>",
                                                     "<?xml",
                                                     std::string(1, '\0'),
                                                     "\x01",
                                                     "\r"};
    std::string text;
    for (std::uint64_t count = random_() % most; count > 0; --count) {
      text += kPieces[random_() % kPieces.size()];
    }
    return text;
  }

  // Now and then well-formed by construction, so that whatever it holds gets parsed.
  std::string document() {
    std::string text = random_() % 4 == 0 ? fragments(3) : "";
    const int levels = 505 + static_cast<int>(random_() % 9);
    text += repeated(random_() % 8 == 0 ? "<a>\n" : "<a>", levels);
    text += random_() % 2 == 0 ? fragments(8) : wellFormed(5);
    text += repeated("</a>", levels - static_cast<int>(random_() % 20 == 0));
    return text + (random_() % 4 == 0 ? fragments(3) : "");
  }

  std::string wellFormed(int deepest) {
    static const std::vector<std::string> kLeaves = {"text",
                                                     "\n",
                                                     "<b/>",
                                                     "<c x='<d>'/>",
                                                     "<c x=\"</a>\" />",
                                                     "<!-- <e> -->",
                                                     "<![CDATA[<f>]]>",
                                                     "<?pi <g> ?>",
                                                     "&lt;",
                                                     ">",
                                                     "<\xC3\xA9></x>",
                                                     "<h\n></h\n>"};
    std::string text;
    for (std::uint64_t count = random_() % 4; count > 0; --count) {
      text += deepest > 0 && random_() % 2 == 0 ? "<w>" + wellFormed(deepest - 1) + "</w>"
                                                : kLeaves[random_() % kLeaves.size()];
    }
    return text;
  }

 private:
  std::mt19937_64 random_{20260312};
};

void expectAgreement(const std::string& text) {
  const std::optional<long> line = lineNestedTooDeeply(text);
  const rules::ParserVerdict parser = rules::parserVerdictOn(text);
  if (parser.depth) {
    ASSERT_EQ(line.has_value(), *parser.depth > kDeepestNesting) << text;
  } else if (line) {
    ASSERT_LE(*line, parser.lastLine) << text;
  }
  if (line) {
    // The text's shortest part that is too deep already ends with that element's name. One that
    // ends in "<" does not tell yet what begins there.
    const auto isTooDeepBefore = [&](std::size_t end) {
      while (end > 0 && text[end - 1] == '<') {
        --end;
      }
      return lineNestedTooDeeply(text.substr(0, end)).has_value();
    };
    std::size_t fewest = 0;
    std::size_t enough = text.size();
    while (fewest < enough) {
      const std::size_t middle = (fewest + enough) / 2;
      if (isTooDeepBefore(middle)) {
        enough = middle;
      } else {
        fewest = middle + 1;
      }
    }
    ASSERT_EQ(*line, 1 + std::count(text.begin(), text.begin() + static_cast<long>(enough), '\n'))
        << text;
  }
}

TEST(RequestNesting, AgreesWithTheParserOnDeepDocuments) {
  RandomDocuments documents;
  int deep = 0;
  int parsable = 0;
  for (int i = 0; i < 400; ++i) {
    const std::string text = documents.document();
    expectAgreement(text);
    deep += static_cast<int>(lineNestedTooDeeply(text).has_value());
    parsable += static_cast<int>(rules::parserVerdictOn(text).depth.has_value());
    ASSERT_FALSE(HasFatalFailure());
  }
  // Both verdicts and both outcomes of the parser have come up often.
  EXPECT_GT(deep, 40);
  EXPECT_LT(deep, 360);
  EXPECT_GT(parsable, 40);
  EXPECT_LT(parsable, 360);
}

TEST(RequestNesting, AgreesWithTheParserOnEveryByteOfANameAndAnAttribute) {
  int parsable = 0;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string odd(1, static_cast<char>(byte));
    for (const std::string& piece :
         {"<x" + odd + "><z/></x>", "<x" + odd + "y='1'><z/></x>", "<x y" + odd + "='1'><z/></x>",
          "<x y" + odd + "z='1'><z/></x>", "<x y=" + odd + "'1'><z/></x>",
          "<x y='" + odd + "'><z/></x>", "<x y='1'" + odd + "><z/></x>",
          "<x y='1'" + odd + "z='2'><z/></x>", "<x></x" + odd + "><z/>", "<" + odd + "x><z/></x>",
          "<x>" + odd + "<z/></x>", "<x>&" + odd + "<z/></x>", "<!" + odd + "><x><z/></x>",
          "<!DOCTYPE" + odd + "[>]><x><z/></x>", "<?" + odd + "?><x><z/></x>"}) {
      for (const int levels : {510, 511}) {
        const std::string text = nested(levels, piece);
        const std::optional<int> depth = rules::parserVerdictOn(text).depth;
        if (depth) {
          ++parsable;
          ASSERT_EQ(lineNestedTooDeeply(text).has_value(), *depth > kDeepestNesting)
              << byte << ": " << piece;
        }
      }
    }
  }
  EXPECT_GT(parsable, 5000);
}

// --- What a request gets ------------------------------------------------------------------------

class NestedRequest : public testing::Test {
 protected:
  void SetUp() override { SetLogThreshold(LogLevel::Info); }

  rig::PrivateHost host;
};

TEST_F(NestedRequest, IsAnsweredUpToTheLimit) {
  EXPECT_EQ(answerTo(nested(511)), kInvalid);
  EXPECT_EQ(answerTo(nested(512)), kInvalid);
  EXPECT_EQ(host.log().text(), "");
  const std::string opcode = "<opcode>GetLogLevel</opcode>";
  EXPECT_THAT(answerTo("<MendlineOperation>" + opcode + nested(511) + "</MendlineOperation>"),
              testing::EndsWith("<LOGLEVEL>INFO</LOGLEVEL>"));
}

TEST_F(NestedRequest, GetsTheFallbackAndALineBeyondIt) {
  EXPECT_EQ(answerTo(nested(513)), kFallback);
  EXPECT_EQ(answerTo("\n\n" + nested(512, "\n<b/>")), kFallback);
  EXPECT_EQ(answerTo("<MendlineOperation><opcode>GetLogLevel</opcode>" + nested(512) +
                     "</MendlineOperation>"),
            kFallback);
  const std::string start = "Error MendLineOperation: Failed to parse xml, error is ";
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre(start + "<unspecified file>(1): elements nested deeper than 512",
                          start + "<unspecified file>(4): elements nested deeper than 512",
                          start + "<unspecified file>(1): elements nested deeper than 512"));
}

TEST_F(NestedRequest, IsLoggedBeforeItsErrorAndTheFallbackBehindIt) {
  SetLogThreshold(LogLevel::Debug);
  EXPECT_EQ(answerTo(repeated("<a>", 513)), kFallback);
  const std::vector<rig::LogRecord> records = host.log().records();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].level, "Debug");
  EXPECT_THAT(records[0].message, testing::StartsWith("Receive mendline request <a><a>"));
  EXPECT_EQ(records[1].level, "Error");
  EXPECT_EQ(records[2].message, std::string("Send mendline response ") + kFallback);
}

TEST_F(NestedRequest, LeavesTheParserItsWordWhereThatGivesUpFirst) {
  EXPECT_EQ(answerTo("hello" + nested(600)), kFallback);
  EXPECT_TRUE(host.log().has("Error", "MendLineOperation", "(1): expected <"));
  EXPECT_TRUE(host.log().hasNot("Error", "", "nested"));
}

TEST_F(NestedRequest, OfAMillionLevelsIsAnsweredAtOnceOnASmallStack) {
  const std::string closed = nested(1'000'000);
  const std::string open = repeated("<a>", 1'000'000);
  const std::string lines = repeated("<a>\n", 1'000'000);
  const auto start = std::chrono::steady_clock::now();
  onASmallStack([&] {
    for (const std::string* request : {&closed, &open, &lines}) {
      EXPECT_EQ(answerTo(*request), kFallback);
    }
  });
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_TRUE(host.log().has("Error", "MendLineOperation", "(513): elements nested deeper than"));
}

TEST_F(NestedRequest, OfTheDeepestKindThatIsTakenFitsASmallStack) {
  onASmallStack([] { EXPECT_EQ(answerTo(nested(512)), kInvalid); });
}

TEST_F(NestedRequest, OfManyElementsBesideEachOtherIsTaken) {
  const std::string request = "<r>" + repeated("<a/>", 100'000) + "</r>";
  EXPECT_EQ(answerTo(request), kInvalid);
}

// Whatever stands between the levels, and whether the text can be parsed or not: what the walk
// takes for shallow must not be deep for the parser.
TEST_F(NestedRequest, NeverOverflowsASmallStack) {
  RandomDocuments documents;
  for (int i = 0; i < 100; ++i) {
    const std::string between = documents.fragments(4);
    const std::string request = documents.fragments(3) + repeated("<a>" + between, 20'000);
    onASmallStack([&] { static_cast<void>(answerTo(request)); });
    ASSERT_FALSE(HasFatalFailure());
  }
}

}  // namespace
}  // namespace mendline
