#include "SyntheticProc.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "Error.h"
#include "HostPaths.h"

namespace mendline::rig {
namespace {

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) {
    throwErrno("cannot write " + path);
  }
}

void changeOwner(const std::string& path, uid_t owner, gid_t group) {
  if (lchown(path.c_str(), owner, group) != 0) {
    throwErrno("cannot change the owner of " + path);
  }
}

}  // namespace

std::string StatLine::text() const {
  std::ostringstream line;
  line << pid << " (" << name << ") " << state << ' ' << parent;
  for (int column = 5; column <= 13; ++column) {
    line << " 0";
  }
  line << ' ' << userTicks << ' ' << systemTicks << " 0 0 20 0 " << threads << " 0 " << startTime
       << ' ' << virtualBytes << ' ' << residentPages;
  for (int column = 25; column <= 52; ++column) {
    line << " 0";
  }
  line << '\n';
  return line.str();
}

std::string IoCounters::text() const {
  std::ostringstream lines;
  lines << "rchar: " << rchar << "\nwchar: " << wchar << "\nsyscr: " << syscr
        << "\nsyscw: " << syscw << "\nread_bytes: " << readBytes << "\nwrite_bytes: " << writeBytes
        << "\ncancelled_write_bytes: " << cancelledWriteBytes << '\n';
  return lines.str();
}

SyntheticProc::SyntheticProc(std::string root, std::string staging)
    : root_(std::move(root)), staging_(std::move(staging)) {
  std::filesystem::create_directories(root_);
  std::filesystem::create_directories(staging_);
  for (const char* entry : {"self", "thread-self", "sys"}) {
    std::filesystem::create_symlink(std::string(kTrueProc) + "/" + entry, root_ + "/" + entry);
  }
  setFile("stat",
          "cpu  1000 50 500 8000 40 0 5 0 0 0\n"
          "cpu0 500 25 250 4000 20 0 3 0 0 0\n"
          "cpu1 500 25 250 4000 20 0 2 0 0 0\n"
          "intr 0\nctxt 0\nbtime 1700000000\nprocesses 100\nprocs_running 1\nprocs_blocked 0\n");
  setFile("diskstats", "   8       0 sda 300 10 6000 150 200 20 4000 100 0 120 250\n");
  setFile("meminfo",
          "MemTotal:        8000000 kB\n"
          "MemFree:         2000000 kB\n"
          "MemAvailable:    5000000 kB\n"
          "Buffers:          100000 kB\n"
          "Cached:          3000000 kB\n");
}

SyntheticProc& SyntheticProc::addProcess(pid_t pid, const ProcEntry& entry) {
  const std::string staged = staging_ + "/" + std::to_string(staged_++);
  std::filesystem::create_directory(staged);
  const auto add = [&](const char* name, const std::optional<std::string>& content) {
    if (content.has_value()) {
      writeFile(staged + "/" + name, *content);
      changeOwner(staged + "/" + name, entry.owner, entry.group);
    }
  };
  add("stat", entry.stat);
  add("io", entry.io);
  add("cmdline", entry.cmdline);
  changeOwner(staged, entry.owner, entry.group);

  const std::string target = root_ + "/" + std::to_string(pid);
  if (renameat2(AT_FDCWD, staged.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
    std::filesystem::remove_all(staged);
  } else if (errno != ENOENT || ::rename(staged.c_str(), target.c_str()) != 0) {
    throwErrno("cannot add process " + std::to_string(pid));
  }
  return *this;
}

SyntheticProc& SyntheticProc::addProcess(const StatLine& stat, uid_t owner) {
  ProcEntry entry;
  entry.stat = stat.text();
  entry.io = IoCounters{}.text();
  entry.cmdline = stat.name + '\0';
  entry.owner = owner;
  entry.group = owner;
  return addProcess(stat.pid, entry);
}

SyntheticProc& SyntheticProc::removeProcess(pid_t pid) {
  const std::string name = std::to_string(pid);
  const std::string staged = staging_ + "/" + std::to_string(staged_++);
  if (::rename((root_ + "/" + name).c_str(), staged.c_str()) != 0) {
    throwErrno("cannot remove process " + name);
  }
  std::filesystem::remove_all(staged);
  return *this;
}

SyntheticProc& SyntheticProc::setOwner(pid_t pid, uid_t owner, gid_t group) {
  changeOwner(root_ + "/" + std::to_string(pid), owner, group);
  return *this;
}

SyntheticProc& SyntheticProc::setFile(const std::string& path, const std::string& content) {
  const std::string staged = staging_ + "/" + std::to_string(staged_++);
  writeFile(staged, content);
  if (::rename(staged.c_str(), (root_ + "/" + path).c_str()) != 0) {
    throwErrno("cannot set /proc/" + path);
  }
  return *this;
}

SyntheticProc& SyntheticProc::removeFile(const std::string& path) {
  if (unlink((root_ + "/" + path).c_str()) != 0) {
    throwErrno("cannot remove /proc/" + path);
  }
  return *this;
}

SyntheticProc& SyntheticProc::addDirectory(const std::string& path) {
  std::filesystem::create_directory(root_ + "/" + path);
  return *this;
}

}  // namespace mendline::rig
