// Whatever processes are called, every JDK gets the whole report, to its last closing tag.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Jdks.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

// The driver writes a line feed as two characters.
const std::string kDeclaration = R"(<?xml version="1.0" encoding="utf-8"?>\n)";
const std::string kFallback = "<ERROR>Failed to do mendline operation</ERROR>";
const std::string kReplacement = "\xEF\xBF\xBD";

std::string operation(const std::string& opcode) {
  return "<MendlineOperation><opcode>" + opcode + "</opcode></MendlineOperation>";
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) {
    result += text;
  }
  return result;
}

std::string nameOf(const testing::TestParamInfo<std::string>& info) {
  std::string name =
      std::filesystem::path(info.param).parent_path().parent_path().filename().string();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name == "usr" ? "default_jdk" : name;
}

class NamesInARealJvm : public testing::TestWithParam<std::string> {
 protected:
  // The answers to these lines, with the clock of the collector running fast.
  std::vector<std::string> answers(const std::vector<std::string>& lines) const {
    std::string input;
    for (const std::string& line : lines) {
      input += line + "\n";
    }
    const rig::Run run = host.program({GetParam(), "-Xmx256m", "-XX:ErrorFile=/dev/null",
                                       "-XX:-CreateCoredumpOnCrash", "-XX:-UsePerfData", "-cp",
                                       MENDLINE_DRIVER_CLASS_PATH, "JvmDriver", MENDLINE_LIBRARY})
                             .withInput(input)
                             .withClockSpeed(600)
                             .run();
    EXPECT_EQ(run.exitStatus, 0) << run.errors;
    return run.outputLines();
  }

  std::string report() const {
    std::string report;
    for (const std::string& line :
         answers({operation("StartCollector"), "!sleep 1500", operation("ProcessMetrics"),
                  operation("StopCollector")})) {
      if (line.find("<processMetrics>") != std::string::npos) {
        report = line;
      }
    }
    return report;
  }

  rig::PrivateHost host;
};

INSTANTIATE_TEST_SUITE_P(EveryJdk, NamesInARealJvm, testing::ValuesIn(javas()), nameOf);

// The name of each process of a report by its pid, for a report that is whole: every tag is there,
// in its order, and nothing else.
std::map<std::string, std::string> namesIn(const std::string& report) {
  std::map<std::string, std::string> names;
  std::size_t at = 0;
  const auto take = [&](const std::string& text) {
    const bool isThere = report.compare(at, text.size(), text) == 0;
    at += isThere ? text.size() : 0;
    return isThere;
  };
  const auto element = [&](const std::string& name, std::string& content) {
    if (!take("<" + name + ">")) {
      return take("<" + name + "/>");
    }
    const std::size_t end = report.find('<', at);
    if (end == std::string::npos) {
      return false;
    }
    content = report.substr(at, end - at);
    at = end;
    return take("</" + name + ">");
  };
  std::string id;
  std::string name;
  std::string other;
  bool whole = take(kDeclaration + "<processMetrics>") && element("timestamp", other);
  while (whole && take("<process>")) {
    name.clear();
    whole = element("id", id) && element("create_time", other) && element("name", name) &&
            element("cpu", other) && element("mem", other) && element("disk", other) &&
            element("user_name", other) && take("</process>");
    names[id] = name;
  }
  EXPECT_TRUE(whole && take("</processMetrics>") && at == report.size())
      << "not whole at byte " << at << ": " << testing::PrintToString(report.substr(at));
  return names;
}

// As an answer shows a byte or a character of one byte.
std::string shown(char byte) {
  switch (byte) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&apos;";
    case '\\':
      return "\\\\";  // the driver's
    case '\r':
      return "\\r";  // the driver's
    default:
      return static_cast<unsigned char>(byte) < 0x80 ? std::string(1, byte) : kReplacement;
  }
}

// Names, and what a report makes of them.
std::vector<std::pair<std::string, std::string>> nameTable() {
  const std::string zhong = "\xE4\xB8\xAD";
  const std::string emoji = "\xF0\x9F\x98\x80";
  std::vector<std::pair<std::string, std::string>> table = {
      {"xedit", "xedit"},
      {"caf\xC3\xA9", "caf\xC3\xA9"},
      {zhong + zhong, zhong + zhong},
      {emoji, emoji},
      {"a" + emoji + "z" + emoji, "a" + emoji + "z" + emoji},
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
      {"\x80\xBF stray", kReplacement + kReplacement + " stray"},
      {"\xC0\xAF overlong", kReplacement + kReplacement + " overlong"},
      {"\xF4\x90\x80\x80 beyond", repeated(kReplacement, 4) + " beyond"},
      {"\xFE\xFF", kReplacement + kReplacement},
      {repeated("\xFF", 15), repeated(kReplacement, 15)},
      {"</processMetric", "&lt;/processMetric"},
  };
  // The kernel keeps 15 bytes, wherever that cuts a character.
  for (std::size_t start = 0; start < 4; ++start) {
    const std::string before(start, 'c');
    const std::size_t room = 15 - start;
    table.emplace_back(before + repeated(zhong, 6),
                       before + repeated(zhong, room / 3) + repeated(kReplacement, room % 3));
    table.emplace_back(before + repeated(emoji, 5),
                       before + repeated(emoji, room / 4) + repeated(kReplacement, room % 4));
  }
  return table;
}

TEST_P(NamesInARealJvm, ComeWholeWhateverCharactersTheyHold) {
  const auto table = nameTable();
  std::vector<rig::Process> processes;
  for (const auto& [name, wanted] : table) {
    processes.push_back(host.process(name).start());
  }
  const auto names = namesIn(report());
  for (std::size_t i = 0; i < table.size(); ++i) {
    const auto found = names.find(std::to_string(processes[i].pid()));
    ASSERT_NE(found, names.end()) << testing::PrintToString(table[i].first);
    EXPECT_EQ(found->second, table[i].second) << testing::PrintToString(table[i].first);
  }
}

TEST_P(NamesInARealJvm, ComeWholeWithEveryByte) {
  std::vector<std::pair<std::string, std::string>> table;
  for (int value = 1; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    // A line feed ends the line that the kernel writes, so such a process is left out.
    if (byte != '\n') {
      table.emplace_back(std::string("n") + byte + "m", "n" + shown(byte) + "m");
    }
  }
  std::vector<rig::Process> processes;
  for (const auto& [name, wanted] : table) {
    processes.push_back(host.process(name).start());
  }
  const auto names = namesIn(report());
  for (std::size_t i = 0; i < table.size(); ++i) {
    const auto found = names.find(std::to_string(processes[i].pid()));
    ASSERT_NE(found, names.end()) << testing::PrintToString(table[i].first);
    EXPECT_EQ(found->second, table[i].second) << testing::PrintToString(table[i].first);
  }
}

TEST_P(NamesInARealJvm, LeaveTheAnswerWholeThatEndsTheirProcess) {
  rig::Process process = host.process("\xE4\xB8\xAD\xE4\xB8\xAD\xF0\x9F\x98").start();
  const std::string whole = report();
  const std::string id = "<id>" + std::to_string(process.pid()) + "</id><create_time>";
  const std::size_t at = whole.find(id);
  ASSERT_NE(at, std::string::npos);
  const std::size_t start = at + id.size();
  const std::string created = whole.substr(start, whole.find('<', start) - start);
  const auto answer = answers({"<MendlineOperation><opcode>EndProcess</opcode><processId>" +
                               std::to_string(process.pid()) + "</processId><createTime>" +
                               created + "</createTime></MendlineOperation>"});
  EXPECT_THAT(answer, testing::ElementsAre(kDeclaration +
                                           "<terminatedProcessName>\xE4\xB8\xAD\xE4" + "\xB8\xAD" +
                                           repeated(kReplacement, 3) + "</terminatedProcessName>"));
}

TEST_P(NamesInARealJvm, NestedTooDeeplyARequestIsAnsweredAndTheNextOneToo) {
  EXPECT_THAT(
      answers({repeated("<a>", 512) + repeated("</a>", 512),
               repeated("<a>", 513) + repeated("</a>", 513),
               repeated("<a>", 2500) + repeated("</a>", 2500), repeated("<a>", 2500),
               repeated("<a>", 100'000) + repeated("</a>", 100'000), operation("GetLogLevel")}),
      testing::ElementsAre(kDeclaration + "<ERROR>Invalid mendline opcode</ERROR>", kFallback,
                           kFallback, kFallback, kFallback,
                           kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>"));
  EXPECT_EQ(host.log().count("Error", "MendLineOperation", "nested deeper than 512"), 4U);
}

}  // namespace
}  // namespace mendline
