// libgtop2, the library of a desktop's system monitor. Order: "tick", the processes as that monitor
// reads them, with their users' names, and the figures of the host.
#include <glib.h>
#include <glibtop.h>
#include <glibtop/cpu.h>
#include <glibtop/mem.h>
#include <glibtop/procio.h>
#include <glibtop/proclist.h>
#include <glibtop/procmem.h>
#include <glibtop/procstate.h>
#include <glibtop/proctime.h>
#include <glibtop/uptime.h>
#include <pwd.h>

#include <cstdint>

#include "Subject.h"

namespace mendline::bench {
namespace {

void readProcess(pid_t pid) {
  glibtop_proc_state state;
  glibtop_proc_time time;
  glibtop_proc_mem memory;
  glibtop_proc_io counters;
  glibtop_get_proc_state(&state, pid);
  glibtop_get_proc_time(&time, pid);
  glibtop_get_proc_mem(&memory, pid);
  glibtop_get_proc_io(&counters, pid);
  getpwuid(static_cast<uid_t>(state.uid));
}

// It has no figures of disks, only of file systems.
Seen readAll() {
  glibtop_proclist list;
  pid_t* const pids = glibtop_get_proclist(&list, GLIBTOP_KERN_PROC_ALL, 0);
  Seen seen;
  for (std::uint64_t index = 0; index < list.number; ++index) {
    readProcess(pids[index]);
    seen.add(pids[index]);
  }
  g_free(pids);
  glibtop_cpu cpu;
  glibtop_mem memory;
  glibtop_uptime uptime;
  glibtop_get_cpu(&cpu);
  glibtop_get_mem(&memory);
  glibtop_get_uptime(&uptime);
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
  glibtop_init();
  return serve({{"tick", doTicks}});
}
