// command COLUMN COMMAND [ARGUMENT]...: a command that lists processes, with their numbers in that
// column, the first being 1. Order: "tick", one run of it, start-up included; the processor time is
// the command's. The command itself is not among the processes that were seen.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "Subject.h"

namespace mendline::bench {
namespace {

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "command: " << what << '\n';
  std::exit(1);
}

struct Run {
  pid_t pid = 0;
  std::uint64_t nanoseconds = 0;
  std::string output;
};

std::uint64_t nanosecondsOf(const timeval& time) {
  constexpr std::uint64_t kPerSecond = 1'000'000'000;
  constexpr std::uint64_t kPerMicrosecond = 1'000;
  return static_cast<std::uint64_t>(time.tv_sec) * kPerSecond +
         static_cast<std::uint64_t>(time.tv_usec) * kPerMicrosecond;
}

Run run(char** command) {
  std::array<int, 2> ends{};
  posix_spawn_file_actions_t actions;
  if (pipe2(ends.data(), O_CLOEXEC) != 0 || posix_spawn_file_actions_init(&actions) != 0 ||
      posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO) != 0) {
    fail("no pipe");
  }
  Run result;
  if (posix_spawnp(&result.pid, command[0], &actions, nullptr, command, environ) != 0) {
    fail(std::string("cannot start ") + command[0]);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::array<char, 65536> buffer{};
  for (ssize_t length = 0; (length = read(ends[0], buffer.data(), buffer.size())) > 0;) {
    result.output.append(buffer.data(), static_cast<std::size_t>(length));
  }
  close(ends[0]);
  int status = 0;
  rusage usage{};
  if (wait4(result.pid, &status, 0, &usage) != result.pid || status != 0) {
    fail(std::string(command[0]) + " has failed");
  }
  result.nanoseconds = nanosecondsOf(usage.ru_utime) + nanosecondsOf(usage.ru_stime);
  return result;
}

bool isNumber(const std::string& word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char character) {
    return std::isdigit(character) != 0;
  });
}

Seen seenIn(const Run& run, int column) {
  Seen seen;
  std::istringstream lines(run.output);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    for (int index = 0; index < column; ++index) {
      word.clear();
      words >> word;
    }
    if (isNumber(word)) {
      if (const pid_t pid = std::stoi(word); pid != run.pid) {
        seen.add(pid);
      }
    }
  }
  return seen;
}

}  // namespace
}  // namespace mendline::bench

int main(int argc, char** argv) {
  using namespace mendline::bench;
  if (argc < 3) {
    fail("a column and a command are needed");
  }
  setenv("LC_ALL", "C", 1);
  const int column = std::atoi(argv[1]);
  char** const command = argv + 2;
  return serve({{"tick", [column, command](int repeats) {
                   Answer answer;
                   for (int repeat = 0; repeat < repeats; ++repeat) {
                     const Run result = run(command);
                     answer.value += result.nanoseconds;
                     answer.seen = seenIn(result, column);
                   }
                   return answer;
                 }}});
}
