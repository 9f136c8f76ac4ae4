#include "sources/SystemQuery.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FailingSyscalls.h"
#include "PrivateHost.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"
#include "tests/sources/SysconfAnswers.h"

namespace mendline {
namespace {

using rig::failSyscall;
using rig::PrivateHost;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::uint64_t kMax = 18446744073709551615u;

CpuTimes marked() {
  return {.user = 91, .nice = 92, .system = 93, .idle = 94, .bootTime = 95};
}

void expectSame(const CpuTimes& actual, const CpuTimes& expected) {
  EXPECT_EQ(actual.user, expected.user);
  EXPECT_EQ(actual.nice, expected.nice);
  EXPECT_EQ(actual.system, expected.system);
  EXPECT_EQ(actual.idle, expected.idle);
  EXPECT_EQ(actual.bootTime, expected.bootTime);
}

CpuTimes cpuTimesOf(const std::string& procStat) {
  PrivateHost host;
  host.withProcStat(procStat);
  CpuTimes times;
  EXPECT_TRUE(readCpuTimes(times));
  return times;
}

TEST(ReadCpuTimes, TakesTheAggregateLineWhateverItsPlaceAmongTheOthers) {
  const std::string total = "cpu  11 12 13 14 15 16\n";
  const std::string first = "cpu0 21 22 23 24 25 26\n";
  const std::string second = "cpu1 31 32 33 34 35 36\n";
  for (const std::string& text :
       {total + first + second, first + total + second, first + second + total}) {
    expectSame(cpuTimesOf(text + "btime 1700000000\n"),
               {.user = 11, .nice = 12, .system = 13, .idle = 14, .bootTime = 1700000000});
  }
}

TEST(ReadCpuTimes, TakesTheFirstFourOfElevenNumbers) {
  expectSame(cpuTimesOf("cpu  1 2 3 4 5 6 7 8 9 10 11\n"),
             {.user = 1, .nice = 2, .system = 3, .idle = 4, .bootTime = 0});
}

TEST(ReadCpuTimes, TakesNumbersOf64Bits) {
  expectSame(cpuTimesOf("cpu 18446744073709551615 18446744073709551614 4294967296 4294967295\n"
                        "btime 18446744073709551613\n"),
             {.user = kMax,
              .nice = kMax - 1,
              .system = 4294967296,
              .idle = 4294967295,
              .bootTime = kMax - 2});
}

TEST(ReadCpuTimes, PassesOverEveryOtherLine) {
  expectSame(cpuTimesOf("cpufreq 1 2 3 4\ncp 1 2 3 4\nCPU 1 2 3 4\ncpu: 1 2 3 4\nbtimes 5\n"
                        "btim 5\nctxt 6\nprocesses 7\nx cpu 1 2 3 4\n"),
             {});
}

TEST(ReadCpuTimes, TakesALineBehindLeadingBlanks) {
  expectSame(cpuTimesOf("   cpu 1 2 3 4\n\t btime 5\n"),
             {.user = 1, .nice = 2, .system = 3, .idle = 4, .bootTime = 5});
}

TEST(ReadCpuTimes, ReadsOnToTheLastLine) {
  expectSame(cpuTimesOf("cpu 1 2 3 4\nbtime 5\n\ncpu 6 7 8 9\nbtime 10"),
             {.user = 6, .nice = 7, .system = 8, .idle = 9, .bootTime = 10});
}

TEST(ReadCpuTimes, ReadsOnBehindALineLongerThanItsBuffer) {
  std::string interrupts = "intr 123456";
  for (int i = 0; i < 4000; ++i) {
    interrupts += " 0";
  }
  expectSame(cpuTimesOf("cpu 1 2 3 4\n" + interrupts + "\nbtime 5\n"),
             {.user = 1, .nice = 2, .system = 3, .idle = 4, .bootTime = 5});
}

TEST(ReadCpuTimes, TakesEveryPieceOf510BytesOfALongLineForALine) {
  const std::string filler = "intr " + std::string(504, '0') + " ";
  ASSERT_EQ(filler.size(), 510u);
  EXPECT_EQ(cpuTimesOf(filler + "btime 5\n").bootTime, 5u);
  EXPECT_EQ(cpuTimesOf(filler + " btime 5\n").bootTime, 5u);
  EXPECT_EQ(cpuTimesOf(filler + "0btime 5\n").bootTime, 0u);
}

TEST(ReadCpuTimes, AFirstTokenOfAnyLengthIsNoLineOfIts) {
  for (const std::size_t length : {28u, 29u, 30u, 31u, 32u, 64u, 505u, 600u, 5000u}) {
    expectSame(cpuTimesOf("cpu" + std::string(length, 'u') + " 1 2 3 4\n"), {});
    expectSame(cpuTimesOf(std::string(length, 'x') + " 1 2 3 4\ncpu 1 2 3 4\n"),
               {.user = 1, .nice = 2, .system = 3, .idle = 4});
  }
}

TEST(ReadCpuTimes, LeavesAloneWhatTheFileDoesNotState) {
  PrivateHost host;
  for (const char* text : {"", "\n", "intr 5\n", "cpu\nbtime\n", "cpu x\nbtime y\n"}) {
    host.withProcStat(text);
    CpuTimes times = marked();
    EXPECT_TRUE(readCpuTimes(times)) << text;
    expectSame(times, marked());
  }
  host.withProcStat("cpu 1 2\n");
  CpuTimes times = marked();
  EXPECT_TRUE(readCpuTimes(times));
  expectSame(times, {.user = 1, .nice = 2, .system = 93, .idle = 94, .bootTime = 95});
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ReadCpuTimes, OnlyAnUnopenableFileIsAFailure) {
  PrivateHost host;
  host.withUnreadable("/proc/stat");
  CpuTimes times = marked();
  EXPECT_TRUE(readCpuTimes(times));
  expectSame(times, marked());
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());

  host.withUnopenable("/proc/stat");
  EXPECT_FALSE(readCpuTimes(times));
  expectSame(times, marked());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to open file /proc/stat, error is No such "
                          "device or address"));
}

TEST(ParseStatLine, TakesTheTwoLinesAndNoOther) {
  CpuTimes times = marked();
  parseStatLine("cpu0 1 2 3 4", times);
  parseStatLine("", times);
  parseStatLine(" 1 2 3", times);
  expectSame(times, marked());
  parseStatLine("cpu 1 2 3 4", times);
  expectSame(times, {.user = 1, .nice = 2, .system = 3, .idle = 4, .bootTime = 95});
  parseStatLine("btime 5", times);
  expectSame(times, {.user = 1, .nice = 2, .system = 3, .idle = 4, .bootTime = 5});
}

TEST(GetCpuTime, IsBusyInUserAndSystemTimeAlone) {
  PrivateHost host;
  host.withProcStat("cpu 10 5 20 100 40 50 60 70 0 0\n");
  std::uint64_t busy = 0;
  std::uint64_t idle = 0;
  EXPECT_TRUE(getCpuTime(busy, idle));
  EXPECT_EQ(busy, 30u);
  EXPECT_EQ(idle, 100u);
}

TEST(GetCpuTime, IsZeroOnAHostThatStatesNone) {
  PrivateHost host;
  std::uint64_t busy = 1;
  std::uint64_t idle = 2;
  host.withProcStat("cpu 10 5 20 100\n");
  EXPECT_TRUE(getCpuTime(busy, idle));
  host.withProcStat("btime 5\n");
  EXPECT_TRUE(getCpuTime(busy, idle));
  EXPECT_EQ(busy, 0u);
  EXPECT_EQ(idle, 0u);
}

TEST(GetCpuTime, AFailureLeavesItsOutputsAndIsLoggedBehindItsReason) {
  PrivateHost host;
  host.withUnopenable("/proc/stat");
  std::uint64_t busy = 7;
  std::uint64_t idle = 8;
  EXPECT_FALSE(getCpuTime(busy, idle));
  EXPECT_EQ(busy, 7u);
  EXPECT_EQ(idle, 8u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to open file /proc/stat, error is No such "
                          "device or address",
                          "Error SystemQuery: Failed to get cpu time"));
}

TEST(GetSystemBootTime, IsTheOneOfTheBtimeLineReadAfreshEachTime) {
  PrivateHost host;
  std::uint64_t bootTime = 0;
  host.withProcStat("cpu 1 2 3 4\nbtime 1700000000\n");
  EXPECT_TRUE(getSystemBootTime(bootTime));
  EXPECT_EQ(bootTime, 1700000000u);
  host.withProcStat("btime 1700000060\n");
  EXPECT_TRUE(getSystemBootTime(bootTime));
  EXPECT_EQ(bootTime, 1700000060u);
  host.withProcStat("cpu 1 2 3 4\n");
  EXPECT_TRUE(getSystemBootTime(bootTime));
  EXPECT_EQ(bootTime, 0u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(GetSystemBootTime, AFailureLeavesItsOutputAndIsLoggedBehindItsReason) {
  PrivateHost host;
  host.withUnopenable("/proc/stat");
  std::uint64_t bootTime = 7;
  EXPECT_FALSE(getSystemBootTime(bootTime));
  EXPECT_EQ(bootTime, 7u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to open file /proc/stat, error is No such "
                          "device or address",
                          "Error SystemQuery: Failed to get system boot time"));
}

std::vector<DiskStatLine> diskStatsOf(const std::string& text) {
  PrivateHost host;
  host.withDiskstats(text);
  std::vector<DiskStatLine> disks;
  EXPECT_TRUE(readDiskStats(disks));
  return disks;
}

std::vector<std::uint64_t> countersOf(const DiskStatLine& line) {
  return {line.readsCompleted,  line.readsMerged,  line.sectorsRead,      line.msReading,
          line.writesCompleted, line.writesMerged, line.sectorsWritten,   line.msWriting,
          line.iosInProgress,   line.msDoingIo,    line.weightedMsDoingIo};
}

void expectLine(const DiskStatLine& line, int major, int minor, const std::string& name,
                const std::vector<std::uint64_t>& counters) {
  EXPECT_EQ(line.major, major);
  EXPECT_EQ(line.minor, minor);
  EXPECT_EQ(std::string(line.name), name);
  EXPECT_EQ(countersOf(line), counters);
}

TEST(ReadDiskStats, TakesFourteenColumnsOfEachLineInTheOrderOfTheFile) {
  const auto disks = diskStatsOf(
      "   8       0 sda 1 2 3 4 5 6 7 8 9 10 11\n"
      " 253      17 dm-0 21 22 23 24 25 26 27 28 29 30 31\n"
      "   7       3 loop3 41 42 43 44 45 46 47 48 49 50 51");
  ASSERT_EQ(disks.size(), 3u);
  expectLine(disks[0], 8, 0, "sda", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[1], 253, 17, "dm-0", {21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31});
  expectLine(disks[2], 7, 3, "loop3", {41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51});
}

TEST(ReadDiskStats, IgnoresTheColumnsOfNewerKernels) {
  const auto disks = diskStatsOf("8 0 sda 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n");
  ASSERT_EQ(disks.size(), 1u);
  expectLine(disks[0], 8, 0, "sda", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
}

TEST(ReadDiskStats, TakesCountersOf64Bits) {
  const auto disks = diskStatsOf(
      "8 0 sda 18446744073709551615 18446744073709551614 18446744073709551613 "
      "18446744073709551612 18446744073709551611 18446744073709551610 18446744073709551609 "
      "18446744073709551608 18446744073709551607 18446744073709551606 18446744073709551605\n");
  ASSERT_EQ(disks.size(), 1u);
  expectLine(disks[0], 8, 0, "sda",
             {kMax, kMax - 1, kMax - 2, kMax - 3, kMax - 4, kMax - 5, kMax - 6, kMax - 7, kMax - 8,
              kMax - 9, kMax - 10});
}

TEST(ReadDiskStats, AShortLineCarriesTheValuesOfTheOneBefore) {
  const auto disks = diskStatsOf(
      "8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n"
      "8 16 sdb 21 22\n"
      "8\n"
      "9 9\n"
      "no device\n"
      "8 32 sdc 31 x 33\n");
  ASSERT_EQ(disks.size(), 6u);
  expectLine(disks[1], 8, 16, "sdb", {21, 22, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[2], 8, 16, "sdb", {21, 22, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[3], 9, 9, "sdb", {21, 22, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[4], 9, 9, "sdb", {21, 22, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[5], 8, 32, "sdc", {31, 22, 3, 4, 5, 6, 7, 8, 9, 10, 11});
}

TEST(ReadDiskStats, ABlankLineRepeatsTheRecordBefore) {
  const auto disks = diskStatsOf("8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n\n   \n");
  ASSERT_EQ(disks.size(), 3u);
  for (const DiskStatLine& disk : disks) {
    expectLine(disk, 8, 0, "sda", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  }
}

TEST(ReadDiskStats, AShortFirstLineLeavesZeros) {
  const auto disks = diskStatsOf("8 1 sda1 5\n");
  ASSERT_EQ(disks.size(), 1u);
  expectLine(disks[0], 8, 1, "sda1", {5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
}

TEST(ReadDiskStats, ANameOfAnyLengthLeavesTheCountersBehindItRight) {
  for (const std::size_t length : {1u, 30u, 31u, 32u, 33u, 62u, 63u, 64u, 200u, 400u}) {
    const std::string name(length, 'n');
    const auto disks = diskStatsOf("8 0 " + name + " 1 2 3 4 5 6 7 8 9 10 11\n");
    ASSERT_EQ(disks.size(), 1u) << length;
    expectLine(disks[0], 8, 0, name.substr(0, 31), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  }
}

TEST(ReadDiskStats, ALongNameIsNotMixedWithTheShortOneBefore) {
  const auto disks = diskStatsOf("8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n8 1 " + std::string(40, 'n') +
                                 " 21 22 23\n8 2 b 31\n");
  ASSERT_EQ(disks.size(), 3u);
  expectLine(disks[1], 8, 1, std::string(31, 'n'), {21, 22, 23, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[2], 8, 2, "b", {31, 22, 23, 4, 5, 6, 7, 8, 9, 10, 11});
}

TEST(ReadDiskStats, TakesEveryPieceOf510BytesOfALongLineForALine) {
  const std::string first = "8 0 sda 1 2 3 4 5 6 7 8 9 10 11";
  const std::string padded = first + std::string(510 - first.size(), ' ');
  const auto disks = diskStatsOf(padded + "8 1 sda1 21 22 23 24 25 26 27 28 29 30 31\n");
  ASSERT_EQ(disks.size(), 2u);
  expectLine(disks[0], 8, 0, "sda", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[1], 8, 1, "sda1", {21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31});
}

TEST(ReadDiskStats, ALineTooLongForTheBufferGivesARecordPerPiece) {
  const auto disks =
      diskStatsOf("8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n8 16 " + std::string(600, 'n') + " 21 22 23\n");
  ASSERT_EQ(disks.size(), 3u);
  for (std::size_t piece : {1u, 2u}) {
    expectLine(disks[piece], 8, 16, std::string(31, 'n'), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  }
}

TEST(ReadDiskStats, AppendsToWhatIsThere) {
  PrivateHost host;
  host.withDiskstats("8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n");
  std::vector<DiskStatLine> disks;
  EXPECT_TRUE(readDiskStats(disks));
  host.withDiskstats("8 16 sdb 1\n");
  EXPECT_TRUE(readDiskStats(disks));
  ASSERT_EQ(disks.size(), 2u);
  expectLine(disks[0], 8, 0, "sda", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  expectLine(disks[1], 8, 16, "sdb", {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
}

TEST(ReadDiskStats, OnlyAnUnopenableFileIsAFailure) {
  PrivateHost host;
  std::vector<DiskStatLine> disks(1);
  host.withDiskstats("");
  EXPECT_TRUE(readDiskStats(disks));
  host.withUnreadable("/proc/diskstats");
  EXPECT_TRUE(readDiskStats(disks));
  EXPECT_EQ(disks.size(), 1u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());

  host.withUnopenable("/proc/diskstats");
  EXPECT_FALSE(readDiskStats(disks));
  EXPECT_EQ(disks.size(), 1u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to open file /proc/diskstats, error is No "
                          "such device or address"));
}

TEST(ParseDiskStatLine, KeepsWhatTheLineLacks) {
  DiskStatLine record;
  parseDiskStatLine("8 0 sda 1 2 3 4 5 6 7 8 9 10 11", record);
  parseDiskStatLine("9 1 sdb 21", record);
  expectLine(record, 9, 1, "sdb", {21, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  parseDiskStatLine("", record);
  expectLine(record, 9, 1, "sdb", {21, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
}

struct sysinfo kernelFigures() {
  struct sysinfo figures = {};
  EXPECT_EQ(sysinfo(&figures), 0);
  return figures;
}

// Whether the page cache's share of the available memory is this many bytes. Free memory changes
// all the time, so it is asked for before and after until it stood still meanwhile.
testing::AssertionResult cacheShareIs(std::uint64_t expected) {
  std::uint64_t share = 0;
  for (int attempt = 0; attempt < 20000; ++attempt) {
    const struct sysinfo before = kernelFigures();
    MemoryStats memory;
    if (!readMemoryStats(memory)) {
      return testing::AssertionFailure() << "the memory could not be read";
    }
    const struct sysinfo after = kernelFigures();
    if (before.freeram == after.freeram && before.bufferram == after.bufferram) {
      share = memory.available - after.freeram - after.bufferram;
      if (share == expected) {
        return testing::AssertionSuccess();
      }
    }
  }
  return testing::AssertionFailure() << "the share was " << share << " bytes, not " << expected;
}

TEST(ReadMemoryStats, TotalAndUptimeAreTheKernels) {
  PrivateHost host;
  const struct sysinfo before = kernelFigures();
  MemoryStats memory;
  EXPECT_TRUE(readMemoryStats(memory));
  const struct sysinfo after = kernelFigures();
  EXPECT_EQ(memory.total, after.totalram);
  EXPECT_GE(memory.uptime, before.uptime);
  EXPECT_LE(memory.uptime, after.uptime);
  EXPECT_GT(memory.uptime, 0);
}

TEST(ReadMemoryStats, AvailableIsFreeAndBufferMemoryAndThePageCache) {
  PrivateHost host;
  host.withMeminfo("MemTotal: 5 kB\nMemFree: 6 kB\nBuffers: 7 kB\nCached: 3000000 kB\n");
  EXPECT_TRUE(cacheShareIs(3072000000));
  host.withMeminfo("Cached:          1 kB\n");
  EXPECT_TRUE(cacheShareIs(1024));
}

TEST(ReadMemoryStats, ThePageCacheWrapsAtFourGibibytes) {
  PrivateHost host;
  host.withMeminfo("Cached: 4194303 kB\n");
  EXPECT_TRUE(cacheShareIs(4294966272));
  host.withMeminfo("Cached: 4194304 kB\n");
  EXPECT_TRUE(cacheShareIs(0));
  host.withMeminfo("Cached: 4194305 kB\n");
  EXPECT_TRUE(cacheShareIs(1024));
  host.withMeminfo("Cached: 12582915 kB\n");
  EXPECT_TRUE(cacheShareIs(3072));
}

TEST(ReadMemoryStats, AFigureBeyond32BitsCountsAsTheGreatestOf32Bits) {
  PrivateHost host;
  host.withMeminfo("Cached: 4294967296 kB\n");
  EXPECT_TRUE(cacheShareIs(4294966272));
}

TEST(ReadMemoryStats, OnlyTheExactTokenIsThePageCache) {
  PrivateHost host;
  host.withMeminfo("SwapCached: 5 kB\nCached: 7 kB\n");
  EXPECT_TRUE(cacheShareIs(7 * 1024));
  host.withMeminfo("SwapCached: 5 kB\ncached: 6 kB\nCached 7 kB\nCached:8 kB\nCached:: 9 kB\n");
  EXPECT_TRUE(cacheShareIs(0));
  host.withMeminfo("Other: 5 kB Cached:\n\n 6 kB\n");
  EXPECT_TRUE(cacheShareIs(6 * 1024));
}

TEST(ReadMemoryStats, StopsAtTheFirstPageCacheFigure) {
  PrivateHost host;
  host.withMeminfo("Cached: 7 kB\nCached: 8 kB\n");
  EXPECT_TRUE(cacheShareIs(7 * 1024));
  host.withMeminfo("Cached: none\nCached: 8 kB\n");
  EXPECT_TRUE(cacheShareIs(0));
}

TEST(ReadMemoryStats, SucceedsInSilenceWithoutAPageCacheFigure) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.withMeminfo("");
  EXPECT_TRUE(cacheShareIs(0));
  host.withMeminfo("MemTotal: 5 kB\nSwapCached: 6 kB\n");
  EXPECT_TRUE(cacheShareIs(0));
  host.withMeminfo("MemTotal: 5 kB\nCached:");
  EXPECT_TRUE(cacheShareIs(0));
  host.withUnreadable("/proc/meminfo");
  EXPECT_TRUE(cacheShareIs(0));
  host.withUnopenable("/proc/meminfo");
  EXPECT_TRUE(cacheShareIs(0));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ReadMemoryStats, AFailureOfTheKernelLeavesItsOutput) {
  PrivateHost host;
  failSyscall(SYS_sysinfo, EPERM);
  MemoryStats memory = {.uptime = 1, .total = 2, .available = 3};
  EXPECT_FALSE(readMemoryStats(memory));
  EXPECT_EQ(memory.uptime, 1);
  EXPECT_EQ(memory.total, 2u);
  EXPECT_EQ(memory.available, 3u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Operation not "
                          "permitted"));
}

TEST(GetTotalMemorySize, IsTheKernels) {
  std::uint64_t bytes = 0;
  EXPECT_TRUE(getTotalMemorySize(bytes));
  EXPECT_EQ(bytes, kernelFigures().totalram);
}

TEST(GetTotalMemorySize, AFailureLeavesItsOutputAndIsLoggedBehindItsReason) {
  PrivateHost host;
  failSyscall(SYS_sysinfo, EFAULT);
  std::uint64_t bytes = 7;
  EXPECT_FALSE(getTotalMemorySize(bytes));
  EXPECT_EQ(bytes, 7u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Bad address",
                          "Error SystemQuery: Failed to get total memory size"));
}

TEST(GetMemoryUsage, IsAWholePercentageCutDown) {
  PrivateHost host;
  host.withMeminfo("");
  bool agreed = false;
  for (int attempt = 0; attempt < 20000 && !agreed; ++attempt) {
    const struct sysinfo before = kernelFigures();
    std::uint64_t percent = 0;
    ASSERT_TRUE(getMemoryUsage(percent));
    const struct sysinfo after = kernelFigures();
    if (before.freeram == after.freeram && before.bufferram == after.bufferram) {
      const std::uint64_t used = after.totalram - after.freeram - after.bufferram;
      agreed = percent == used * 100 / after.totalram;
    }
  }
  EXPECT_TRUE(agreed);
}

// Cut down, not rounded, and of a hundred: the figures differ on a host whose use has a fraction of
// a half or more, or just below one, and some size of the page cache makes any host one.
TEST(GetMemoryUsage, FallsWithThePageCacheByCuttingDown) {
  PrivateHost host;
  const std::uint64_t hundredth = kernelFigures().totalram / 100;
  constexpr std::uint64_t kParts = 50;
  for (std::uint64_t part = 1; part <= kParts; ++part) {
    const std::uint64_t cached = hundredth * part / kParts / 1024;
    host.withMeminfo("Cached: " + std::to_string(cached) + " kB\n");
    bool agreed = false;
    for (int attempt = 0; attempt < 20000 && !agreed; ++attempt) {
      const struct sysinfo before = kernelFigures();
      std::uint64_t percent = 0;
      ASSERT_TRUE(getMemoryUsage(percent));
      const struct sysinfo after = kernelFigures();
      if (before.freeram == after.freeram && before.bufferram == after.bufferram) {
        const std::uint64_t available =
            after.freeram + after.bufferram + (cached * 1024 & 0xffffffff);
        agreed = percent == (after.totalram - available) * 100 / after.totalram;
      }
    }
    ASSERT_TRUE(agreed) << cached;
  }
}

TEST(GetMemoryUsage, AFailureLeavesItsOutputAndIsLoggedBehindItsReason) {
  PrivateHost host;
  failSyscall(SYS_sysinfo, EPERM);
  std::uint64_t percent = 7;
  EXPECT_FALSE(getMemoryUsage(percent));
  EXPECT_EQ(percent, 7u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Operation not "
                          "permitted",
                          "Error SystemQuery: Failed to get memory usage"));
}

TEST(GetSystemUptime, IsTheKernels) {
  const struct sysinfo before = kernelFigures();
  std::uint64_t seconds = 0;
  EXPECT_TRUE(getSystemUptime(seconds));
  EXPECT_GE(seconds, static_cast<std::uint64_t>(before.uptime));
  EXPECT_LE(seconds, static_cast<std::uint64_t>(kernelFigures().uptime));
}

TEST(GetSystemUptime, AFailureLeavesItsOutputAndIsLoggedBehindItsReason) {
  PrivateHost host;
  failSyscall(SYS_sysinfo, EPERM);
  std::uint64_t seconds = 7;
  EXPECT_FALSE(getSystemUptime(seconds));
  EXPECT_EQ(seconds, 7u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Operation not "
                          "permitted",
                          "Error SystemQuery: Failed to get system uptime"));
}

TEST(GetPageSize, IsAskedForEachTime) {
  std::uint64_t bytes = 0;
  EXPECT_TRUE(getPageSize(bytes));
  EXPECT_EQ(bytes, static_cast<std::uint64_t>(getpagesize()));
  answerSysconf(_SC_PAGESIZE, 65536);
  EXPECT_TRUE(getPageSize(bytes));
  EXPECT_EQ(bytes, 65536u);
}

TEST(GetPageSize, AFailureLeavesItsOutputAndIsLogged) {
  PrivateHost host;
  failSysconf(_SC_PAGESIZE, EINVAL);
  std::uint64_t bytes = 7;
  EXPECT_FALSE(getPageSize(bytes));
  EXPECT_EQ(bytes, 7u);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to get page size, error is Invalid "
                          "argument"));
}

// What the C library leaves in errno where it finds no entry; its own affair.
template <typename Search>
std::string errorTextOf(Search search) {
  errno = 0;
  search();
  const std::string text = std::strerror(errno);
  errno = 0;
  return text;
}

TEST(GetUserName, IsTheOneOfTheUserDatabase) {
  PrivateHost host;
  host.withUser("erin", 4711);
  std::string name = "before";
  EXPECT_TRUE(getUserName(0, name));
  EXPECT_EQ(name, "root");
  EXPECT_TRUE(getUserName(4711, name));
  EXPECT_EQ(name, "erin");
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(GetUserName, ANumberWithoutANameLeavesItsOutputAndIsLogged) {
  PrivateHost host;
  std::string name = "before";
  const std::string reason = errorTextOf([] { getpwuid(4711); });
  EXPECT_FALSE(getUserName(4711, name));
  EXPECT_EQ(name, "before");
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn SystemQuery: Failed to get user name for uid: 4711, error is " + reason));
}

TEST(GetUserName, ANumberBeyond31BitsIsLoggedAsANegativeOne) {
  PrivateHost host;
  std::string name;
  EXPECT_FALSE(getUserName(4294967294, name));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre(StartsWith("Warn SystemQuery: Failed to get user name for uid: -2, "
                                     "error is ")));
}

TEST(GetUserName, SaysWhyTheDatabaseCannotBeRead) {
  PrivateHost host;
  host.withUnopenable("/etc/passwd");
  const std::string reason = errorTextOf([] { getpwuid(0); });
  ASSERT_NE(reason, std::strerror(0));
  std::string name = "before";
  EXPECT_FALSE(getUserName(0, name));
  EXPECT_EQ(name, "before");
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn SystemQuery: Failed to get user name for uid: 0, error is " + reason));
}

TEST(GetUserId, IsTheOneOfTheUserDatabase) {
  PrivateHost host;
  host.withUser("erin", 4711).withUser("frank", 4294967290);
  std::uint32_t uid = 7;
  EXPECT_TRUE(getUserId("erin", uid));
  EXPECT_EQ(uid, 4711u);
  EXPECT_TRUE(getUserId("frank", uid));
  EXPECT_EQ(uid, 4294967290u);
  EXPECT_TRUE(getUserId("root", uid));
  EXPECT_EQ(uid, 0u);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(GetUserId, AnUnknownNameLeavesItsOutputAndIsLogged) {
  PrivateHost host;
  std::uint32_t uid = 7;
  const std::string reason = errorTextOf([] { getpwnam("mallory%s%n"); });
  EXPECT_FALSE(getUserId("mallory%s%n", uid));
  EXPECT_EQ(uid, 7u);
  errno = 0;
  EXPECT_FALSE(getUserId("", uid));
  EXPECT_FALSE(getUserId("Alice", uid));
  EXPECT_EQ(uid, 7u);
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre(
          "Warn SystemQuery: Failed to get user id for user: mallory%s%n, error is " + reason,
          StartsWith("Warn SystemQuery: Failed to get user id for user: , error is "),
          StartsWith("Warn SystemQuery: Failed to get user id for user: Alice, error is ")));
}

TEST(GetUserId, SaysWhyTheDatabaseCannotBeRead) {
  PrivateHost host;
  host.withUnopenable("/etc/passwd");
  const std::string reason = errorTextOf([] { getpwnam("alice"); });
  ASSERT_NE(reason, std::strerror(0));
  std::uint32_t uid = 7;
  EXPECT_FALSE(getUserId("alice", uid));
  EXPECT_EQ(uid, 7u);
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Warn SystemQuery: Failed to get user id for user: alice, error is " + reason));
}

TEST(FindUser, GivesBothNumbersOrNothingInSilence) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.withFile("/etc/passwd", "erin:x:4711:4712::/:/bin/sh\n");
  const auto erin = findUser("erin");
  ASSERT_TRUE(erin.has_value());
  EXPECT_EQ(erin->uid, 4711u);
  EXPECT_EQ(erin->gid, 4712u);
  EXPECT_FALSE(findUser("frank").has_value());
  EXPECT_FALSE(findUser("").has_value());
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(FindGroup, GivesTheNumberOrNothingInSilence) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.withFile("/etc/group", "erin:x:4713:\n").withUser("frank", 4714).withoutGroup("frank");
  EXPECT_EQ(findGroup("erin"), std::optional<gid_t>(4713));
  EXPECT_EQ(findGroup("frank"), std::nullopt);
  EXPECT_EQ(findGroup(""), std::nullopt);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(UserDatabase, ThreadsThatAskAtOnceEachGetTheirOwnAnswer) {
  PrivateHost host;
  // Before any of the threads runs: the rig asks without the lock that they share.
  std::vector<std::pair<std::string, std::uint32_t>> users;
  for (const char* name : {"alice", "bob", "carol", "dave"}) {
    users.emplace_back(name, host.uidOf(name));
  }
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (const auto& [name, uid] : users) {
    threads.emplace_back([&wrong, &name = name, &uid = uid] {
      for (int i = 0; i < 300; ++i) {
        std::string foundName;
        std::uint32_t foundUid = 0;
        const auto ids = findUser(name.c_str());
        wrong += !getUserName(uid, foundName) || foundName != name;
        wrong += !getUserId(name, foundUid) || foundUid != uid;
        wrong += !ids.has_value() || ids->uid != uid;
        wrong += findGroup(name.c_str()) != std::optional<gid_t>(uid);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

SystemPerfStats markedStats() {
  return {.cpuUser = 1,
          .cpuNice = 2,
          .cpuSystem = 3,
          .cpuIdle = 4,
          .memTotal = 5,
          .memAvailable = 6,
          .diskReads = 7,
          .diskWrites = 8,
          .diskInFlight = 9,
          .diskReadMs = 10,
          .diskWriteMs = 11,
          .diskIoMs = 12,
          .uptime = 13};
}

std::vector<std::uint64_t> diskFigures(const SystemPerfStats& stats) {
  return {stats.diskReads,  stats.diskWrites,  stats.diskInFlight,
          stats.diskReadMs, stats.diskWriteMs, stats.diskIoMs};
}

std::vector<std::uint64_t> cpuFigures(const SystemPerfStats& stats) {
  return {stats.cpuUser, stats.cpuNice, stats.cpuSystem, stats.cpuIdle};
}

void expectStillMarked(const SystemPerfStats& stats) {
  EXPECT_THAT(cpuFigures(stats), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(stats.memTotal, 5u);
  EXPECT_EQ(stats.memAvailable, 6u);
  EXPECT_THAT(diskFigures(stats), ElementsAre(7, 8, 9, 10, 11, 12));
  EXPECT_EQ(stats.uptime, 13);
}

TEST(GetSystemPerfStats, TakesEveryFigureFromItsColumn) {
  PrivateHost host;
  host.withProcStat("cpu 1001 1002 1003 1004 1005\nbtime 1700000000\n")
      .withMeminfo("Cached: 4194305 kB\n")
      .withDiskstats("8 0 sda 2001 2002 2003 2004 2005 2006 2007 2008 2009 2010 2011\n");
  SystemPerfStats stats = markedStats();
  const struct sysinfo before = kernelFigures();
  EXPECT_TRUE(getSystemPerfStats(stats));
  const struct sysinfo after = kernelFigures();
  EXPECT_THAT(cpuFigures(stats), ElementsAre(1001, 1002, 1003, 1004));
  EXPECT_THAT(diskFigures(stats), ElementsAre(2001, 2005, 2009, 2004, 2008, 2010));
  EXPECT_EQ(stats.memTotal, after.totalram);
  // Free memory moves by whole pages.
  EXPECT_EQ(stats.memAvailable % 4096, 1024u);
  EXPECT_NEAR(static_cast<double>(stats.memAvailable),
              static_cast<double>(after.freeram + after.bufferram), 256e6);
  EXPECT_GE(stats.uptime, before.uptime);
  EXPECT_LE(stats.uptime, after.uptime);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(GetSystemPerfStats, CountsAPartitionAgainBesideItsDisk) {
  PrivateHost host;
  host.withDiskstats(
      "8 0 sda 100 0 0 10 200 0 0 20 3 30 0\n"
      "8 1 sda1 90 0 0 9 190 0 0 19 2 29 0\n");
  SystemPerfStats stats;
  EXPECT_TRUE(getSystemPerfStats(stats));
  EXPECT_THAT(diskFigures(stats), ElementsAre(190, 390, 5, 19, 39, 59));
}

TEST(GetSystemPerfStats, CountsEveryKindOfDevice) {
  PrivateHost host;
  host.withDiskstats(
      "8 0 sda 1 0 0 1 1 0 0 1 1 1 0\n7 0 loop0 1 0 0 1 1 0 0 1 1 1 0\n"
      "1 0 ram0 1 0 0 1 1 0 0 1 1 1 0\n253 0 dm-0 1 0 0 1 1 0 0 1 1 1 0\n"
      "9 0 md0 1 0 0 1 1 0 0 1 1 1 0\n259 0 nvme0n1 1 0 0 1 1 0 0 1 1 1 0\n"
      "11 0 sr0 1 0 0 1 1 0 0 1 1 1 0\n");
  SystemPerfStats stats;
  EXPECT_TRUE(getSystemPerfStats(stats));
  EXPECT_THAT(diskFigures(stats), ElementsAre(7, 7, 7, 7, 7, 7));
}

TEST(GetSystemPerfStats, CountsABlankLineLikeTheRecordBefore) {
  PrivateHost host;
  host.withDiskstats("8 0 sda 100 0 0 10 200 0 0 20 3 30 0\n\n");
  SystemPerfStats stats;
  EXPECT_TRUE(getSystemPerfStats(stats));
  EXPECT_THAT(diskFigures(stats), ElementsAre(200, 400, 6, 20, 40, 60));
}

TEST(GetSystemPerfStats, SumsWrapAt64Bits) {
  PrivateHost host;
  const std::string max = "18446744073709551615";
  host.withDiskstats("8 0 sda " + max + " 0 0 " + max + " " + max + " 0 0 " + max + " " + max +
                     " " + max + " 0\n8 1 sda1 2 0 0 3 4 0 0 5 6 7 0\n");
  SystemPerfStats stats;
  EXPECT_TRUE(getSystemPerfStats(stats));
  EXPECT_THAT(diskFigures(stats), ElementsAre(1, 3, 5, 2, 4, 6));
}

TEST(GetSystemPerfStats, AHostWithoutDisksOrCpuLineHasZeros) {
  PrivateHost host;
  SystemPerfStats stats = markedStats();
  host.withProcStat("cpu 1001 1002 1003 1004\n");
  EXPECT_TRUE(getSystemPerfStats(stats));
  host.withProcStat("intr 5\n").withDiskstats("");
  EXPECT_TRUE(getSystemPerfStats(stats));
  EXPECT_THAT(cpuFigures(stats), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(diskFigures(stats), ElementsAre(0, 0, 0, 0, 0, 0));
  EXPECT_EQ(stats.memTotal, kernelFigures().totalram);
}

TEST(GetSystemPerfStats, WithoutCpuTimesNothingElseIsRead) {
  PrivateHost host;
  host.withUnopenable("/proc/stat").withUnopenable("/proc/diskstats");
  failSyscall(SYS_sysinfo, EPERM);
  SystemPerfStats stats = markedStats();
  EXPECT_FALSE(getSystemPerfStats(stats));
  expectStillMarked(stats);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to open file /proc/stat, error is No such "
                          "device or address",
                          "Error SystemQuery: Failed to get system performance statistics"));
}

TEST(GetSystemPerfStats, WithoutMemoryFiguresNothingIsWritten) {
  PrivateHost host;
  host.withUnopenable("/proc/diskstats");
  failSyscall(SYS_sysinfo, EPERM);
  SystemPerfStats stats = markedStats();
  EXPECT_FALSE(getSystemPerfStats(stats));
  expectStillMarked(stats);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn SystemQuery: Failed to query sysinfo, error is Operation not "
                          "permitted",
                          "Error SystemQuery: Failed to get system performance statistics"));
}

TEST(GetSystemPerfStats, WithoutDiskFiguresNothingIsWritten) {
  PrivateHost host;
  host.withUnopenable("/proc/diskstats");
  SystemPerfStats stats = markedStats();
  EXPECT_FALSE(getSystemPerfStats(stats));
  expectStillMarked(stats);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Error SystemQuery: Failed to open file /proc/diskstats, error is No "
                          "such device or address",
                          "Error SystemQuery: Failed to get system performance statistics"));
}

TEST(GetSystemPerfStats, ReadsTheHostItselfWhereNothingReplacesIt) {
  PrivateHost host;
  SystemPerfStats first;
  SystemPerfStats second;
  EXPECT_TRUE(getSystemPerfStats(first));
  EXPECT_TRUE(getSystemPerfStats(second));
  EXPECT_GT(first.cpuUser, 0u);
  EXPECT_GT(first.cpuIdle, 0u);
  EXPECT_GE(second.cpuUser, first.cpuUser);
  EXPECT_GE(second.cpuSystem, first.cpuSystem);
  EXPECT_GE(second.uptime, first.uptime);
}

}  // namespace
}  // namespace mendline
