// The population of a benchmark: many real, idle processes of several users.
//
// For programs started by the launcher `private-host`; anywhere else the constructor throws
// rig::Error, so that no real host is filled with processes.
#pragma once

#include <sys/types.h>

#include <memory>
#include <vector>

namespace mendline::rig {
class PrivateHost;
}

namespace mendline::bench {

// N real idle processes of this PID namespace, spread over 20 users with accounts in the private
// /etc/passwd. Owns both: the processes are killed and reaped, and the accounts removed, when this
// goes. All processes are there, and their users', once the constructor is through; it throws
// rig::Error when the machine does not let that many live.
class Crowd {
 public:
  explicit Crowd(int processes);
  ~Crowd();
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  const std::vector<pid_t>& pids() const { return pids_; }

 private:
  void end();

  std::unique_ptr<rig::PrivateHost> host_;
  std::vector<pid_t> pids_;
};

}  // namespace mendline::bench
