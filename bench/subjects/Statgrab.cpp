// libstatgrab. Order: "tick", its table of processes and its figures of the host.
#include <statgrab.h>

#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "Subject.h"

namespace mendline::bench {
namespace {

// Users come as numbers; their names and the I/O counters are not to be had.
Seen readAll() {
  std::size_t entries = 0;
  const sg_process_stats* const processes = sg_get_process_stats(&entries);
  if (processes == nullptr || sg_get_cpu_stats(nullptr) == nullptr ||
      sg_get_mem_stats(nullptr) == nullptr || sg_get_disk_io_stats(nullptr) == nullptr) {
    std::cerr << "statgrab: " << sg_str_error(sg_get_error()) << '\n';
    std::exit(1);
  }
  Seen seen;
  for (std::size_t index = 0; index < entries; ++index) {
    seen.add(processes[index].pid);
  }
  return seen;
}

Answer doTicks(int repeats) {
  Answer answer;
  answer.value = timed(repeats, [&answer] { answer.seen = readAll(); });
  return answer;
}

}  // namespace
}  // namespace mendline::bench

int main() {
  using namespace mendline::bench;
  if (sg_init(1) != SG_ERROR_NONE) {
    return 1;
  }
  return serve({{"tick", doTicks}});
}
