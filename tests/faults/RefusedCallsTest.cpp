// What no host refuses on demand: the kernel refuses it by a filter.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "FailingSyscalls.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "logging/InternalLogger.h"
#include "sources/ProcessQuery.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

namespace fs = std::filesystem;
using rig::failSyscall;
using rig::inChild;
using rig::PrivateHost;
using rig::whenArgumentHas;
using testing::ElementsAre;
using testing::IsEmpty;

constinit const LogTag kTag("Test");

std::vector<std::int32_t> listedPids() {
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  std::vector<std::int32_t> pids;
  for (const ProcessInfo& process : processes) {
    pids.push_back(process.iPid);
  }
  return pids;
}

TEST(RefusedCalls, AListingThatBreaksOffIsAShortOne) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 42, .name = "editor"}, 0);
  EXPECT_THAT(listedPids(), ElementsAre(42));
  SetLogThreshold(LogLevel::Debug);
  EXPECT_TRUE(inChild([&] {
    failSyscall(SYS_getdents64, EIO);
    EXPECT_THAT(listedPids(), IsEmpty());
    EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  }));
  EXPECT_THAT(listedPids(), ElementsAre(42));
}

TEST(RefusedCalls, AProcessWhoseFolderCannotBeAskedForItsOwnerIsRoots) {
  PrivateHost host;
  host.syntheticProc().addProcess({.pid = 42, .name = "editor"}, host.uidOf("alice"));
  SetLogThreshold(LogLevel::Debug);
  ProcessStat stat;
  EXPECT_TRUE(inChild([&] {
    // By path, and not by descriptor, as a stream asks for its block size.
    failSyscall(SYS_newfstatat, EACCES, {whenArgumentHas(3, AT_EMPTY_PATH, 0)});
    EXPECT_TRUE(ReadProcessStat(42, stat));
    EXPECT_EQ(stat.uid, 0U);
    EXPECT_STREQ(stat.comm, "editor");
    EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  }));
  EXPECT_TRUE(ReadProcessStat(42, stat));
  EXPECT_EQ(stat.uid, host.uidOf("alice"));
}

TEST(RefusedCalls, ALogWhosePositionIsUnknownIsNotRotated) {
  PrivateHost host;
  fs::resize_file(rig::kLogFile, 26214400);
  EXPECT_TRUE(inChild([] {
    InternalLogger logger;  // opened behind the limit
    failSyscall(SYS_lseek, ESPIPE);
    LogError(&kTag, "goes on");
    EXPECT_FALSE(fs::exists(rig::kLogBackup));
    EXPECT_GT(fs::file_size(rig::kLogFile), 26214400U);
  }));
  LogError(&kTag, "makes room");
  EXPECT_TRUE(fs::exists(rig::kLogBackup));
}

TEST(RefusedCalls, AFullStandardOutputCostsTheTwoLinesOnTheRange) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=200\nDesktop.displayNumberMax=120\n");
  EXPECT_TRUE(inChild([&] {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(dup2(full, STDOUT_FILENO), 0);
    close(full);
    // As a terminal's would be: each line is tried at once.
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    EXPECT_TRUE(StartCollector());
    EXPECT_NE(std::ferror(stdout), 0);
    EXPECT_TRUE(host.log().has("Info", "MendLineOperation", "(100, 159) after clamping"));
    StopCollector();
  }));
}

TEST(RefusedCalls, AThreadWithoutRoomForItsStackIsLetOutAsAnException) {
  PrivateHost host;
  // In a child, whose end needs no thread: a leak checker's would.
  EXPECT_TRUE(inChild([&] {
    failSyscall(SYS_mmap, ENOMEM, {whenArgumentHas(3, MAP_STACK, MAP_STACK)});
    EXPECT_THROW(StartCollector(), std::system_error);
    EXPECT_TRUE(host.log().hasNot("Info", "PerfCollector"));
    EXPECT_EQ(rig::attachmentCount(), 1U);
    StopCollector();
    EXPECT_THAT(rig::segments(), IsEmpty());
  }));
  EXPECT_TRUE(StartCollector());
  StopCollector();
}

TEST(RefusedCalls, WithoutTheCacheOfTheUserDatabaseItsFileIsRead) {
  PrivateHost host;
  failSyscall(SYS_socket, EAFNOSUPPORT);
  EXPECT_TRUE(StartCollector());
  StopCollector();
  EXPECT_TRUE(host.log().hasNot("Error", ""));
}

}  // namespace
}  // namespace mendline
