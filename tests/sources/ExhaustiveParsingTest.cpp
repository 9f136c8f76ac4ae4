// Every small input, and every way in which a real one may be cut short.
#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "PrivateHost.h"
#include "logging/InternalLogger.h"
#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"
#include "tests/rules/ProcLines.h"

namespace mendline {
namespace {

const std::string kColumns = " S 2 3 4 5 -6 7 8 9 10 11 12 13 -14 -15 -16 -17 18 19 20 21 22 23";
const std::string kStatLine = "4711 (my (prog) x)" + kColumns + " 24 25\n";
const std::string kIoFile =
    "rchar: 700000\nwchar: 300000\nsyscr: 12\nsyscw: 3\nread_bytes: 8192\nwrite_bytes: 4096\n"
    "cancelled_write_bytes: 0\n";
const std::string kStatFile =
    "cpu  150 9 100 1000 3 0 1 0 0 0\ncpu0 75 4 50 500 1 0 1 0 0 0\nintr 5 0 0 1\nctxt 99\n"
    "btime 1795247679\nprocesses 4\n";
const std::string kDiskStats =
    "   8       0 sda 100 1 2 3 50 4 5 6 7 8 9 10 11 12 13 14 15\n"
    "   8       1 sda1 90 1 2 3 45 4 5 6 7 8 9\n"
    " 259       0 nvme0n1-with-a-name-that-is-too-long 18446744073709551615 1 2 3 4 5 6 7 8 9 10\n";

// Every text over the alphabet, up to that length.
template <typename Function>
void forEveryText(const std::string& alphabet, std::size_t longest, Function function) {
  std::vector<std::size_t> digits;
  std::string text;
  for (;;) {
    function(text);
    std::size_t at = 0;
    while (at < digits.size() && ++digits[at] == alphabet.size()) {
      digits[at] = 0;
      text[at] = alphabet[0];
      ++at;
    }
    if (at < digits.size()) {
      text[at] = alphabet[digits[at]];
    } else if (digits.size() == longest) {
      return;
    } else {
      digits.push_back(0);
      text.push_back(alphabet[0]);
    }
  }
}

// Every prefix, every text that lacks one byte or has another one in its place.
template <typename Function>
void forEveryDamageTo(const std::string& text, Function function) {
  const std::string bytes = std::string("\0\x01\n\t ()-+:0x9\x7F\xFF", 15);
  for (std::size_t at = 0; at <= text.size(); ++at) {
    function(text.substr(0, at));
    function(text.substr(at));
    for (const char byte : bytes) {
      function(text.substr(0, at) + byte + text.substr(at));
      if (at < text.size()) {
        function(text.substr(0, at) + byte + text.substr(at + 1));
      }
    }
    if (at < text.size()) {
      function(text.substr(0, at) + text.substr(at + 1));
    }
  }
}

class ExhaustiveParsing : public testing::Test {
 protected:
  // Tens of thousands of complaints tell nothing here.
  void SetUp() override { SetLogThreshold(LogLevel::Faltal); }

  rig::PrivateHost host;
};

void expectStatRules(const std::string& line) {
  const char* broken = rules::brokenStatRule(rules::cText(line));
  ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(line);
}

const std::string kAlphabet = "() 1-x\n";

TEST_F(ExhaustiveParsing, OfEveryStatLineUpToSixCharacters) {
  int lines = 0;
  forEveryText(kAlphabet, 6, [&](const std::string& line) {
    ++lines;
    expectStatRules(line);
  });
  EXPECT_EQ(lines, 1 + 7 + 49 + 343 + 2401 + 16807 + 117649);
}

TEST_F(ExhaustiveParsing, OfEveryFourCharactersInEveryPlaceOfAStatLine) {
  int taken = 0;
  const auto expectRules = [&](const std::string& line) {
    expectStatRules(line);
    ProcessStat stat;
    taken += static_cast<int>(parseProcessStat(line.c_str(), 0, stat));
  };
  forEveryText(kAlphabet, 4, [&](const std::string& text) {
    expectRules(text + "(name)" + kColumns);
    expectRules("12" + text + "name)" + kColumns);
    expectRules("12 (" + text + ")" + kColumns);
    expectRules("12 (name" + text + kColumns);
    expectRules("12 (name)" + text + kColumns.substr(1));
    expectRules("12 (name) S 2" + text + "3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23");
    expectRules("12 (name) S 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22" + text);
  });
  // Lines of both kinds were among them.
  EXPECT_GT(taken, 5000);
  EXPECT_LT(taken, 15000);
}

TEST_F(ExhaustiveParsing, OfEveryDamageToARealStatLine) {
  forEveryDamageTo(kStatLine, expectStatRules);
}

TEST_F(ExhaustiveParsing, OfEveryByteAsAName) {
  for (int value = 1; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    for (const std::string& name : {std::string(1, byte), std::string("a") + byte + "b",
                                    std::string(254, byte), std::string(255, byte)}) {
      const std::string line = "12 (" + name + ")" + kColumns;
      expectStatRules(line);
      ProcessStat stat;
      EXPECT_TRUE(parseProcessStat(line.c_str(), 0, stat));
      EXPECT_EQ(stat.comm, name.substr(0, 254));
    }
  }
}

TEST_F(ExhaustiveParsing, OfEveryShortIoLine) {
  forEveryText(std::string("rw:c 7\n"), 5, [](const std::string& line) {
    for (const std::string& whole : {line, "rchar:" + line, "wchar: 5" + line}) {
      const char* broken = rules::IoLines().brokenRule(whole);
      ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(whole);
    }
  });
}

TEST_F(ExhaustiveParsing, OfEveryDamageToARealIoFile) {
  forEveryDamageTo(kIoFile, [](const std::string& file) {
    const char* broken = rules::brokenRuleOfLines(file, rules::IoLines(), 126);
    ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(file);
  });
}

TEST_F(ExhaustiveParsing, OfEveryShortCpuAndBootTimeLine) {
  forEveryText(std::string("cpu 1-\n"), 5, [](const std::string& line) {
    for (const std::string& whole : {line, "cpu" + line, "cpu 1 2" + line, "btime" + line}) {
      const char* broken = rules::CpuLines().brokenRule(whole);
      ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(whole);
    }
  });
}

TEST_F(ExhaustiveParsing, OfEveryDamageToARealStatFile) {
  forEveryDamageTo(kStatFile, [](const std::string& file) {
    const char* broken = rules::brokenRuleOfLines(file, rules::CpuLines());
    ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(file);
  });
}

TEST_F(ExhaustiveParsing, OfEveryShortDiskLine) {
  forEveryText(std::string("1 -a\n"), 7, [](const std::string& line) {
    rules::DiskLines lines;
    for (const std::string& whole : {std::string("8 1 sda 1 2 3"), line, "8 0 sd" + line}) {
      const char* broken = lines.brokenRule(whole);
      ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(whole);
    }
  });
}

TEST_F(ExhaustiveParsing, OfEveryDamageToRealDiskStatistics) {
  forEveryDamageTo(kDiskStats, [](const std::string& file) {
    const char* broken = rules::brokenRuleOfLines(file, rules::DiskLines());
    ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << testing::PrintToString(file);
  });
}

// The name's length must not decide what the columns behind it are.
TEST_F(ExhaustiveParsing, OfEveryLengthOfADiskName) {
  for (std::size_t length = 1; length <= 480; ++length) {
    const std::string line = "8 0 " + std::string(length, 'n') + " 1 2 3 4 5 6 7 8 9 10 11\n";
    const char* broken = rules::DiskLines().brokenRule(line);
    ASSERT_EQ(broken, nullptr) << broken << "\nfor: " << line;
  }
}

// --- The same through the readers, wherever the file ends ---------------------------------------

std::vector<std::string> linesOf(const std::string& file) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < file.size();) {
    const std::size_t end = std::min(file.find('\n', at), file.size() - 1);
    lines.push_back(file.substr(at, end + 1 - at));
    at = end + 1;
  }
  return lines;
}

TEST_F(ExhaustiveParsing, OfEveryPrefixOfTheStatFileByItsReader) {
  rig::SyntheticProc& proc = host.syntheticProc();
  for (std::size_t length = 0; length <= kStatFile.size(); ++length) {
    const std::string file = kStatFile.substr(0, length);
    proc.setFile("stat", file);
    CpuTimes wanted;
    for (const std::string& line : linesOf(file)) {
      parseStatLine(line.c_str(), wanted);
    }
    CpuTimes times;
    ASSERT_TRUE(readCpuTimes(times));
    EXPECT_EQ(times.user, wanted.user) << file;
    EXPECT_EQ(times.nice, wanted.nice) << file;
    EXPECT_EQ(times.system, wanted.system) << file;
    EXPECT_EQ(times.idle, wanted.idle) << file;
    EXPECT_EQ(times.bootTime, wanted.bootTime) << file;
  }
}

TEST_F(ExhaustiveParsing, OfEveryPrefixOfTheDiskStatisticsByTheirReader) {
  rig::SyntheticProc& proc = host.syntheticProc();
  for (std::size_t length = 0; length <= kDiskStats.size(); ++length) {
    const std::string file = kDiskStats.substr(0, length);
    proc.setFile("diskstats", file);
    std::vector<DiskStatLine> records;
    ASSERT_TRUE(readDiskStats(records));
    const std::vector<std::string> lines = linesOf(file);
    ASSERT_EQ(records.size(), lines.size()) << file;
    DiskStatLine wanted;
    for (std::size_t i = 0; i < lines.size(); ++i) {
      parseDiskStatLine(lines[i].c_str(), wanted);
      EXPECT_STREQ(records[i].name, wanted.name) << file;
      EXPECT_EQ(records[i].readsCompleted, wanted.readsCompleted) << file;
      EXPECT_EQ(records[i].msReading, wanted.msReading) << file;
      EXPECT_EQ(records[i].writesCompleted, wanted.writesCompleted) << file;
      EXPECT_EQ(records[i].msWriting, wanted.msWriting) << file;
      EXPECT_EQ(records[i].iosInProgress, wanted.iosInProgress) << file;
      EXPECT_EQ(records[i].msDoingIo, wanted.msDoingIo) << file;
    }
  }
}

// Free memory changes all the time, so it is asked for before and after until it stood still.
std::uint64_t cacheShare() {
  for (int attempt = 0; attempt < 20000; ++attempt) {
    struct sysinfo before = {};
    struct sysinfo after = {};
    MemoryStats memory;
    EXPECT_EQ(sysinfo(&before), 0);
    EXPECT_TRUE(readMemoryStats(memory));
    EXPECT_EQ(sysinfo(&after), 0);
    if (before.freeram == after.freeram && before.bufferram == after.bufferram) {
      return memory.available - after.freeram - after.bufferram;
    }
  }
  ADD_FAILURE() << "free memory never stood still";
  return 0;
}

TEST_F(ExhaustiveParsing, OfEveryPrefixOfTheMemoryFileByItsReader) {
  const std::string before = "MemTotal:       8000000 kB\nSwapCached:           7 kB\nCached:   ";
  const std::string number = "4294967";
  const std::string file = before + number + " kB\nCached: 5 kB\n";
  rig::SyntheticProc& proc = host.syntheticProc();
  for (std::size_t length = 0; length <= file.size(); ++length) {
    proc.setFile("meminfo", file.substr(0, length));
    const std::size_t digits =
        std::min(length > before.size() ? length - before.size() : 0, number.size());
    const std::uint64_t kilobytes = digits == 0 ? 0 : std::stoull(number.substr(0, digits));
    EXPECT_EQ(cacheShare(), kilobytes * 1024 % (std::uint64_t{1} << 32)) << length;
  }
}

TEST_F(ExhaustiveParsing, OfEveryPrefixOfAProcessesFilesByTheirReaders) {
  rig::SyntheticProc& proc = host.syntheticProc();
  for (std::size_t length = 1; length <= kStatLine.size(); ++length) {
    rig::ProcEntry entry;
    entry.stat = kStatLine.substr(0, length);
    entry.io = kIoFile.substr(0, length);
    proc.addProcess(4711, entry);
    ProcessStat wanted;
    const bool isWhole = parseProcessStat(entry.stat->c_str(), 0, wanted);
    ProcessInfo info;
    ASSERT_EQ(GetProcessInfo(4711, info), isWhole) << *entry.stat;
    if (isWhole) {
      ProcessIo io;
      for (const std::string& line : linesOf(*entry.io)) {
        parseProcessIoLine(line.c_str(), io);
      }
      EXPECT_EQ(info.strProcessName, "my (prog) x");
      EXPECT_EQ(info.ullStartTime, wanted.starttime);
      EXPECT_EQ(info.ulMemory, static_cast<std::uint64_t>(wanted.rss));
      EXPECT_EQ(info.ullReadBytesCount, io.rchar) << *entry.io;
      EXPECT_EQ(info.ullWriteBytesCount, io.wchar) << *entry.io;
    }
  }
}

}  // namespace
}  // namespace mendline
