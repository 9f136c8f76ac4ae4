#include "Process.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "Error.h"
#include "Eventually.h"
#include "PrivateHost.h"

using namespace mendline;

namespace {

std::string procPath(pid_t pid, const std::string& entry) {
  return "/proc/" + std::to_string(pid) + "/" + entry;
}

std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::set<std::string> listedProcesses() {
  std::set<std::string> names;
  DIR* directory = opendir("/proc");
  while (const dirent* entry = readdir(directory)) {
    names.insert(entry->d_name);
  }
  closedir(directory);
  return names;
}

std::uint64_t ioCounter(const rig::Process& process, const std::string& name) {
  const std::string text = "\n" + process.io();
  const std::size_t at = text.find("\n" + name + ": ");
  return std::stoull(text.substr(at + name.size() + 3));
}

class ProcessTest : public testing::Test {
 protected:
  rig::PrivateHost host;
};

TEST_F(ProcessTest, IsListedUnderItsName) {
  rig::Process process = host.process("xedit").start();
  EXPECT_TRUE(listedProcesses().contains(std::to_string(process.pid())));
  EXPECT_EQ(readAll(procPath(process.pid(), "comm")), "xedit\n");
  EXPECT_EQ(readAll(procPath(process.pid(), "cmdline")), std::string("xedit\0", 6));
  EXPECT_TRUE(process.isRunning());
}

TEST_F(ProcessTest, MayHaveAHostileName) {
  const std::string name = ") R 1 (\n\xff\x01 \\";
  rig::Process process = host.process(name).start();
  EXPECT_EQ(readAll(procPath(process.pid(), "comm")), name + "\n");
}

TEST_F(ProcessTest, HasAtMostFifteenBytesOfName) {
  rig::Process process = host.process("abcdefghijklmnopq").start();
  EXPECT_EQ(readAll(procPath(process.pid(), "comm")), "abcdefghijklmno\n");
  process.rename("");
  EXPECT_EQ(readAll(procPath(process.pid(), "comm")), "\n");
}

TEST_F(ProcessTest, HasExactlyTheArgumentsGiven) {
  rig::Process process = host.process("xedit").withArguments({"", "a b", "", "c\xc3\xa9"}).start();
  EXPECT_EQ(readAll(procPath(process.pid(), "cmdline")), std::string("\0a b\0\0c\xc3\xa9\0", 10));
}

TEST_F(ProcessTest, BelongsToItsOwner) {
  rig::Process process = host.process("xedit").ownedBy("alice").start();
  struct stat attributes = {};
  ASSERT_EQ(stat(procPath(process.pid(), "").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 2001U);
  EXPECT_EQ(attributes.st_gid, 2001U);
  ASSERT_EQ(stat(procPath(process.pid(), "io").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 2001U);
  EXPECT_NE(readAll(procPath(process.pid(), "status")).find("Uid:\t2001\t2001\t2001\t2001"),
            std::string::npos);
  EXPECT_THROW(host.process("xedit").ownedBy("nosuchuser"), rig::Error);
}

TEST_F(ProcessTest, HasAStartTime) {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  rig::Process process = host.process("a) b (c").start();
  const auto hertz = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  const std::uint64_t expected = static_cast<std::uint64_t>(now.tv_sec) * hertz;
  EXPECT_GE(process.startTime(), expected);
  EXPECT_LE(process.startTime(), expected + 3 * hertz);
}

TEST_F(ProcessTest, BurnsWhatItIsTold) {
  rig::Process process = host.process("xedit").start();
  const std::uint64_t before = process.cpuTicks();
  process.burn(std::chrono::milliseconds(200));
  EXPECT_GE(process.cpuTicks() - before, 19U);
}

TEST_F(ProcessTest, BurnsCpuAllTheTime) {
  rig::Process process = host.process("xedit").burningCpu().start();
  EXPECT_TRUE(rig::eventually([&] { return process.cpuTicks() > 10; }));
}

TEST_F(ProcessTest, WritesAndReads) {
  rig::Process process = host.process("xedit").ownedBy("bob").havingWritten(300'000).start();
  EXPECT_GE(ioCounter(process, "wchar"), 300'000U);
  const std::uint64_t written = ioCounter(process, "wchar");
  const std::uint64_t read = ioCounter(process, "rchar");
  process.read(200'000);
  EXPECT_GE(ioCounter(process, "rchar") - read, 200'000U);
  EXPECT_LT(ioCounter(process, "wchar") - written, 1000U);
}

TEST_F(ProcessTest, MayIgnoreSigterm) {
  rig::Process stubborn = host.process("xedit").ignoringSigterm().start();
  rig::Process ordinary = host.process("xedit").start();
  stubborn.send(SIGTERM);
  ordinary.send(SIGTERM);
  EXPECT_TRUE(rig::eventually([&] { return !ordinary.isRunning(); }));
  EXPECT_TRUE(stubborn.isRunning());
  stubborn.send(SIGKILL);
  EXPECT_TRUE(rig::eventually([&] { return !stubborn.isRunning(); }));
}

TEST_F(ProcessTest, MayBeAZombie) {
  rig::Process process = host.process("ghost").ownedBy("bob").asZombie().start();
  struct stat attributes = {};
  ASSERT_EQ(stat(procPath(process.pid(), "").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 2002U);
  EXPECT_EQ(process.state(), 'Z');
  EXPECT_FALSE(process.isRunning());
  EXPECT_NE(readAll(procPath(process.pid(), "stat")).find("(ghost) Z"), std::string::npos);
}

TEST_F(ProcessTest, IsGoneAfterItsHandle) {
  pid_t pid = 0;
  {
    rig::Process process = host.process("xedit").start();
    pid = process.pid();
    EXPECT_EQ(kill(pid, 0), 0);
  }
  EXPECT_NE(kill(pid, 0), 0);
}

TEST_F(ProcessTest, MovesWithItsHandle) {
  rig::Process first = host.process("first").start();
  const pid_t pid = first.pid();
  rig::Process second = std::move(first);
  EXPECT_EQ(second.pid(), pid);
  EXPECT_TRUE(second.isRunning());
  second = host.process("second").start();
  EXPECT_EQ(readAll(procPath(second.pid(), "comm")), "second\n");
}

TEST_F(ProcessTest, InheritsNoOpenFiles) {
  rig::Process process = host.process("xedit").start();
  DIR* directory = opendir(procPath(process.pid(), "fd").c_str());
  ASSERT_NE(directory, nullptr);
  std::set<std::string> files;
  while (const dirent* entry = readdir(directory)) {
    files.insert(entry->d_name);
  }
  closedir(directory);
  EXPECT_EQ(files, (std::set<std::string>{".", "..", "0", "1", "2", "3", "4"}));
}

TEST_F(ProcessTest, CrowdIsQuick) {
  timespec start = {};
  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &start);
  rig::Process crowd = host.process("idle").ownedBy("carol").withIdleChildren(5000).start();
  clock_gettime(CLOCK_MONOTONIC, &end);
  // A fifth of it when nothing else keeps the machine busy.
  EXPECT_LT(end.tv_sec - start.tv_sec, 5);
  ASSERT_EQ(crowd.children().size(), 5000U);
  const std::set<std::string> listed = listedProcesses();
  for (const pid_t pid : crowd.children()) {
    ASSERT_TRUE(listed.contains(std::to_string(pid)));
  }
  struct stat attributes = {};
  ASSERT_EQ(stat(procPath(crowd.children().back(), "").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 2003U);
  EXPECT_EQ(readAll(procPath(crowd.children().back(), "comm")), "idle\n");
  crowd.stop();
  EXPECT_LT(listedProcesses().size(), 1000U);
}

TEST_F(ProcessTest, CrowdCountsInAll) {
  rig::Process crowd = host.idleProcesses(10);
  EXPECT_EQ(crowd.children().size(), 9U);
}

TEST_F(ProcessTest, XServerHasTheCommandLineOfASession) {
  rig::Process server = host.xServer(":103").ownedBy("alice").start();
  EXPECT_EQ(readAll(procPath(server.pid(), "comm")), "Xorg\n");
  const std::string commandLine = readAll(procPath(server.pid(), "cmdline"));
  EXPECT_NE(commandLine.find("tarnhost"), std::string::npos);
  EXPECT_NE(commandLine.find(":103"), std::string::npos);
}

}  // namespace
