#include "sources/ProcessQuery.h"

#include <dirent.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "logging/InternalLogger.h"
#include "sources/KernelText.h"
#include "sources/SystemQuery.h"

namespace mendline {
namespace {

constinit const LogTag kTag("ProcessQuery");
constinit const LogTag kParseTag("ProcessQueryUtil");

constexpr int kStatReadSize = 1023;
constexpr int kIoReadSize = 127;

// A file of /proc in one read, and another one that finds its end.
constexpr std::size_t kFileBufferSize = 1024;

struct FileCloser {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct DirectoryCloser {
  void operator()(DIR* directory) const { static_cast<void>(closedir(directory)); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// "/proc/<pid>", and "/proc/<pid>/stat" for a file. By hand, because there are three for each
// process and tick, and snprintf takes longer than all else that is done for an open.
class ProcessPath {
 public:
  explicit ProcessPath(int pid, std::string_view file = {}) {
    constexpr std::string_view kFolder = "/proc/";
    char* at = std::ranges::copy(kFolder, text_).out;
    at = std::to_chars(at, text_ + sizeof(text_), pid).ptr;
    std::ranges::copy(file, at);
  }
  const char* text() const { return text_; }

 private:
  char text_[32] = {};
};

// With a buffer of the caller's, which has to outlive the file: stdio's own would take an fstat and
// an allocation for each file. Without a lock for each line, since nobody else knows the file.
File openProcessFile(const ProcessPath& path, char (&buffer)[kFileBufferSize]) {
  File file(std::fopen(path.text(), "r"));
  if (!file) {
    LogDebug(&kTag, "Failed to open file %s, due to %s", path.text(), std::strerror(errno));
    return file;
  }
  static_cast<void>(std::setvbuf(file.get(), buffer, _IOFBF, sizeof(buffer)));
  static_cast<void>(__fsetlocking(file.get(), FSETLOCKING_BYCALLER));
  return file;
}

// The fields from the state on. False where anything is not in the kernel's own form.
bool takeStatFields(const char* fields, ProcessStat& out) {
  if (*fields == '\0') {
    return false;
  }
  out.state = *fields;
  const char* at = fields + 1;
  return takeNumbers(at, out.ppid, out.pgrp, out.session, out.tty_nr, out.tpgid, out.flags,
                     out.minflt, out.cminflt, out.majflt, out.cmajflt, out.utime, out.stime,
                     out.cutime, out.cstime, out.priority, out.nice, out.num_threads,
                     out.itrealvalue, out.starttime, out.vsize, out.rss, out.rsslim);
}

}  // namespace

bool parseProcessStat(const char* line, std::uint32_t uid, ProcessStat& out) {
  out = {};
  out.uid = uid;
  const char* begin = line;
  if (!takeDigits(begin, out.pid) && std::sscanf(line, "%d", &out.pid) != 1) {
    LogWarn(&kParseTag, "Failed to get proc id from buffer %s", line);
  }

  // A name may hold blanks and parentheses of its own; the fields behind it can't hold a ")".
  const char* nameStart = std::strchr(line, '(');
  if (nameStart == nullptr) {
    LogWarn(&kParseTag, "Failed to find proc name from buffer :%s", line);
    return false;
  }
  const char* nameEnd = std::strrchr(nameStart, ')');
  if (nameEnd == nullptr) {
    LogWarn(&kParseTag, "Failed to grap the whole proc name from buffer: %s", line);
    return false;
  }
  const auto nameLength = static_cast<std::size_t>(nameEnd - nameStart - 1);
  std::memcpy(out.comm, nameStart + 1, std::min(nameLength, sizeof(out.comm) - 1));

  // The fields begin at the second character behind the name; a line that ends with the name has
  // none, and nothing behind its end is read.
  const char* fields = nameEnd[1] == '\0' ? nameEnd + 1 : nameEnd + 2;
  if (takeStatFields(fields, out)) {
    return true;
  }
  const int scanned = std::sscanf(
      fields,
      "%c %d %d %d %d %d %u %lu %lu %lu %lu %lu %lu %ld %ld %ld %ld %ld %ld %llu %lu %ld %lu",
      &out.state, &out.ppid, &out.pgrp, &out.session, &out.tty_nr, &out.tpgid, &out.flags,
      &out.minflt, &out.cminflt, &out.majflt, &out.cmajflt, &out.utime, &out.stime, &out.cutime,
      &out.cstime, &out.priority, &out.nice, &out.num_threads, &out.itrealvalue, &out.starttime,
      &out.vsize, &out.rss, &out.rsslim);
  constexpr int kFieldCount = 23;
  if (scanned != kFieldCount) {
    LogWarn(&kParseTag, "The proc content: %s may be corrupted", line);
    return false;
  }
  return true;
}

bool ReadProcessStat(int pid, ProcessStat& out) {
  const ProcessPath directoryPath(pid);
  const ProcessPath statPath(pid, "/stat");

  char buffer[kFileBufferSize];
  File file = openProcessFile(statPath, buffer);
  if (!file) {
    return false;
  }
  char line[kStatReadSize + 1];
  if (std::fgets(line, kStatReadSize, file.get()) == nullptr) {
    LogError(&kTag, "Failed to read file %s, error is %s", statPath.text(), std::strerror(errno));
    return false;
  }
  // Not tested: where it fails the process has just gone, and its I/O file can't be opened.
  struct stat status {};
  static_cast<void>(stat(directoryPath.text(), &status));
  file.reset();
  return parseProcessStat(line, status.st_uid, out);
}

void parseProcessIoLine(const char* line, ProcessIo& io) {
  const char* blank = std::strchr(line, ' ');
  if (blank == nullptr) {
    return;
  }
  // Required: only the line's first word is compared, so a prefix of a key counts as the key, and a
  // line that begins with a blank counts as "rchar:". Pinned by ParseProcessIoLine.*.
  constexpr std::ptrdiff_t kKeyLimit = 7;
  const auto compared = static_cast<std::size_t>(std::min(blank - line, kKeyLimit));
  std::uint64_t* counter = nullptr;
  if (std::strncmp(line, "rchar:", compared) == 0) {
    counter = &io.rchar;
  } else if (std::strncmp(line, "wchar:", compared) == 0) {
    counter = &io.wchar;
  } else {
    return;
  }
  // A line that begins with its blank has its number somewhere else.
  if (blank == line || !takeNumber(blank, *counter)) {
    static_cast<void>(std::sscanf(line, "%*s %lu", counter));
  }
}

bool ReadProcessIo(int pid, ProcessIo& out) {
  char buffer[kFileBufferSize];
  const File file = openProcessFile(ProcessPath(pid, "/io"), buffer);
  if (!file) {
    return false;
  }
  out = {};
  char line[kIoReadSize + 1];
  while (std::fgets(line, kIoReadSize, file.get()) != nullptr) {
    parseProcessIoLine(line, out);
  }
  return true;
}

bool GetProcessInfo(int pid, ProcessInfo& out) {
  ProcessStat stat;
  ProcessIo io;
  if (!ReadProcessStat(pid, stat) || !ReadProcessIo(pid, io)) {
    LogDebug(&kTag, "Failed to get process info");
    return false;
  }
  out.iPid = stat.pid;
  out.uiUserId = stat.uid;
  out.ulUserTime = stat.utime;
  out.ulSystemTime = stat.stime;
  out.ulMemory = static_cast<std::uint64_t>(stat.rss);
  out.ullStartTime = stat.starttime;
  out.ullReadBytesCount = io.rchar;
  out.ullWriteBytesCount = io.wchar;
  out.strProcessName = stat.comm;
  if (IsTraceEnabled(&kTag)) {
    LogTrace(&kTag,
             "For process info, pid is: %d, user id is %d, user time is %lu, system time is %lu, "
             "memory is %lu, ullStartTime is %llu, ullReadBytesCount is %llu, ullWriteBytesCount "
             "is %llu, strProcessName is %s",
             out.iPid, static_cast<int>(out.uiUserId), out.ulUserTime, out.ulSystemTime,
             out.ulMemory, static_cast<unsigned long long>(out.ullStartTime),
             static_cast<unsigned long long>(out.ullReadBytesCount),
             static_cast<unsigned long long>(out.ullWriteBytesCount), out.strProcessName.c_str());
  }
  return true;
}

bool ListProcesses(ProcessInfoSet& out) {
  const Directory procfs(opendir("/proc"));
  if (!procfs) {
    LogError(&kTag, "Failed to open procfs, error is: %s", std::strerror(errno));
    return false;
  }
  while (const dirent* entry = readdir(procfs.get())) {
    // Required: the first character decides; an entry "12ab" would be read as process 12. Pinned by
    // ListProcesses.*.
    if (!isDigit(entry->d_name[0])) {
      continue;
    }
    const int pid = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
    ProcessInfo info;
    if (GetProcessInfo(pid, info)) {
      static_cast<void>(out.insert(std::move(info)));
    }
  }
  return true;
}

bool IsProcessAlive(const ProcessInfo& info) {
  ProcessStat stat;
  if (!ReadProcessStat(info.iPid, stat)) {
    LogDebug(&kTag, "Process %d may not exist", info.iPid);
    return false;
  }
  if (stat.starttime != info.ullStartTime) {
    LogDebug(&kTag, "Process creation time not match, pid %d is reused", info.iPid);
    return false;
  }
  return true;
}

std::uint64_t GetProcessCreateTime(const ProcessInfo& info) {
  std::uint64_t bootTime = 0;
  if (!getSystemBootTime(bootTime)) {
    return 0;
  }
  const long ticksPerSecond = sysconf(_SC_CLK_TCK);
  if (ticksPerSecond == -1) {
    return 0;
  }
  return info.ullStartTime / static_cast<std::uint64_t>(ticksPerSecond) + bootTime;
}

}  // namespace mendline
