// What a host gets: the module as the linker made it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/house/CommandOutput.h"

namespace mendline {
namespace {

using testing::AnyOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kLibrary = MENDLINE_LIBRARY;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr bool kInstrumented = false;
#else
constexpr bool kInstrumented = true;
#endif

TEST(ShippedLibrary, ExportsOneFunctionAndNothingElse) {
  const auto symbols = linesOf(commandOutput("nm -D --defined-only " + kLibrary));
  EXPECT_THAT(symbols,
              ElementsAre(ContainsRegex(
                  "^[0-9a-f]+ T Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_"
                  "forwardAndHandleRequest$")));
}

TEST(ShippedLibrary, NeedsTheCAndCppRuntimeOnly) {
  for (const std::string& line : linesOf(commandOutput("readelf -dW " + kLibrary))) {
    if (line.find("(NEEDED)") == std::string::npos) {
      continue;
    }
    if (kInstrumented && line.find("san.so") != std::string::npos) {
      continue;
    }
    EXPECT_THAT(line, AnyOf(HasSubstr("[libstdc++.so.6]"), HasSubstr("[libgcc_s.so.1]"),
                            HasSubstr("[libm.so.6]"), HasSubstr("[libc.so.6]"),
                            HasSubstr("[ld-linux-x86-64.so.2]")));
  }
}

TEST(ShippedLibrary, IsAPluginWithoutASoname) {
  EXPECT_THAT(commandOutput("readelf -dW " + kLibrary), Not(HasSubstr("SONAME")));
}

TEST(ShippedLibrary, IsBoundAtLoadAndReadOnlyAfterwards) {
  EXPECT_THAT(commandOutput("readelf -lW " + kLibrary), HasSubstr("GNU_RELRO"));
  EXPECT_THAT(commandOutput("readelf -dW " + kLibrary), ContainsRegex("(BIND_NOW|FLAGS_1.*NOW)"));
}

TEST(ShippedLibrary, HasNoExecutableStackAndNoTextRelocations) {
  EXPECT_THAT(commandOutput("readelf -lW " + kLibrary), ContainsRegex("GNU_STACK .* RW "));
  EXPECT_THAT(commandOutput("readelf -dW " + kLibrary), Not(HasSubstr("TEXTREL")));
}

TEST(ShippedLibrary, CarriesNoPathOfTheMachineThatItsUserCouldTripOver) {
  EXPECT_THAT(commandOutput("readelf -dW " + kLibrary), Not(ContainsRegex("R(UN)?PATH")));
}

// It lives in someone else's process: no new process, no signal handling, no locale of its own.
TEST(ShippedLibrary, CallsNothingThatChangesItsHostProcess) {
  if (kInstrumented) {
    GTEST_SUCCEED() << "the sanitizer's own imports are not the product's";
    return;
  }
  std::vector<std::string> forbidden;
  for (const std::string& line : linesOf(commandOutput("nm -D --undefined-only " + kLibrary))) {
    for (const char* name :
         {" setlocale", " sigaction", " signal", " sigprocmask", " pthread_sigmask", " fork",
          " vfork", " execve", " posix_spawn", " system", " popen", " setenv", " putenv", " chdir",
          " umask", " exit", " _exit"}) {
      if ((line + "@").find(std::string(name) + "@") != std::string::npos) {
        forbidden.push_back(line);
      }
    }
  }
  EXPECT_THAT(forbidden, IsEmpty());
}

}  // namespace
}  // namespace mendline
