#include "gateway/ModifiedUtf8.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/rules/ModifiedUtf8Rule.h"

namespace mendline {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";  // U+FFFD

std::string converted(std::string text) {
  makeModifiedUtf8(text);
  return text;
}

std::string replacements(std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += kReplacement;
  }
  return text;
}

// So that a failure can be read.
std::string hex(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += {kDigits[value / 16], kDigits[value % 16], ' '};
  }
  return text;
}

// Three bytes, surrogates included.
std::string threeBytes(std::uint32_t value) {
  return {static_cast<char>(0xE0 + value / 4096), static_cast<char>(0x80 + value / 64 % 64),
          static_cast<char>(0x80 + value % 64)};
}

void expectByTheRule(const std::string& text) {
  const std::string result = converted(text);
  ASSERT_EQ(hex(result), hex(rules::toModifiedUtf8(text))) << "for " << hex(text);
  ASSERT_TRUE(rules::isModifiedUtf8(result)) << hex(text);
  ASSERT_EQ(hex(converted(result)), hex(result)) << "a second time, for " << hex(text);
}

// --- What it has to be, by hand -----------------------------------------------------------------

TEST(ModifiedUtf8, LeavesPlainTextAsItIs) {
  EXPECT_EQ(converted(""), "");
  EXPECT_EQ(converted("xedit & <co>\n\t\x01\x7F"), "xedit & <co>\n\t\x01\x7F");
}

TEST(ModifiedUtf8, LeavesCharactersOfTwoAndThreeBytesAsTheyAre) {
  for (const std::string text :
       {"\xC2\x80", "\xC3\xA9", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC", "\xE4\xB8\xAD",
        "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBD", "\xEF\xBF\xBF"}) {
    EXPECT_EQ(converted(text), text) << hex(text);
    EXPECT_EQ(converted("a" + text + text + "b"), "a" + text + text + "b") << hex(text);
  }
}

TEST(ModifiedUtf8, LeavesTheTwoBytesThatStandForAZero) {
  EXPECT_EQ(converted("a\xC0\x80z"), "a\xC0\x80z");
}

TEST(ModifiedUtf8, LeavesSurrogatesAsTheyAreInPairsAndSingly) {
  for (const std::string text : {"\xED\xA0\x80", "\xED\xAF\xBF", "\xED\xB0\x80", "\xED\xBF\xBF",
                                 "\xED\xA0\xBD\xED\xB8\x80", "\xED\xB8\x80\xED\xA0\xBD"}) {
    EXPECT_EQ(converted(text), text) << hex(text);
  }
}

TEST(ModifiedUtf8, TurnsACharacterOfFourBytesIntoItsTwoSurrogates) {
  EXPECT_EQ(hex(converted("\xF0\x90\x80\x80")), hex("\xED\xA0\x80\xED\xB0\x80"));  // U+10000
  EXPECT_EQ(hex(converted("\xF0\x9F\x98\x80")), hex("\xED\xA0\xBD\xED\xB8\x80"));  // U+1F600
  EXPECT_EQ(hex(converted("\xF0\xA0\x80\x8B")), hex("\xED\xA1\x80\xED\xB0\x8B"));  // U+2000B
  EXPECT_EQ(hex(converted("\xF4\x8F\xBF\xBF")), hex("\xED\xAF\xBF\xED\xBF\xBF"));  // U+10FFFF
  EXPECT_EQ(hex(converted("a\xF0\x9F\x98\x80\xF0\x9F\x98\x80z")),
            hex("a\xED\xA0\xBD\xED\xB8\x80\xED\xA0\xBD\xED\xB8\x80z"));
}

TEST(ModifiedUtf8, ReplacesEachByteThatIsNoCharacterByOneReplacement) {
  const std::vector<std::string> offending = {
      "\x80",          // continuation alone
      "\xBF\x80\x80",  // several
      "\xC3",          // cut off
      "\xE4",          // cut off after the lead
      "\xE4\xB8",      // and after the second byte
      "\xF0",
      "\xF0\x9F",
      "\xF0\x9F\x98",
      "\xC0",
      "\xC1",  // leads of overlong forms
      "\xC1\xBF",
      "\xC0\x81",
      "\xC0\xBF",
      "\xE0\x80\x80",
      "\xE0\x9F\xBF",  // in three bytes
      "\xF0\x80\x80\x80",
      "\xF0\x8F\xBF\xBF",  // in four
      "\xF4\x90\x80\x80",
      "\xF7\xBF\xBF\xBF",  // beyond U+10FFFF
      "\xF5\x80\x80\x80",
      "\xF8\x88\x80\x80\x80",
      "\xFC\x84\x80\x80\x80\x80",
      "\xFE",
      "\xFF",
      "\xF0\x9F\xC3",  // cut off by another lead
  };
  for (const std::string& text : offending) {
    EXPECT_EQ(hex(converted(text)), hex(replacements(text.size()))) << hex(text);
    EXPECT_EQ(hex(converted("a" + text + "z")), hex("a" + replacements(text.size()) + "z"))
        << hex(text);
  }
}

TEST(ModifiedUtf8, ReplacesAZeroByte) {
  EXPECT_EQ(converted(std::string("a\0z", 3)), "a" + kReplacement + "z");
}

TEST(ModifiedUtf8, GoesOnWithTheCharacterThatCutsAnotherShort) {
  EXPECT_EQ(converted("\xE4\xB8 <"), replacements(2) + " <");
  EXPECT_EQ(converted("\xE4\xB8\xC3\xA9"), replacements(2) + "\xC3\xA9");
  EXPECT_EQ(hex(converted("\xF0\x9F\xF0\x9F\x98\x80")),
            hex(replacements(2) + "\xED\xA0\xBD\xED\xB8\x80"));
}

TEST(ModifiedUtf8, TakesEveryByteByItself) {
  for (int value = 0; value < 256; ++value) {
    const std::string byte(1, static_cast<char>(value));
    const bool plain = value >= 1 && value < 0x80;
    EXPECT_EQ(hex(converted(byte)), hex(plain ? byte : kReplacement));
    EXPECT_EQ(hex(converted("x" + byte + "y")), hex("x" + (plain ? byte : kReplacement) + "y"));
  }
}

// As the kernel cuts a process's name, wherever that falls.
TEST(ModifiedUtf8, ReplacesTheRestOfACharacterThatIsCutAtFifteenBytes) {
  const std::string zhong = "\xE4\xB8\xAD";
  const std::string emoji = "\xF0\x9F\x98\x80";
  for (std::size_t before = 0; before <= 15; ++before) {
    const std::string start(before, 'a');
    std::string name = start;
    for (int i = 0; i < 6; ++i) {
      name += zhong;
    }
    const std::size_t room = 15 - before;
    std::string whole = start;
    for (std::size_t i = 0; i < room / 3; ++i) {
      whole += zhong;
    }
    EXPECT_EQ(hex(converted(name.substr(0, 15))), hex(whole + replacements(room % 3))) << before;

    std::string smiling = start;
    std::string pairs = start;
    for (std::size_t i = 0; i < 4; ++i) {
      smiling += emoji;
    }
    for (std::size_t i = 0; i < room / 4; ++i) {
      pairs += "\xED\xA0\xBD\xED\xB8\x80";
    }
    EXPECT_EQ(hex(converted(smiling.substr(0, 15))), hex(pairs + replacements(room % 4))) << before;
  }
}

TEST(ModifiedUtf8, KeepsEveryCharacterOfTheBasicPlane) {
  for (std::uint32_t value = 1; value <= 0xFFFF; ++value) {
    std::string text = threeBytes(value);
    if (value < 0x80) {
      text = std::string(1, static_cast<char>(value));
    } else if (value < 0x800) {
      text = {static_cast<char>(0xC0 + value / 64), static_cast<char>(0x80 + value % 64)};
    }
    ASSERT_EQ(hex(converted(text)), hex(text));
  }
}

TEST(ModifiedUtf8, PairsEveryCharacterBeyondTheBasicPlane) {
  for (std::uint32_t value = 0x10000; value <= 0x10FFFF; value += 7) {
    const std::string text = {
        static_cast<char>(0xF0 + value / 262144), static_cast<char>(0x80 + value / 4096 % 64),
        static_cast<char>(0x80 + value / 64 % 64), static_cast<char>(0x80 + value % 64)};
    const std::uint32_t offset = value - 0x10000;
    ASSERT_EQ(converted(text),
              threeBytes(0xD800 + offset / 1024) + threeBytes(0xDC00 + offset % 1024))
        << value;
  }
}

// --- Everything else, by the rule ---------------------------------------------------------------

TEST(ModifiedUtf8, TakesEveryPairOfBytesByTheRule) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      expectByTheRule({static_cast<char>(first), static_cast<char>(second)});
    }
  }
}

// The ends of every range that the encoding tells apart.
constexpr std::array<unsigned char, 26> kEdges = {
    0x00, 0x01, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2,
    0xDF, 0xE0, 0xE1, 0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};

TEST(ModifiedUtf8, TakesEveryFourEdgeBytesByTheRule) {
  std::string text(4, '\0');
  for (const unsigned char first : kEdges) {
    text[0] = static_cast<char>(first);
    for (const unsigned char second : kEdges) {
      text[1] = static_cast<char>(second);
      for (const unsigned char third : kEdges) {
        text[2] = static_cast<char>(third);
        for (const unsigned char fourth : kEdges) {
          text[3] = static_cast<char>(fourth);
          ASSERT_EQ(converted(text), rules::toModifiedUtf8(text)) << hex(text);
        }
      }
    }
  }
}

TEST(ModifiedUtf8, TakesRandomMixturesByTheRule) {
  const std::vector<std::string> pieces = {
      "a",        "<name>",       "\xC3\xA9",         "\xE4\xB8\xAD", "\xF0\x9F\x98\x80",
      "\xC0\x80", "\xED\xA0\xBD", "\xED\xB8\x80",     "\xE4\xB8",     "\xF0\x9F\x98",
      "\x80",     "\xFF",         "\xF4\x90\x80\x80", "\xC0",         std::string(1, '\0')};
  std::mt19937_64 random(20260311);
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (std::uint64_t count = random() % 12; count > 0; --count) {
      text += random() % 3 == 0 ? std::string(1, static_cast<char>(random()))
                                : pieces[random() % pieces.size()];
    }
    expectByTheRule(text);
  }
}

TEST(ModifiedUtf8, TakesAMegabyteAtOnce) {
  std::string text;
  while (text.size() < 1'000'000) {
    text += "abc\xF0\x9F\x98\x80\xFF";
  }
  const std::size_t pieces = text.size() / 8;
  std::string wanted;
  for (std::size_t i = 0; i < pieces; ++i) {
    wanted += "abc\xED\xA0\xBD\xED\xB8\x80" + kReplacement;
  }
  EXPECT_TRUE(converted(text) == wanted);
}

}  // namespace
}  // namespace mendline
