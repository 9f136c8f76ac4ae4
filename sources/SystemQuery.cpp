#include "sources/SystemQuery.h"

#include <grp.h>
#include <pwd.h>
#include <stdio_ext.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string_view>

#include "logging/InternalLogger.h"
#include "sources/KernelText.h"

namespace mendline {
namespace {

constinit const LogTag kTag("SystemQuery");

constexpr char kStatPath[] = "/proc/stat";
constexpr char kDiskStatsPath[] = "/proc/diskstats";
constexpr char kMemInfoPath[] = "/proc/meminfo";

// Lines are read in pieces of at most this length less one.
constexpr int kReadSize = 511;
constexpr std::size_t kLineBufferSize = 512;

// All of /proc/stat in one read on a host of 100 CPUs; what is not used is not touched either.
constexpr std::size_t kStatBufferSize = 16384;

struct FileCloser {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// getpwuid, getpwnam and getgrnam answer in storage of their own that the next call of the same
// function overwrites, on whichever thread. The function's mutex is held from the call until its
// answer has been copied, so that two threads never see each other's user. One each, so that a
// request never waits behind the look-ups of a tick. Nothing is logged under them.
std::mutex userByIdMutex;
std::mutex userByNameMutex;
std::mutex groupByNameMutex;

// With a buffer of the caller's, which has to outlive the file: stdio's own would take an fstat, an
// allocation, and for /proc/stat a read for each kilobyte; and that file is read for each process.
// Without a lock for each line, since nobody else knows the file.
template <std::size_t Size>
File openForReading(const char* path, char (&buffer)[Size]) {
  File file(std::fopen(path, "r"));
  if (!file) {
    LogError(&kTag, "Failed to open file %s, error is %s", path, std::strerror(errno));
    return file;
  }
  static_cast<void>(std::setvbuf(file.get(), buffer, _IOFBF, sizeof(buffer)));
  static_cast<void>(__fsetlocking(file.get(), FSETLOCKING_BYCALLER));
  return file;
}

// What is behind `word`, where that is the first word of the line; else nullptr.
const char* behindFirstWord(const char* line, std::string_view word) {
  while (isWhiteSpace(*line)) {
    ++line;
  }
  // Most lines are settled by their first character.
  if (*line != word.front() || std::strncmp(line, word.data(), word.size()) != 0) {
    return nullptr;
  }
  const char* const behind = line + word.size();
  return *behind == '\0' || isWhiteSpace(*behind) ? behind : nullptr;
}

}  // namespace

void parseStatLine(const char* line, CpuTimes& out) {
  if (const char* const times = behindFirstWord(line, "cpu")) {
    const char* at = times;
    if (!takeNumbers(at, out.user, out.nice, out.system, out.idle)) {
      static_cast<void>(
          std::sscanf(times, "%lu %lu %lu %lu", &out.user, &out.nice, &out.system, &out.idle));
    }
  } else if (const char* const time = behindFirstWord(line, "btime")) {
    const char* at = time;
    if (!takeNumber(at, out.bootTime)) {
      static_cast<void>(std::sscanf(time, "%lu", &out.bootTime));
    }
  }
}

bool readCpuTimes(CpuTimes& out) {
  char buffer[kStatBufferSize];
  const File file = openForReading(kStatPath, buffer);
  if (!file) {
    return false;
  }
  char line[kLineBufferSize];
  while (std::fgets(line, kReadSize, file.get()) != nullptr) {
    parseStatLine(line, out);
  }
  return true;
}

bool getCpuTime(std::uint64_t& busy, std::uint64_t& idle) {
  CpuTimes times;
  if (!readCpuTimes(times)) {
    LogError(&kTag, "Failed to get cpu time");
    return false;
  }
  busy = times.user + times.system;
  idle = times.idle;
  return true;
}

bool getSystemBootTime(std::uint64_t& bootTime) {
  CpuTimes times;
  if (!readCpuTimes(times)) {
    LogError(&kTag, "Failed to get system boot time");
    return false;
  }
  bootTime = times.bootTime;
  return true;
}

void parseDiskStatLine(const char* line, DiskStatLine& record) {
  // The name is scanned into a buffer that holds a whole piece of a line: a width of 31 would stop
  // inside a longer name and take the rest of it for the first counter.
  char name[kLineBufferSize] = {};
  static_assert(sizeof(name) == 511 + 1 && sizeof(record.name) == 31 + 1);
  const int scanned = std::sscanf(
      line, "%d %d %511s %lu %lu %lu %lu %lu %lu %lu %lu %lu %lu %lu", &record.major, &record.minor,
      name, &record.readsCompleted, &record.readsMerged, &record.sectorsRead, &record.msReading,
      &record.writesCompleted, &record.writesMerged, &record.sectorsWritten, &record.msWriting,
      &record.iosInProgress, &record.msDoingIo, &record.weightedMsDoingIo);
  constexpr int kColumnsThroughName = 3;
  if (scanned >= kColumnsThroughName) {
    static_cast<void>(std::snprintf(record.name, sizeof(record.name), "%.31s", name));
  }
}

bool readDiskStats(std::vector<DiskStatLine>& out) {
  char buffer[kStatBufferSize];
  const File file = openForReading(kDiskStatsPath, buffer);
  if (!file) {
    return false;
  }
  // Required: one record serves all lines and is appended after each, so a line with fewer columns
  // carries the values of the line before it. Pinned by ReadDiskStats.*.
  DiskStatLine record;
  char line[kLineBufferSize];
  while (std::fgets(line, kReadSize, file.get()) != nullptr) {
    parseDiskStatLine(line, record);
    out.push_back(record);
  }
  return true;
}

bool getUserName(std::uint32_t uid, std::string& name) {
  int error = 0;
  {
    const std::lock_guard lock(userByIdMutex);
    if (const passwd* user = getpwuid(uid)) {
      name = user->pw_name;
      return true;
    }
    error = errno;
  }
  LogWarn(&kTag, "Failed to get user name for uid: %d, error is %s", static_cast<int>(uid),
          std::strerror(error));
  return false;
}

bool getUserId(const std::string& name, std::uint32_t& uid) {
  int error = 0;
  {
    const std::lock_guard lock(userByNameMutex);
    if (const passwd* user = getpwnam(name.c_str())) {
      uid = user->pw_uid;
      return true;
    }
    error = errno;
  }
  LogWarn(&kTag, "Failed to get user id for user: %s, error is %s", name.c_str(),
          std::strerror(error));
  return false;
}

std::optional<UserIds> findUser(const char* name) {
  const std::lock_guard lock(userByNameMutex);
  if (const passwd* user = getpwnam(name)) {
    return UserIds{.uid = user->pw_uid, .gid = user->pw_gid};
  }
  return std::nullopt;
}

std::optional<gid_t> findGroup(const char* name) {
  const std::lock_guard lock(groupByNameMutex);
  if (const group* found = getgrnam(name)) {
    return found->gr_gid;
  }
  return std::nullopt;
}

bool getPageSize(std::uint64_t& bytes) {
  const long size = sysconf(_SC_PAGESIZE);
  if (size == -1) {
    LogError(&kTag, "Failed to get page size, error is %s", std::strerror(errno));
    return false;
  }
  bytes = static_cast<std::uint64_t>(size);
  return true;
}

bool readMemoryStats(MemoryStats& out) {
  struct sysinfo info {};
  if (sysinfo(&info) == -1) {
    LogWarn(&kTag, "Failed to query sysinfo, error is %s", std::strerror(errno));
    return false;
  }
  out.uptime = info.uptime;
  out.total = info.totalram;

  std::uint32_t cachedKb = 0;
  std::ifstream memInfo(kMemInfoPath);
  std::string token;
  while (memInfo >> token) {
    if (token == "Cached:") {
      memInfo >> cachedKb;
      break;
    }
  }
  // Required: the page cache is multiplied out in 32 bits, so 4 GiB of it count as nothing. Pinned
  // by ReadMemoryStats.*.
  const std::uint32_t cachedBytes = cachedKb * 1024U;
  out.available = std::uint64_t{info.bufferram} + info.freeram + cachedBytes;
  return true;
}

bool getTotalMemorySize(std::uint64_t& bytes) {
  MemoryStats stats;
  if (!readMemoryStats(stats)) {
    LogError(&kTag, "Failed to get total memory size");
    return false;
  }
  bytes = stats.total;
  return true;
}

bool getMemoryUsage(std::uint64_t& percent) {
  MemoryStats stats;
  if (!readMemoryStats(stats)) {
    LogError(&kTag, "Failed to get memory usage");
    return false;
  }
  percent = (stats.total - stats.available) * 100 / stats.total;
  return true;
}

bool getSystemUptime(std::uint64_t& seconds) {
  MemoryStats stats;
  if (!readMemoryStats(stats)) {
    LogError(&kTag, "Failed to get system uptime");
    return false;
  }
  seconds = static_cast<std::uint64_t>(stats.uptime);
  return true;
}

bool getSystemPerfStats(SystemPerfStats& out) {
  CpuTimes cpu;
  MemoryStats memory;
  std::vector<DiskStatLine> disks;
  if (!readCpuTimes(cpu) || !readMemoryStats(memory) || !readDiskStats(disks)) {
    LogError(&kTag, "Failed to get system performance statistics");
    return false;
  }

  out = {};
  out.cpuUser = cpu.user;
  out.cpuNice = cpu.nice;
  out.cpuSystem = cpu.system;
  out.cpuIdle = cpu.idle;
  out.memTotal = memory.total;
  out.memAvailable = memory.available;
  out.uptime = memory.uptime;
  // Required: every line counts, so an operation on a partition counts for the partition and for
  // its disk. Pinned by GetSystemPerfStats.*.
  for (const DiskStatLine& disk : disks) {
    out.diskReads += disk.readsCompleted;
    out.diskWrites += disk.writesCompleted;
    out.diskInFlight += disk.iosInProgress;
    out.diskReadMs += disk.msReading;
    out.diskWriteMs += disk.msWriting;
    out.diskIoMs += disk.msDoingIo;
  }
  return true;
}

}  // namespace mendline
