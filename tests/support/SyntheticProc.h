// A /proc made of plain files, for hosts whose every process is invented.
//
// Made by PrivateHost::syntheticProc. It starts with no process, with `self`, `thread-self` and
// `sys` leading to the real ones, and with plausible stat, diskstats and meminfo. Every change is
// atomic: a reader sees the old file or the new one. Throws Error where the file system refuses.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace mendline::rig {

// The line of /proc/<pid>/stat in all its 52 columns; those without a name here are 0.
struct StatLine {
  pid_t pid = 1;
  std::string name = "process";
  char state = 'S';
  pid_t parent = 1;
  std::uint64_t userTicks = 0;     // column 14
  std::uint64_t systemTicks = 0;   // column 15
  std::int64_t threads = 1;        // column 20
  std::uint64_t startTime = 0;     // column 22, clock ticks since boot
  std::uint64_t virtualBytes = 0;  // column 23
  std::int64_t residentPages = 0;  // column 24

  std::string text() const;
};

// The text of /proc/<pid>/io.
struct IoCounters {
  std::uint64_t rchar = 0;
  std::uint64_t wchar = 0;
  std::uint64_t syscr = 0;
  std::uint64_t syscw = 0;
  std::uint64_t readBytes = 0;
  std::uint64_t writeBytes = 0;
  std::uint64_t cancelledWriteBytes = 0;

  std::string text() const;
};

// A process of a synthetic /proc; what is absent has no file.
struct ProcEntry {
  std::optional<std::string> stat;
  std::optional<std::string> io;
  std::optional<std::string> cmdline;  // arguments, each ended by a NUL
  uid_t owner = 0;
  gid_t group = 0;
};

class SyntheticProc {
 public:
  // Adds the process, or replaces it as a whole.
  SyntheticProc& addProcess(pid_t pid, const ProcEntry& entry);
  // The same with a well-formed stat line and no I/O.
  SyntheticProc& addProcess(const StatLine& stat, uid_t owner);
  SyntheticProc& removeProcess(pid_t pid);
  SyntheticProc& setOwner(pid_t pid, uid_t owner, gid_t group);

  // Any file by its path below /proc, such as "stat" or "4711/io".
  SyntheticProc& setFile(const std::string& path, const std::string& content);
  SyntheticProc& removeFile(const std::string& path);
  // An entry that is a directory where a file is expected, or nothing to do with processes.
  SyntheticProc& addDirectory(const std::string& path);

 private:
  friend class PrivateHost;
  // Builds the tree in a folder of the caller's, beside a staging area on the same file system.
  SyntheticProc(std::string root, std::string staging);

  std::string root_;
  std::string staging_;
  unsigned staged_ = 0;
};

}  // namespace mendline::rig
