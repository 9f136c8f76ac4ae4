#include "collector/CollectorControl.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <istream>
#include <optional>
#include <string>

#include "collector/PerfCollector.h"
#include "collector/SessionCounters.h"
#include "generators/HistoricalMetricGenerator.h"
#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "sources/NvmlWrapper.h"
#include "sources/SystemQuery.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("MendLineOperation");

constexpr char kWorkerAccount[] = "qrsflare";  // the user and the group
constexpr char kConfigPath[] = "/etc/norvane/config";
constexpr int kSegmentFlags = IPC_CREAT | S_IRUSR | S_IWUSR;
constexpr mode_t kKeyFileMode = S_IRUSR | S_IWUSR;

constexpr std::int32_t kHighestDisplay = 59535;
constexpr std::int32_t kLargestSpread = 59;
constexpr std::int32_t kDefaultDisplayMin = 100;
constexpr std::int32_t kDefaultDisplayMax = 159;

// The worker's account as it was when the start began.
struct WorkerAccount {
  std::optional<UserIds> user;
  std::optional<gid_t> group;

  bool isComplete() const { return user.has_value() && group.has_value(); }
};

void readDisplayRange(std::istream& config) {
  // '|' as the separator keeps the dot inside the key: the whole text is one key of the top level,
  // so a line inside a [section] is never found.
  const ptree::path_type minKey("Desktop.displayNumberMin", '|');
  const ptree::path_type maxKey("Desktop.displayNumberMax", '|');
  ptree tree;
  boost::property_tree::ini_parser::read_ini(config, tree);
  if (const auto min = tree.get_optional<std::int32_t>(minKey)) {
    storeShared(displayNumberMin, *min);
  }
  if (const auto max = tree.get_optional<std::int32_t>(maxKey)) {
    storeShared(displayNumberMax, *max);
  }
}

// Required: without a configuration file all values stay as they are, unclamped and without a
// message. Pinned by StartCollector.*Config*.
void configureDisplayRange() {
  std::ifstream config(kConfigPath);
  if (!config) {
    return;
  }
  try {
    readDisplayRange(config);
  } catch (const boost::property_tree::ptree_error& error) {
    LogError(&kTag, "%s: Failed to parse config file %s. Error: %s\n", "StartCollector",
             kConfigPath, error.what());
  }
  std::int32_t min = loadShared(displayNumberMin);
  std::int32_t max = loadShared(displayNumberMax);
  LogInfo(&kTag, "%s: the display numbers are (%d, %d) from configuration.\n", "StartCollector",
          min, max);
  clampDisplayNumberConfig(min, max);
  storeShared(displayNumberMin, min);
  storeShared(displayNumberMax, max);
  storeShared(maxSessionNumber, max + 1 - min);
  LogInfo(&kTag,
          "%s: the display numbers are (%d, %d) after clamping and max session number is %d.\n",
          "StartCollector", min, max, max + 1 - min);
}

// Required: only a key file that is absent is made and handed over; one that exists passes without
// a look at its owner. Pinned by StartCollector.*KeyFile*.
bool ensureKeyFile(const WorkerAccount& account, std::ifstream& existing) {
  existing.open(kSessionShmKeyFile);
  if (existing) {
    return true;
  }
  std::ofstream created(kSessionShmKeyFile);
  if (!account.isComplete()) {
    LogError(&kTag, "getpwnam or getgrnam failed");
    return false;
  }
  if (chown(kSessionShmKeyFile, account.user->uid, *account.group) != 0) {
    LogError(&kTag, "Failed to chown mendline shm file");
    return false;
  }
  if (chmod(kSessionShmKeyFile, kKeyFileMode) != 0) {
    LogError(&kTag, "Failed to chmod mendline shm file");
    return false;
  }
  return true;
}

// Makes or takes over the segment, attaches it and gives it to the worker's account.
// Required: identifier and address are stored before they are tested, and an attachment that was
// there before is not given up. Pinned by StartCollector.*Again* and StartCollector.*Segment*.
bool attachSegment(const WorkerAccount& account) {
  const key_t key = ftok(kSessionShmKeyFile, kSessionShmProjectId);
  if (key == -1) {
    LogError(&kTag, "Ftok Failed. Error: %s", std::strerror(errno));
    return false;
  }
  const auto size =
      static_cast<std::size_t>(loadShared(maxSessionNumber)) * sizeof(SessionCounters);
  const int id = shmget(key, size, kSegmentFlags);
  storeShared(sessionShmId, id);
  if (id == -1) {
    LogError(&kTag, "Shmget Failed. Error: %s", std::strerror(errno));
    return false;
  }
  void* const base = shmat(id, nullptr, 0);
  storeShared(sessionShmBase, base);
  if (base == kNoSegment) {
    LogError(&kTag, "Shmat Failed. Error: %s", std::strerror(errno));
    return false;
  }
  // Required: without the account, or without the segment's present state, the segment stays with
  // the calling user, in silence. Pinned by StartCollector.*Segment*.
  shmid_ds state{};
  if (shmctl(id, IPC_STAT, &state) != -1 && account.isComplete()) {
    state.shm_perm.uid = account.user->uid;
    state.shm_perm.gid = *account.group;
    if (shmctl(id, IPC_SET, &state) == -1) {
      LogError(&kTag, "Shctl Failed. Error: %s", std::strerror(errno));
      return false;
    }
  }
  return true;
}

void clearAllRecords() {
  void* const base = loadShared(sessionShmBase);
  const std::int32_t records = loadShared(maxSessionNumber);
  for (std::int32_t index = 0; index < records; ++index) {
    clearSessionRecord(*sessionRecord(base, index));
  }
}

}  // namespace

void clampDisplayNumberConfig(std::int32_t& min, std::int32_t& max) {
  static_cast<void>(std::printf("%s: Before clamping, the display numbers are (%d, %d)\n",
                                "clampDisplayNumberConfig", min, max));
  if (min > max || (min < 0 && max < 0) || (min > kHighestDisplay && max > kHighestDisplay)) {
    min = kDefaultDisplayMin;
    max = kDefaultDisplayMax;
  } else {
    max = std::clamp(max, 0, kHighestDisplay);
    min = std::max(std::min(min, max), 0);
  }
  if (max - min > kLargestSpread) {
    max = min + kLargestSpread;
  }
  // Required: no blank before this parenthesis. Pinned by ClampDisplayNumberConfig.*.
  static_cast<void>(std::printf("%s: After clamping, the display numbers are(%d, %d)\n",
                                "clampDisplayNumberConfig", min, max));
}

bool StartCollector() {
  const WorkerAccount account{.user = findUser(kWorkerAccount), .group = findGroup(kWorkerAccount)};
  LogInfo(&kTag, "Enter StartCollector");
  configureDisplayRange();

  std::ifstream keyFile;  // stays open until the function returns
  if (!ensureKeyFile(account, keyFile) || !attachSegment(account)) {
    return false;
  }
  clearAllRecords();

  // Required: registering again after a stop adds the generators again, and each is then called
  // once per entry; while the thread runs it fails with a warning. Pinned by
  // StartCollector.*Again*.
  const auto processGenerator = ProcessMetricGenerator::getInstance();
  const auto historicalGenerator = HistoricalMetricGenerator::getInstance();
  const auto collector = PerfCollector::getInstance();
  static_cast<void>(collector->registerGenerator(processGenerator));
  static_cast<void>(collector->registerGenerator(historicalGenerator));
  return collector->start();
}

void StopCollector() {
  LogInfo(&kTag, "Enter StopCollector");
  PerfCollector::getInstance()->stop();
  if (const int id = loadShared(sessionShmId); id != -1) {
    static_cast<void>(shmdt(loadShared(sessionShmBase)));
    static_cast<void>(shmctl(id, IPC_RMID, nullptr));
    storeShared(sessionShmId, -1);
    storeShared(sessionShmBase, kNoSegment);
  }
  static_cast<void>(std::remove(kSessionShmKeyFile));
  if (NvmlWrapper& nvml = NvmlWrapper::getInstance(); nvml.isReady()) {
    nvml.shutdown();
  }
}

bool StartvGPUMemoryCollector() {
  LogInfo(&kTag, "Enter StartvGPUMemoryCollector");
  if (!NvmlWrapper::getInstance().init()) {
    // Required: at Info, not as an error. Pinned by StartvGPUMemoryCollector.*.
    LogInfo(&kTag, "Failed to execute NvmlInit function");
    return false;
  }
  return true;
}

void ClearShm(const ptree& request) {
  const auto display = request.get<std::string>("MendlineOperation.display", "");
  if (display.empty()) {
    LogWarn(&kTag, "Parameter display missed");
    return;
  }
  const std::int32_t index = displayIndex(display);
  if (!isAdmittedIndex(index)) {
    LogWarn(&kTag, "Invalid display number %s", display.c_str());
    return;
  }
  clearSessionRecord(*sessionRecord(loadShared(sessionShmBase), index));
}

}  // namespace mendline
