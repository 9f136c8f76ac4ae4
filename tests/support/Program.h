// Runs a program inside the private host and keeps all it says.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace mendline::rig {

struct Run {
  int exitStatus = -1;    // -1 when a signal ended it
  int signal = 0;         // 0 when it exited
  bool timedOut = false;  // then it was killed
  std::string output;
  std::string errors;

  // By line, for programs that answer every line of input with one of output.
  std::vector<std::string> outputLines() const;
};

// Describes one run. The program inherits this process's environment, working folder and nothing
// else; run throws Error when it cannot be started.
class Program {
 public:
  explicit Program(std::vector<std::string> commandLine);

  Program& withEnvironment(const std::string& name, const std::string& value);
  Program& withoutEnvironment(const std::string& name);
  Program& withInput(std::string input);
  // In real time; default: 60 seconds.
  Program& withTimeout(std::chrono::milliseconds timeout);
  // Runs its clocks this many times as fast; see TickClock.h.
  Program& withClockSpeed(int speed);

  Run run() const;

 private:
  std::vector<std::string> commandLine_;
  std::vector<std::pair<std::string, std::string>> set_;
  std::vector<std::string> unset_;
  std::string input_;
  std::chrono::milliseconds timeout_ = std::chrono::seconds(60);
  int clockSpeed_ = 0;
};

}  // namespace mendline::rig
