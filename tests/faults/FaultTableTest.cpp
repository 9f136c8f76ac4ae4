// The table of the calls that can fail is whole: a new import, a new system call or a test that has
// gone makes one of these fail.
#include "tests/faults/FaultTable.h"

#include <cxxabi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/faults/SupervisedSession.h"
#include "tests/house/CommandOutput.h"

namespace mendline {
namespace {

namespace fs = std::filesystem;
using testing::IsSupersetOf;
using testing::StrNe;

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

std::string demangled(const std::string& symbol) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? text.get() : symbol;
}

[[maybe_unused]] bool covers(const FaultRow& row, const std::string& name) {
  const std::string_view pattern = row.call;
  return pattern.back() == '*' ? name.rfind(pattern.substr(0, pattern.size() - 1), 0) == 0
                               : name == pattern;
}

// Without the version behind the @.
[[maybe_unused]] std::set<std::string> importsOfTheShippedFile() {
  std::istringstream lines(
      commandOutput("nm -D --undefined-only " + std::string(MENDLINE_LIBRARY)));
  std::set<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    const std::string symbol = line.substr(line.find_last_of(' ') + 1);
    names.insert(demangled(symbol.substr(0, symbol.find('@'))));
  }
  return names;
}

std::vector<FaultRow> allRows() {
  std::vector<FaultRow> rows = kImports;
  for (const SystemCallRow& call : kSystemCalls) {
    rows.push_back(call.row);
  }
  return rows;
}

TEST(FaultTable, HasEveryImportOfTheShippedLibrary) {
#ifdef MENDLINE_INSTRUMENTED
  GTEST_SUCCEED() << "the instrumentation's own imports are not the product's";
#else
  const std::set<std::string> imports = importsOfTheShippedFile();
  EXPECT_THAT(imports, IsSupersetOf({"fopen", "shmget", "kill"})) << "the list cannot be right";
  for (const std::string& name : imports) {
    EXPECT_TRUE(std::any_of(kImports.begin(), kImports.end(),
                            [&](const FaultRow& row) { return covers(row, name); }))
        << name << " is not classified: can it fail, and what then?";
  }
#endif
}

TEST(FaultTable, HasNoPlainCallThatNothingImports) {
#ifdef MENDLINE_INSTRUMENTED
  GTEST_SUCCEED() << "the instrumentation's own imports are not the product's";
#else
  // In the hardened form or in the plain one, as the build has it; a text without figures is
  // printed by fwrite in some.
  const std::set<std::string> imports = importsOfTheShippedFile();
  const auto imported = [&](const std::string& name) {
    return imports.count(name) > 0 || imports.count("__" + name + "_chk") > 0 || name == "fwrite";
  };
  for (const FaultRow& row : kImports) {
    std::string name = row.call;
    if (*row.errors == '\0' || name.find(':') != std::string::npos || name.back() == '*') {
      continue;
    }
    if (name.rfind("__", 0) == 0 && name.size() > 6 && name.substr(name.size() - 4) == "_chk") {
      name = name.substr(2, name.size() - 6);
    }
    EXPECT_TRUE(imported(name)) << name << " has a row and is not imported any more";
  }
#endif
}

TEST(FaultTable, HasEverySystemCallOfALife) {
  SmallHost small;
  // So that the first line rotates it.
  fs::resize_file(rig::kLogFile, 26214400);
  std::map<long, int> seen;
  {
    SupervisedSession session([&](const rig::SupervisedCall& call) {
      ++seen[call.number];
      return rig::Verdict::goOn();
    });
    ASSERT_EQ(session.request(operation("StartCollector")), kStarted);
    ASSERT_TRUE(session.waitForTicks(2));
    for (const std::string& request :
         {operation("ProcessMetrics"), operation("LbMetrics"),
          operation("HistoricalMetrics", "<userName>alice</userName><display>101</display>"),
          operation("ProtocolInfo", "<display>101</display>"),
          operation("ClearShm", "<display>101</display>"), operation("StartvGPUMemoryCollector"),
          operation("LbMetrics"), operation("EndProcess", small.victim()),
          operation("StopCollector")}) {
      EXPECT_TRUE(session.request(request).has_value()) << request;
    }
    EXPECT_EQ(session.end(), 0);
  }
#ifndef MENDLINE_INSTRUMENTED  // which makes calls of its own
  for (const auto& [number, count] : seen) {
    EXPECT_TRUE(
        std::any_of(kSystemCalls.begin(), kSystemCalls.end(),
                    [number = number](const SystemCallRow& call) { return call.number == number; }))
        << "system call " << number << ", made " << count
        << " times, is not classified: can it fail, and what then?";
  }
#endif
  // Nothing is in the sweep that a life does not reach.
  for (const SweptCall& call : sweptCalls()) {
    EXPECT_GT(seen[call.number], 0) << call.name;
  }
}

TEST(FaultTable, GivesTheErrorsTheirNamesAndEachRowItsText) {
  std::set<std::string> known;
  for (int error = 1; error < 134; ++error) {
    if (const char* name = strerrorname_np(error)) {
      known.insert(name);
    }
  }
  for (const FaultRow& row : allRows()) {
    EXPECT_THAT(row.text, StrNe("")) << row.call;
    for (const std::string& error : wordsOf(row.errors)) {
      EXPECT_EQ(known.count(error), 1U) << row.call << ": " << error;
    }
    EXPECT_EQ(*row.errors == '\0', *row.tests == '\0')
        << row.call << ": what can fail has a test, and nothing else";
  }
}

TEST(FaultTable, NamesTestsThatThereAre) {
  std::set<std::string> tests;
  std::set<std::string> suites;
  const std::regex definition(R"(\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\))");
  for (const auto& entry :
       fs::recursive_directory_iterator(fs::path(MENDLINE_SOURCE_DIR) / "tests")) {
    if (entry.path().extension() != ".cpp") {
      continue;
    }
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) {
      std::smatch found;
      if (line.rfind("TEST", 0) != 0) {
        continue;
      }
      // A long name stands on the next line.
      for (std::string more; line.find(')') == std::string::npos && std::getline(file, more);) {
        line += more;
      }
      if (std::regex_search(line, found, definition)) {
        tests.insert(found.str(1) + "." + found.str(2));
        suites.insert(found.str(1) + ".*");
      }
    }
  }
  for (const FaultRow& row : allRows()) {
    for (const std::string& test : wordsOf(row.tests)) {
      EXPECT_EQ(tests.count(test) + suites.count(test), 1U)
          << row.call << " is shown by " << test << ", which there is not";
    }
  }
}

TEST(FaultTable, IsSweptWhereverTheKernelCanRefuse) {
  std::map<std::string, std::set<std::string>> swept;
  for (const SweptCall& call : sweptCalls()) {
    for (const int error : call.errors) {
      swept[call.name].insert(strerrorname_np(error));
    }
  }
  std::map<std::string, std::set<std::string>> expected;
  for (const SystemCallRow& call : kSystemCalls) {
    if (std::string(call.row.tests).find("SweepSlow.*") != std::string::npos) {
      for (const std::string& error : wordsOf(call.row.errors)) {
        expected[call.row.call].insert(error);
      }
    }
  }
  EXPECT_EQ(swept, expected);
}

}  // namespace
}  // namespace mendline
