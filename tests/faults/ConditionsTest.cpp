// What a host can refuse for real, while the shipped library works in a process of its own: what it
// answers, what it logs, what stays behind, and that it works again when the condition has gone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Eventually.h"
#include "GpuDriver.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "tests/faults/LibraryProgram.h"

namespace mendline {
namespace {

namespace fs = std::filesystem;
using rig::eventually;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::SizeIs;
using testing::StartsWith;

constexpr uid_t kAgent = 2099;  // no other account's
constexpr int kAborted = 128 + SIGABRT;

const std::string kNoGpus = kDeclaration + "<ERROR>Failed to start vGPU memory collector</ERROR>";
const std::string kGpus = kDeclaration + "<INFO>Finish to start vGPU memory collector</INFO>";
const std::string kNoHistory = kDeclaration + "<ERROR>Failed to get historical metrics</ERROR>";
const std::string kAlice = "<userName>alice</userName><display>101</display>";

// The instrumentation needs memory and threads of its own, and ends a process that cannot have
// them.
#ifdef MENDLINE_INSTRUMENTED
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

auto answers(const std::string& text) {
  return Optional(HasSubstr(text));
}

// A small file system of its own over a folder, until this goes.
class SmallDisk {
 public:
  SmallDisk(std::string folder, const std::string& options) : folder_(std::move(folder)) {
    EXPECT_EQ(mount("small-disk", folder_.c_str(), "tmpfs", 0, options.c_str()), 0)
        << std::strerror(errno);
  }
  ~SmallDisk() { umount2(folder_.c_str(), MNT_DETACH); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  void fill() const {
    std::ofstream filling(filler());
    while (filling << std::string(4096, 'x') << std::flush) {
    }
  }
  void makeRoom() const { fs::remove(filler()); }

 private:
  std::string filler() const { return folder_ + "/filler"; }

  std::string folder_;
};

// Nothing below the folder can be changed, until this goes.
class ReadOnly {
 public:
  explicit ReadOnly(std::string folder) : folder_(std::move(folder)) {
    EXPECT_EQ(mount(folder_.c_str(), folder_.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(mount(nullptr, folder_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              0)
        << std::strerror(errno);
  }
  ~ReadOnly() { umount2(folder_.c_str(), MNT_DETACH); }
  ReadOnly(const ReadOnly&) = delete;
  ReadOnly& operator=(const ReadOnly&) = delete;

 private:
  std::string folder_;
};

// A limit of the kernel on the segments of this private host, until this goes.
class KernelLimit {
 public:
  KernelLimit(const std::string& name, const std::string& value)
      : path_(std::string(rig::kTrueProc) + "/sys/kernel/" + name) {
    std::ifstream(path_) >> before_;
    set(value);
  }
  ~KernelLimit() { set(before_); }
  KernelLimit(const KernelLimit&) = delete;
  KernelLimit& operator=(const KernelLimit&) = delete;

 private:
  void set(const std::string& value) {
    std::ofstream file(path_);
    file << value << std::flush;
    EXPECT_TRUE(file) << path_;
  }

  std::string path_;
  std::string before_;
};

class Conditions : public testing::Test {
 protected:
  Conditions() { host.log().clear(); }
  void TearDown() override {
    for (const rig::Segment& segment : rig::segments()) {
      shmctl(segment.id, IPC_RMID, nullptr);
    }
  }

  // Small, and with a process that can be looked for.
  void inventProcesses() {
    host.syntheticProc().addProcess({.pid = 42, .name = "editor", .startTime = 100},
                                    host.uidOf("alice"));
  }
  static bool reports(LibraryProgram& library, const std::string& process) {
    return eventually([&] {
      const auto report = library.ask("ProcessMetrics");
      return report.has_value() && report->find("<name>" + process + "</name>") != report->npos;
    });
  }
  testing::AssertionResult logged(const std::string& level, const std::string& tag,
                                  const std::string& text) {
    return host.log().willHave(level, tag, text);
  }
  // It can be started, gathers figures and can be stopped, and leaves nothing.
  static void expectItWorks(LibraryProgram& library, const std::string& process = "editor") {
    EXPECT_EQ(library.ask("StartCollector"), kStarted);
    EXPECT_TRUE(reports(library, process));
    EXPECT_EQ(library.ask("StopCollector"), kStopped);
    EXPECT_TRUE(library.hasNoMoreThreads());
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_FALSE(fs::exists(rig::kKeyFile));
  }

  rig::PrivateHost host;
};

// --- The log ------------------------------------------------------------------------------------

using LogConditions = Conditions;

TEST_F(LogConditions, AFullDiskCostsLinesAndNothingElse) {
  inventProcesses();
  const SmallDisk disk(rig::kLogDirectory, "size=64k");
  disk.fill();
  LibraryProgram library;
  expectItWorks(library);
  EXPECT_EQ(fs::file_size(rig::kLogFile), 0U);
  EXPECT_THAT(LibraryProgram::errors(), IsEmpty());

  disk.makeRoom();
  EXPECT_THAT(library.ask("GetLogLevel"), answers("<LOGLEVEL>DEBUG</LOGLEVEL>"));
  std::ifstream log(rig::kLogFile);
  std::ostringstream text;
  text << log.rdbuf();
  EXPECT_THAT(text.str(), HasSubstr("<LOGLEVEL>DEBUG</LOGLEVEL>"));
  EXPECT_EQ(library.end(), 0);
}

TEST_F(LogConditions, ADiskWithoutRoomForAnotherFileMakesARotationEndOnStandardError) {
  // The log, and the folder itself.
  const SmallDisk disk(rig::kLogDirectory, "size=64m,nr_inodes=2");
  std::ofstream(rig::kLogFile) << "";
  fs::resize_file(rig::kLogFile, 26214400);
  LibraryProgram library;
  EXPECT_EQ(library.ask("NoSuchOperation"),
            kDeclaration + "<ERROR>Invalid mendline opcode</ERROR>");
  EXPECT_TRUE(fs::exists(rig::kLogBackup));
  EXPECT_FALSE(fs::exists(rig::kLogFile));
  EXPECT_THAT(LibraryProgram::errors(),
              StartsWith("Failed to open log file /var/log/norvane/tarnhost-mendline.log, falling "
                         "back to stderr\n"));
  EXPECT_THAT(LibraryProgram::errors(), HasSubstr("[MendLineOperation]"));
  EXPECT_EQ(library.end(), 0);
}

TEST_F(LogConditions, AFolderThatBecomesReadOnlyTakesLinesUntilTheRotation) {
  fs::resize_file(rig::kLogFile, 26214400 - 600);
  LibraryProgram library;
  const ReadOnly folder(rig::kLogDirectory);
  host.log().clear();
  EXPECT_THAT(library.ask("GetLogLevel"), answers("<LOGLEVEL>"));
  EXPECT_TRUE(host.log().has("Debug", "MendLineOperation", "GetLogLevel"));
  EXPECT_THAT(LibraryProgram::errors(), IsEmpty());
  // Fills what is left below the limit.
  for (int i = 0; i < 4; ++i) {
    EXPECT_THAT(library.ask("GetLogLevel"), answers("<LOGLEVEL>"));
  }
  EXPECT_THAT(LibraryProgram::errors(),
              StartsWith("Failed to rename/rotate log file "
                         "/var/log/norvane/tarnhost-mendline.log to "
                         "/var/log/norvane/tarnhost-mendline_backup.log: Read-only file system\n"
                         "Failed to open log file /var/log/norvane/tarnhost-mendline.log, falling "
                         "back to stderr\n"));
  EXPECT_THAT(LibraryProgram::errors(), HasSubstr("GetLogLevel"));
  EXPECT_FALSE(fs::exists(rig::kLogBackup));
  EXPECT_EQ(library.end(), 0);
}

// --- Folders in the place of files --------------------------------------------------------------

using FolderConditions = Conditions;

TEST_F(FolderConditions, InPlaceOfTheConfigurationIsAFileThatCannotBeParsed) {
  inventProcesses();
  host.withoutConfig();
  fs::create_directories(rig::kConfigFile);
  LibraryProgram library;
  expectItWorks(library);
  EXPECT_TRUE(logged("Error", "MendLineOperation",
                     "StartCollector: Failed to parse config file /etc/norvane/config. Error: "
                     "<unspecified file>(1): read error"));
  EXPECT_TRUE(logged("Info", "MendLineOperation",
                     "StartCollector: the display numbers are (100, 159) after clamping and max "
                     "session number is 60."));
  fs::remove(rig::kConfigFile);
  host.withConfig("Desktop.displayNumberMax=110\n");
  expectItWorks(library);
  EXPECT_TRUE(logged("Info", "MendLineOperation", "(100, 110) after clamping"));
}

TEST_F(FolderConditions, InPlaceOfTheKeyFileServesAsOne) {
  inventProcesses();
  fs::create_directories(rig::kKeyFile);
  LibraryProgram library;
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_TRUE(fs::is_directory(rig::kKeyFile));
  EXPECT_TRUE(rig::segmentOf(rig::kKeyFile, 104).has_value());
  EXPECT_TRUE(reports(library, "editor"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  EXPECT_FALSE(fs::exists(rig::kKeyFile)) << "empty, it goes like the file";
  EXPECT_THAT(rig::segments(), IsEmpty());

  fs::create_directories(std::string(rig::kKeyFile) + "/kept");
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  EXPECT_TRUE(fs::is_directory(rig::kKeyFile)) << "what is in it keeps it";
  EXPECT_THAT(rig::segments(), IsEmpty());
  fs::remove_all(rig::kKeyFile);
  expectItWorks(library);
}

TEST_F(FolderConditions, InPlaceOfTheXConfigurationNamesNoGpu) {
  const rig::GpuDriver driver(host);
  host.without(rig::kXConfigFile);
  fs::create_directories(rig::kXConfigFile);
  LibraryProgram library;
  EXPECT_EQ(library.ask("StartvGPUMemoryCollector"), kNoGpus);
  EXPECT_TRUE(logged("Error", "NvmlWrapper", "Nvidia GPU device pcibus id is empty"));
  EXPECT_TRUE(logged("Info", "MendLineOperation", "Failed to execute NvmlInit function"));
  fs::remove(rig::kXConfigFile);
  host.withFile(rig::kXConfigFile, "BusID \"PCI:1:0:0\"\n");
  EXPECT_EQ(library.ask("StartvGPUMemoryCollector"), kGpus);
}

TEST_F(FolderConditions, InPlaceOfTheHostsFiguresReadAsEmptyFiles) {
  inventProcesses();
  for (const char* name : {"stat", "diskstats", "meminfo"}) {
    host.syntheticProc().removeFile(name).addDirectory(name);
  }
  LibraryProgram library;
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_TRUE(reports(library, "editor"));
  EXPECT_TRUE(host.log().hasNot("Error", ""));
  EXPECT_THAT(library.ask("ProcessMetrics"), answers("<create_time>1</create_time>"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
}

TEST_F(FolderConditions, InPlaceOfAProcessesStatLineLeavesTheProcessOut) {
  inventProcesses();
  host.syntheticProc().addProcess({.pid = 43, .name = "other", .startTime = 5}, 0);
  host.syntheticProc().removeFile("43/stat").addDirectory("43/stat");
  LibraryProgram library;
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_TRUE(reports(library, "editor"));
  EXPECT_THAT(library.ask("ProcessMetrics"), Optional(Not(HasSubstr("<id>43</id>"))));
  EXPECT_TRUE(logged("Error", "ProcessQuery",
                     "Failed to read file /proc/43/stat, error is Is a directory"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
}

// --- Descriptors --------------------------------------------------------------------------------

using DescriptorConditions = Conditions;

TEST_F(DescriptorConditions, UsedUpMakeTheTickRepeatItselfUntilThereAreSomeAgain) {
  inventProcesses();
  LibraryProgram library;
  ASSERT_EQ(library.ask("StartCollector"), kStarted);
  ASSERT_TRUE(reports(library, "editor"));
  library.limit(RLIMIT_NOFILE, 0);
  EXPECT_TRUE(
      logged("Error", "ProcessQuery", "Failed to open procfs, error is: Too many open files"));
  // What was gathered before is still answered.
  EXPECT_TRUE(reports(library, "editor"));
  EXPECT_THAT(library.ask("LbMetrics"), answers("<LB><cpuUsage>"));
  EXPECT_THAT(library.ask("ProtocolInfo", "<display>101</display>"), answers("<protocol><flare>"));
  EXPECT_TRUE(library.isRunning());

  host.syntheticProc().addProcess({.pid = 77, .name = "latecomer", .startTime = 200}, 0);
  library.limit(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_TRUE(reports(library, "latecomer"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  EXPECT_EQ(library.end(), 0);
}

TEST_F(DescriptorConditions, UsedUpLetTheCollectorBeStopped) {
  inventProcesses();
  LibraryProgram library;
  ASSERT_EQ(library.ask("StartCollector"), kStarted);
  library.limit(RLIMIT_NOFILE, 0);
  ASSERT_TRUE(logged("Error", "ProcessQuery", "Failed to open procfs"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(fs::exists(rig::kKeyFile));
  library.limit(RLIMIT_NOFILE, RLIM_INFINITY);
  expectItWorks(library);
}

TEST_F(DescriptorConditions, UsedUpMakeAStartFailAndLeaveNothing) {
  inventProcesses();
  host.withConfig("Desktop.displayNumberMax=110\n");
  LibraryProgram library;
  library.limit(RLIMIT_NOFILE, 0);
  EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
  EXPECT_TRUE(logged("Error", "MendLineOperation", "getpwnam or getgrnam failed"));
  EXPECT_TRUE(host.log().hasNot("", "MendLineOperation", "the display numbers are"))
      << "a configuration that cannot be opened is none";
  EXPECT_FALSE(fs::exists(rig::kKeyFile));
  EXPECT_THAT(rig::segments(), IsEmpty());
  library.limit(RLIMIT_NOFILE, RLIM_INFINITY);
  expectItWorks(library);
}

TEST_F(DescriptorConditions, UsedUpMakeRequestsFailThatReadTheHost) {
  inventProcesses();
  const rig::GpuDriver driver(host);
  host.withFile(rig::kXConfigFile, "BusID \"PCI:1:0:0\"\n");
  LibraryProgram library;
  ASSERT_EQ(library.ask("StartCollector"), kStarted);
  ASSERT_TRUE(reports(library, "editor"));
  ASSERT_EQ(library.ask("StopCollector"), kStopped);
  library.limit(RLIMIT_NOFILE, 0);

  EXPECT_EQ(library.ask("HistoricalMetrics", kAlice), kNoHistory);
  EXPECT_TRUE(logged("Warn", "SystemQuery",
                     "Failed to get user id for user: alice, error is Too many open files"));
  EXPECT_TRUE(logged("Error", "HistoricalMetricGenerator",
                     "Failed to find specific user: alice in local system"));
  EXPECT_EQ(
      library.ask("EndProcess", "<processId>42</processId><createTime>1700000001</createTime>"),
      kDeclaration + "<ERROR>Failed to terminate process</ERROR>");
  EXPECT_TRUE(logged("Debug", "ProcessQuery",
                     "Failed to open file /proc/42/stat, due to Too many open files"));
  EXPECT_TRUE(logged("Warn", "ProcessTerminator", "GetProcessInfo failed, process: 42 not exist."));
  EXPECT_EQ(library.ask("StartvGPUMemoryCollector"), kNoGpus);
  EXPECT_TRUE(logged("Warn", "NvmlWrapper", "Failed to load library nvidia-ml: "));

  library.limit(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_THAT(library.ask("HistoricalMetrics", kAlice), answers("<historicalMetrics><metric>"));
  EXPECT_EQ(library.ask("StartvGPUMemoryCollector"), kGpus);
  EXPECT_EQ(library.end(), 0);
}

TEST_F(DescriptorConditions, DownToOneMakeATickWithoutProcesses) {
  inventProcesses();
  LibraryProgram library;
  ASSERT_EQ(library.ask("StartCollector"), kStarted);
  ASSERT_TRUE(reports(library, "editor"));
  // The folder takes the one that is left while its processes are read.
  // A tick may have files open at the moment of one look.
  unsigned long files = std::stoul(*library.request("!files"));
  for (int look = 0; look < 20; ++look) {
    files = std::min(files, std::stoul(*library.request("!files")));
  }
  library.limit(RLIMIT_NOFILE, files + 1);
  EXPECT_TRUE(logged("Debug", "ProcessQuery",
                     "Failed to open file /proc/42/stat, due to Too many open files"));
  EXPECT_TRUE(eventually(
      [&] { return library.ask("ProcessMetrics")->find("<process>") == std::string::npos; }));
  EXPECT_TRUE(host.log().hasNot("Error", ""));
  library.limit(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_TRUE(reports(library, "editor"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
}

// --- Shared memory ------------------------------------------------------------------------------

class SegmentConditions : public Conditions {
 protected:
  void expectRefusal(const std::string& limit, const std::string& value,
                     const std::string& reason) {
    inventProcesses();
    LibraryProgram library;
    {
      const KernelLimit kernel(limit, value);
      EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
      EXPECT_TRUE(logged("Error", "MendLineOperation", "Shmget Failed. Error: " + reason));
      EXPECT_TRUE(fs::exists(rig::kKeyFile));
      EXPECT_THAT(rig::segments(), IsEmpty());
    }
    expectItWorks(library);
  }
};

TEST_F(SegmentConditions, MoreThanTheKernelAllowsAreNotMade) {
  expectRefusal("shmmni", "0", "No space left on device");
}

TEST_F(SegmentConditions, LargerThanTheKernelAllowsAreNotMade) {
  expectRefusal("shmmax", "4799", "Invalid argument");
}

TEST_F(SegmentConditions, BeyondTheMemoryThatTheKernelAllowsAreNotMade) {
  expectRefusal("shmall", "0", "No space left on device");
}

TEST_F(SegmentConditions, WithoutRoomInTheAddressSpaceStayBehindUnattached) {
  if (kInstrumented) {
    GTEST_SUCCEED() << "the limit would be the instrumentation's, not the product's";
    return;
  }
  inventProcesses();
  LibraryProgram library;
  library.limit(RLIMIT_AS, 1);
  EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
  EXPECT_TRUE(logged("Error", "MendLineOperation", "Shmat Failed. Error: Cannot allocate memory"));
  ASSERT_THAT(rig::segments(), SizeIs(1));
  EXPECT_EQ(rig::segments()[0].attachments, 0U);
  library.limit(RLIMIT_AS, RLIM_INFINITY);
  expectItWorks(library);
}

// --- Rights -------------------------------------------------------------------------------------

class RightsConditions : public Conditions {
 protected:
  RightsConditions() {
    fs::permissions(rig::kLogFile, fs::perms::all);
    host.withUser("agent", kAgent);
  }
  static std::vector<std::string> as(uid_t user) {
    return {"/usr/bin/setpriv", "--reuid=" + std::to_string(user), "--regid=2099",
            "--clear-groups"};
  }
};

TEST_F(RightsConditions, AHiddenProcShowsTheOwnProcessesOnly) {
  const rig::Process own = host.process("own").ownedBy("agent").start();
  const rig::Process other = host.process("other").ownedBy("alice").start();
  // The agent may use a key file of its own, and no folder of root's.
  std::ofstream(rig::kKeyFile) << "";
  ASSERT_EQ(chown(rig::kKeyFile, kAgent, kAgent), 0);
  ASSERT_EQ(mount("proc", "/proc", "proc", 0, "hidepid=2"), 0) << std::strerror(errno);
  LibraryProgram library(as(kAgent));
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_TRUE(reports(library, "own"));
  const std::string report = library.ask("ProcessMetrics").value_or("");
  EXPECT_THAT(report, Not(HasSubstr("<name>other</name>")));
  EXPECT_TRUE(host.log().hasNot("Error", ""));
  EXPECT_EQ(library.ask("EndProcess", "<processId>" + std::to_string(other.pid()) +
                                          "</processId><createTime>1</createTime>"),
            kDeclaration + "<ERROR>Failed to terminate process</ERROR>");
  EXPECT_TRUE(
      logged("Warn", "ProcessTerminator",
             "GetProcessInfo failed, process: " + std::to_string(other.pid()) + " not exist."));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_TRUE(fs::exists(rig::kKeyFile)) << "the folder is root's";
  umount2("/proc", MNT_DETACH);
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_TRUE(reports(library, "own"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
}

TEST_F(RightsConditions, WithoutAThreadToSpareAStartEndsTheProcess) {
  if (kInstrumented) {
    GTEST_SUCCEED() << "the limit would be the instrumentation's, not the product's";
    return;
  }
  inventProcesses();
  // The kernel counts the threads of a user over all private hosts.
  constexpr uid_t kBusyAgent = 2098;
  std::ofstream(rig::kKeyFile) << "";
  ASSERT_EQ(chown(rig::kKeyFile, kBusyAgent, kBusyAgent), 0);
  {
    std::vector<std::string> wrapper = as(kBusyAgent);
    wrapper.insert(wrapper.begin(), {"/usr/bin/prlimit", "--nproc=1:1"});
    LibraryProgram library(wrapper);
    EXPECT_EQ(library.ask("StartCollector"), std::nullopt);
    EXPECT_EQ(library.wait(), kLetAnExceptionOut);
    EXPECT_EQ(LibraryProgram::errors(), "request-driver: Resource temporarily unavailable\n");
    EXPECT_TRUE(host.log().hasNot("", "PerfCollector"));
  }
  ASSERT_THAT(rig::segments(), SizeIs(1));
  EXPECT_EQ(rig::segments()[0].owner, rig::kWorkerUid);
  EXPECT_EQ(rig::segments()[0].attachments, 0U);
  // The next process takes over what is left, as root may.
  LibraryProgram next;
  expectItWorks(next);
}

TEST_F(RightsConditions, OfAnAgentDoNotSufficeToMakeTheKeyFile) {
  inventProcesses();
  LibraryProgram library(as(kAgent));
  EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
  EXPECT_TRUE(logged("Error", "MendLineOperation", "Failed to chown mendline shm file"));
  EXPECT_FALSE(fs::exists(rig::kKeyFile));
  EXPECT_THAT(rig::segments(), IsEmpty());
  std::ofstream(rig::kKeyFile) << "";
  ASSERT_EQ(chown(rig::kKeyFile, kAgent, kAgent), 0);
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
}

// --- The key file -------------------------------------------------------------------------------

using KeyFileConditions = Conditions;

TEST_F(KeyFileConditions, OnAReadOnlyDiskIsNotMade) {
  inventProcesses();
  LibraryProgram library;
  {
    const ReadOnly folder(rig::kProductDirectory);
    EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
    EXPECT_TRUE(logged("Error", "MendLineOperation", "Failed to chown mendline shm file"));
    EXPECT_FALSE(fs::exists(rig::kKeyFile));
    EXPECT_THAT(rig::segments(), IsEmpty());
  }
  expectItWorks(library);
}

TEST_F(KeyFileConditions, OnADiskThatHasBecomeReadOnlyStays) {
  inventProcesses();
  LibraryProgram library;
  ASSERT_EQ(library.ask("StartCollector"), kStarted);
  {
    const ReadOnly folder(rig::kProductDirectory);
    EXPECT_EQ(library.ask("StopCollector"), kStopped);
    EXPECT_TRUE(fs::exists(rig::kKeyFile));
    EXPECT_THAT(rig::segments(), IsEmpty());
    EXPECT_TRUE(host.log().hasNot("Error", ""));
    // One that is there need not be made.
    EXPECT_EQ(library.ask("StartCollector"), kStarted);
    EXPECT_EQ(library.ask("StopCollector"), kStopped);
  }
  expectItWorks(library);
}

TEST_F(KeyFileConditions, NeedsNoRoomOnAFullDisk) {
  inventProcesses();
  const SmallDisk disk(rig::kKeyDirectory, "size=16k");
  disk.fill();
  LibraryProgram library;
  expectItWorks(library);
}

TEST_F(KeyFileConditions, IsNotMadeWhereTheDiskHasRoomForNoMoreFiles) {
  inventProcesses();
  const SmallDisk disk(rig::kKeyDirectory, "size=64k,nr_inodes=2");
  disk.fill();
  LibraryProgram library;
  EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
  EXPECT_TRUE(logged("Error", "MendLineOperation", "Failed to chown mendline shm file"));
  EXPECT_FALSE(fs::exists(rig::kKeyFile));
  EXPECT_THAT(rig::segments(), IsEmpty());
  disk.makeRoom();
  expectItWorks(library);
}

// --- The user database --------------------------------------------------------------------------

using AccountConditions = Conditions;

TEST_F(AccountConditions, ThatCannotBeReadMakeAStartFailAndItsKeyFileStay) {
  inventProcesses();
  LibraryProgram library;
  {
    rig::PrivateHost broken;
    broken.withUnopenable("/etc/passwd");
    EXPECT_EQ(library.ask("StartCollector"), kNotStarted);
    EXPECT_TRUE(logged("Error", "MendLineOperation", "getpwnam or getgrnam failed"));
    EXPECT_TRUE(fs::exists(rig::kKeyFile));
    EXPECT_THAT(rig::segments(), IsEmpty());
  }
  // The file is there now, so nobody gives it to the worker; the segment is the worker's.
  EXPECT_EQ(library.ask("StartCollector"), kStarted);
  struct stat status = {};
  ASSERT_EQ(stat(rig::kKeyFile, &status), 0);
  EXPECT_EQ(status.st_uid, 0U);
  EXPECT_EQ(rig::segmentOf(rig::kKeyFile, 104)->owner, rig::kWorkerUid);
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  expectItWorks(library);
}

TEST_F(AccountConditions, ThatCannotBeReadLeaveNamesEmpty) {
  inventProcesses();
  const std::string alice = std::to_string(host.uidOf("alice"));
  LibraryProgram library;
  ASSERT_EQ(library.ask("StartCollector"), kStarted);
  ASSERT_TRUE(reports(library, "editor"));
  const auto hasName = [&](const std::string& element) {
    return library.ask("ProcessMetrics").value_or("").find(element) != std::string::npos;
  };
  EXPECT_TRUE(hasName("<user_name>alice</user_name>"));
  {
    rig::PrivateHost broken;
    broken.withUnopenable("/etc/passwd");
    EXPECT_TRUE(eventually([&] { return hasName("<user_name/>"); }));
    EXPECT_TRUE(logged("Warn", "SystemQuery", "Failed to get user name for uid: " + alice));
    EXPECT_EQ(library.ask("HistoricalMetrics", kAlice), kNoHistory);
    EXPECT_TRUE(logged("Error", "HistoricalMetricGenerator",
                       "Failed to find specific user: alice in local system"));
  }
  EXPECT_TRUE(eventually([&] { return hasName("<user_name>alice</user_name>"); }));
  EXPECT_THAT(library.ask("HistoricalMetrics", kAlice), answers("<historicalMetrics><metric>"));
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
}

// --- Memory -------------------------------------------------------------------------------------

using MemoryConditions = Conditions;

TEST_F(MemoryConditions, TooLittleForARequestEndsTheProcess) {
  if (kInstrumented) {
    GTEST_SUCCEED() << "the limit would be the instrumentation's, not the product's";
    return;
  }
  LibraryProgram library;
  ASSERT_THAT(library.ask("GetLogLevel"), answers("<LOGLEVEL>"));
  // A few MiB more than there are: the driver has read the request when the library parses it.
  std::ifstream statm(std::string(rig::kTrueProc) + "/" + std::to_string(library.pid()) + "/statm");
  std::size_t pages = 0;
  statm >> pages;
  library.limit(RLIMIT_AS, pages * 4096 + (24U << 20U));
  std::string deep;
  for (int i = 0; i < 60000; ++i) {
    deep += "<a>x</a>";
  }
  EXPECT_EQ(library.request(operation("GetLogLevel", deep)), std::nullopt);
  EXPECT_EQ(library.wait(), kLetAnExceptionOut);
  EXPECT_EQ(LibraryProgram::errors(), "request-driver: std::bad_alloc\n");
  LibraryProgram next;
  EXPECT_THAT(next.ask("GetLogLevel"), answers("<LOGLEVEL>"));
}

TEST_F(MemoryConditions, TooLittleForATickEndsTheProcess) {
  if (kInstrumented) {
    GTEST_SUCCEED() << "the limit would be the instrumentation's, not the product's";
    return;
  }
  inventProcesses();
  {
    LibraryProgram library;
    ASSERT_EQ(library.ask("StartCollector"), kStarted);
    ASSERT_TRUE(reports(library, "editor"));
    library.limit(RLIMIT_DATA, 1);
    // What a file or a process needs is there from the ticks before; what this needs is not.
    std::string disks;
    for (int i = 0; i < 50000; ++i) {
      disks += "8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n";
    }
    host.syntheticProc().setFile("diskstats", disks);
    EXPECT_TRUE(eventually([&] { return !library.isRunning(); }));
    EXPECT_EQ(library.wait(), kAborted);
    EXPECT_THAT(LibraryProgram::errors(), HasSubstr("std::bad_alloc"));
  }
  // What it held stays for the next process.
  host.withDiskstats("");
  EXPECT_TRUE(fs::exists(rig::kKeyFile));
  EXPECT_THAT(rig::segments(), SizeIs(1));
  LibraryProgram next;
  expectItWorks(next);
}

// --- The GPU library ----------------------------------------------------------------------------

using GpuConditions = Conditions;

TEST_F(GpuConditions, ALibraryThatIsNoneIsLikeNoLibrary) {
  host.withFile(rig::kXConfigFile, "BusID \"PCI:1:0:0\"\n");
  LibraryProgram library;
  {
    rig::PrivateHost broken;
    broken.withFile("/usr/lib/libnvidia-ml.so.1", "no library at all");
    EXPECT_EQ(library.ask("StartvGPUMemoryCollector"), kNoGpus);
    EXPECT_TRUE(logged("Warn", "NvmlWrapper", "libnvidia-ml.so.1: file too short"));
  }
  const rig::GpuDriver driver(host);
  EXPECT_EQ(library.ask("StartvGPUMemoryCollector"), kGpus);
  EXPECT_EQ(library.ask("StopCollector"), kStopped);
  EXPECT_EQ(library.end(), 0);
}

}  // namespace
}  // namespace mendline
