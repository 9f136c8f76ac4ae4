// Real processes that look exactly as a test wants them to, played by the helper program
// `stand-in`.
//
// A Process owns its process and that process's idle children: all of them are killed and reaped
// when it goes. Every order returns once it has been carried out; Error is thrown where it cannot.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mendline::rig {

// A sequenced-packet socket to a stand-in; owns the descriptor.
class Channel {
 public:
  explicit Channel(int descriptor) : descriptor_(descriptor) {}
  Channel(Channel&& other) noexcept;
  Channel& operator=(Channel&& other) noexcept;
  ~Channel();

  // Sends an order and returns the answer; throws Error with the reason if it was refused.
  std::string request(const std::string& verb, const std::string& payload = "") const;
  void close();

 private:
  int descriptor_;
};

class Process {
 public:
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;
  ~Process();

  pid_t pid() const { return pid_; }
  // The processes made by ProcessBuilder::withIdleChildren.
  const std::vector<pid_t>& children() const { return children_; }

  // Columns of the true /proc/<pid>/stat, whatever a test shows instead.
  std::string stat() const;
  std::uint64_t startTime() const;  // clock ticks since boot
  std::uint64_t cpuTicks() const;   // user and system time together
  char state() const;
  // The true /proc/<pid>/io.
  std::string io() const;

  void rename(const std::string& name);
  // Spends CPU time of at least this much, by the kernel's own account.
  void burn(std::chrono::milliseconds cpuTime);
  // Writes to or reads from a file in /tmp. Reaches the disk if /tmp lies on one.
  void write(std::uint64_t bytes);
  void read(std::uint64_t bytes);

  void send(int signalNumber) const;
  // Also false for a zombie.
  bool isRunning() const;
  // Kills and reaps; the process id is free then. May be called again.
  void stop();

 private:
  friend class ProcessBuilder;
  friend class Worker;
  Process(pid_t pid, Channel channel) : pid_(pid), channel_(std::move(channel)) {}

  pid_t pid_;
  Channel channel_;
  std::vector<pid_t> children_;
};

// Describes a process and starts it. Between start and its return the process may be seen under
// another name and as root's.
class ProcessBuilder {
 public:
  // The name may hold any bytes but NUL; the kernel keeps the first 15.
  explicit ProcessBuilder(std::string name);

  ProcessBuilder& ownedBy(const std::string& user);  // with the user's group
  ProcessBuilder& ownedBy(uid_t user, gid_t group);
  // All of the command line, argument 0 included; default: the name alone.
  ProcessBuilder& withArguments(std::vector<std::string> arguments);
  ProcessBuilder& burningCpu();
  ProcessBuilder& havingWritten(std::uint64_t bytes);
  ProcessBuilder& havingRead(std::uint64_t bytes);
  ProcessBuilder& ignoringSigterm();
  // Children of the same name and owner that wait to be killed.
  ProcessBuilder& withIdleChildren(int count);
  // Has ended already, but nobody has asked for its status.
  ProcessBuilder& asZombie();

  Process start() const;

 private:
  std::string name_;
  std::optional<std::pair<uid_t, gid_t>> owner_;
  std::optional<std::vector<std::string>> arguments_;
  bool burning_ = false;
  bool ignoringSigterm_ = false;
  bool zombie_ = false;
  int idleChildren_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t read_ = 0;
};

}  // namespace mendline::rig
