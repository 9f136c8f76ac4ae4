#include "Program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>
#include <utility>

#include "ClockPreload.h"
#include "Error.h"
#include "Eventually.h"

namespace mendline::rig {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { close(); }

  int number() const { return number_; }
  bool isOpen() const { return number_ >= 0; }
  void reset(int number) {
    close();
    number_ = number;
  }
  int release() { return std::exchange(number_, -1); }
  void close() {
    if (number_ >= 0) {
      ::close(number_);
      number_ = -1;
    }
  }

 private:
  int number_;
};

// Both ends close on exec: the child gets its end by the spawn actions alone.
struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;

  Pipe() {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throwErrno("cannot make a pipe");
    }
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }
};

long milliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// Writing to a program that has ended must not end this one; MSG_NOSIGNAL is for sockets only.
class IgnoredPipeSignal {
 public:
  IgnoredPipeSignal() { previous_ = ::signal(SIGPIPE, SIG_IGN); }
  ~IgnoredPipeSignal() { ::signal(SIGPIPE, previous_); }
  IgnoredPipeSignal(const IgnoredPipeSignal&) = delete;
  IgnoredPipeSignal& operator=(const IgnoredPipeSignal&) = delete;

 private:
  sighandler_t previous_;
};

void readSome(Descriptor& from, std::string& into) {
  std::array<char, 65536> buffer;
  const ssize_t size = ::read(from.number(), buffer.data(), buffer.size());
  if (size > 0) {
    into.append(buffer.data(), static_cast<std::size_t>(size));
  } else if (size == 0 || errno != EINTR) {
    from.close();
  }
}

void writeSome(Descriptor& to, const std::string& from, std::size_t& done) {
  const ssize_t size = ::write(to.number(), from.data() + done, from.size() - done);
  if (size > 0) {
    done += static_cast<std::size_t>(size);
  }
  if (done == from.size() || (size < 0 && errno != EINTR && errno != EAGAIN)) {
    to.close();
  }
}

}  // namespace

std::vector<std::string> Run::outputLines() const {
  std::vector<std::string> lines;
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

RunningProgram::RunningProgram(RunningProgram&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      input_(std::exchange(other.input_, -1)),
      output_(std::exchange(other.output_, -1)),
      pending_(std::move(other.pending_)) {}

RunningProgram& RunningProgram::operator=(RunningProgram&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(input_, other.input_);
  std::swap(output_, other.output_);
  std::swap(pending_, other.pending_);
  return *this;
}

RunningProgram::~RunningProgram() {
  closeInput();
  if (output_ >= 0) {
    ::close(output_);
  }
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool RunningProgram::isRunning() const {
  siginfo_t info = {};
  return pid_ > 0 &&
         waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

void RunningProgram::send(const std::string& line) {
  const IgnoredPipeSignal ignored;
  const std::string text = line + "\n";
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = ::write(input_, text.data() + done, text.size() - done);
    if (size < 0 && errno != EINTR) {
      throwErrno("cannot write to the program");
    }
    done += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
  }
}

std::string RunningProgram::receive(std::chrono::milliseconds patience) {
  const long end = milliseconds() + patience.count();
  std::size_t newline = pending_.find('\n');
  while (newline == std::string::npos) {
    pollfd event = {output_, POLLIN, 0};
    const long left = end - milliseconds();
    if (left <= 0) {
      throw Error("no line came from the program; so far: '" + pending_ + "'");
    }
    if (poll(&event, 1, static_cast<int>(left)) <= 0) {
      continue;
    }
    std::array<char, 65536> buffer;
    const ssize_t size = ::read(output_, buffer.data(), buffer.size());
    if (size == 0) {
      throw Error("the program has closed its output; so far: '" + pending_ + "'");
    }
    pending_.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    newline = pending_.find('\n');
  }
  const std::string line = pending_.substr(0, newline);
  pending_.erase(0, newline + 1);
  return line;
}

void RunningProgram::closeInput() {
  if (input_ >= 0) {
    ::close(std::exchange(input_, -1));
  }
}

int RunningProgram::wait(std::chrono::milliseconds patience) {
  if (!eventually([this] { return !isRunning(); }, patience)) {
    throw Error("the program does not end");
  }
  int status = 0;
  waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int RunningProgram::stop(int signalNumber) {
  kill(pid_, signalNumber);
  return wait();
}

Program::Program(std::vector<std::string> commandLine) : commandLine_(std::move(commandLine)) {}

Program& Program::withEnvironment(const std::string& name, const std::string& value) {
  set_.emplace_back(name, value);
  return *this;
}

Program& Program::withoutEnvironment(const std::string& name) {
  unset_.push_back(name);
  return *this;
}

Program& Program::withInput(std::string input) {
  input_ = std::move(input);
  return *this;
}

Program& Program::withTimeout(std::chrono::milliseconds timeout) {
  timeout_ = timeout;
  return *this;
}

Program& Program::withClockSpeed(int speed) {
  clockSpeed_ = speed;
  return *this;
}

Program Program::launchedBy(const std::vector<std::string>& launcher) const {
  Program launched = *this;
  launched.commandLine_.insert(launched.commandLine_.begin(), launcher.begin(), launcher.end());
  return launched;
}

// The descriptors that become the program's first three; a negative one stays as it is.
struct Program::Ends {
  int input;
  int output;
  int errors;
};

pid_t Program::spawn(const Ends& ends) const {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [name, value] : set_) {
    variables[name] = value;
  }
  for (const std::string& name : unset_) {
    variables.erase(name);
  }
  if (clockSpeed_ > 0) {
    variables[kClockSpeedVariable] = std::to_string(clockSpeed_);
    variables["LD_PRELOAD"] = withClockPreloaded(variables["LD_PRELOAD"].c_str());
  }
  std::vector<std::string> environment;
  for (const auto& [name, value] : variables) {
    environment.push_back(name + "=" + value);
  }
  std::vector<std::string> arguments = commandLine_;
  const auto pointersInto = [](std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) {
      pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
  };

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  int target = 0;
  for (const int end : {ends.input, ends.output, ends.errors}) {
    if (end >= 0) {
      posix_spawn_file_actions_adddup2(&actions, end, target);
    }
    ++target;
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid = 0;
  const int failure =
      posix_spawnp(&pid, commandLine_.at(0).c_str(), &actions, nullptr,
                   pointersInto(arguments).data(), pointersInto(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    errno = failure;
    throwErrno("cannot start " + commandLine_[0]);
  }
  return pid;
}

RunningProgram Program::start() const {
  Pipe input;
  Pipe output;
  const pid_t pid = spawn({input.readEnd.number(), output.writeEnd.number(), -1});
  return {pid, input.writeEnd.release(), output.readEnd.release()};
}

Run Program::run() const {
  Pipe input;
  Pipe output;
  Pipe errors;
  const pid_t pid =
      spawn({input.readEnd.number(), output.writeEnd.number(), errors.writeEnd.number()});
  input.readEnd.close();
  output.writeEnd.close();
  errors.writeEnd.close();
  fcntl(input.writeEnd.number(), F_SETFL, O_NONBLOCK);

  const IgnoredPipeSignal ignored;
  Run result;
  const long end = milliseconds() + timeout_.count();
  std::size_t written = 0;
  if (input_.empty()) {
    input.writeEnd.close();
  }
  while (output.readEnd.isOpen() || errors.readEnd.isOpen()) {
    const long left = end - milliseconds();
    if (left <= 0) {
      result.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    // Closed descriptors are negative, which poll skips.
    std::array<pollfd, 3> events = {{{input.writeEnd.number(), POLLOUT, 0},
                                     {output.readEnd.number(), POLLIN, 0},
                                     {errors.readEnd.number(), POLLIN, 0}}};
    if (poll(events.data(), events.size(), static_cast<int>(left)) <= 0) {
      continue;
    }
    if (events[0].revents != 0) {
      writeSome(input.writeEnd, input_, written);
    }
    if (events[1].revents != 0) {
      readSome(output.readEnd, result.output);
    }
    if (events[2].revents != 0) {
      readSome(errors.readEnd, result.errors);
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      throwErrno("lost sight of " + commandLine_[0]);
    }
  }
  if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  } else {
    result.exitStatus = WEXITSTATUS(status);
  }
  return result;
}

}  // namespace mendline::rig
