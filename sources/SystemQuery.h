// Reads host-wide figures: /proc/stat, /proc/diskstats, /proc/meminfo, sysinfo(2), the page size
// and the user database.
//
// Free functions that keep nothing: every call reads its source afresh, from any thread. Unless a
// declaration says otherwise, a function returns false after it has logged the reason at Error
// under the tag "SystemQuery", and its outputs are then as they were. The look-ups of users and
// groups stand here together because the C library's plain forms need a lock each, which the source
// file holds until an answer is copied.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mendline {

// The host at one moment. Counters run since boot; the three sources are read one after the other.
struct SystemPerfStats {
  std::uint64_t cpuUser = 0;       // clock ticks over all CPUs; "cpu" line of /proc/stat, column 1
  std::uint64_t cpuNice = 0;       // the same, column 2
  std::uint64_t cpuSystem = 0;     // the same, column 3
  std::uint64_t cpuIdle = 0;       // the same, column 4; iowait and later columns are not read
  std::uint64_t memTotal = 0;      // bytes; sysinfo totalram
  std::uint64_t memAvailable = 0;  // bytes; see MemoryStats.available
  std::uint64_t diskReads = 0;     // completed operations; /proc/diskstats column 4, all lines
  std::uint64_t diskWrites = 0;    // completed operations; column 8
  std::uint64_t diskInFlight = 0;  // operations in progress, a level; column 12
  std::uint64_t diskReadMs = 0;    // milliseconds; column 7
  std::uint64_t diskWriteMs = 0;   // milliseconds; column 11
  std::uint64_t diskIoMs = 0;      // milliseconds; column 13
  std::int64_t uptime = 0;         // seconds since boot; sysinfo uptime
};

struct CpuTimes {
  std::uint64_t user = 0;      // clock ticks
  std::uint64_t nice = 0;      // clock ticks
  std::uint64_t system = 0;    // clock ticks
  std::uint64_t idle = 0;      // clock ticks
  std::uint64_t bootTime = 0;  // seconds since the epoch; "btime" line
};

struct MemoryStats {
  std::int64_t uptime = 0;      // seconds since boot
  std::uint64_t total = 0;      // bytes; totalram, taken as bytes whatever mem_unit says
  std::uint64_t available = 0;  // bytes; freeram + bufferram + page cache modulo 4 GiB
};

// One line of /proc/diskstats, columns 1 to 14.
struct DiskStatLine {
  std::int32_t major = 0;
  std::int32_t minor = 0;
  char name[32] = {};  // at most 31 bytes of the device's name
  std::uint64_t readsCompleted = 0;
  std::uint64_t readsMerged = 0;
  std::uint64_t sectorsRead = 0;
  std::uint64_t msReading = 0;  // milliseconds
  std::uint64_t writesCompleted = 0;
  std::uint64_t writesMerged = 0;
  std::uint64_t sectorsWritten = 0;
  std::uint64_t msWriting = 0;  // milliseconds
  std::uint64_t iosInProgress = 0;
  std::uint64_t msDoingIo = 0;          // milliseconds
  std::uint64_t weightedMsDoingIo = 0;  // milliseconds
};

// A user of the user database.
struct UserIds {
  uid_t uid = 0;
  gid_t gid = 0;
};

// Reads /proc/stat. `out` is not cleared: a line that is absent leaves its fields alone, and the
// result only says that the file could be opened.
bool readCpuTimes(CpuTimes& out);

// Takes one line, or one piece of a line too long for the reader's buffer, into `out`. Pieces other
// than the "cpu" and the "btime" line change nothing.
void parseStatLine(const char* line, CpuTimes& out);

// busy = user + system (nice is left out), idle = idle; clock ticks.
bool getCpuTime(std::uint64_t& busy, std::uint64_t& idle);

// Seconds since the epoch.
bool getSystemBootTime(std::uint64_t& bootTime);

// Appends one record per line of /proc/diskstats: disks, partitions, loop and stacked devices
// alike.
bool readDiskStats(std::vector<DiskStatLine>& out);

// Scans one line of /proc/diskstats into `record`; columns that the line lacks keep their values.
void parseDiskStatLine(const char* line, DiskStatLine& record);

// The name of a user, by getpwuid. Logs at Warn when there is none.
bool getUserName(std::uint32_t uid, std::string& name);

// The number of a user, by getpwnam. Logs at Warn when there is none.
bool getUserId(const std::string& name, std::uint32_t& uid);

// By getpwnam and getgrnam, without a log line; nothing where there is no such user or group.
std::optional<UserIds> findUser(const char* name);
std::optional<gid_t> findGroup(const char* name);

// Bytes.
bool getPageSize(std::uint64_t& bytes);

// sysinfo(2) and /proc/meminfo. A /proc/meminfo that can't be read is no failure: `available` then
// lacks the page cache.
bool readMemoryStats(MemoryStats& out);

// Bytes.
bool getTotalMemorySize(std::uint64_t& bytes);

// Whole percent, (total - available) * 100 / total in unsigned 64-bit arithmetic. Not guarded
// against a total of 0.
bool getMemoryUsage(std::uint64_t& percent);

// Seconds since boot. Reads /proc/meminfo too.
bool getSystemUptime(std::uint64_t& seconds);

// The whole snapshot. Whichever source fails, `out` keeps what it held.
bool getSystemPerfStats(SystemPerfStats& out);

}  // namespace mendline
