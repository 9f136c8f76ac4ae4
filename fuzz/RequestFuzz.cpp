// A whole request: any bytes in, a well-formed answer out. Nothing is ended and no thread is made:
// no segment can be had, which ends each start before its thread, and signals go nowhere.
#include <sys/shm.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "collector/SessionCounters.h"
#include "fuzz/Fuzz.h"
#include "fuzz/Xml.h"
#include "gateway/MendLineOperation.h"
#include "gateway/ModifiedUtf8.h"
#include "logging/InternalLogger.h"
#include "tests/rules/ModifiedUtf8Rule.h"

using namespace mendline;
using namespace mendline::fuzz;

namespace {

constexpr pid_t kVictim = 4711;

int signalsSent = 0;

// Sixty records and the one beyond.
std::array<unsigned char, std::size_t{61} * 80> table;

void makeHost() {
  static bool made = false;
  if (!made) {
    made = true;
    rig::SyntheticProc& proc = host().syntheticProc();
    proc.setFile("stat", "cpu 1 2 3 4\nbtime 1000\n");
    rig::StatLine victim;
    victim.pid = kVictim;
    victim.name = "xclock";
    victim.startTime = 100000;  // that is 1000 seconds after the boot
    proc.addProcess(victim, host().uidOf("alice"));
  }
}

}  // namespace

// In the place of the C library's.
extern "C" int kill(pid_t pid, int signalNumber) noexcept {
  require(pid == kVictim && signalNumber == SIGTERM, "only what a request may end gets a signal");
  ++signalsSent;
  return 0;
}

extern "C" int shmget(key_t /*key*/, std::size_t /*size*/, int /*flags*/) noexcept {
  errno = ENOSPC;
  return -1;
}

extern "C" int nanosleep(const struct timespec* wanted, struct timespec* left) {
  if (wanted->tv_sec == 0 && wanted->tv_nsec == 100'000'000) {
    return 0;
  }
  return static_cast<int>(syscall(SYS_nanosleep, wanted, left));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  makeHost();
  sessionShmBase = table.data();
  SetLogThreshold(size % 8 == 0 ? LogLevel::Trace : LogLevel::Info);
  const std::string request = textOf(data, size);
  std::string answer = "left over";
  signalsSent = 0;
  handleRequest(request, answer);
  require(isAnswer(answer), "the answer is well-formed");
  require(signalsSent <= 1, "a request sends one signal at most");
  require(
      (signalsSent == 1) == (answer.find("<terminatedProcessName>xclock</") != std::string::npos),
      "a signal is answered with the process's name");
  // What a JVM is handed.
  makeModifiedUtf8(answer);
  require(rules::isModifiedUtf8(answer), "the answer is legal modified UTF-8");
  require(isAnswer(answer), "the answer is well-formed for a JVM");
  return 0;
}
