// Runs a program inside the private host and keeps all it says.
#pragma once

#include <sys/types.h>

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

// A program under way, spoken to line by line; its standard error is this process's own. Owns the
// process, which is killed and reaped when this goes.
class RunningProgram {
 public:
  RunningProgram(pid_t pid, int input, int output) : pid_(pid), input_(input), output_(output) {}
  RunningProgram(RunningProgram&& other) noexcept;
  RunningProgram& operator=(RunningProgram&& other) noexcept;
  ~RunningProgram();

  pid_t pid() const { return pid_; }
  // Also false for a zombie.
  bool isRunning() const;

  void send(const std::string& line);
  // Waits for the next line of output; throws Error when none has come after that time.
  std::string receive(std::chrono::milliseconds patience = std::chrono::seconds(20));
  std::string ask(const std::string& line) {
    send(line);
    return receive();
  }

  // Ends its input.
  void closeInput();
  // The exit status, or 128 + N for signal N. Throws Error, and kills, when it does not end in
  // time.
  int wait(std::chrono::milliseconds patience = std::chrono::seconds(20));
  int stop(int signalNumber);

 private:
  pid_t pid_;
  int input_;
  int output_;
  std::string pending_;
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
  // The same program, whose command line is handed to this launcher.
  Program launchedBy(const std::vector<std::string>& launcher) const;

  Run run() const;
  // Goes on while the caller does; input and timeout are not used.
  RunningProgram start() const;

 private:
  struct Ends;
  pid_t spawn(const Ends& ends) const;

  std::vector<std::string> commandLine_;
  std::vector<std::pair<std::string, std::string>> set_;
  std::vector<std::string> unset_;
  std::string input_;
  std::chrono::milliseconds timeout_ = std::chrono::seconds(60);
  int clockSpeed_ = 0;
};

}  // namespace mendline::rig
