// What this process and its host hold at the moment: to find leaks by counting before and after.
//
// All of it is read from the kernel, at the real /proc even where a test has replaced that. Each
// function throws Error when the kernel does not answer.
#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace mendline::rig {

// Threads of this process. A thread that was joined just now may still be counted for a moment; ask
// eventually.
std::size_t threadCount();
// File descriptors this process has open.
std::size_t openFileCount();
// System V segments attached to this process; the same one twice counts twice.
std::size_t attachmentCount();

// One System V shared-memory segment of the private host.
struct Segment {
  int id = -1;
  key_t key = 0;
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0;       // permission bits
  bool removed = false;  // marked for removal, alive only as long as it is attached
  std::size_t size = 0;
  std::size_t attachments = 0;  // over all processes
};

std::vector<Segment> segments();
// The segment whose key is ftok(path, project), if there is one.
std::optional<Segment> segmentOf(const std::string& path, int project);

}  // namespace mendline::rig
