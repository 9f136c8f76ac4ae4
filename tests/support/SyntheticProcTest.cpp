#include "SyntheticProc.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "Error.h"
#include "PrivateHost.h"

using namespace mendline;

namespace {

std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::set<std::string> numericEntries() {
  std::set<std::string> names;
  DIR* directory = opendir("/proc");
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
      names.insert(entry->d_name);
    }
  }
  closedir(directory);
  return names;
}

class SyntheticProcTest : public testing::Test {
 protected:
  rig::PrivateHost host;
};

TEST_F(SyntheticProcTest, ShowsInventedProcessesOnly) {
  rig::StatLine line;
  line.pid = 4711;
  line.name = "xedit";
  host.syntheticProc().addProcess(line, 2001).addProcess(99, {});
  EXPECT_EQ(numericEntries(), (std::set<std::string>{"4711", "99"}));
  struct stat attributes = {};
  ASSERT_EQ(stat("/proc/4711", &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 2001U);
  EXPECT_NE(access("/proc/99/stat", F_OK), 0);
}

TEST_F(SyntheticProcTest, HasStatLinesOfFiftyTwoColumns) {
  rig::StatLine line;
  line.pid = 4711;
  line.name = "a b";
  line.userTicks = 14;
  line.systemTicks = 15;
  line.threads = 20;
  line.startTime = 22;
  line.virtualBytes = 23;
  line.residentPages = 24;
  const std::string text = line.text();
  EXPECT_EQ(text.rfind("4711 (a b) S 1 ", 0), 0U);
  std::istringstream rest(text.substr(text.find(')') + 1));
  std::string word;
  int column = 2;
  while (rest >> word) {
    ++column;
    if (column == 14 || column == 15 || column == 20 || (column >= 22 && column <= 24)) {
      EXPECT_EQ(word, std::to_string(column)) << text;
    }
  }
  EXPECT_EQ(column, 52);
}

TEST_F(SyntheticProcTest, ReplacesAndRemovesAProcess) {
  rig::SyntheticProc& proc = host.syntheticProc();
  rig::ProcEntry entry;
  entry.stat = "first";
  entry.io = "io";
  proc.addProcess(7, entry);
  entry.stat = "second";
  entry.io = std::nullopt;
  entry.owner = 2002;
  proc.addProcess(7, entry);
  EXPECT_EQ(readAll("/proc/7/stat"), "second");
  EXPECT_NE(access("/proc/7/io", F_OK), 0);
  proc.removeProcess(7);
  EXPECT_NE(access("/proc/7", F_OK), 0);
  EXPECT_THROW(proc.removeProcess(7), rig::Error);
}

TEST_F(SyntheticProcTest, ChangesFilesAndOwners) {
  rig::SyntheticProc& proc = host.syntheticProc();
  proc.addProcess(7, {}).setFile("7/io", "x").setOwner(7, 2003, 2003);
  EXPECT_EQ(readAll("/proc/7/io"), "x");
  struct stat attributes = {};
  ASSERT_EQ(stat("/proc/7", &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 2003U);
  proc.removeFile("7/io").removeFile("stat").addDirectory("stat");
  EXPECT_NE(access("/proc/7/io", F_OK), 0);
  ASSERT_EQ(stat("/proc/stat", &attributes), 0);
  EXPECT_TRUE(S_ISDIR(attributes.st_mode));
}

TEST_F(SyntheticProcTest, GoesTogetherWithTheHostsFunctions) {
  host.syntheticProc();
  host.withProcStat("cpu 1 2 3 4\n");
  EXPECT_EQ(readAll("/proc/stat"), "cpu 1 2 3 4\n");
  host.without("/proc/meminfo");
  EXPECT_NE(access("/proc/meminfo", F_OK), 0);
}

TEST_F(SyntheticProcTest, KeepsTheWayToThisProcess) {
  host.syntheticProc();
  EXPECT_NE(readAll("/proc/self/maps").find("libc"), std::string::npos);
  EXPECT_NE(readAll("/proc/sys/kernel/ostype").find("Linux"), std::string::npos);
}

TEST_F(SyntheticProcTest, LeavesRealProcessesWorking) {
  host.syntheticProc();
  rig::Process process = host.process("xedit").start();
  EXPECT_TRUE(process.isRunning());
  EXPECT_GT(process.startTime(), 0U);
  EXPECT_TRUE(numericEntries().empty());
}

}  // namespace
