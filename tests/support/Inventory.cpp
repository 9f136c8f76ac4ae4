#include "Inventory.h"

#include <dirent.h>
#include <sys/shm.h>
#include <time.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <thread>

#include "Error.h"
#include "HostPaths.h"

namespace mendline::rig {
namespace {

std::string selfPath(const char* entry) {
  return std::string(kTrueProc) + "/self/" + entry;
}

std::size_t countEntries(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
  if (!directory) {
    throwErrno("cannot open " + path);
  }
  std::size_t count = 0;
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] != '.') {
      ++count;
    }
  }
  return count;
}

}  // namespace

std::size_t threadCount() {
#ifdef __SANITIZE_THREAD__
  // The sanitizer starts a thread of its own along with the first thread of the program. Having it
  // run before anything is counted keeps it out of every difference.
  static const bool warm = [] {
    std::thread([] {}).join();
    const timespec pause = {0, 20'000'000};
    nanosleep(&pause, nullptr);
    return true;
  }();
  static_cast<void>(warm);
#endif
  return countEntries(selfPath("task"));
}

// One less: the descriptor that lists the others.
std::size_t openFileCount() {
  return countEntries(selfPath("fd")) - 1;
}

std::size_t attachmentCount() {
  std::ifstream maps(selfPath("maps"));
  if (!maps) {
    throwErrno("cannot open " + selfPath("maps"));
  }
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(" /SYSV") != std::string::npos) {
      ++count;
    }
  }
  return count;
}

std::vector<Segment> segments() {
  shm_info info = {};
  // The kernel reuses the buffer parameter for structures of several types.
  const int highest = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
  if (highest < 0) {
    throwErrno("cannot list the shared-memory segments");
  }
  std::vector<Segment> result;
  for (int index = 0; index <= highest; ++index) {
    shmid_ds raw = {};
    const int id = shmctl(index, SHM_STAT, &raw);
    if (id < 0) {
      continue;  // an unused slot
    }
    Segment segment;
    segment.id = id;
    segment.key = raw.shm_perm.__key;
    segment.owner = raw.shm_perm.uid;
    segment.group = raw.shm_perm.gid;
    segment.mode = static_cast<mode_t>(raw.shm_perm.mode) & 0777;
    segment.removed = (raw.shm_perm.mode & SHM_DEST) != 0;
    segment.size = raw.shm_segsz;
    segment.attachments = raw.shm_nattch;
    result.push_back(segment);
  }
  return result;
}

std::optional<Segment> segmentOf(const std::string& path, int project) {
  const key_t key = ftok(path.c_str(), project);
  if (key == -1) {
    return std::nullopt;
  }
  for (const Segment& segment : segments()) {
    if (segment.key == key && !segment.removed) {
      return segment;
    }
  }
  return std::nullopt;
}

}  // namespace mendline::rig
