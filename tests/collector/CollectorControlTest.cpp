#include "collector/CollectorControl.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Eventually.h"
#include "FailingSyscalls.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "collector/PerfCollector.h"
#include "collector/SessionCounters.h"
#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "sources/SystemQuery.h"
#include "tests/collector/CollectorThread.h"
#include "tests/collector/RecordingGenerator.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

// The calls by which the collector meets the operating system, as this program makes them.
struct SystemCalls {
  std::mutex mutex;
  bool recording = false;
  std::vector<std::string> made;
  // Runs before the call of that name is passed on.
  std::string watched;
  std::function<void()> watcher;
};

SystemCalls& systemCalls() {
  static SystemCalls calls;
  return calls;
}

template <typename... Parts>
void note(const char* name, const Parts&... parts) {
  SystemCalls& calls = systemCalls();
  std::function<void()> watcher;
  {
    const std::lock_guard lock(calls.mutex);
    if (!calls.recording) {
      return;
    }
    std::string text = name;
    ((text += ' ' + std::string(parts)), ...);
    calls.made.push_back(text);
    if (calls.watched == name) {
      watcher = calls.watcher;
    }
  }
  if (watcher) {
    watcher();
  }
}

std::string hex(std::uintptr_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%zx", value);
  return text;
}

std::string addressText(const void* address) {
  return hex(reinterpret_cast<std::uintptr_t>(address));
}

std::string octal(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", value);
  return text;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace mendline

// The product's objects are part of this program and call these, which pass everything on.
extern "C" {

passwd* getpwnam(const char* name) {
  mendline::note("getpwnam", name);
  return mendline::next<passwd*(const char*)>("getpwnam")(name);
}

group* getgrnam(const char* name) {
  mendline::note("getgrnam", name);
  return mendline::next<group*(const char*)>("getgrnam")(name);
}

int chown(const char* path, uid_t owner, gid_t group) noexcept {
  mendline::note("chown", path, std::to_string(owner), std::to_string(group));
  return mendline::next<int(const char*, uid_t, gid_t)>("chown")(path, owner, group);
}

int chmod(const char* path, mode_t mode) noexcept {
  mendline::note("chmod", path, mendline::octal(mode));
  return mendline::next<int(const char*, mode_t)>("chmod")(path, mode);
}

key_t ftok(const char* path, int project) noexcept {
  mendline::note("ftok", path, std::to_string(project));
  return mendline::next<key_t(const char*, int)>("ftok")(path, project);
}

int shmget(key_t key, size_t size, int flags) noexcept {
  mendline::note("shmget", std::to_string(key), std::to_string(size),
                 mendline::octal(static_cast<unsigned>(flags)));
  return mendline::next<int(key_t, size_t, int)>("shmget")(key, size, flags);
}

void* shmat(int id, const void* address, int flags) noexcept {
  mendline::note("shmat", std::to_string(id), mendline::addressText(address),
                 std::to_string(flags));
  return mendline::next<void*(int, const void*, int)>("shmat")(id, address, flags);
}

int shmctl(int id, int command, shmid_ds* buffer) noexcept {
  switch (command) {
    case IPC_STAT:
      mendline::note("shmctl", std::to_string(id), "IPC_STAT");
      break;
    case IPC_SET:
      mendline::note("shmctl", std::to_string(id), "IPC_SET", std::to_string(buffer->shm_perm.uid),
                     std::to_string(buffer->shm_perm.gid),
                     mendline::octal(buffer->shm_perm.mode & 0777u));
      break;
    case IPC_RMID:
      mendline::note("shmctl", std::to_string(id), "IPC_RMID", mendline::addressText(buffer));
      break;
    default:
      break;
  }
  return mendline::next<int(int, int, shmid_ds*)>("shmctl")(id, command, buffer);
}

int shmdt(const void* address) noexcept {
  mendline::note("shmdt", mendline::addressText(address));
  return mendline::next<int(const void*)>("shmdt")(address);
}

int remove(const char* path) noexcept {
  mendline::note("remove", path);
  return mendline::next<int(const char*)>("remove")(path);
}
}

namespace mendline {
namespace {

using rig::attachmentCount;
using rig::eventually;
using rig::failSyscall;
using rig::inChild;
using rig::kKeyDirectory;
using rig::kKeyFile;
using rig::kWorkerUid;
using rig::openFileCount;
using rig::PrivateHost;
using rig::Segment;
using rig::SessionRecord;
using rig::whenArgument;
using rig::whenArgumentHas;
using rig::Worker;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();
constexpr int kProject = 104;

std::vector<std::string> callsDuring(const std::function<void()>& body,
                                     const std::string& watched = "",
                                     std::function<void()> watcher = nullptr) {
  SystemCalls& calls = systemCalls();
  {
    const std::lock_guard lock(calls.mutex);
    calls.made.clear();
    calls.watched = watched;
    calls.watcher = std::move(watcher);
    calls.recording = true;
  }
  body();
  const std::lock_guard lock(calls.mutex);
  calls.recording = false;
  return calls.made;
}

// What the body writes to standard output.
std::string outputOf(const std::function<void()>& body) {
  std::fflush(stdout);
  const int before = dup(STDOUT_FILENO);
  const int file = memfd_create("output", MFD_CLOEXEC);
  dup2(file, STDOUT_FILENO);
  body();
  std::fflush(stdout);
  dup2(before, STDOUT_FILENO);
  close(before);
  std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  close(file);
  return text;
}

struct KeyFileState {
  bool exists = false;
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0;
  off_t size = 0;
  ino_t inode = 0;
};

KeyFileState keyFile() {
  struct stat attributes = {};
  if (lstat(kKeyFile, &attributes) != 0) {
    return {};
  }
  return {true,
          attributes.st_uid,
          attributes.st_gid,
          attributes.st_mode & 07777,
          attributes.st_size,
          attributes.st_ino};
}

testing::AssertionResult keyFileIs(uid_t owner, gid_t group, mode_t mode, off_t size = 0) {
  const KeyFileState state = keyFile();
  if (state.exists && state.owner == owner && state.group == group && state.mode == mode &&
      state.size == size) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure()
         << (state.exists ? "the key file is there" : "there is no key file") << ", owner "
         << state.owner << ", group " << state.group << ", mode " << octal(state.mode) << ", size "
         << state.size;
}

void writeKeyFile(const std::string& content, uid_t owner, gid_t group, mode_t mode) {
  std::ofstream(kKeyFile) << content;
  ASSERT_EQ(chown(kKeyFile, owner, group), 0);
  ASSERT_EQ(chmod(kKeyFile, mode), 0);
}

// Made by "another process": under the key of the key file, which must be there.
int leaveSegment(std::size_t size) {
  const int id = shmget(ftok(kKeyFile, kProject), size, IPC_CREAT | 0600);
  EXPECT_NE(id, -1);
  return id;
}

boost::property_tree::ptree clearRequest(const std::string& display) {
  boost::property_tree::ptree request;
  request.put("MendlineOperation.opcode", "ClearShm");
  request.put("MendlineOperation.display", display);
  return request;
}

unsigned char* segmentBytes() {
  return static_cast<unsigned char*>(sessionShmBase);
}

bool areAll(const unsigned char* bytes, std::size_t count, unsigned char value) {
  return std::all_of(bytes, bytes + count, [&](unsigned char byte) { return byte == value; });
}

SessionRecord someFigures() {
  return {.frameRate = 30,
          .rtt = 12.5,
          .pkLoss = -1,
          .bw = 1e6,
          .imagingReceived = ~std::uint64_t{0},
          .imagingTransmitted = 2,
          .audioReceived = 3,
          .audioTransmitted = 4,
          .cdrReceived = 5,
          .cdrTransmitted = ~std::uint64_t{0} - 1};
}

// The log of a StartCollector that succeeds. A message that ends in a line feed leaves an empty
// line behind it.
std::vector<std::string> logOfStart(const std::vector<std::string>& configLines) {
  std::vector<std::string> lines = {"Info MendLineOperation: Enter StartCollector"};
  lines.insert(lines.end(), configLines.begin(), configLines.end());
  lines.push_back("Info PerfCollector: Created collection thread");
  return lines;
}

std::vector<std::string> infoLines(int min, int max, int clampedMin, int clampedMax, int count) {
  const auto range = [](int lowest, int highest) {
    return '(' + std::to_string(lowest) + ", " + std::to_string(highest) + ')';
  };
  const std::string start = "Info MendLineOperation: StartCollector: the display numbers are ";
  return {start + range(min, max) + " from configuration.", "",
          start + range(clampedMin, clampedMax) + " after clamping and max session number is " +
              std::to_string(count) + '.',
          ""};
}

std::vector<std::string> parseErrorLines(const std::string& error) {
  std::vector<std::string> lines = {
      "Error MendLineOperation: StartCollector: Failed to parse config file /etc/norvane/config. "
      "Error: " +
          error,
      ""};
  for (const std::string& line : infoLines(100, 159, 100, 159, 60)) {
    lines.push_back(line);
  }
  return lines;
}

// The range that a start with this configuration ends up with, and the log it writes.
class ConfiguredStart {
 public:
  explicit ConfiguredStart(const std::string& config) {
    PrivateHost host;
    host.withConfig(config);
    EXPECT_TRUE(StartCollector());
    min = displayNumberMin;
    max = displayNumberMax;
    log = loggedLines(host.log());
    const auto segment = rig::segmentOf(kKeyFile, kProject);
    EXPECT_TRUE(segment.has_value());
    EXPECT_EQ(maxSessionNumber, max + 1 - min);
    EXPECT_EQ(segment ? segment->size : 0, static_cast<std::size_t>(maxSessionNumber) * 80);
    StopCollector();
  }

  std::int32_t min;
  std::int32_t max;
  std::vector<std::string> log;
};

void expectRange(const std::string& config, std::int32_t min, std::int32_t max) {
  displayNumberMin = 100;
  displayNumberMax = 159;
  const ConfiguredStart start(config);
  EXPECT_EQ(start.min, min) << config;
  EXPECT_EQ(start.max, max) << config;
}

// ---- The display range ----

struct Range {
  std::int32_t min;
  std::int32_t max;
};

void expectClamped(const Range& configured, const Range& expected) {
  PrivateHost host;
  Range range = configured;
  const auto text = [](const Range& of) {
    return '(' + std::to_string(of.min) + ", " + std::to_string(of.max) + ')';
  };
  const std::string output = outputOf([&] { clampDisplayNumberConfig(range.min, range.max); });
  EXPECT_EQ(text(range), text(expected)) << "for " << text(configured);
  EXPECT_EQ(output, "clampDisplayNumberConfig: Before clamping, the display numbers are " +
                        text(configured) +
                        "\nclampDisplayNumberConfig: After clamping, the display numbers are" +
                        text(expected) + "\n");
  EXPECT_EQ(host.log().text(), "");
}

TEST(ClampDisplayNumberConfig, LeavesASoundRangeAndTellsItOnStandardOutput) {
  for (const Range& range : {Range{100, 159}, Range{0, 0}, Range{0, 59}, Range{105, 110},
                             Range{59535, 59535}, Range{59476, 59535}}) {
    expectClamped(range, range);
  }
}

TEST(ClampDisplayNumberConfig, RejectsALowestAboveTheHighest) {
  for (const Range& range : {Range{200, 100}, Range{101, 100}, Range{0, -1}, Range{59536, 59535},
                             Range{kHighest, kLowest}, Range{0, kLowest}}) {
    expectClamped(range, {100, 159});
  }
}

TEST(ClampDisplayNumberConfig, RejectsTwoNegativeNumbers) {
  for (const Range& range :
       {Range{-5, -1}, Range{-1, -1}, Range{kLowest, -1}, Range{kLowest, kLowest}}) {
    expectClamped(range, {100, 159});
  }
}

TEST(ClampDisplayNumberConfig, RejectsTwoNumbersAboveTheHighestDisplay) {
  for (const Range& range : {Range{60000, 70000}, Range{59536, 59536}, Range{59536, kHighest},
                             Range{kHighest, kHighest}}) {
    expectClamped(range, {100, 159});
  }
}

TEST(ClampDisplayNumberConfig, RaisesANegativeLowestToZero) {
  expectClamped({-5, 10}, {0, 10});
  expectClamped({-1, 0}, {0, 0});
  expectClamped({kLowest, 0}, {0, 0});
  expectClamped({-1, 59}, {0, 59});
  expectClamped({-1, 60}, {0, 59});
}

TEST(ClampDisplayNumberConfig, CutsTheHighestAndNeverTheLowest) {
  expectClamped({200, 70000}, {200, 259});
  expectClamped({59530, 70000}, {59530, 59535});
  expectClamped({100, 160}, {100, 159});
  expectClamped({0, 60}, {0, 59});
  expectClamped({59475, 59535}, {59475, 59534});
  expectClamped({59535, 59536}, {59535, 59535});
  expectClamped({59476, 59536}, {59476, 59535});
  expectClamped({59535, kHighest}, {59535, 59535});
}

TEST(ClampDisplayNumberConfig, SurvivesTheWidestRanges) {
  expectClamped({0, kHighest}, {0, 59});
  expectClamped({kLowest, kHighest}, {0, 59});
  expectClamped({-1, 59536}, {0, 59});
  expectClamped({-1, kHighest}, {0, 59});
}

// ---- The configuration file ----

TEST(StartCollector, WithoutAConfigFileKeepsTheRangeAndSaysNothingOfIt) {
  PrivateHost host;
  const std::string output = outputOf([] { EXPECT_TRUE(StartCollector()); });
  EXPECT_EQ(output, "");
  EXPECT_EQ(loggedLines(host.log()), logOfStart({}));
  EXPECT_EQ(displayNumberMin, 100);
  EXPECT_EQ(displayNumberMax, 159);
  EXPECT_EQ(maxSessionNumber, 60);
  StopCollector();
}

TEST(StartCollector, WithoutAConfigFileNeitherClampsNorCounts) {
  PrivateHost host;
  displayNumberMin = 100;
  displayNumberMax = 300;
  maxSessionNumber = 7;
  EXPECT_EQ(outputOf([] { EXPECT_TRUE(StartCollector()); }), "");
  EXPECT_EQ(displayNumberMax, 300);
  EXPECT_EQ(maxSessionNumber, 7);
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->size, 560u);
  StopCollector();
}

TEST(StartCollector, TakesAConfigFileThatCannotBeOpenedForNone) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=120\n").withUnopenable(rig::kConfigFile);
  EXPECT_TRUE(StartCollector());
  EXPECT_EQ(loggedLines(host.log()), logOfStart({}));
  EXPECT_EQ(displayNumberMin, 100);
  StopCollector();
}

TEST(StartCollector, TakesTheRangeOfTheConfigFileAndTellsIt) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=10\nDesktop.displayNumberMax=19\n");
  const std::string output = outputOf([] { EXPECT_TRUE(StartCollector()); });
  EXPECT_EQ(output,
            "clampDisplayNumberConfig: Before clamping, the display numbers are (10, 19)\n"
            "clampDisplayNumberConfig: After clamping, the display numbers are(10, 19)\n");
  EXPECT_EQ(loggedLines(host.log()), logOfStart(infoLines(10, 19, 10, 19, 10)));
  EXPECT_EQ(displayNumberMin, 10);
  EXPECT_EQ(displayNumberMax, 19);
  EXPECT_EQ(maxSessionNumber, 10);
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->size, 800u);
  StopCollector();
}

TEST(StartCollector, CutsAWideConfigRangeAtTheTop) {
  const ConfiguredStart start("Desktop.displayNumberMin=200\nDesktop.displayNumberMax=400\n");
  EXPECT_EQ(start.min, 200);
  EXPECT_EQ(start.max, 259);
  EXPECT_EQ(start.log, logOfStart(infoLines(200, 400, 200, 259, 60)));
}

TEST(StartCollector, TellsTheRangeOfAnEmptyConfigFileToo) {
  const ConfiguredStart start("");
  EXPECT_EQ(start.log, logOfStart(infoLines(100, 159, 100, 159, 60)));
}

TEST(StartCollector, KeepsTheBoundThatTheConfigFileDoesNotState) {
  expectRange("Desktop.displayNumberMin=110\n", 110, 159);
  expectRange("Desktop.displayNumberMax=110\n", 100, 110);
}

TEST(StartCollector, ReadsConfigKeysOutsideSectionsOnly) {
  expectRange("[Desktop]\ndisplayNumberMin=110\ndisplayNumberMax=120\n", 100, 159);
  expectRange("[x]\nDesktop.displayNumberMin=110\nDesktop.displayNumberMax=120\n", 100, 159);
  expectRange("Desktop.displayNumberMin=110\n[x]\nDesktop.displayNumberMax=120\n", 110, 159);
}

TEST(StartCollector, ReadsConfigKeysWithTheirCase) {
  expectRange("desktop.displaynumbermin=110\nDesktop.DisplayNumberMax=120\n", 100, 159);
}

TEST(StartCollector, SkipsOtherConfigKeysCommentsAndBlanks) {
  expectRange(
      "; a comment\n# another\n\nOther.key=1\n  Desktop.displayNumberMin\t=  110 \t\n"
      "Desktop.displayNumberMax = 120\r\n",
      110, 120);
}

TEST(StartCollector, PassesOverAConfigValueThatIsNoNumber) {
  for (const std::string value : {"abc", "", "110x", "110 x", "1.5", "0x6e", "\"110\"", "1 10",
                                  "2147483648", "99999999999", "-2147483649"}) {
    expectRange("Desktop.displayNumberMin=" + value + "\nDesktop.displayNumberMax=120\n", 100, 120);
    expectRange("Desktop.displayNumberMax=" + value + "\n", 100, 159);
  }
}

TEST(StartCollector, ReadsSignedConfigValues) {
  expectRange("Desktop.displayNumberMin=+110\n", 110, 159);
  expectRange("Desktop.displayNumberMin=-5\nDesktop.displayNumberMax=10\n", 0, 10);
  expectRange("Desktop.displayNumberMin=0\nDesktop.displayNumberMax=2147483647\n", 0, 59);
}

TEST(StartCollector, SaysNothingOfAConfigValueThatIsNoNumber) {
  const ConfiguredStart start("Desktop.displayNumberMin=abc\nDesktop.displayNumberMax=\n");
  EXPECT_EQ(start.log, logOfStart(infoLines(100, 159, 100, 159, 60)));
}

TEST(StartCollector, GoesOnWithAConfigFileOfWrongSyntax) {
  const ConfiguredStart start("Desktop.displayNumberMin=110\nnonsense\n");
  EXPECT_EQ(start.log,
            logOfStart(parseErrorLines("<unspecified file>(2): '=' character not found in line")));
  EXPECT_EQ(start.min, 100);
  EXPECT_EQ(start.max, 159);
}

TEST(StartCollector, GoesOnWithAConfigFileThatStatesAKeyTwice) {
  const ConfiguredStart start("Desktop.displayNumberMin=110\nDesktop.displayNumberMin=110\n");
  EXPECT_EQ(start.log, logOfStart(parseErrorLines("<unspecified file>(2): duplicate key name")));
  EXPECT_EQ(start.min, 100);
}

TEST(StartCollector, GoesOnWithAFolderInTheConfigFilesPlace) {
  PrivateHost host;
  ASSERT_EQ(mkdir(rig::kConfigFile, 0755), 0);
  EXPECT_TRUE(StartCollector());
  EXPECT_EQ(loggedLines(host.log()),
            logOfStart(parseErrorLines("<unspecified file>(1): read error")));
  StopCollector();
}

TEST(StartCollector, KeepsTheConfigRangeOfTheLastStartWhenTheFileHasGone) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=10\nDesktop.displayNumberMax=19\n");
  ASSERT_TRUE(StartCollector());
  StopCollector();
  host.withoutConfig();
  ASSERT_TRUE(StartCollector());
  EXPECT_EQ(displayNumberMin, 10);
  EXPECT_EQ(displayNumberMax, 19);
  EXPECT_EQ(maxSessionNumber, 10);
  StopCollector();
  host.withConfig("Desktop.displayNumberMax=21\n");
  ASSERT_TRUE(StartCollector());
  EXPECT_EQ(displayNumberMin, 10);
  EXPECT_EQ(displayNumberMax, 21);
  EXPECT_EQ(maxSessionNumber, 12);
  StopCollector();
}

// ---- The key file ----

TEST(StartCollector, MakesAnEmptyKeyFileOfTheWorkersAccount) {
  PrivateHost host;
  const mode_t before = umask(0);
  ASSERT_TRUE(StartCollector());
  umask(before);
  EXPECT_TRUE(keyFileIs(kWorkerUid, kWorkerUid, 0600));
  StopCollector();
}

TEST(StartCollector, GivesTheKeyFileAndTheSegmentToTheGroupOfTheWorkersName) {
  PrivateHost host;
  // The group of the account's entry is another one.
  host.withoutUser(rig::kWorkerAccount);
  std::ofstream("/etc/passwd", std::ios::app) << "qrsflare:x:6104:2001::/:/bin/sh\n";
  ASSERT_TRUE(StartCollector());
  EXPECT_TRUE(keyFileIs(6104, 6104, 0600));
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->group, 6104u);
  StopCollector();
}

TEST(StartCollector, LeavesAnExistingKeyFileAsItIs) {
  PrivateHost host;
  writeKeyFile("old", 2001, 2002, 0644);
  const ino_t inode = keyFile().inode;
  EXPECT_TRUE(StartCollector());
  EXPECT_TRUE(keyFileIs(2001, 2002, 0644, 3));
  EXPECT_EQ(keyFile().inode, inode);
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->owner, kWorkerUid);
  EXPECT_EQ(loggedLines(host.log()), logOfStart({}));
  StopCollector();
  EXPECT_FALSE(keyFile().exists);
}

TEST(StartCollector, HoldsAnExistingKeyFileOpenUntilItReturns) {
  PrivateHost host;
  writeKeyFile("", 0, 0, 0600);
  const std::size_t before = openFileCount();
  std::size_t during = 0;
  callsDuring([] { EXPECT_TRUE(StartCollector()); }, "shmctl", [&] { during = openFileCount(); });
  EXPECT_EQ(during, before + 1);
  StopCollector();
  EXPECT_EQ(openFileCount(), before);

  // A file made just now is closed before it is used.
  callsDuring([] { EXPECT_TRUE(StartCollector()); }, "ftok", [&] { during = openFileCount(); });
  EXPECT_EQ(during, before);
  StopCollector();
}

TEST(StartCollector, EmptiesAKeyFileThatItMayOnlyWrite) {
  // Root may read everything, so the collector runs as a user to whom the folder belongs.
  PrivateHost host;
  writeKeyFile("old", 2001, 2001, 0200);
  ASSERT_EQ(chown(kKeyDirectory, 2001, 2001), 0);
  EXPECT_TRUE(inChild([] {
    ASSERT_EQ(setegid(2001), 0);
    ASSERT_EQ(seteuid(2001), 0);
    EXPECT_FALSE(StartCollector());
  }));
  EXPECT_TRUE(keyFileIs(2001, 2001, 0200, 0));
  EXPECT_TRUE(host.log().has("Error", "MendLineOperation", "Failed to chown mendline shm file"));
}

TEST(StartCollector, NeedsTheWorkersUserToMakeTheKeyFile) {
  PrivateHost host;
  host.withoutUser(rig::kWorkerAccount);
  const mode_t before = umask(022);
  EXPECT_FALSE(StartCollector());
  umask(before);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Info MendLineOperation: Enter StartCollector",
                          "Error MendLineOperation: getpwnam or getgrnam failed"));
  EXPECT_TRUE(keyFileIs(0, 0, 0644));
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_EQ(collectorThreads(), 0u);
}

TEST(StartCollector, NeedsTheWorkersGroupToMakeTheKeyFile) {
  PrivateHost host;
  host.withoutGroup(rig::kWorkerAccount);
  const mode_t before = umask(0);
  EXPECT_FALSE(StartCollector());
  umask(before);
  EXPECT_TRUE(host.log().has("Error", "MendLineOperation", "getpwnam or getgrnam failed"));
  EXPECT_TRUE(keyFileIs(0, 0, 0666));
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST(StartCollector, LooksForTheAccountBeforeItAsksWhoOwnsTheKeyFile) {
  PrivateHost host;
  host.withoutWorkerAccount();
  EXPECT_THAT(callsDuring([] { EXPECT_FALSE(StartCollector()); }),
              ElementsAre("getpwnam qrsflare", "getgrnam qrsflare"));
}

TEST(StartCollector, PassesOverAMissingAccountWhereTheKeyFileExists) {
  for (const bool withUser : {false, true}) {
    for (const bool withGroup : {false, true}) {
      if (withUser && withGroup) {
        continue;
      }
      PrivateHost host;
      if (!withUser) {
        host.withoutUser(rig::kWorkerAccount);
      }
      if (!withGroup) {
        host.withoutGroup(rig::kWorkerAccount);
      }
      host.log().clear();
      writeKeyFile("", 2001, 2001, 0600);
      const auto calls = callsDuring([] { EXPECT_TRUE(StartCollector()); });
      EXPECT_TRUE(host.log().hasNot("Error", ""));
      EXPECT_TRUE(host.log().hasNot("", "", "getpwnam"));
      const auto segment = rig::segmentOf(kKeyFile, kProject);
      ASSERT_TRUE(segment.has_value());
      EXPECT_EQ(segment->owner, 0u);
      EXPECT_EQ(segment->group, 0u);
      EXPECT_EQ(segment->mode, 0600u);
      EXPECT_EQ(calls.back(), "shmctl " + std::to_string(segment->id) + " IPC_STAT");
      StopCollector();
    }
  }
}

TEST(StartCollector, GoesOnWithTheKeyFileThatAFailureLeft) {
  PrivateHost host;
  EXPECT_TRUE(inChild([&] {
    host.withoutWorkerAccount();
    EXPECT_FALSE(StartCollector());
    host.withUser(rig::kWorkerAccount, kWorkerUid);
  }));
  const KeyFileState left = keyFile();
  ASSERT_TRUE(left.exists);
  EXPECT_TRUE(StartCollector());
  // It keeps its wrong owner.
  EXPECT_EQ(keyFile().owner, 0u);
  EXPECT_EQ(keyFile().mode, left.mode);
  EXPECT_EQ(keyFile().inode, left.inode);
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->owner, kWorkerUid);
  StopCollector();
  EXPECT_FALSE(keyFile().exists);
}

TEST(StartCollector, FailsWhereTheKeyFilesFolderIsMissing) {
  PrivateHost host;
  ASSERT_EQ(rmdir(kKeyDirectory), 0);
  EXPECT_FALSE(StartCollector());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Info MendLineOperation: Enter StartCollector",
                          "Error MendLineOperation: Failed to chown mendline shm file"));
  StopCollector();
  ASSERT_EQ(mkdir(kKeyDirectory, 0755), 0);
  EXPECT_TRUE(StartCollector());
  StopCollector();
}

// chown and chmod of a path go by these calls, whichever the processor has.
void failChown() {
#ifdef SYS_chown
  failSyscall(SYS_chown, EPERM);
#endif
  failSyscall(SYS_fchownat, EPERM);
}

void failChmod() {
#ifdef SYS_chmod
  failSyscall(SYS_chmod, EPERM);
#endif
  failSyscall(SYS_fchmodat, EPERM);
}

TEST(StartCollector, FailsWhenTheKeyFileCannotBeGivenAway) {
  PrivateHost host;
  umask(022);
  EXPECT_TRUE(inChild([&] {
    const std::size_t threads = rig::threadCount();
    failChown();
    EXPECT_FALSE(StartCollector());
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Info MendLineOperation: Enter StartCollector",
                            "Error MendLineOperation: Failed to chown mendline shm file"));
    EXPECT_TRUE(keyFileIs(0, 0, 0644));
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_EQ(sessionShmId, -1);
    EXPECT_EQ(rig::threadCount(), threads);
    StopCollector();
    EXPECT_FALSE(keyFile().exists);
    EXPECT_FALSE(StartCollector());
  }));
  EXPECT_TRUE(StartCollector());
  EXPECT_TRUE(keyFileIs(0, 0, 0644));
  StopCollector();
}

TEST(StartCollector, FailsWhenTheKeyFilesModeCannotBeSet) {
  PrivateHost host;
  umask(022);
  EXPECT_TRUE(inChild([&] {
    const std::size_t threads = rig::threadCount();
    failChmod();
    EXPECT_FALSE(StartCollector());
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Info MendLineOperation: Enter StartCollector",
                            "Error MendLineOperation: Failed to chmod mendline shm file"));
    EXPECT_TRUE(keyFileIs(kWorkerUid, kWorkerUid, 0644));
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_EQ(rig::threadCount(), threads);
    StopCollector();
    EXPECT_FALSE(keyFile().exists);
    EXPECT_FALSE(StartCollector());
  }));
  EXPECT_TRUE(StartCollector());
  EXPECT_TRUE(keyFileIs(kWorkerUid, kWorkerUid, 0644));
  StopCollector();
}

TEST(StartCollector, FailsWhenTheKeyFileGivesNoKey) {
  PrivateHost host;
  EXPECT_TRUE(inChild([&] {
    const std::size_t threads = rig::threadCount();
    // The look at the key file alone, not that at any other.
    failSyscall(SYS_newfstatat, EACCES,
                {whenArgument(1, reinterpret_cast<std::uintptr_t>(&kSessionShmKeyFile[0]))});
    EXPECT_FALSE(StartCollector());
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Info MendLineOperation: Enter StartCollector",
                            "Error MendLineOperation: Ftok Failed. Error: Permission denied"));
    EXPECT_TRUE(keyFileIs(kWorkerUid, kWorkerUid, 0600));
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_EQ(sessionShmId, -1);
    EXPECT_EQ(sessionShmBase, kNoSegment);
    EXPECT_EQ(rig::threadCount(), threads);
    StopCollector();
    EXPECT_FALSE(keyFile().exists);
    EXPECT_FALSE(StartCollector());
  }));
  EXPECT_TRUE(StartCollector());
  StopCollector();
}

// ---- The segment ----

TEST(StartCollector, MakesTheSegmentForTheWorker) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  const std::vector<Segment> all = rig::segments();
  ASSERT_EQ(all.size(), 1u);
  const Segment& segment = all[0];
  EXPECT_EQ(segment.key, ftok(kKeyFile, kProject));
  EXPECT_EQ(segment.size, 4800u);
  EXPECT_EQ(segment.owner, kWorkerUid);
  EXPECT_EQ(segment.group, kWorkerUid);
  EXPECT_EQ(segment.mode, 0600u);
  EXPECT_EQ(segment.attachments, 1u);
  EXPECT_EQ(segment.id, sessionShmId);
  EXPECT_NE(sessionShmBase, kNoSegment);
  EXPECT_TRUE(areAll(segmentBytes(), 4800, 0));
  StopCollector();
}

TEST(StartCollector, SharesTheSegmentWithTheWorker) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=10\nDesktop.displayNumberMax=19\n");
  ASSERT_TRUE(StartCollector());
  Worker worker = host.worker(10);
  worker.writes(13, someFigures());
  SessionRecord seen;
  std::memcpy(&seen, segmentBytes() + 240, sizeof seen);
  EXPECT_EQ(seen, someFigures());
  EXPECT_EQ(worker.reads(12), SessionRecord());
  EXPECT_EQ(worker.reads(19), SessionRecord());
  StopCollector();
  // A worker that is still attached keeps its mapping.
  EXPECT_EQ(worker.reads(13), someFigures());
}

TEST(StartCollector, MakesItsSystemCallsForTheSegmentInOrder) {
  PrivateHost host;
  std::string logAtLookup = "nothing asked";
  const auto calls = callsDuring([] { EXPECT_TRUE(StartCollector()); }, "getpwnam",
                                 [&] { logAtLookup = host.log().text(); });
  const std::string id = std::to_string(sessionShmId);
  const std::string path = kKeyFile;
  EXPECT_THAT(calls,
              ElementsAre("getpwnam qrsflare", "getgrnam qrsflare", "chown " + path + " 6104 6104",
                          "chmod " + path + " 600", "ftok " + path + " 104",
                          "shmget " + std::to_string(ftok(kKeyFile, 104)) + " 4800 1600",
                          "shmat " + id + " 0x0 0", "shmctl " + id + " IPC_STAT",
                          "shmctl " + id + " IPC_SET 6104 6104 600"));
  EXPECT_EQ(logAtLookup, "") << "nothing is logged before the account is looked up";
  StopCollector();
}

TEST(StartCollector, TakesOverTheSegmentOfAProcessThatDied) {
  PrivateHost host;
  EXPECT_TRUE(inChild([&] {
    ASSERT_TRUE(StartCollector());
    host.worker().writes(159, someFigures());
  }));
  const auto left = rig::segmentOf(kKeyFile, kProject);
  ASSERT_TRUE(left.has_value());
  EXPECT_EQ(left->attachments, 0u);
  const ino_t inode = keyFile().inode;
  Worker worker = host.worker();
  ASSERT_EQ(worker.reads(159), someFigures());

  ASSERT_TRUE(StartCollector());
  EXPECT_EQ(sessionShmId, left->id);
  EXPECT_EQ(keyFile().inode, inode);
  EXPECT_TRUE(areAll(segmentBytes(), 4800, 0));
  EXPECT_EQ(worker.reads(159), SessionRecord());
  StopCollector();
  EXPECT_FALSE(rig::segmentOf(kKeyFile, kProject).has_value());
}

TEST(StartCollector, TakesOverALargerSegmentAndZeroesWhatItNeeds) {
  PrivateHost host;
  writeKeyFile("", 0, 0, 0600);
  const int id = leaveSegment(5000);
  auto* bytes = static_cast<unsigned char*>(shmat(id, nullptr, 0));
  std::memset(bytes, 0xa5, 5000);
  ASSERT_TRUE(StartCollector());
  EXPECT_EQ(sessionShmId, id);
  EXPECT_TRUE(areAll(bytes, 4800, 0));
  EXPECT_TRUE(areAll(bytes + 4800, 200, 0xa5));
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->owner, kWorkerUid);
  StopCollector();
  ASSERT_EQ(shmdt(bytes), 0);
}

TEST(StartCollector, DoesNotChangeTheModeOfASegmentItTakesOver) {
  PrivateHost host;
  writeKeyFile("", 0, 0, 0600);
  const int id = shmget(ftok(kKeyFile, kProject), 4800, IPC_CREAT | 0644);
  ASSERT_NE(id, -1);
  ASSERT_TRUE(StartCollector());
  EXPECT_EQ(sessionShmId, id);
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->mode, 0644u);
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->owner, kWorkerUid);
  StopCollector();
}

TEST(StartCollector, FailsOnALeftOverSegmentThatIsTooSmall) {
  PrivateHost host;
  writeKeyFile("", 0, 0, 0600);
  const int left = leaveSegment(4799);
  EXPECT_FALSE(StartCollector());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Info MendLineOperation: Enter StartCollector",
                          "Error MendLineOperation: Shmget Failed. Error: Invalid argument"));
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_TRUE(keyFile().exists);
  EXPECT_EQ(attachmentCount(), 0u);
  EXPECT_EQ(collectorThreads(), 0u);

  // There is no way to remove a segment that was never had; the key file goes.
  StopCollector();
  EXPECT_FALSE(keyFile().exists);
  ASSERT_EQ(rig::segments().size(), 1u);
  EXPECT_EQ(rig::segments()[0].id, left);
  EXPECT_FALSE(rig::segments()[0].removed);
  EXPECT_TRUE(StartCollector());
  EXPECT_NE(sessionShmId, left);
  StopCollector();
}

TEST(StartCollector, FailsWhenThereMayBeNoMoreSegments) {
  PrivateHost host;
  {
    PrivateHost full;
    full.withSegmentLimit(0);
    EXPECT_FALSE(StartCollector());
  }
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Info MendLineOperation: Enter StartCollector",
                  "Error MendLineOperation: Shmget Failed. Error: No space left on device"));
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_TRUE(keyFileIs(kWorkerUid, kWorkerUid, 0600));
  EXPECT_EQ(collectorThreads(), 0u);
  EXPECT_TRUE(StartCollector());
  StopCollector();
}

TEST(StartCollector, FailsWhenTheSegmentCannotBeAttached) {
  PrivateHost host;
  EXPECT_TRUE(inChild([&] {
    const std::size_t threads = rig::threadCount();
    failSyscall(SYS_shmat, EMFILE);
    EXPECT_FALSE(StartCollector());
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Info MendLineOperation: Enter StartCollector",
                            "Error MendLineOperation: Shmat Failed. Error: Too many open files"));
    const auto segment = rig::segmentOf(kKeyFile, kProject);
    ASSERT_TRUE(segment.has_value());
    EXPECT_EQ(segment->owner, 0u);
    EXPECT_EQ(segment->size, 4800u);
    EXPECT_EQ(sessionShmId, segment->id);
    EXPECT_EQ(sessionShmBase, kNoSegment);
    EXPECT_EQ(rig::threadCount(), threads);
    StopCollector();
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_FALSE(keyFile().exists);
    EXPECT_EQ(sessionShmId, -1);
    EXPECT_FALSE(StartCollector());
  }));
  EXPECT_TRUE(StartCollector());
  StopCollector();
}

TEST(StartCollector, LeavesTheSegmentToTheCallerWhenItCannotBeDescribed) {
  PrivateHost host;
  failSyscall(SYS_shmctl, EACCES, {whenArgumentHas(1, 0xff, IPC_STAT)});
  EXPECT_TRUE(StartCollector());
  EXPECT_EQ(loggedLines(host.log()), logOfStart({}));
  const auto segment = rig::segmentOf(kKeyFile, kProject);
  ASSERT_TRUE(segment.has_value());
  EXPECT_EQ(segment->owner, 0u);
  EXPECT_TRUE(areAll(segmentBytes(), 4800, 0));
  StopCollector();
}

TEST(StartCollector, FailsWhenTheSegmentCannotBeGivenAway) {
  PrivateHost host;
  writeKeyFile("", 0, 0, 0600);
  const int id = leaveSegment(4800);
  auto* bytes = static_cast<unsigned char*>(shmat(id, nullptr, 0));
  std::memset(bytes, 0xa5, 4800);
  EXPECT_TRUE(inChild([&] {
    const std::size_t threads = rig::threadCount();
    failSyscall(SYS_shmctl, EPERM, {whenArgumentHas(1, 0xff, IPC_SET)});
    EXPECT_FALSE(StartCollector());
    EXPECT_THAT(
        loggedLines(host.log()),
        ElementsAre("Info MendLineOperation: Enter StartCollector",
                    "Error MendLineOperation: Shctl Failed. Error: Operation not permitted"));
    EXPECT_EQ(sessionShmId, id);
    ASSERT_NE(sessionShmBase, kNoSegment);
    EXPECT_NE(sessionShmBase, bytes);
    EXPECT_TRUE(areAll(segmentBytes(), 4800, 0xa5)) << "attached and not zeroed";
    EXPECT_EQ(attachmentCount(), 2u);
    EXPECT_TRUE(keyFile().exists);
    EXPECT_EQ(rig::threadCount(), threads);
  }));
  ASSERT_TRUE(StartCollector());
  EXPECT_EQ(sessionShmId, id);
  EXPECT_TRUE(areAll(bytes, 4800, 0));
  StopCollector();
  ASSERT_EQ(shmdt(bytes), 0);
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST(StartCollector, FailsWhenNobodyCanOwnTheSegment) {
  PrivateHost host;
  // No file changes hands for this number, and no segment may.
  host.withUser(rig::kWorkerAccount, 4294967295);
  EXPECT_FALSE(StartCollector());
  EXPECT_TRUE(
      host.log().has("Error", "MendLineOperation", "Shctl Failed. Error: Invalid argument"));
  EXPECT_TRUE(keyFileIs(0, 0, 0600));
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->owner, 0u);
  EXPECT_EQ(attachmentCount(), 1u);
  StopCollector();
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_EQ(attachmentCount(), 0u);
  EXPECT_FALSE(keyFile().exists);
}

TEST(StartCollector, LeavesTheSegmentWhenTheThreadCannotBeMade) {
  PrivateHost host;
  // In a child, whose end needs no thread: a leak checker's would.
  EXPECT_TRUE(inChild([&] {
    failSyscall(SYS_clone3, EAGAIN);
    failSyscall(SYS_clone, EAGAIN);
    EXPECT_THROW(StartCollector(), std::system_error);
    EXPECT_TRUE(host.log().hasNot("Info", "PerfCollector"));
    EXPECT_TRUE(rig::segmentOf(kKeyFile, kProject).has_value());
    EXPECT_EQ(attachmentCount(), 1u);
    StopCollector();
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_FALSE(keyFile().exists);
  }));
}

// ---- Starting again ----

TEST(StartCollector, StartsOneThread) {
  PrivateHost host;
  EXPECT_EQ(collectorThreads(), 0u);
  EXPECT_TRUE(StartCollector());
  EXPECT_EQ(collectorThreads(), 1u);
  StopCollector();
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(StartCollector, AgainWhileRunningAttachesOnceMoreAndZeroesTheRecords) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  Worker worker = host.worker();
  worker.writes(100, someFigures());
  worker.writes(159, someFigures());
  const void* firstBase = sessionShmBase;
  const int id = sessionShmId;
  const ino_t inode = keyFile().inode;
  host.log().clear();

  EXPECT_TRUE(StartCollector());
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Info MendLineOperation: Enter StartCollector",
                  "Warn PerfCollector: Collector has started, failed to register new generator",
                  "Warn PerfCollector: Collector has started, failed to register new generator"));
  EXPECT_EQ(sessionShmId, id);
  EXPECT_NE(sessionShmBase, firstBase);
  EXPECT_EQ(keyFile().inode, inode);
  EXPECT_EQ(attachmentCount(), 2u);
  EXPECT_EQ(rig::segments().size(), 1u);
  EXPECT_EQ(worker.reads(100), SessionRecord());
  EXPECT_EQ(worker.reads(159), SessionRecord());
  EXPECT_EQ(collectorThreads(), 1u);
  worker.detach();

  // The first attachment is never given back, and keeps the removed segment alive.
  StopCollector();
  EXPECT_EQ(attachmentCount(), 1u);
  ASSERT_EQ(rig::segments().size(), 1u);
  EXPECT_TRUE(rig::segments()[0].removed);
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(StartCollector, AgainWhileRunningSetsTheOwnerAgain) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  host.withUser(rig::kWorkerAccount, 7777);
  EXPECT_TRUE(StartCollector());
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->owner, 7777u);
  EXPECT_EQ(keyFile().owner, kWorkerUid);
  StopCollector();
}

TEST(StartCollector, AgainWhileRunningReadsTheConfigurationAgain) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  host.withConfig("Desktop.displayNumberMin=120\nDesktop.displayNumberMax=129\n");
  EXPECT_TRUE(StartCollector());
  EXPECT_EQ(displayNumberMin, 120);
  EXPECT_EQ(maxSessionNumber, 10);
  // The segment that is there is large enough.
  EXPECT_EQ(rig::segmentOf(kKeyFile, kProject)->size, 4800u);
  StopCollector();
}

TEST(StartCollector, AgainWhileRunningFailsWhenTheSegmentIsTooSmallForTheNewRange) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=100\nDesktop.displayNumberMax=109\n");
  ASSERT_TRUE(StartCollector());
  void* const base = sessionShmBase;
  host.withConfig("Desktop.displayNumberMin=100\nDesktop.displayNumberMax=110\n");
  EXPECT_FALSE(StartCollector());
  EXPECT_TRUE(
      host.log().has("Error", "MendLineOperation", "Shmget Failed. Error: Invalid argument"));
  EXPECT_TRUE(host.log().hasNot("Warn", "PerfCollector"));
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, base);
  EXPECT_EQ(maxSessionNumber, 11);
  EXPECT_EQ(collectorThreads(), 1u);

  // Without the identifier nothing is detached or removed.
  StopCollector();
  EXPECT_EQ(attachmentCount(), 1u);
  ASSERT_EQ(rig::segments().size(), 1u);
  EXPECT_FALSE(rig::segments()[0].removed);
  EXPECT_EQ(sessionShmBase, base);
  EXPECT_FALSE(keyFile().exists);
  EXPECT_TRUE(collectorThreadHasEnded());
}

TEST(StartCollector, AgainWhileRunningFailsWhenTheSegmentCannotBeAttached) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  const int id = sessionShmId;
  failSyscall(SYS_shmat, EMFILE);
  EXPECT_FALSE(StartCollector());
  EXPECT_EQ(sessionShmId, id);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_TRUE(host.log().hasNot("Warn", "PerfCollector"));
  EXPECT_EQ(collectorThreads(), 1u);
  // The segment is removed, the attachment of the first start is not found any more.
  StopCollector();
  EXPECT_EQ(attachmentCount(), 1u);
  ASSERT_EQ(rig::segments().size(), 1u);
  EXPECT_TRUE(rig::segments()[0].removed);
}

TEST(StartCollector, AgainAfterAStopHasAFreshKey) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  const key_t key = rig::segments()[0].key;
  const int id = sessionShmId;
  StopCollector();
  ASSERT_TRUE(StartCollector());
  ASSERT_EQ(rig::segments().size(), 1u);
  EXPECT_NE(rig::segments()[0].key, key);
  EXPECT_NE(sessionShmId, id);
  EXPECT_TRUE(keyFileIs(kWorkerUid, kWorkerUid, 0600));
  EXPECT_EQ(host.log().count("Info", "PerfCollector", "Created collection thread"), 2u);
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
  StopCollector();
}

// An own generator, registered before all others: it is called first in every tick.
std::shared_ptr<RecordingGenerator> registeredFirst() {
  const auto generator = std::make_shared<RecordingGenerator>();
  EXPECT_TRUE(PerfCollector::getInstance()->registerGenerator(generator));
  return generator;
}

// What the two generators of the library log at Trace and Warn, a letter a tick and generator: "P"
// from the one of the processes, "H" from the one of the history. The host has one process of an
// unknown user.
std::string generatorsInLog(const rig::Log& log) {
  std::string letters;
  for (const rig::LogRecord& record : log.records()) {
    if (record.message.find("Failed to get user name for uid: 4242") != std::string::npos) {
      letters += 'P';
    } else if (record.tag == "HistoricalMetricGenerator" &&
               record.message.find("cpuUsage") != std::string::npos) {
      letters += 'H';
    }
  }
  return letters;
}

std::vector<std::string> cpuFigures() {
  boost::property_tree::ptree tree;
  ProcessMetricGenerator::getInstance()->fillProcessMetrics(tree);
  std::vector<std::string> figures;
  for (const auto& [name, row] : tree) {
    if (name == "process") {
      figures.push_back(row.get<std::string>("cpu"));
    }
  }
  return figures;
}

TEST(StartCollectorTicks, FeedsTheProcessTableBeforeTheHistory) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.syntheticProc().addProcess(rig::StatLine{.pid = 77, .startTime = 5}, 4242);
  ASSERT_TRUE(StartCollector());
  EXPECT_TRUE(eventually([&] { return generatorsInLog(host.log()).size() >= 4; }));
  StopCollector();
  EXPECT_EQ(generatorsInLog(host.log()).substr(0, 4), "PHPH");
}

TEST(StartCollectorTicks, AgainAfterAStopFeedsEveryGeneratorOnceMorePerTick) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  host.syntheticProc().addProcess(rig::StatLine{.pid = 77, .startTime = 5}, 4242);
  const auto generator = registeredFirst();
  // Each tick finds that time has passed since the one before.
  generator->doing([&, ticks = 0]() mutable {
    ++ticks;
    host.withProcStat("cpu  " + std::to_string(1000 * ticks) + " 0 0 0\nbtime 1\n");
  });
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(generator->willHaveBegun(2));
  StopCollector();
  EXPECT_EQ(generatorsInLog(host.log()).substr(0, 4), "PHPH");
  EXPECT_THAT(cpuFigures(), ElementsAre("0"));

  for (const std::string oneTick : {"PHPH", "PHPHPH"}) {
    host.log().clear();
    const std::size_t before = generator->begun();
    ASSERT_TRUE(StartCollector());
    ASSERT_TRUE(generator->willHaveBegun(before + 2));
    StopCollector();
    const std::size_t ticks = generator->begun() - before;
    std::string expected;
    for (std::size_t tick = 0; tick < ticks; ++tick) {
      expected += oneTick;
    }
    EXPECT_EQ(generatorsInLog(host.log()), expected);
    // The last run of the tick compares the sample with itself.
    EXPECT_THAT(cpuFigures(), ElementsAre("9223372036854775808"));
  }
}

TEST(StartCollectorTicks, AgainWhileRunningTakesTheTicksOn) {
  PrivateHost host;
  const auto generator = registeredFirst();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(generator->willHaveFinished(1));
  Worker worker = host.worker();
  const rig::Process server = host.xServer(":100").start();
  ASSERT_TRUE(StartCollector());
  worker.writes(100, {.rtt = 7});
  EXPECT_TRUE(
      eventually([&] { return generator->lastSample().protocolMetrics.count("100") != 0; }));
  EXPECT_EQ(generator->lastSample().protocolMetrics.at("100"), 7.0);
  StopCollector();
}

TEST(StartCollectorTicks, AFailedStartAgainLeavesTheThreadItsSegment) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=100\nDesktop.displayNumberMax=109\n");
  const auto generator = registeredFirst();
  Worker worker = host.worker();
  const rig::Process server = host.xServer(":100").start();
  ASSERT_TRUE(StartCollector());
  worker.writes(100, {.rtt = 7});
  host.withConfig("Desktop.displayNumberMin=100\nDesktop.displayNumberMax=110\n");
  ASSERT_FALSE(StartCollector());
  worker.writes(100, {.rtt = 8});
  EXPECT_TRUE(eventually([&] {
    const std::vector<PerfSample> samples = generator->samples();
    return !samples.empty() && samples.back().protocolMetrics.count("100") != 0 &&
           samples.back().protocolMetrics.at("100") == 8.0;
  }));
  StopCollector();
}

TEST(StartCollectorTicks, ZeroesTheRecordsBeforeTheFirstTick) {
  PrivateHost host;
  writeKeyFile("", 0, 0, 0600);
  const int id = leaveSegment(4800);
  void* const bytes = shmat(id, nullptr, 0);
  const double old = 99;
  std::memcpy(static_cast<char*>(bytes) + 8, &old, sizeof old);
  const auto generator = registeredFirst();
  const Worker worker = host.worker();
  const rig::Process server = host.xServer(":100").start();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(generator->willHaveFinished(1));
  StopCollector();
  EXPECT_EQ(generator->samples()[0].protocolMetrics.at("100"), 0.0);
  ASSERT_EQ(shmdt(bytes), 0);
}

// ---- Stopping ----

TEST(StopCollector, WithoutAStartChangesNothing) {
  PrivateHost host;
  EXPECT_THAT(callsDuring([] { StopCollector(); }), ElementsAre(std::string("remove ") + kKeyFile));
  EXPECT_THAT(loggedLines(host.log()), ElementsAre("Info MendLineOperation: Enter StopCollector"));
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_EQ(displayNumberMin, 100);
  EXPECT_EQ(maxSessionNumber, 60);
}

TEST(StopCollector, WithoutAStartRemovesTheKeyFileAndNoSegment) {
  PrivateHost host;
  writeKeyFile("old", 2001, 2001, 0600);
  const int left = leaveSegment(4800);
  StopCollector();
  EXPECT_FALSE(keyFile().exists);
  ASSERT_EQ(rig::segments().size(), 1u);
  EXPECT_EQ(rig::segments()[0].id, left);
}

TEST(StopCollector, RemovesAnEmptyFolderInTheKeyFilesPlace) {
  PrivateHost host;
  ASSERT_EQ(mkdir(kKeyFile, 0755), 0);
  StopCollector();
  EXPECT_FALSE(keyFile().exists);
}

TEST(StopCollector, MakesItsSystemCallsInOrder) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  const std::string id = std::to_string(sessionShmId);
  const std::string base = addressText(sessionShmBase);
  EXPECT_THAT(callsDuring([] { StopCollector(); }),
              ElementsAre("shmdt " + base, "shmctl " + id + " IPC_RMID 0x0",
                          std::string("remove ") + kKeyFile));
}

TEST(StopCollector, LeavesNothingButTheRange) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=10\nDesktop.displayNumberMax=19\n");
  const std::size_t files = openFileCount();
  ASSERT_TRUE(StartCollector());
  host.log().clear();
  StopCollector();
  EXPECT_THAT(loggedLines(host.log()), ElementsAre("Info MendLineOperation: Enter StopCollector"));
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_EQ(attachmentCount(), 0u);
  EXPECT_FALSE(keyFile().exists);
  EXPECT_EQ(openFileCount(), files);
  EXPECT_TRUE(collectorThreadHasEnded());
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_EQ(displayNumberMin, 10);
  EXPECT_EQ(displayNumberMax, 19);
  EXPECT_EQ(maxSessionNumber, 10);
}

TEST(StopCollector, MayBeRepeated) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  StopCollector();
  EXPECT_THAT(callsDuring([] { StopCollector(); }), ElementsAre(std::string("remove ") + kKeyFile));
  EXPECT_EQ(host.log().count("Info", "MendLineOperation", "Enter StopCollector"), 2u);
}

TEST(StopCollector, PassesOverASegmentThatIsGoneAlready) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  ASSERT_EQ(shmctl(sessionShmId, IPC_RMID, nullptr), 0);
  ASSERT_EQ(std::remove(kKeyFile), 0);
  host.log().clear();
  StopCollector();
  EXPECT_THAT(loggedLines(host.log()), ElementsAre("Info MendLineOperation: Enter StopCollector"));
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST(StopCollector, PassesOverADetachmentThatFails) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  ASSERT_EQ(shmdt(sessionShmBase), 0);
  StopCollector();
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(sessionShmBase, kNoSegment);
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(keyFile().exists);
}

TEST(StopCollector, DetachesOnlyWhenTheThreadHasEnded) {
  PrivateHost host;
  const auto generator = registeredFirst();
  generator->hold();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(generator->willHaveBegun(1));
  void* const base = sessionShmBase;
  std::thread request([] { StopCollector(); });
  ASSERT_TRUE(host.log().willHave("Info", "MendLineOperation", "Enter StopCollector"));
  pauseFor(std::chrono::milliseconds(100));
  EXPECT_EQ(attachmentCount(), 1u);
  EXPECT_TRUE(keyFile().exists);
  EXPECT_EQ(loadShared(sessionShmBase), base);
  generator->release();
  request.join();
  EXPECT_EQ(attachmentCount(), 0u);
  EXPECT_FALSE(keyFile().exists);
}

TEST(StopCollector, LeavesTheFiguresOfTheLastTick) {
  PrivateHost host;
  host.syntheticProc().addProcess(rig::StatLine{.pid = 77, .startTime = 5}, 0);
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(eventually([] { return cpuFigures().size() == 1; }));
  StopCollector();
  EXPECT_THAT(cpuFigures(), ElementsAre("0"));
}

TEST(StopCollector, CleansUpAfterTwoHundredStarts) {
  PrivateHost host;
  // Without processes the growing registry costs little.
  host.syntheticProc();
  const std::size_t files = openFileCount();
  for (int cycle = 0; cycle < 200; ++cycle) {
    ASSERT_TRUE(StartCollector()) << cycle;
    StopCollector();
  }
  EXPECT_TRUE(collectorThreadHasEnded());
  EXPECT_EQ(openFileCount(), files);
  EXPECT_EQ(attachmentCount(), 0u);
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(keyFile().exists);
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
  EXPECT_TRUE(host.log().hasNot("Error", ""));
}

// ---- Wiping one record ----

TEST(ClearShm, ZeroesTheRecordOfTheDisplayAndNoNeighbour) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  for (const std::size_t index : {0u, 7u, 59u}) {
    std::memset(segmentBytes(), 0xa5, 4800);
    ClearShm(clearRequest(std::to_string(100 + index)));
    EXPECT_TRUE(areAll(segmentBytes(), index * 80, 0xa5));
    EXPECT_TRUE(areAll(segmentBytes() + index * 80, 80, 0));
    EXPECT_TRUE(areAll(segmentBytes() + index * 80 + 80, 4800 - index * 80 - 80, 0xa5));
  }
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
  StopCollector();
}

TEST(ClearShm, IsSeenByTheWorker) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  Worker worker = host.worker();
  worker.writes(103, someFigures());
  worker.writes(104, someFigures());
  ClearShm(clearRequest("103"));
  EXPECT_EQ(worker.reads(103), SessionRecord());
  EXPECT_EQ(worker.reads(104), someFigures());
  worker.writes(103, someFigures());
  SessionRecord seen;
  std::memcpy(&seen, segmentBytes() + 240, sizeof seen);
  EXPECT_EQ(seen, someFigures());
  StopCollector();
}

TEST(ClearShm, TakesTheNumberAtTheStartOfTheText) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  for (const std::string text : {"105abc", " 105", "+105", "105.9"}) {
    std::memset(segmentBytes(), 0xa5, 4800);
    ClearShm(clearRequest(text));
    EXPECT_TRUE(areAll(segmentBytes() + 400, 80, 0)) << text;
  }
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
  StopCollector();
}

TEST(ClearShm, CountsFromTheConfiguredDisplay) {
  PrivateHost host;
  host.withConfig("Desktop.displayNumberMin=10\nDesktop.displayNumberMax=19\n");
  ASSERT_TRUE(StartCollector());
  std::memset(segmentBytes(), 0xa5, 800);
  ClearShm(clearRequest("12"));
  EXPECT_TRUE(areAll(segmentBytes() + 160, 80, 0));
  host.log().clear();
  ClearShm(clearRequest("9"));
  ClearShm(clearRequest("21"));
  ClearShm(clearRequest("103"));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn MendLineOperation: Invalid display number 9",
                          "Warn MendLineOperation: Invalid display number 21",
                          "Warn MendLineOperation: Invalid display number 103"));
  EXPECT_TRUE(areAll(segmentBytes(), 160, 0xa5));
  EXPECT_TRUE(areAll(segmentBytes() + 240, 560, 0xa5));
  StopCollector();
}

TEST(ClearShm, AdmitsOneRecordBeyondTheSegment) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  // The segment ends within a page.
  unsigned char* const beyond = segmentBytes() + 4800;
  std::memset(beyond, 0xa5, 160);
  ClearShm(clearRequest("160"));
  EXPECT_TRUE(areAll(beyond, 80, 0));
  EXPECT_TRUE(areAll(beyond + 80, 80, 0xa5));
  EXPECT_TRUE(host.log().hasNot("Warn", ""));
  StopCollector();
}

TEST(ClearShm, RefusesWhatIsNoDisplayOfTheTable) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  std::memset(segmentBytes(), 0xa5, 4800);
  const std::vector<std::string> texts = {"99", "161", "0",   "-1",          "-100",
                                          "1",  "abc", " ",   "99999999999", "-2147483648",
                                          "x",  "-",   "%s%n"};
  std::vector<std::string> expected;
  host.log().clear();
  for (const std::string& text : texts) {
    ClearShm(clearRequest(text));
    expected.push_back("Warn MendLineOperation: Invalid display number " + text);
  }
  EXPECT_EQ(loggedLines(host.log()), expected);
  EXPECT_TRUE(areAll(segmentBytes(), 4800, 0xa5));
  StopCollector();
}

TEST(ClearShm, MissesTheDisplay) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  std::memset(segmentBytes(), 0xa5, 4800);
  host.log().clear();
  boost::property_tree::ptree elsewhere;
  elsewhere.put("MendlineOperation.opcode", "ClearShm");
  elsewhere.put("display", "103");
  elsewhere.put("MendlineOperation.Display", "103");
  elsewhere.put("Other.display", "103");
  ClearShm(clearRequest(""));
  ClearShm(elsewhere);
  ClearShm({});
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn MendLineOperation: Parameter display missed",
                          "Warn MendLineOperation: Parameter display missed",
                          "Warn MendLineOperation: Parameter display missed"));
  EXPECT_TRUE(areAll(segmentBytes(), 4800, 0xa5));
  StopCollector();
}

TEST(ClearShmTicks, RunsBesideTheTicksAndTheWorker) {
  PrivateHost host;
  const auto generator = registeredFirst();
  Worker worker = host.worker();
  const rig::Process server = host.xServer(":103").start();
  ASSERT_TRUE(StartCollector());
  std::atomic<bool> done = false;
  std::vector<std::thread> requests;
  for (int i = 0; i < 3; ++i) {
    requests.emplace_back([&] {
      while (!done) {
        ClearShm(clearRequest("103"));
        pauseFor(std::chrono::milliseconds(1));
      }
    });
  }
  while (generator->finished() < 8) {
    worker.writes(103, someFigures());
  }
  done = true;
  for (std::thread& request : requests) {
    request.join();
  }
  StopCollector();
  // One word is read as a whole: the figure of the worker, or zero.
  for (const PerfSample& sample : generator->samples()) {
    EXPECT_THAT(sample.protocolMetrics.at("103"), testing::AnyOf(0.0, someFigures().rtt));
  }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer reports the fault and exits.
bool endedByTheFault(int status) {
  return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
}
#else
bool endedByTheFault(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
}
#endif

TEST(ClearShm, EndsTheProcessWhenNoSegmentIsAttached) {
  PrivateHost host;
  for (const std::string display : {"100", "101", "159", "160"}) {
    EXPECT_EXIT(ClearShm(clearRequest(display)), endedByTheFault, "") << display;
  }
  // What is refused is refused before.
  ClearShm(clearRequest("99"));
  EXPECT_TRUE(host.log().has("Warn", "MendLineOperation", "Invalid display number 99"));
}

TEST(ClearShm, EndsTheProcessAfterAStop) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  StopCollector();
  ASSERT_TRUE(collectorThreadHasEnded());
  EXPECT_EXIT(ClearShm(clearRequest("100")), endedByTheFault, "");
}

}  // namespace
}  // namespace mendline
