#include "sources/ProcessQuery.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FailingSyscalls.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"
#include "tests/sources/SysconfAnswers.h"

namespace mendline {
namespace {

using rig::inChild;
using rig::IoCounters;
using rig::PrivateHost;
using rig::ProcEntry;
using rig::StatLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// What stands behind the name, every column another number.
const std::string kColumns = " S 2 3 4 5 -6 7 8 9 10 11 12 13 -14 -15 -16 -17 18 19 20 21 22 23";

// Parses a copy that ends where its memory ends, so that a sanitizer sees any look behind it.
bool parse(const std::string& line, ProcessStat& out, std::uint32_t uid = 0) {
  const auto exact = std::make_unique<char[]>(line.size() + 1);
  std::memcpy(exact.get(), line.c_str(), line.size() + 1);
  return parseProcessStat(exact.get(), uid, out);
}

std::string nameIn(const std::string& line) {
  ProcessStat stat;
  EXPECT_TRUE(parse(line, stat)) << line;
  return stat.comm;
}

ProcessStat filledStat() {
  ProcessStat stat;
  // No padding is looked at afterwards, only fields.
  std::memset(static_cast<void*>(&stat), 0x7f, sizeof stat);
  return stat;
}

TEST(ParseProcessStat, TakesEveryColumnUpToRsslim) {
  ProcessStat stat = filledStat();
  EXPECT_TRUE(parse("1234 (name)" + kColumns + " 98 99\n", stat, 77));
  EXPECT_EQ(stat.pid, 1234);
  EXPECT_EQ(stat.uid, 77u);
  EXPECT_STREQ(stat.comm, "name");
  EXPECT_EQ(stat.state, 'S');
  EXPECT_EQ(stat.ppid, 2);
  EXPECT_EQ(stat.pgrp, 3);
  EXPECT_EQ(stat.session, 4);
  EXPECT_EQ(stat.tty_nr, 5);
  EXPECT_EQ(stat.tpgid, -6);
  EXPECT_EQ(stat.flags, 7u);
  EXPECT_EQ(stat.minflt, 8u);
  EXPECT_EQ(stat.cminflt, 9u);
  EXPECT_EQ(stat.majflt, 10u);
  EXPECT_EQ(stat.cmajflt, 11u);
  EXPECT_EQ(stat.utime, 12u);
  EXPECT_EQ(stat.stime, 13u);
  EXPECT_EQ(stat.cutime, -14);
  EXPECT_EQ(stat.cstime, -15);
  EXPECT_EQ(stat.priority, -16);
  EXPECT_EQ(stat.nice, -17);
  EXPECT_EQ(stat.num_threads, 18);
  EXPECT_EQ(stat.itrealvalue, 19);
  EXPECT_EQ(stat.starttime, 20u);
  EXPECT_EQ(stat.vsize, 21u);
  EXPECT_EQ(stat.rss, 22);
  EXPECT_EQ(stat.rsslim, 23u);
}

TEST(ParseProcessStat, TakesColumnsOfTheirFullWidth) {
  ProcessStat stat;
  EXPECT_TRUE(
      parse("2147483647 (n) R -2147483648 1 1 1 1 4294967295 18446744073709551615 "
            "18446744073709551614 18446744073709551613 18446744073709551612 18446744073709551611 "
            "18446744073709551610 -9223372036854775808 9223372036854775807 1 1 1 1 "
            "18446744073709551609 18446744073709551608 -9223372036854775807 18446744073709551615",
            stat, 4294967295));
  EXPECT_EQ(stat.pid, 2147483647);
  EXPECT_EQ(stat.uid, 4294967295u);
  EXPECT_EQ(stat.ppid, std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(stat.flags, 4294967295u);
  EXPECT_EQ(stat.minflt, 18446744073709551615u);
  EXPECT_EQ(stat.cminflt, 18446744073709551614u);
  EXPECT_EQ(stat.majflt, 18446744073709551613u);
  EXPECT_EQ(stat.cmajflt, 18446744073709551612u);
  EXPECT_EQ(stat.utime, 18446744073709551611u);
  EXPECT_EQ(stat.stime, 18446744073709551610u);
  EXPECT_EQ(stat.cutime, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(stat.cstime, std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(stat.starttime, 18446744073709551609u);
  EXPECT_EQ(stat.vsize, 18446744073709551608u);
  EXPECT_EQ(stat.rss, -9223372036854775807);
  EXPECT_EQ(stat.rsslim, 18446744073709551615u);
}

TEST(ParseProcessStat, TheNameLiesBetweenTheFirstAndTheLastParenthesis) {
  EXPECT_EQ(nameIn("1234 ((sd-pam))" + kColumns), "(sd-pam)");
  EXPECT_EQ(nameIn("77 (a) b c)" + kColumns), "a) b c");
  EXPECT_EQ(nameIn("77 (a (b)" + kColumns), "a (b");
  EXPECT_EQ(nameIn("77 ())" + kColumns), ")");
  EXPECT_EQ(nameIn("77 (()" + kColumns), "(");
  EXPECT_EQ(nameIn("77 ()" + kColumns), "");
  EXPECT_EQ(nameIn("77 ( )" + kColumns), " ");
  EXPECT_EQ(nameIn("77 ) (a)" + kColumns), "a");
}

TEST(ParseProcessStat, FieldsAreScannedFromBehindTheLastParenthesis) {
  ProcessStat stat;
  EXPECT_TRUE(
      parse("77 (a) b c) R 31 3 4 5 -6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23", stat));
  EXPECT_EQ(stat.state, 'R');
  EXPECT_EQ(stat.ppid, 31);
  EXPECT_EQ(stat.rsslim, 23u);
}

TEST(ParseProcessStat, TheScanSkipsExactlyOneCharacterBehindTheName) {
  ProcessStat stat;
  EXPECT_TRUE(parse("77 (a)xR" + kColumns.substr(2), stat));
  EXPECT_EQ(stat.state, 'R');
  EXPECT_EQ(stat.ppid, 2);
  EXPECT_TRUE(parse("77 (a)R" + kColumns.substr(2), stat));
  EXPECT_EQ(stat.state, ' ');
  EXPECT_EQ(stat.ppid, 2);
  EXPECT_FALSE(parse("77 (a) " + kColumns, stat));
}

TEST(ParseProcessStat, ALongNameIsCutAt254Bytes) {
  for (const std::size_t length : {253u, 254u}) {
    EXPECT_EQ(nameIn("1 (" + std::string(length, 'n') + ")" + kColumns).size(), length);
  }
  for (const std::size_t length : {255u, 256u, 300u, 900u, 5000u}) {
    ProcessStat stat = filledStat();
    const std::string name = "N" + std::string(length - 1, 'n');
    ASSERT_TRUE(parse("1 (" + name + ")" + kColumns, stat));
    EXPECT_EQ(std::string(stat.comm), name.substr(0, 254));
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.ppid, 2);
  }
}

TEST(ParseProcessStat, ALineWithoutAPidIsTakenWithPidZero) {
  PrivateHost host;
  ProcessStat stat = filledStat();
  EXPECT_TRUE(parse("(name)" + kColumns, stat, 5));
  EXPECT_EQ(stat.pid, 0);
  EXPECT_EQ(stat.uid, 5u);
  EXPECT_STREQ(stat.comm, "name");
  EXPECT_EQ(stat.starttime, 20u);
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn ProcessQueryUtil: Failed to get proc id from buffer (name)" + kColumns));
}

TEST(ParseProcessStat, ThePidIsTheNumberAtTheLinesStart) {
  PrivateHost host;
  ProcessStat stat;
  EXPECT_TRUE(parse("  12x (name)" + kColumns, stat));
  EXPECT_EQ(stat.pid, 12);
  EXPECT_TRUE(parse("-12 (name)" + kColumns, stat));
  EXPECT_EQ(stat.pid, -12);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  EXPECT_TRUE(parse("x 12 (name)" + kColumns, stat));
  EXPECT_EQ(stat.pid, 0);
}

TEST(ParseProcessStat, ALineWithoutAnOpeningParenthesisIsRefused) {
  PrivateHost host;
  ProcessStat stat;
  EXPECT_FALSE(parse("77 name) S 1 2", stat));
  EXPECT_FALSE(parse("", stat));
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn ProcessQueryUtil: Failed to find proc name from buffer :77 name) S 1 2",
                  "Warn ProcessQueryUtil: Failed to get proc id from buffer ",
                  "Warn ProcessQueryUtil: Failed to find proc name from buffer :"));
}

TEST(ParseProcessStat, ALineWithoutAClosingParenthesisBehindTheNameIsRefused) {
  PrivateHost host;
  ProcessStat stat;
  EXPECT_FALSE(parse("77 (name S 1 2", stat));
  EXPECT_FALSE(parse("77 ) (name S 1 2", stat));
  EXPECT_FALSE(parse("77 (", stat));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProcessQueryUtil: Failed to grap the whole proc name from "
                          "buffer: 77 (name S 1 2",
                          "Warn ProcessQueryUtil: Failed to grap the whole proc name from "
                          "buffer: 77 ) (name S 1 2",
                          "Warn ProcessQueryUtil: Failed to grap the whole proc name from "
                          "buffer: 77 ("));
}

TEST(ParseProcessStat, NeedsAllTwentyThreeColumnsBehindTheName) {
  PrivateHost host;
  ProcessStat stat;
  EXPECT_TRUE(parse("77 (name)" + kColumns, stat));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  std::string cut = "77 (name)" + kColumns;
  for (int columns = 22; columns >= 0; --columns) {
    cut.resize(cut.rfind(' '));
    host.log().clear();
    EXPECT_FALSE(parse(cut, stat)) << cut;
    EXPECT_THAT(
        loggedLines(host.log()),
        ElementsAre("Warn ProcessQueryUtil: The proc content: " + cut + " may be corrupted"));
  }
  EXPECT_EQ(cut, "77 (name)");
}

TEST(ParseProcessStat, AColumnThatIsNoNumberIsRefused) {
  PrivateHost host;
  ProcessStat stat;
  const std::string line = "77 (name) S 2 x" + kColumns.substr(8);
  EXPECT_FALSE(parse(line, stat));
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn ProcessQueryUtil: The proc content: " + line + " may be corrupted"));
}

TEST(ParseProcessStat, ALineThatEndsInAParenthesisIsReadToItsEndOnly) {
  PrivateHost host;
  ProcessStat stat;
  for (const char* line : {"77 (name)", "77 ()", "77 (name) ", "77 (name)\n"}) {
    EXPECT_FALSE(parse(line, stat)) << line;
  }
  EXPECT_EQ(host.log().count("Warn", "ProcessQueryUtil", "The proc content: 77 ("), 4u);
}

TEST(ParseProcessStat, ColumnsBehindTheEndOfTheLineAreNotTheLines) {
  PrivateHost host;
  const std::string memory = "77 (name)" + std::string(1, '\0') + kColumns.substr(1);
  ProcessStat stat;
  EXPECT_FALSE(parseProcessStat(memory.c_str(), 0, stat));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProcessQueryUtil: The proc content: 77 (name) may be corrupted"));
}

TEST(ParseProcessStat, NoFieldKeepsWhatItHeld) {
  PrivateHost host;
  ProcessStat stat = filledStat();
  EXPECT_TRUE(parse("(n)" + kColumns, stat));
  EXPECT_TRUE(std::all_of(stat.comm + 1, std::end(stat.comm), [](char c) { return c == 0; }));
}

ProcEntry entryOf(const StatLine& stat, const IoCounters& io = {}, uid_t owner = 0) {
  ProcEntry entry;
  entry.stat = stat.text();
  entry.io = io.text();
  entry.owner = owner;
  entry.group = owner;
  return entry;
}

TEST(ReadProcessStat, TakesTheLineAndTheFoldersOwner) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 4711, .name = "sshd", .state = 'R', .startTime = 99},
                                  2001);
  ProcessStat stat = filledStat();
  EXPECT_TRUE(ReadProcessStat(4711, stat));
  EXPECT_EQ(stat.pid, 4711);
  EXPECT_EQ(stat.uid, 2001u);
  EXPECT_STREQ(stat.comm, "sshd");
  EXPECT_EQ(stat.state, 'R');
  EXPECT_EQ(stat.starttime, 99u);
  EXPECT_EQ(stat.rsslim, 0u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ReadProcessStat, TheOwnerIsTheFoldersAndNotTheFiles) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 4711}, 2001).setOwner(4711, 2002, 2003);
  ProcessStat stat;
  EXPECT_TRUE(ReadProcessStat(4711, stat));
  EXPECT_EQ(stat.uid, 2002u);
}

TEST(ReadProcessStat, ThePidIsTheLinesAndNotTheFolders) {
  PrivateHost host;
  host.syntheticProc().addProcess(4711, entryOf({.pid = 4712}));
  ProcessStat stat;
  EXPECT_TRUE(ReadProcessStat(4711, stat));
  EXPECT_EQ(stat.pid, 4712);
}

TEST(ReadProcessStat, AProcessThatIsNotThereIsADebugMatter) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.syntheticProc();
  ProcessStat stat;
  EXPECT_FALSE(ReadProcessStat(2147483647, stat));
  EXPECT_FALSE(ReadProcessStat(std::numeric_limits<int>::min(), stat));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Debug ProcessQuery: Failed to open file /proc/2147483647/stat, due to "
                          "No such file or directory",
                          "Debug ProcessQuery: Failed to open file /proc/-2147483648/stat, due "
                          "to No such file or directory"));
}

TEST(ReadProcessStat, AnUnopenableFileIsADebugMatter) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  const auto process = host.process("idle").start();
  const std::string path = "/proc/" + std::to_string(process.pid()) + "/stat";
  host.withUnopenable(path);
  ProcessStat stat;
  EXPECT_FALSE(ReadProcessStat(process.pid(), stat));
  EXPECT_THAT(loggedLines(host.log()), ElementsAre("Debug ProcessQuery: Failed to open file " +
                                                   path + ", due to No such device or address"));
}

TEST(ReadProcessStat, AnUnreadableFileIsAnError) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  const auto process = host.process("idle").start();
  const std::string path = "/proc/" + std::to_string(process.pid()) + "/stat";
  host.withUnreadable(path);
  ProcessStat stat;
  EXPECT_FALSE(ReadProcessStat(process.pid(), stat));
  EXPECT_THAT(loggedLines(host.log()), ElementsAre("Error ProcessQuery: Failed to read file " +
                                                   path + ", error is Input/output error"));
}

TEST(ReadProcessStat, AnEmptyFileIsAnError) {
  PrivateHost host;
  host.syntheticProc().addProcess(4711, {.stat = "", .io = "", .cmdline = {}});
  ProcessStat stat;
  EXPECT_FALSE(ReadProcessStat(4711, stat));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre(StartsWith(
                  "Error ProcessQuery: Failed to read file /proc/4711/stat, error is ")));
}

TEST(ReadProcessStat, ReadsTheFirstLineOnly) {
  PrivateHost host;
  const std::string second = "(name)" + kColumns + "\n";
  host.syntheticProc()
      .addProcess(4711, {.stat = "4711 (a\nb)" + kColumns + "\n", .io = "", .cmdline = {}})
      .addProcess(4712, {.stat = "4712\n" + second, .io = "", .cmdline = {}});
  ProcessStat stat;
  EXPECT_FALSE(ReadProcessStat(4711, stat));
  EXPECT_FALSE(ReadProcessStat(4712, stat));
  // The buffer ends in the line feed of its line.
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn ProcessQueryUtil: Failed to grap the whole proc name from buffer: 4711 (a",
                  "", "Warn ProcessQueryUtil: Failed to find proc name from buffer :4712", ""));
}

TEST(ReadProcessStat, ReadsTheFirst1022BytesOnly) {
  PrivateHost host;
  const std::size_t others = ("4711 ()" + kColumns).size();
  const auto statOfNameLength = [&](std::size_t length) {
    host.syntheticProc().addProcess(
        4711,
        {.stat = "4711 (" + std::string(length, 'n') + ")" + kColumns, .io = "", .cmdline = {}});
    ProcessStat stat;
    return ReadProcessStat(4711, stat) ? std::optional(stat.rsslim) : std::nullopt;
  };
  EXPECT_EQ(statOfNameLength(1022 - others), std::optional<std::uint64_t>(23));
  EXPECT_EQ(statOfNameLength(1023 - others), std::optional<std::uint64_t>(2));
  EXPECT_EQ(statOfNameLength(1024 - others), std::nullopt);
  host.log().clear();
  EXPECT_EQ(statOfNameLength(2000), std::nullopt);
  EXPECT_TRUE(host.log().has("Warn", "ProcessQueryUtil",
                             "Failed to grap the whole proc name from buffer: 4711 (nnn"));
}

TEST(ParseProcessIoLine, TakesTheTwoCounters) {
  ProcessIo io = {.rchar = 1, .wchar = 2};
  parseProcessIoLine("rchar: 18446744073709551615\n", io);
  EXPECT_EQ(io.rchar, 18446744073709551615u);
  EXPECT_EQ(io.wchar, 2u);
  parseProcessIoLine("wchar: 18446744073709551614\n", io);
  EXPECT_EQ(io.rchar, 18446744073709551615u);
  EXPECT_EQ(io.wchar, 18446744073709551614u);
}

TEST(ParseProcessIoLine, IgnoresEveryOtherLine) {
  ProcessIo io = {.rchar = 1, .wchar = 2};
  for (const char* line :
       {"read_bytes: 9", "write_bytes: 9", "syscr: 9", "syscw: 9", "cancelled_write_bytes: 9",
        "Rchar: 9", "WCHAR: 9", "rchar:x 9", "wchar:x 9", "rcharx 9", "wcharx 9", "rchar:: 9",
        "xrchar: 9", "charr: 9", "rwchar: 9", "rchars: 9", "wchars: 9"}) {
    parseProcessIoLine(line, io);
    EXPECT_EQ(io.rchar, 1u) << line;
    EXPECT_EQ(io.wchar, 2u) << line;
  }
}

TEST(ParseProcessIoLine, IgnoresALineWithoutABlank) {
  ProcessIo io = {.rchar = 1, .wchar = 2};
  for (const char* line : {"", "\n", "rchar:9", "rchar:\t9", "wchar:\t9", "wchar:", "r"}) {
    parseProcessIoLine(line, io);
    EXPECT_EQ(io.rchar, 1u) << line;
    EXPECT_EQ(io.wchar, 2u) << line;
  }
}

TEST(ParseProcessIoLine, TheFirstWordMayBeAPrefixOfItsKey) {
  for (const std::string word : {"r", "rc", "rch", "rcha", "rchar", "rchar:"}) {
    ProcessIo io = {.rchar = 1, .wchar = 2};
    parseProcessIoLine((word + " 9").c_str(), io);
    EXPECT_EQ(io.rchar, 9u) << word;
    EXPECT_EQ(io.wchar, 2u) << word;
  }
  for (const std::string word : {"w", "wc", "wch", "wcha", "wchar", "wchar:"}) {
    ProcessIo io = {.rchar = 1, .wchar = 2};
    parseProcessIoLine((word + " 9").c_str(), io);
    EXPECT_EQ(io.rchar, 1u) << word;
    EXPECT_EQ(io.wchar, 9u) << word;
  }
}

TEST(ParseProcessIoLine, ALineThatBeginsWithABlankCountsAsRead) {
  ProcessIo io = {.rchar = 1, .wchar = 2};
  parseProcessIoLine(" wchar: 9", io);
  EXPECT_EQ(io.rchar, 9u);
  EXPECT_EQ(io.wchar, 2u);
  parseProcessIoLine(" write_bytes: 10", io);
  EXPECT_EQ(io.rchar, 10u);
  parseProcessIoLine(" 11", io);
  EXPECT_EQ(io.rchar, 10u);
}

TEST(ParseProcessIoLine, KeepsItsCounterWhereNoNumberFollows) {
  ProcessIo io = {.rchar = 1, .wchar = 2};
  parseProcessIoLine("rchar: none", io);
  parseProcessIoLine("wchar: ", io);
  EXPECT_EQ(io.rchar, 1u);
  EXPECT_EQ(io.wchar, 2u);
  parseProcessIoLine("rchar: 5 6", io);
  parseProcessIoLine("wchar:   7x", io);
  EXPECT_EQ(io.rchar, 5u);
  EXPECT_EQ(io.wchar, 7u);
}

ProcessIo ioOf(const std::string& text) {
  PrivateHost host;
  ProcEntry entry;
  entry.io = text;
  host.syntheticProc().addProcess(4711, entry);
  ProcessIo io = {.rchar = 91, .wchar = 92};
  EXPECT_TRUE(ReadProcessIo(4711, io));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  return io;
}

TEST(ReadProcessIo, TakesTheCharacterCountersOfTheKernelsFile) {
  const ProcessIo io = ioOf(IoCounters{.rchar = 11,
                                       .wchar = 12,
                                       .syscr = 13,
                                       .syscw = 14,
                                       .readBytes = 15,
                                       .writeBytes = 16,
                                       .cancelledWriteBytes = 17}
                                .text());
  EXPECT_EQ(io.rchar, 11u);
  EXPECT_EQ(io.wchar, 12u);
}

TEST(ReadProcessIo, StartsFromZero) {
  for (const char* text : {"", "\n", "syscr: 5\n", "rchar: none\nwchar: none\n"}) {
    const ProcessIo io = ioOf(text);
    EXPECT_EQ(io.rchar, 0u) << text;
    EXPECT_EQ(io.wchar, 0u) << text;
  }
  EXPECT_EQ(ioOf("wchar: 5\n").rchar, 0u);
  EXPECT_EQ(ioOf("wchar: 5\n").wchar, 5u);
}

TEST(ReadProcessIo, ReadsOnToTheLastLine) {
  const ProcessIo io = ioOf("rchar: 5\nwchar: 6\n\nrchar: 7\nwchar: 8");
  EXPECT_EQ(io.rchar, 7u);
  EXPECT_EQ(io.wchar, 8u);
}

TEST(ReadProcessIo, TakesEveryPieceOf126BytesOfALongLineForALine) {
  EXPECT_EQ(ioOf(std::string(126, 'x') + "rchar: 5\n").rchar, 5u);
  EXPECT_EQ(ioOf(std::string(125, 'x') + "rchar: 5\n").rchar, 0u);
  EXPECT_EQ(ioOf(std::string(127, 'x') + "rchar: 5\n").rchar, 0u);
  EXPECT_EQ(ioOf(std::string(252, 'x') + "wchar: 5\n").wchar, 5u);
  EXPECT_EQ(ioOf(std::string(5000, 'x') + "\nwchar: 5\n").wchar, 5u);
}

TEST(ReadProcessIo, OnlyAnUnopenableFileIsAFailure) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  const auto process = host.process("idle").start();
  const std::string path = "/proc/" + std::to_string(process.pid()) + "/io";
  host.withUnreadable(path);
  ProcessIo io = {.rchar = 91, .wchar = 92};
  EXPECT_TRUE(ReadProcessIo(process.pid(), io));
  EXPECT_EQ(io.rchar, 0u);
  EXPECT_EQ(io.wchar, 0u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());

  host.withUnopenable(path);
  EXPECT_FALSE(ReadProcessIo(process.pid(), io));
  EXPECT_THAT(loggedLines(host.log()), ElementsAre("Debug ProcessQuery: Failed to open file " +
                                                   path + ", due to No such device or address"));
}

StatLine busyLine() {
  return {.pid = 4711,
          .name = "a) b%s",
          .userTicks = 18446744073709551611u,
          .systemTicks = 18446744073709551612u,
          .startTime = 18446744073709551613u,
          .residentPages = 9223372036854775807};
}

constexpr IoCounters kBusyIo = {.rchar = 18446744073709551614u, .wchar = 18446744073709551615u};

TEST(GetProcessInfo, CopiesEveryField) {
  PrivateHost host;
  host.syntheticProc().addProcess(4711, entryOf(busyLine(), kBusyIo, 4294967294));
  ProcessInfo info;
  EXPECT_TRUE(GetProcessInfo(4711, info));
  EXPECT_EQ(info.iPid, 4711);
  EXPECT_EQ(info.uiUserId, 4294967294u);
  EXPECT_EQ(info.ulUserTime, 18446744073709551611u);
  EXPECT_EQ(info.ulSystemTime, 18446744073709551612u);
  EXPECT_EQ(info.ulMemory, 9223372036854775807u);
  EXPECT_EQ(info.ullStartTime, 18446744073709551613u);
  EXPECT_EQ(info.ullReadBytesCount, 18446744073709551614u);
  EXPECT_EQ(info.ullWriteBytesCount, 18446744073709551615u);
  EXPECT_EQ(info.strProcessName, "a) b%s");
}

TEST(GetProcessInfo, TracesEveryFieldInOrder) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.syntheticProc().addProcess(4711, entryOf(busyLine(), kBusyIo, 4294967294));
  ProcessInfo info;
  EXPECT_TRUE(GetProcessInfo(4711, info));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Trace ProcessQuery: For process info, pid is: 4711, user id is -2, "
                          "user time is 18446744073709551611, system time is "
                          "18446744073709551612, memory is 9223372036854775807, ullStartTime is "
                          "18446744073709551613, ullReadBytesCount is 18446744073709551614, "
                          "ullWriteBytesCount is 18446744073709551615, strProcessName is a) "
                          "b%s"));
}

TEST(GetProcessInfo, SucceedsInSilenceAboveTrace) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  host.syntheticProc().addProcess({.pid = 4711}, 0);
  ProcessInfo info;
  EXPECT_TRUE(GetProcessInfo(4711, info));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

ProcessInfo markedInfo() {
  return {.iPid = 1,
          .uiUserId = 2,
          .ulUserTime = 3,
          .ulSystemTime = 4,
          .ulMemory = 5,
          .ullStartTime = 6,
          .ullReadBytesCount = 7,
          .ullWriteBytesCount = 8,
          .strProcessName = "marked"};
}

void expectMarked(const ProcessInfo& info) {
  EXPECT_EQ(info.iPid, 1);
  EXPECT_EQ(info.uiUserId, 2u);
  EXPECT_EQ(info.ulUserTime, 3u);
  EXPECT_EQ(info.ulSystemTime, 4u);
  EXPECT_EQ(info.ulMemory, 5u);
  EXPECT_EQ(info.ullStartTime, 6u);
  EXPECT_EQ(info.ullReadBytesCount, 7u);
  EXPECT_EQ(info.ullWriteBytesCount, 8u);
  EXPECT_EQ(info.strProcessName, "marked");
}

TEST(GetProcessInfo, WithoutAStatFileNothingElseIsRead) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  host.syntheticProc().addProcess(4711, {});
  ProcessInfo info = markedInfo();
  EXPECT_FALSE(GetProcessInfo(4711, info));
  expectMarked(info);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Debug ProcessQuery: Failed to open file /proc/4711/stat, due to No "
                          "such file or directory",
                          "Debug ProcessQuery: Failed to get process info"));
}

TEST(GetProcessInfo, AProcessWithoutAnIoFileCountsAsGone) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  ProcEntry entry = entryOf({.pid = 4711});
  entry.io.reset();
  host.syntheticProc().addProcess(4711, entry);
  ProcessInfo info = markedInfo();
  EXPECT_FALSE(GetProcessInfo(4711, info));
  expectMarked(info);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Debug ProcessQuery: Failed to open file /proc/4711/io, due to No such "
                          "file or directory",
                          "Debug ProcessQuery: Failed to get process info"));
}

TEST(GetProcessInfo, EveryDefectOfTheLineIsFollowedByTheSameLine) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  ProcessInfo info = markedInfo();
  for (const std::string stat : {"", "77", "77 (", "77 ()"}) {
    host.syntheticProc().addProcess(4711, {.stat = stat, .io = "rchar: 5\n", .cmdline = {}});
    host.log().clear();
    EXPECT_FALSE(GetProcessInfo(4711, info));
    ASSERT_EQ(loggedLines(host.log()).size(), 2u) << stat;
    EXPECT_EQ(loggedLines(host.log())[1], "Debug ProcessQuery: Failed to get process info");
  }
  expectMarked(info);
}

TEST(GetProcessInfo, AgreesWithTheKernelAboutARealProcess) {
  PrivateHost host;
  const auto process =
      host.process("editor").ownedBy("alice").havingWritten(300000).havingRead(700000).start();
  ProcessInfo info;
  ASSERT_TRUE(GetProcessInfo(process.pid(), info));
  EXPECT_EQ(info.iPid, process.pid());
  EXPECT_EQ(info.uiUserId, host.uidOf("alice"));
  EXPECT_EQ(info.strProcessName, "editor");
  EXPECT_EQ(info.ullStartTime, process.startTime());
  EXPECT_EQ(info.ulUserTime + info.ulSystemTime, process.cpuTicks());
  EXPECT_GT(info.ulMemory, 10u);
  EXPECT_LT(info.ulMemory, 100000u);
  EXPECT_THAT(process.io(),
              StartsWith("rchar: " + std::to_string(info.ullReadBytesCount) +
                         "\nwchar: " + std::to_string(info.ullWriteBytesCount) + "\n"));
  EXPECT_GE(info.ullReadBytesCount, 700000u);
  EXPECT_GE(info.ullWriteBytesCount, 300000u);
}

TEST(GetProcessInfo, ReadsAnyNameThatARealProcessCanHave) {
  PrivateHost host;
  std::vector<std::string> names = {"(sd-pam)",         ") S 1 2 3", "((((((((((((((((",
                                    "))))))))))))))))", "a b  c",    " ",
                                    "fifteen bytes!!",  "%s%n%d",    "12 (x) R 1"};
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '\n') {
      bytes += static_cast<char>(byte);
    }
  }
  for (std::size_t start = 0; start < bytes.size(); start += 15) {
    names.push_back(bytes.substr(start, 15));
  }
  for (const std::string& name : names) {
    const auto process = host.process(name).start();
    ProcessInfo info;
    ASSERT_TRUE(GetProcessInfo(process.pid(), info)) << name;
    EXPECT_EQ(info.strProcessName, name.substr(0, 15));
    EXPECT_EQ(info.iPid, process.pid());
    EXPECT_EQ(info.ullStartTime, process.startTime());
  }
}

TEST(GetProcessInfo, ALineFeedInTheNameOfARealProcessCutsItsLine) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  const auto process = host.process("a\nb").start();
  ProcessInfo info = markedInfo();
  EXPECT_FALSE(GetProcessInfo(process.pid(), info));
  expectMarked(info);
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn ProcessQueryUtil: Failed to grap the whole proc name from buffer: " +
                      std::to_string(process.pid()) + " (a",
                  "", "Debug ProcessQuery: Failed to get process info"));
}

std::map<std::int32_t, ProcessInfo> byPid(const ProcessInfoSet& processes) {
  std::map<std::int32_t, ProcessInfo> all;
  for (const ProcessInfo& info : processes) {
    EXPECT_TRUE(all.emplace(info.iPid, info).second) << info.iPid << " is there twice";
  }
  return all;
}

std::vector<std::int32_t> listedPids() {
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  std::vector<std::int32_t> pids;
  for (const auto& [pid, info] : byPid(processes)) {
    pids.push_back(pid);
  }
  return pids;
}

TEST(ListProcesses, TakesEveryProcessWithItsOwner) {
  PrivateHost host;
  host.syntheticProc()
      .addProcess({.pid = 1, .name = "init", .startTime = 5}, 0)
      .addProcess({.pid = 4711, .name = "editor", .startTime = 6}, 2001)
      .addProcess({.pid = 2147483647, .name = "last", .startTime = 7}, 2002);
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  const auto all = byPid(processes);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all.at(1).strProcessName, "init");
  EXPECT_EQ(all.at(1).uiUserId, 0u);
  EXPECT_EQ(all.at(4711).strProcessName, "editor");
  EXPECT_EQ(all.at(4711).uiUserId, 2001u);
  EXPECT_EQ(all.at(4711).ullStartTime, 6u);
  EXPECT_EQ(all.at(2147483647).uiUserId, 2002u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ListProcesses, FollowsAChangeOfOwner) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 4711}, 2001);
  ProcessInfoSet before;
  EXPECT_TRUE(ListProcesses(before));
  host.syntheticProc().setOwner(4711, 2002, 2002);
  ProcessInfoSet after;
  EXPECT_TRUE(ListProcesses(after));
  EXPECT_EQ(byPid(before).at(4711).uiUserId, 2001u);
  EXPECT_EQ(byPid(after).at(4711).uiUserId, 2002u);
}

TEST(ListProcesses, TakesAKernelThreadLikeAnyProcess) {
  PrivateHost host;
  host.syntheticProc().addProcess(2, entryOf({.pid = 2, .name = "kthreadd"}, {.rchar = 5}));
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  const auto all = byPid(processes);
  ASSERT_EQ(all.count(2), 1u);
  EXPECT_EQ(all.at(2).strProcessName, "kthreadd");
  EXPECT_EQ(all.at(2).ulMemory, 0u);
  EXPECT_EQ(all.at(2).ullReadBytesCount, 5u);
}

TEST(ListProcesses, PassesOverEntriesThatBeginWithoutADigit) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  host.syntheticProc()
      .addProcess({.pid = 4711}, 0)
      .addDirectory("x12")
      .addDirectory("-5")
      .addDirectory("+6")
      .addDirectory(" 7");
  EXPECT_THAT(listedPids(), ElementsAre(4711));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ListProcesses, TakesAnEntryForTheDecimalNumberItBeginsWith) {
  SetLogThreshold(LogLevel::Debug);
  const std::map<std::string, std::string> pidOfEntry = {
      {"12ab", "12"}, {"010", "10"}, {"0x1f", "0"}, {"9.5", "9"}};
  for (const auto& [entry, pid] : pidOfEntry) {
    PrivateHost host;
    host.log().clear();
    host.syntheticProc().addDirectory(entry);
    EXPECT_THAT(listedPids(), IsEmpty());
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Debug ProcessQuery: Failed to open file /proc/" + pid +
                                "/stat, due to No such file or directory",
                            "Debug ProcessQuery: Failed to get process info"));
  }
}

TEST(ListProcesses, TakesTwoEntriesOfOneNumberForOneProcess) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 12}, 0).addDirectory("12ab").addDirectory("012");
  EXPECT_THAT(listedPids(), ElementsAre(12));
}

TEST(ListProcesses, LeavesOutAProcessThatIsGoneAndGoesOn) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Debug);
  ProcEntry afterStat = entryOf({.pid = 4712});
  afterStat.io.reset();
  ProcEntry afterIo = entryOf({.pid = 4713});
  afterIo.io = "";
  host.syntheticProc()
      .addProcess(4711, {})
      .addProcess(4712, afterStat)
      .addProcess(4713, afterIo)
      .addProcess({.pid = 4714}, 0)
      .addProcess({.pid = 1}, 0);
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  const auto all = byPid(processes);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all.count(1) + all.count(4713) + all.count(4714), 3u);
  EXPECT_EQ(all.at(4713).ullReadBytesCount, 0u);
  EXPECT_EQ(all.at(4713).ullWriteBytesCount, 0u);
  EXPECT_EQ(host.log().count("Debug", "ProcessQuery", "Failed to get process info"), 2u);
  EXPECT_EQ(host.log().count("Debug", "ProcessQuery", "Failed to open file /proc/4711/stat"), 1u);
  EXPECT_EQ(host.log().count("Debug", "ProcessQuery", "Failed to open file /proc/4712/io"), 1u);
  EXPECT_EQ(host.log().count("", ""), 4u);
}

TEST(ListProcesses, LeavesOutAProcessWithABadLineAndGoesOn) {
  PrivateHost host;
  host.syntheticProc()
      .addProcess(4711, {.stat = "4711 (a\nb)" + kColumns, .io = "", .cmdline = {}})
      .addProcess(4712, {.stat = "4712 (a) S 1", .io = "", .cmdline = {}})
      .addProcess(4713, {.stat = "4713 a" + kColumns, .io = "", .cmdline = {}})
      .addProcess(4714, {.stat = "", .io = "", .cmdline = {}})
      .addProcess({.pid = 4715}, 0);
  EXPECT_THAT(listedPids(), ElementsAre(4715));
  EXPECT_EQ(host.log().count("Warn", "ProcessQueryUtil"), 3u);
  EXPECT_EQ(host.log().count("Error", "ProcessQuery", "Failed to read file /proc/4714/stat"), 1u);
}

TEST(ListProcesses, TakesALineWithoutAPidAsProcessZero) {
  PrivateHost host;
  host.syntheticProc().addProcess(4711, {.stat = "(a)" + kColumns, .io = "", .cmdline = {}});
  EXPECT_THAT(listedPids(), ElementsAre(0));
}

TEST(ListProcesses, KeepsTheRecordThatIsThereAlready) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 4711, .userTicks = 100, .startTime = 5}, 0);
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  host.syntheticProc().addProcess(
      {.pid = 4711, .name = "renamed", .userTicks = 200, .startTime = 5}, 2001);
  EXPECT_TRUE(ListProcesses(processes));
  const auto all = byPid(processes);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all.at(4711).ulUserTime, 100u);
  EXPECT_EQ(all.at(4711).uiUserId, 0u);
  EXPECT_EQ(all.at(4711).strProcessName, "process");
}

TEST(ListProcesses, AddsToWhatIsThereEvenUnderTheSamePid) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 4711, .startTime = 5}, 0);
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  host.syntheticProc().addProcess({.pid = 4711, .startTime = 6}, 0).addProcess({.pid = 9}, 0);
  EXPECT_TRUE(ListProcesses(processes));
  EXPECT_EQ(processes.size(), 3u);
}

TEST(ListProcesses, AnUnopenableProcIsAFailure) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.withUnopenableProc();
  ProcessInfoSet processes = {markedInfo()};
  EXPECT_FALSE(ListProcesses(processes));
  ASSERT_EQ(processes.size(), 1u);
  expectMarked(*processes.begin());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error ProcessQuery: Failed to open procfs, error is: Transport endpoint "
                          "is not connected"));
}

TEST(ListProcesses, LeavesNoFileOpen) {
  PrivateHost host;
  ProcEntry withoutIo = entryOf({.pid = 4712});
  withoutIo.io.reset();
  host.syntheticProc()
      .addProcess({.pid = 4711}, 0)
      .addProcess(4712, withoutIo)
      .addProcess(4713, {.stat = "", .io = "", .cmdline = {}})
      .addProcess(4714, {.stat = "bad", .io = "", .cmdline = {}});
  listedPids();
  const std::size_t before = rig::openFileCount();
  for (int i = 0; i < 3; ++i) {
    listedPids();
  }
  EXPECT_EQ(rig::openFileCount(), before);
}

TEST(ListProcesses, LeavesOutProcessesWhoseIoItMayNotRead) {
  PrivateHost host;
  const auto own = host.process("own").ownedBy("alice").start();
  const auto other = host.process("other").ownedBy("bob").start();
  const uid_t alice = host.uidOf("alice");
  SetLogThreshold(LogLevel::Debug);
  EXPECT_TRUE(inChild([&] {
    ASSERT_EQ(setgroups(0, nullptr), 0);
    ASSERT_EQ(setresgid(alice, alice, alice), 0);
    ASSERT_EQ(setresuid(alice, alice, alice), 0);
    ProcessInfoSet processes;
    EXPECT_TRUE(ListProcesses(processes));
    const auto all = byPid(processes);
    EXPECT_EQ(all.count(own.pid()), 1u);
    EXPECT_EQ(all.count(other.pid()), 0u);
    EXPECT_EQ(all.count(1), 0u);
  }));
  EXPECT_TRUE(host.log().has("Debug", "ProcessQuery",
                             "Failed to open file /proc/" + std::to_string(other.pid()) +
                                 "/io, due to Permission denied"));
  const auto all = listedPids();
  EXPECT_EQ(std::count(all.begin(), all.end(), other.pid()), 1);
}

TEST(ListProcesses, TakesAZombieToo) {
  PrivateHost host;
  const auto zombie = host.process("gone").asZombie().start();
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  const auto all = byPid(processes);
  ASSERT_EQ(all.count(zombie.pid()), 1u);
  EXPECT_EQ(all.at(zombie.pid()).strProcessName, "gone");
  EXPECT_EQ(all.at(zombie.pid()).ulMemory, 0u);
}

TEST(ListProcesses, KeepsEachOfFiveThousandProcessesOnce) {
  PrivateHost host;
  const auto parent = host.idleProcesses(5000);
  ASSERT_EQ(parent.children().size(), 4999u);
  const auto pids = listedPids();
  const auto isListed = [&](pid_t pid) {
    return std::binary_search(pids.begin(), pids.end(), pid);
  };
  EXPECT_TRUE(isListed(parent.pid()));
  EXPECT_TRUE(isListed(getpid()));
  EXPECT_EQ(std::count_if(parent.children().begin(), parent.children().end(), isListed), 4999);
}

TEST(ListProcesses, StandsProcessesThatComeAndGoMeanwhile) {
  PrivateHost host;
  const auto steady = host.process("steady").start();
  std::atomic<bool> done = false;
  std::thread others([&] {
    while (!done) {
      const auto passing = host.process("passing").withIdleChildren(3).start();
    }
  });
  for (int i = 0; i < 100; ++i) {
    const auto pids = listedPids();
    EXPECT_EQ(std::count(pids.begin(), pids.end(), steady.pid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), getpid()), 1);
  }
  done = true;
  others.join();
}

TEST(IsProcessAlive, AsksForPidAndStartTimeOnly) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  ProcEntry entry = entryOf({.pid = 4711, .name = "editor", .startTime = 99});
  entry.io.reset();
  host.syntheticProc().addProcess(4711, entry);
  ProcessInfo info = markedInfo();
  info.iPid = 4711;
  info.ullStartTime = 99;
  EXPECT_TRUE(IsProcessAlive(info));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(IsProcessAlive, IsFalseForAProcessThatIsNotThere) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.syntheticProc();
  EXPECT_FALSE(IsProcessAlive({.iPid = 4711, .strProcessName = {}}));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Debug ProcessQuery: Failed to open file /proc/4711/stat, due to No "
                          "such file or directory",
                          "Debug ProcessQuery: Process 4711 may not exist"));
}

TEST(IsProcessAlive, IsFalseForAReusedPid) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.syntheticProc().addProcess({.pid = 4711, .startTime = 4294967395}, 0);
  for (const std::uint64_t start : {0ul, 99ul, 4294967394ul, 4294967396ul}) {
    host.log().clear();
    EXPECT_FALSE(IsProcessAlive({.iPid = 4711, .ullStartTime = start, .strProcessName = {}}));
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Debug ProcessQuery: Process creation time not match, pid 4711 is "
                            "reused"));
  }
}

TEST(IsProcessAlive, IsTrueForARealProcessUntilItIsReaped) {
  PrivateHost host;
  auto process = host.process("editor").start();
  const auto zombie = host.process("gone").asZombie().start();
  const ProcessInfo info = {
      .iPid = process.pid(), .ullStartTime = process.startTime(), .strProcessName = {}};
  EXPECT_TRUE(IsProcessAlive(info));
  EXPECT_TRUE(IsProcessAlive(
      {.iPid = zombie.pid(), .ullStartTime = zombie.startTime(), .strProcessName = {}}));
  process.stop();
  EXPECT_FALSE(IsProcessAlive(info));
}

std::uint64_t createTimeOf(std::uint64_t startTime) {
  return GetProcessCreateTime({.ullStartTime = startTime, .strProcessName = {}});
}

TEST(GetProcessCreateTime, AddsWholeSecondsToTheBootTime) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  const auto ticks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  EXPECT_EQ(createTimeOf(0), 1700000000u);
  EXPECT_EQ(createTimeOf(ticks - 1), 1700000000u);
  EXPECT_EQ(createTimeOf(ticks), 1700000001u);
  EXPECT_EQ(createTimeOf(10 * ticks + ticks - 1), 1700000010u);
  EXPECT_EQ(createTimeOf(18446744073709551615u), 18446744073709551615u / ticks + 1700000000u);
}

TEST(GetProcessCreateTime, AsksForBothItsSourcesEachTime) {
  PrivateHost host;
  host.withProcStat("btime 1700000000\n");
  answerSysconf(_SC_CLK_TCK, 250);
  EXPECT_EQ(createTimeOf(1000), 1700000004u);
  answerSysconf(_SC_CLK_TCK, 1000);
  host.withProcStat("btime 1700000060\n");
  EXPECT_EQ(createTimeOf(1000), 1700000061u);
}

TEST(GetProcessCreateTime, IsSinceBootOnAHostThatStatesNoBootTime) {
  PrivateHost host;
  host.withProcStat("cpu 1 2 3 4\n");
  answerSysconf(_SC_CLK_TCK, 100);
  EXPECT_EQ(createTimeOf(1000), 10u);
}

TEST(GetProcessCreateTime, IsZeroWithoutAReadableBootTimeAndLogsIt) {
  PrivateHost host;
  host.withUnopenable("/proc/stat");
  EXPECT_EQ(createTimeOf(1000), 0u);
  EXPECT_EQ(createTimeOf(1000), 0u);
  const std::string reason =
      "Error SystemQuery: Failed to open file /proc/stat, error is No such device or address";
  const std::string result = "Error SystemQuery: Failed to get system boot time";
  EXPECT_THAT(loggedLines(host.log()), ElementsAre(reason, result, reason, result));
}

TEST(GetProcessCreateTime, IsZeroInSilenceWithoutALengthOfTheTick) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  failSysconf(_SC_CLK_TCK, EINVAL);
  EXPECT_EQ(createTimeOf(1000), 0u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(GetProcessCreateTime, IsNowForAProcessStartedNow) {
  PrivateHost host;
  const std::time_t before = std::time(nullptr);
  const auto process = host.process("editor").start();
  const std::time_t after = std::time(nullptr);
  const auto created = static_cast<std::time_t>(createTimeOf(process.startTime()));
  // The kernel cuts the boot time and the start time to whole units each.
  EXPECT_GE(created, before - 2);
  EXPECT_LE(created, after + 2);
}

TEST(ProcessInfoSet, APidWithAStartTimeIsOneElement) {
  ProcessInfo first = {.iPid = 5, .ullStartTime = 6, .strProcessName = "first"};
  ProcessInfoSet processes = {first};
  EXPECT_FALSE(
      processes.insert({.iPid = 5, .uiUserId = 9, .ullStartTime = 6, .strProcessName = "second"})
          .second);
  EXPECT_TRUE(processes.insert({.iPid = 5, .ullStartTime = 7, .strProcessName = {}}).second);
  EXPECT_TRUE(processes.insert({.iPid = 6, .ullStartTime = 6, .strProcessName = {}}).second);
  EXPECT_EQ(processes.find(first)->strProcessName, "first");
  EXPECT_EQ(processes.size(), 3u);
}

TEST(ProcessInfoSet, HashesStartTimeAndPidInWrappingArithmetic) {
  const auto hash = [](std::int32_t pid, std::uint64_t start) {
    return ProcessInfoHash{}({.iPid = pid, .ullStartTime = start, .strProcessName = {}});
  };
  EXPECT_EQ(hash(0, 0), 16337u);
  EXPECT_EQ(hash(4711, 1000), 52048u);
  EXPECT_EQ(hash(-1, 0), 16336u);
  EXPECT_EQ(hash(-16338, 0), 18446744073709551615u);
  EXPECT_EQ(hash(7, 18446744073709551089u), 7u);
  EXPECT_EQ(hash(7, 18446744073709551088u), 18446744073709551592u);
}

}  // namespace
}  // namespace mendline
