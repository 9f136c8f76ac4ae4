#include "PrivateHost.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "Error.h"
#include "HostPaths.h"

using namespace mendline;

namespace {

std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(PrivateHost, ShowsAnotherProcStat) {
  rig::PrivateHost host;
  host.withProcStat("cpu 10 5 20 100\n").withDiskstats("8 0 sda\n").withMeminfo("MemTotal: 1 kB\n");
  FILE* file = std::fopen("/proc/stat", "r");
  ASSERT_NE(file, nullptr);
  char line[64] = {};
  EXPECT_NE(std::fgets(line, sizeof line, file), nullptr);
  std::fclose(file);
  EXPECT_STREQ(line, "cpu 10 5 20 100\n");
  EXPECT_EQ(readAll("/proc/diskstats"), "8 0 sda\n");
  EXPECT_EQ(readAll("/proc/meminfo"), "MemTotal: 1 kB\n");
}

TEST(PrivateHost, ReplacesContentUnderWay) {
  rig::PrivateHost host;
  host.withProcStat("one\n");
  host.withProcStat(std::string("two\0three", 9));
  EXPECT_EQ(readAll("/proc/stat"), std::string("two\0three", 9));
}

TEST(PrivateHost, ReplacesContentAtomically) {
  rig::PrivateHost host;
  // Long, so that a file that is being written can hardly be missed.
  const std::string one(400'000, '1');
  const std::string two(400'000, '2');
  host.withProcStat(one);
  std::atomic<bool> done = false;
  std::atomic<int> seenWhole = 0;
  std::atomic<int> torn = 0;
  std::thread reader([&] {
    while (!done) {
      const std::string seen = readAll("/proc/stat");
      if (seen == one || seen == two) {
        ++seenWhole;
      } else {
        ++torn;
      }
    }
  });
  for (int i = 0; i < 100 || (seenWhole < 20 && torn == 0); ++i) {
    host.withProcStat(i % 2 == 0 ? two : one);
  }
  done = true;
  reader.join();
  EXPECT_EQ(torn, 0);
}

TEST(PrivateHost, PutsEverythingBack) {
  const std::string passwd = readAll("/etc/passwd");
  const std::string group = readAll("/etc/group");
  {
    rig::PrivateHost host;
    host.withProcStat("one\n").withProcStat("two\n").withConfig("a=b\n").withUser("erin", 3001);
    host.withoutUser("alice").withoutGroup("bob").syntheticProc();
    EXPECT_NE(readAll("/etc/passwd"), passwd);
    EXPECT_NE(access("/proc/1", F_OK), 0);
  }
  EXPECT_EQ(readAll("/proc/stat").rfind("cpu ", 0), 0U);
  EXPECT_NE(access(rig::kConfigFile, F_OK), 0);
  EXPECT_EQ(readAll("/etc/passwd"), passwd);
  EXPECT_EQ(readAll("/etc/group"), group);
  EXPECT_EQ(access("/proc/1", F_OK), 0);
}

TEST(PrivateHost, ChangesTheFilesOfAProcess) {
  rig::PrivateHost host;
  rig::Process process = host.process("xedit").start();
  const std::string folder = "/proc/" + std::to_string(process.pid()) + "/";
  host.withProcessFile(process.pid(), "stat", "nonsense")
      .withProcessFile(process.pid(), "io", "rchar: 1\n")
      .withProcessFile(process.pid(), "cmdline", std::string("a\0\0b\0", 5));
  EXPECT_EQ(readAll(folder + "stat"), "nonsense");
  EXPECT_EQ(readAll(folder + "io"), "rchar: 1\n");
  EXPECT_EQ(readAll(folder + "cmdline"), std::string("a\0\0b\0", 5));
  EXPECT_NE(process.stat(), "nonsense");
}

TEST(PrivateHost, MakesAFileUnopenable) {
  rig::PrivateHost host;
  rig::Process process = host.process("xedit").start();
  host.withUnopenable("/proc/stat");
  host.withUnopenable("/proc/" + std::to_string(process.pid()) + "/io");
  errno = 0;
  EXPECT_LT(open("/proc/stat", O_RDONLY), 0);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_FALSE(std::ifstream("/proc/" + std::to_string(process.pid()) + "/io").is_open());
}

TEST(PrivateHost, MakesAFileUnreadable) {
  rig::PrivateHost host;
  host.withUnreadable("/proc/meminfo");
  const int file = open("/proc/meminfo", O_RDONLY);
  ASSERT_GE(file, 0);
  char byte = 0;
  errno = 0;
  EXPECT_EQ(read(file, &byte, 1), -1);
  EXPECT_EQ(errno, EIO);
  close(file);
}

TEST(PrivateHost, MakesProcUnopenable) {
  {
    rig::PrivateHost host;
    host.withUnopenableProc();
    errno = 0;
    EXPECT_EQ(opendir("/proc"), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_LT(open("/proc/stat", O_RDONLY), 0);
  }
  EXPECT_EQ(access("/proc/stat", R_OK), 0);
}

TEST(PrivateHost, HasTheConfigItIsGiven) {
  rig::PrivateHost host;
  host.withoutConfig();
  EXPECT_NE(access(rig::kConfigFile, F_OK), 0);
  host.withConfig("key = value\n");
  EXPECT_EQ(readAll(rig::kConfigFile), "key = value\n");
  host.withoutConfig();
  EXPECT_NE(access(rig::kConfigFile, F_OK), 0);
}

TEST(PrivateHost, LosesAFolder) {
  rig::PrivateHost host;
  host.without(rig::kLogDirectory);
  EXPECT_NE(access(rig::kLogDirectory, F_OK), 0);
  EXPECT_THROW(host.without("/proc/stat"), rig::Error);
  EXPECT_THROW(host.without("/tmp"), rig::Error);
}

TEST(PrivateHost, KnowsTheWorkerAccount) {
  const passwd* user = getpwnam("qrsflare");
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->pw_uid, rig::kWorkerUid);
  const group* members = getgrnam("qrsflare");
  ASSERT_NE(members, nullptr);
  EXPECT_EQ(members->gr_gid, user->pw_gid);
}

TEST(PrivateHost, LosesTheWorkerAccount) {
  rig::PrivateHost host;
  host.withoutWorkerAccount();
  EXPECT_EQ(getpwnam("qrsflare"), nullptr);
  EXPECT_EQ(getgrnam("qrsflare"), nullptr);
  EXPECT_THROW(host.worker(), rig::Error);
}

TEST(PrivateHost, ChangesAccountsUnderWay) {
  rig::PrivateHost host;
  EXPECT_EQ(host.uidOf("alice"), 2001U);
  host.withUser("alice", 5001);
  EXPECT_EQ(getpwnam("alice")->pw_uid, 5001U);
  EXPECT_EQ(getpwuid(2001), nullptr);
  EXPECT_STREQ(getgrgid(5001)->gr_name, "alice");
  host.withoutUser("alice");
  EXPECT_EQ(getpwnam("alice"), nullptr);
  EXPECT_THROW(host.uidOf("alice"), rig::Error);
  EXPECT_THROW(host.withoutUser("nobody-of-this-name"), rig::Error);
}

TEST(PrivateHost, LimitsSegments) {
  rig::PrivateHost host;
  host.withSegmentLimit(1);
  const int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  EXPECT_GE(id, 0);
  errno = 0;
  EXPECT_EQ(shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600), -1);
  EXPECT_EQ(errno, ENOSPC);
  shmctl(id, IPC_RMID, nullptr);
}

TEST(PrivateHost, HasATmpOfItsOwn) {
  rig::PrivateHost host;
  struct stat before = {};
  ASSERT_EQ(stat("/tmp", &before), 0);
  {
    rig::PrivateHost other;
    other.withOwnTmp();
    struct stat after = {};
    ASSERT_EQ(stat("/tmp", &after), 0);
    EXPECT_NE(after.st_dev, before.st_dev);
    EXPECT_EQ(after.st_mode & 07777, 01777U);
    // What the test is made of is still there.
    EXPECT_EQ(access(PRIVATE_HOST_PROGRAM, X_OK), 0);
  }
  struct stat again = {};
  ASSERT_EQ(stat("/tmp", &again), 0);
  EXPECT_EQ(again.st_dev, before.st_dev);
}

TEST(PrivateHost, ReadsTheProductsLog) {
  rig::PrivateHost host;
  host.withFile(rig::kLogFile, "2026-03-09 14:05:31:42 Warn  <7f> [Tag] text\n");
  EXPECT_TRUE(host.log().has("Warn", "Tag", "text"));
}

}  // namespace
