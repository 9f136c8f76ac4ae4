// Reads processes from /proc: /proc/<pid>/stat, the owner of /proc/<pid>, and /proc/<pid>/io.
//
// Free functions without state, called by the collection thread and by request threads at once. No
// function throws by itself. Complaints about the content of a stat line are logged under the tag
// "ProcessQueryUtil", everything else under "ProcessQuery".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>

namespace mendline {

// One /proc/<pid>/stat line up to rsslim, named as in proc(5), and the owner of /proc/<pid>.
struct ProcessStat {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  char comm[255] = {};  // between the first "(" and the last ")", at most 254 bytes
  char state = 0;
  std::int32_t ppid = 0;
  std::int32_t pgrp = 0;
  std::int32_t session = 0;
  std::int32_t tty_nr = 0;
  std::int32_t tpgid = 0;
  std::uint32_t flags = 0;
  std::uint64_t minflt = 0;
  std::uint64_t cminflt = 0;
  std::uint64_t majflt = 0;
  std::uint64_t cmajflt = 0;
  std::uint64_t utime = 0;  // clock ticks
  std::uint64_t stime = 0;  // clock ticks
  std::int64_t cutime = 0;
  std::int64_t cstime = 0;
  std::int64_t priority = 0;
  std::int64_t nice = 0;
  std::int64_t num_threads = 0;
  std::int64_t itrealvalue = 0;
  unsigned long long starttime = 0;  // clock ticks since boot
  std::uint64_t vsize = 0;           // bytes
  std::int64_t rss = 0;              // pages
  std::uint64_t rsslim = 0;          // bytes
};

// What passed through read and write calls, cached or not.
struct ProcessIo {
  std::uint64_t rchar = 0;  // bytes
  std::uint64_t wchar = 0;  // bytes
};

// One process at one moment. `iPid` and `ullStartTime` together are its identity.
struct ProcessInfo {
  std::int32_t iPid = 0;
  std::uint32_t uiUserId = 0;            // owner of /proc/<pid>
  std::uint64_t ulUserTime = 0;          // clock ticks; utime
  std::uint64_t ulSystemTime = 0;        // clock ticks; stime
  std::uint64_t ulMemory = 0;            // pages; rss
  std::uint64_t ullStartTime = 0;        // clock ticks since boot; starttime
  std::uint64_t ullReadBytesCount = 0;   // bytes; rchar
  std::uint64_t ullWriteBytesCount = 0;  // bytes; wchar
  std::string strProcessName;            // comm
};

// Not noexcept: that makes the standard library keep the hash code in the element.
struct ProcessInfoHash {
  std::size_t operator()(const ProcessInfo& info) const {
    return (info.ullStartTime + 527) * 31 +
           static_cast<std::uint64_t>(static_cast<std::int64_t>(info.iPid));
  }
};

struct ProcessInfoEqual {
  bool operator()(const ProcessInfo& left, const ProcessInfo& right) const {
    return left.iPid == right.iPid && left.ullStartTime == right.ullStartTime;
  }
};

using ProcessInfoSet = std::unordered_set<ProcessInfo, ProcessInfoHash, ProcessInfoEqual>;

// True when the stat file was read and parsed; `out` is meaningful only then. A file that can't be
// opened is logged at Debug, one that can't be read at Error.
bool ReadProcessStat(int pid, ProcessStat& out);

// Clears `out` and takes one stat line and the owner into it. A line without a pid at its start is
// taken with pid 0, after a line at Warn; any other defect is logged at Warn and makes the result
// false.
bool parseProcessStat(const char* line, std::uint32_t uid, ProcessStat& out);

// True when the I/O file could be opened; counters that it does not state are 0. Else logs at Debug
// and leaves `out` alone: the kernel refuses the file of another user's process to whoever may not
// trace that process.
bool ReadProcessIo(int pid, ProcessIo& out);

// Takes one line of an I/O file into `io`; lines other than "rchar:" and "wchar:" change nothing.
void parseProcessIoLine(const char* line, ProcessIo& io);

// True when both files were read; `out` is written only then. Else logs one more line at Debug.
bool GetProcessInfo(int pid, ProcessInfo& out);

// Adds every readable process to `out`, which is not cleared; a record that is in it already stays
// as it is. A process that can't be read is left out. False only when /proc can't be opened.
bool ListProcesses(ProcessInfoSet& out);

// True when the process exists now with the same start time. Reads `iPid` and `ullStartTime` only.
bool IsProcessAlive(const ProcessInfo& info);

// Creation time in seconds since the epoch, 0 when it can't be worked out. Reads the boot time from
// /proc/stat on each call.
std::uint64_t GetProcessCreateTime(const ProcessInfo& info);

}  // namespace mendline
