// libproc2, the library of ps and top, with one handle that is kept, as a monitor would keep it.
//
// Orders: "tick", the processes with their users' names and the figures of the host; "list", the
// processes with their users' numbers.
#include <libproc2/diskstats.h>
#include <libproc2/meminfo.h>
#include <libproc2/pids.h>
#include <libproc2/stat.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "Subject.h"

namespace mendline::bench {
namespace {

[[noreturn]] void fail(const char* what) {
  std::cerr << "procps: " << what << '\n';
  std::exit(1);
}

template <std::size_t kSize>
class Pids {
 public:
  explicit Pids(std::array<pids_item, kSize> items) {
    if (procps_pids_new(&info_, items.data(), static_cast<int>(kSize)) < 0) {
      fail("no handle for processes");
    }
  }

  Seen read() {
    const pids_fetch* const fetched = procps_pids_reap(info_, PIDS_FETCH_TASKS_ONLY);
    if (fetched == nullptr) {
      fail("the processes cannot be read");
    }
    Seen seen;
    for (int index = 0; index < fetched->counts->total; ++index) {
      seen.add(fetched->stacks[index]->head[0].result.s_int);
    }
    return seen;
  }

 private:
  pids_info* info_ = nullptr;
};

// The figures that a tick keeps of a process.
Pids named(std::array{PIDS_ID_PID, PIDS_ID_EUSER, PIDS_CMD, PIDS_TICS_USER, PIDS_TICS_SYSTEM,
                      PIDS_RSS, PIDS_TICS_BEGAN, PIDS_IO_READ_CHARS, PIDS_IO_WRITE_CHARS});
Pids numbered(std::array{PIDS_ID_PID, PIDS_ID_EUID, PIDS_CMD, PIDS_TICS_USER, PIDS_TICS_SYSTEM,
                         PIDS_RSS, PIDS_TICS_BEGAN, PIDS_IO_READ_CHARS, PIDS_IO_WRITE_CHARS});

// One figure of each source makes the library read all of it.
void readHost() {
  static stat_info* cpu = nullptr;
  static meminfo_info* memory = nullptr;
  static diskstats_info* disks = nullptr;
  if (cpu == nullptr && (procps_stat_new(&cpu) < 0 || procps_meminfo_new(&memory) < 0 ||
                         procps_diskstats_new(&disks) < 0)) {
    fail("no handle for the host");
  }
  std::array diskItems{DISKSTATS_NAME, DISKSTATS_READS, DISKSTATS_WRITES};
  if (procps_stat_get(cpu, STAT_TIC_USER) == nullptr ||
      procps_meminfo_get(memory, MEMINFO_MEM_CACHED) == nullptr ||
      procps_diskstats_reap(disks, diskItems.data(), diskItems.size()) == nullptr) {
    fail("the host cannot be read");
  }
}

Answer doTicks(int repeats) {
  Answer answer;
  answer.value = timed(repeats, [&answer] {
    answer.seen = named.read();
    readHost();
  });
  return answer;
}

Answer doLists(int repeats) {
  Answer answer;
  answer.value = timed(repeats, [&answer] { answer.seen = numbered.read(); });
  return answer;
}

}  // namespace
}  // namespace mendline::bench

int main() {
  using namespace mendline::bench;
  return serve({{"tick", doTicks}, {"list", doLists}});
}
