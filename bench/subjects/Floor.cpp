// The least that the kernel makes one pay: the files that a tick has to read, by bare system calls,
// without a look at what they hold.
//
// Orders: "floor", the two files and the folder of every process; "required-floor", these and what
// a tick may not keep from one process to the next (the boot time, the user's name) and the figures
// of the host.
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "Subject.h"

namespace mendline::bench {
namespace {

constexpr std::size_t kFolderBuffer = 32768;  // what the C library's readdir takes at a time
constexpr std::size_t kFileBuffer = 65536;    // more than any file here holds
constexpr std::size_t kLongestNumber = 10;

char fileBuffer[kFileBuffer];

// One read gets all there is of a process's files; the second one, which would say so, is left out.
bool readOnce(const char* path) {
  const int file = open(path, O_RDONLY);
  if (file < 0) {
    return false;
  }
  const bool good = read(file, fileBuffer, sizeof fileBuffer) > 0;
  close(file);
  return good;
}

void readToEnd(const char* path) {
  const int file = open(path, O_RDONLY);
  while (read(file, fileBuffer, sizeof fileBuffer) > 0) {
  }
  close(file);
}

// The name of an entry of /proc that is a process; 0 for any other entry.
pid_t processNumber(const char* name) {
  pid_t number = 0;
  for (; *name >= '0' && *name <= '9'; ++name) {
    number = number * 10 + (*name - '0');
  }
  return *name == '\0' ? number : 0;
}

// Calls `visit(pid, uid)` for every process whose files could be read.
template <typename Visit>
void forEachProcess(const Visit& visit) {
  const int folder = open("/proc", O_RDONLY | O_DIRECTORY);
  alignas(std::max_align_t) static char entries[kFolderBuffer];
  long length = 0;
  while ((length = syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0) {
    for (long position = 0; position < length;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries + position);
      position += entry->d_reclen;
      const pid_t pid = processNumber(entry->d_name);
      if (pid == 0) {
        continue;
      }
      char path[sizeof "/proc/" + kLongestNumber + sizeof "/stat"] = "/proc/";
      const std::size_t folderEnd = std::strlen(path) + std::strlen(entry->d_name);
      std::strcat(path, entry->d_name);
      std::strcpy(path + folderEnd, "/stat");
      if (!readOnce(path)) {
        continue;
      }
      std::strcpy(path + folderEnd, "/io");
      if (!readOnce(path)) {
        continue;
      }
      path[folderEnd] = '\0';
      struct stat status {};
      stat(path, &status);
      visit(pid, status.st_uid);
    }
  }
  close(folder);
}

Answer doFloor(int repeats) {
  Answer answer;
  answer.value = timed(repeats, [&answer] {
    answer.seen = {};
    forEachProcess([&answer](pid_t pid, uid_t /*user*/) { answer.seen.add(pid); });
  });
  return answer;
}

Answer doRequiredFloor(int repeats) {
  Answer answer;
  answer.value = timed(repeats, [&answer] {
    answer.seen = {};
    forEachProcess([&answer](pid_t pid, uid_t user) {
      readToEnd("/proc/stat");
      getpwuid(user);
      answer.seen.add(pid);
    });
    readToEnd("/proc/stat");
    struct sysinfo info {};
    sysinfo(&info);
    readToEnd("/proc/meminfo");
    readToEnd("/proc/diskstats");
  });
  return answer;
}

}  // namespace
}  // namespace mendline::bench

int main() {
  using namespace mendline::bench;
  return serve({{"floor", doFloor}, {"required-floor", doRequiredFloor}});
}
