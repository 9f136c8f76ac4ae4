// The shipped library in a program of its own, the request-driver, spoken to in requests.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Error.h"
#include "Eventually.h"
#include "HostPaths.h"
#include "Program.h"

namespace mendline {

inline std::string operation(const std::string& opcode, const std::string& parameters = "") {
  return "<MendlineOperation><opcode>" + opcode + "</opcode>" + parameters + "</MendlineOperation>";
}

// As the driver prints them, with the line feed in two characters.
inline const std::string kDeclaration = R"(<?xml version="1.0" encoding="utf-8"?>\n)";
inline const std::string kStarted = kDeclaration + "<INFO>Succeed to start collector</INFO>";
inline const std::string kStopped = kDeclaration + "<INFO>Finish to stop collector</INFO>";
inline const std::string kNotStarted = kDeclaration + "<ERROR>Failed to start collector</ERROR>";

// The exit status of the driver when an exception leaves the library, which would end a JVM. What
// it was is the last line on standard error.
inline constexpr int kLetAnExceptionOut = 2;

class LibraryProgram {
 public:
  // The driver, behind the words of a program that starts it under some condition.
  static rig::Program program(std::vector<std::string> wrapper = {}) {
    // What it says on standard error is nobody's output but the test's.
    std::vector<std::string> command = {"/bin/sh", "-c", "exec \"$@\" 2>" + errorsFile(), "sh"};
    command.insert(command.end(), wrapper.begin(), wrapper.end());
    command.insert(command.end(), {REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY});
    // To look for leaks at its end, a sanitizer needs the true /proc and system calls that work.
    return rig::Program(std::move(command)).withEnvironment("ASAN_OPTIONS", "detect_leaks=0");
  }

  explicit LibraryProgram(rig::RunningProgram running) : running_(std::move(running)) {}
  // At Debug, and so that 30 seconds pass in 50 ms.
  explicit LibraryProgram(const std::vector<std::string>& wrapper = {})
      : running_(program(wrapper)
                     .withClockSpeed(600)
                     .withEnvironment("TARNHOST_MENDLINE_LOGLEVEL", "Debug")
                     .start()) {
    threads_ = request("!threads");  // answered when the library is loaded
  }

  pid_t pid() const { return running_.pid(); }
  bool isRunning() const { return running_.isRunning(); }

  // Without an answer when the driver has ended.
  std::optional<std::string> request(const std::string& line) {
    try {
      std::string answer = running_.ask(line);
      // The library tells on standard output how it has corrected the range.
      while (answer.rfind("clampDisplayNumberConfig", 0) == 0) {
        answer = running_.receive();
      }
      return answer;
    } catch (const rig::Error&) {
      return std::nullopt;
    }
  }
  std::optional<std::string> ask(const std::string& opcode, const std::string& parameters = "") {
    return request(operation(opcode, parameters));
  }

  // As many threads as before the first request; one that was joined may take a moment to go.
  bool hasNoMoreThreads() {
    return rig::eventually([&] { return request("!threads") == threads_; });
  }

  // The driver returns from main with the library loaded. Its exit status, or 128 + a signal.
  int end() {
    running_.closeInput();
    return running_.wait();
  }
  int wait() { return running_.wait(); }

  static std::string errors() {
    std::ifstream file(errorsFile());
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  // From now on the program may have at most this much of a resource; RLIM_INFINITY: no limit.
  void limit(__rlimit_resource resource, rlim_t most) const {
    rlimit limits = {};
    ASSERT_EQ(prlimit(pid(), resource, nullptr, &limits), 0);
    limits.rlim_cur = std::min(most, limits.rlim_max);
    ASSERT_EQ(prlimit(pid(), resource, &limits, nullptr), 0);
  }

 private:
  static std::string errorsFile() { return std::string(rig::kScratchDirectory) + "/errors"; }

  rig::RunningProgram running_;
  std::optional<std::string> threads_;
};

}  // namespace mendline
