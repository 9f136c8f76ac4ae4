// The exported function: what it asks of the JVM, in which order, and what it hands back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FakeJvm.h"
#include "PrivateHost.h"
#include "logging/InternalLogger.h"

// Only its address is used here.
extern "C" void
Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest();

namespace mendline {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
constexpr const char* kFallback = "<ERROR>Failed to do mendline operation</ERROR>";
constexpr const char* kGetLogLevel =
    "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>";

std::string setLogLevelTo(const std::string& word) {
  return "<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>" + word +
         "</loglevel></MendlineOperation>";
}

rig::ExportedFunction linkedFunction() {
  return reinterpret_cast<void*>(
      &Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest);
}

// A JVM that writes down what is asked of it. JNI's function table is an array of pointers whose
// indices are part of its interface.
class RecordingJvm {
 public:
  explicit RecordingJvm(rig::Log& log) : log_(log) {
    functions_.fill(reinterpret_cast<void*>(&RecordingJvm::other));
    functions_[167] = reinterpret_cast<void*>(&RecordingJvm::newString);
    functions_[169] = reinterpret_cast<void*>(&RecordingJvm::getCharacters);
    functions_[170] = reinterpret_cast<void*>(&RecordingJvm::releaseCharacters);
    current = this;
  }
  ~RecordingJvm() { current = nullptr; }
  RecordingJvm(const RecordingJvm&) = delete;
  RecordingJvm& operator=(const RecordingJvm&) = delete;

  // Calls the exported function with this receiver; true if it returned the string just made.
  bool request(const std::string& text, void* receiver) {
    buffer_.assign(text.begin(), text.end());
    buffer_.push_back('\0');
    using Function = void* (*)(void*, void*, void*);
    const void* answer = reinterpret_cast<Function>(linkedFunction())(&table_, receiver, &request_);
    return answer == &answer_;
  }

  const std::vector<std::string>& events() const { return events_; }
  const std::string& answer() const { return answerText_; }

 private:
  void note(const std::string& event) {
    events_.push_back(event + ", log lines: " + std::to_string(log_.lines().size()));
  }

  static const char* getCharacters(void* environment, void* text, unsigned char* isCopy) {
    EXPECT_EQ(environment, &current->table_);
    EXPECT_EQ(text, &current->request_);
    EXPECT_EQ(isCopy, nullptr);
    current->note("GetStringUTFChars");
    return current->buffer_.data();
  }
  static void releaseCharacters(void* environment, void* text, const char* characters) {
    EXPECT_EQ(environment, &current->table_);
    EXPECT_EQ(text, &current->request_);
    EXPECT_EQ(characters, current->buffer_.data());
    // Whoever reads them from now on reads something else.
    std::fill(current->buffer_.begin(), current->buffer_.end() - 1, '!');
    current->note("ReleaseStringUTFChars");
  }
  static void* newString(void* environment, const char* characters) {
    EXPECT_EQ(environment, &current->table_);
    current->answerText_ = characters;
    current->note("NewStringUTF");
    return &current->answer_;
  }
  static void* other() {
    current->note("something else");
    return nullptr;
  }

  static RecordingJvm* current;

  rig::Log& log_;
  std::array<void*, 240> functions_ = {};
  void* table_ = functions_.data();
  std::vector<char> buffer_;
  int request_ = 0;  // stand for objects: only their addresses are used
  int answer_ = 0;
  std::string answerText_;
  std::vector<std::string> events_;
};

RecordingJvm* RecordingJvm::current = nullptr;

class MendLineNative : public testing::Test {
 protected:
  static rig::Call request(const std::string& text, const rig::JvmRefusals& refusals = {}) {
    return rig::callExported(linkedFunction(), text, refusals);
  }

  rig::PrivateHost host;
};

TEST_F(MendLineNative, AnswersThroughTheShippedLibrary) {
  const rig::NativeLibrary library;
  const rig::Call call = library.request(kGetLogLevel);
  EXPECT_EQ(call.answer, std::string(kDeclaration) + "<LOGLEVEL>INFO</LOGLEVEL>");
  EXPECT_EQ(call.acquired, 1);
  EXPECT_EQ(call.released, 1);
  EXPECT_EQ(call.created, 1);
  EXPECT_TRUE(call.balanced());
  EXPECT_TRUE(call.soundAnswer);
}

TEST_F(MendLineNative, GivesTheCharactersBackBeforeTheWorkAndMakesOneStringAfterIt) {
  SetLogThreshold(LogLevel::Debug);
  RecordingJvm jvm(host.log());
  int receiver = 0;
  EXPECT_TRUE(jvm.request(kGetLogLevel, &receiver));
  EXPECT_THAT(jvm.events(),
              ElementsAre("GetStringUTFChars, log lines: 0", "ReleaseStringUTFChars, log lines: 0",
                          "NewStringUTF, log lines: 3"));
  // The declaration ends in a line feed, so the answer's record takes two lines.
  EXPECT_EQ(jvm.answer(), std::string(kDeclaration) + "<LOGLEVEL>DEBUG</LOGLEVEL>");
}

TEST_F(MendLineNative, DoesTheSameForAMalformedRequest) {
  SetLogThreshold(LogLevel::Debug);
  RecordingJvm jvm(host.log());
  int receiver = 0;
  EXPECT_TRUE(jvm.request("no xml", &receiver));
  EXPECT_THAT(jvm.events(),
              ElementsAre("GetStringUTFChars, log lines: 0", "ReleaseStringUTFChars, log lines: 0",
                          "NewStringUTF, log lines: 3"));
  EXPECT_EQ(jvm.answer(), kFallback);
}

TEST_F(MendLineNative, NeverLooksAtTheReceiver) {
  RecordingJvm jvm(host.log());
  EXPECT_TRUE(jvm.request(kGetLogLevel, nullptr));
  EXPECT_TRUE(jvm.request(kGetLogLevel, reinterpret_cast<void*>(std::size_t{8})));
}

TEST_F(MendLineNative, AnswersAnEmptyRequest) {
  const rig::Call call = request("");
  EXPECT_EQ(call.answer, std::string(kDeclaration) + "<ERROR>Invalid mendline opcode</ERROR>");
  EXPECT_TRUE(call.balanced());
}

// A NUL in two bytes, a character outside the basic plane as two surrogates, a surrogate alone.
TEST_F(MendLineNative, TakesAndGivesModifiedUtf8AsItIs) {
  const std::string word = "\xC0\x80 \xED\xA0\xBD\xED\xB8\x80 \xED\xA0\xBD \xC3\xA9 \xE4\xB8\xAD";
  const rig::Call call = request(setLogLevelTo(word));
  EXPECT_EQ(call.answer, kDeclaration + ("<ERROR>Invalid loglevel " + word) + "</ERROR>");
}

TEST_F(MendLineNative, HandsBackLegalModifiedUtf8WhateverTheAnswerHolds) {
  const std::string replaced = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::string, std::string>> words = {
      {"\xFF", replaced},
      {"\xE4\xB8", replaced + replaced},
      {"a\x80z", "a" + replaced + "z"},
      {"\xC1\x81", replaced + replaced},
      {"\xF0\x9F\x98\x80", "\xED\xA0\xBD\xED\xB8\x80"},
      {"&#x1F600;", "\xED\xA0\xBD\xED\xB8\x80"},
      {"&#233;&#x4E2D;", "\xC3\xA9\xE4\xB8\xAD"},
      // Without this, the answer would end there.
      {"a&#0;z", "a" + replaced + "z"},
  };
  for (const auto& [word, given] : words) {
    EXPECT_EQ(request(setLogLevelTo(word)).answer,
              kDeclaration + ("<ERROR>Invalid loglevel " + given) + "</ERROR>")
        << word;
  }
}

TEST_F(MendLineNative, HandsBackTheFallbackForARequestThatIsNestedTooDeeply) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) {
    deep += "<a>";
  }
  const rig::Call call = request(deep);
  EXPECT_EQ(call.answer, kFallback);
  EXPECT_TRUE(call.balanced());
  EXPECT_TRUE(host.log().has("Error", "MendLineOperation", "nested deeper than 512"));
}

TEST_F(MendLineNative, TakesAndGivesLongTextsWhole) {
  const std::string word(3'000'000, 'x');
  const rig::Call call = request(setLogLevelTo(word));
  EXPECT_EQ(call.answer, kDeclaration + ("<ERROR>Invalid loglevel " + word) + "</ERROR>");
  EXPECT_TRUE(call.balanced());
}

TEST_F(MendLineNative, ReturnsWhateverTheJvmMadeOfTheAnswer) {
  rig::JvmRefusals refusals;
  refusals.noString = true;
  const rig::Call call = request(kGetLogLevel, refusals);
  EXPECT_EQ(call.answer, std::nullopt);
  EXPECT_EQ(call.created, 1);
  EXPECT_TRUE(call.balanced());
  EXPECT_TRUE(call.soundAnswer);
}

TEST_F(MendLineNative, KeepsNothingFromOneRequestToTheNext) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(request("no xml").answer, kFallback);
    EXPECT_EQ(request(kGetLogLevel).answer,
              std::string(kDeclaration) + "<LOGLEVEL>INFO</LOGLEVEL>");
  }
}

// Like a JVM's own frame, one that an exception cannot pass.
rig::Call callAsAJvm(const rig::JvmRefusals& refusals) noexcept {
  return rig::callExported(linkedFunction(), kGetLogLevel, refusals);
}

TEST_F(MendLineNative, ANullRequestEndsTheProcess) {
  rig::JvmRefusals refusals;
  refusals.nullRequest = true;
  refusals.noCharacters = true;
  EXPECT_EXIT(callAsAJvm(refusals), testing::KilledBySignal(SIGABRT),
              "std::logic_error(.|\n)*basic_string: construction from null is not valid");
}

TEST_F(MendLineNative, TakesNoCharactersForANullText) {
  rig::JvmRefusals refusals;
  refusals.noCharacters = true;
  const auto throwing = [&] { request(kGetLogLevel, refusals); };
  EXPECT_THAT(throwing, testing::ThrowsMessage<std::logic_error>(
                            "basic_string: construction from null is not valid"));
  EXPECT_THAT(host.log().text(), testing::IsEmpty());
}

TEST_F(MendLineNative, ServesTenThreadsAtOnce) {
  const rig::NativeLibrary library;
  std::vector<std::thread> threads;
  for (int t = 0; t < 10; ++t) {
    threads.emplace_back([&library, t] {
      const std::string word = "W" + std::to_string(t) + std::string(1000, 'w');
      for (int i = 0; i < 50; ++i) {
        const rig::Call refused = library.request(setLogLevelTo(word));
        EXPECT_EQ(refused.answer, kDeclaration + ("<ERROR>Invalid loglevel " + word) + "</ERROR>");
        EXPECT_TRUE(refused.balanced());
        EXPECT_EQ(library.request("no xml").answer, kFallback);
        EXPECT_THAT(library.request(kGetLogLevel).answer.value_or(""), HasSubstr("<LOGLEVEL>"));
        EXPECT_EQ(library.request(setLogLevelTo(i % 2 == 0 ? "INFO" : "DEBUG")).answer,
                  std::string(kDeclaration) + "<INFO>Succeed to set loglevel</INFO>");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace mendline
