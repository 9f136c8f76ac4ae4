// The host a test describes: its files, accounts, processes and the product's log.
//
// For programs started by the launcher `private-host`; anywhere else the constructor throws Error,
// so that no test can change a real host. What a test changes through a PrivateHost is undone when
// that goes; processes belong to their own handles. Every function throws Error when the operating
// system refuses; the with-functions may be called again to change the host under way.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "Log.h"
#include "Process.h"
#include "Program.h"
#include "SyntheticProc.h"
#include "Worker.h"

namespace mendline::rig {

class PrivateHost {
 public:
  PrivateHost();
  ~PrivateHost();
  PrivateHost(const PrivateHost&) = delete;
  PrivateHost& operator=(const PrivateHost&) = delete;

  // Any existing file shows this content instead; below /etc, /usr/lib, /var/log, /run and a
  // synthetic /proc it need not exist. A reader sees the old content or the new one, whole.
  PrivateHost& withFile(const std::string& path, const std::string& content);
  PrivateHost& withProcStat(const std::string& text) { return withFile("/proc/stat", text); }
  PrivateHost& withDiskstats(const std::string& text) { return withFile("/proc/diskstats", text); }
  PrivateHost& withMeminfo(const std::string& text) { return withFile("/proc/meminfo", text); }
  // A file of a real process, such as "stat", "io" or "cmdline".
  PrivateHost& withProcessFile(pid_t pid, const std::string& entry, const std::string& content);
  // The file is there, but open fails with ENXIO, for root too.
  PrivateHost& withUnopenable(const std::string& path);
  // The file can be opened, but reading it fails with EIO.
  PrivateHost& withUnreadable(const std::string& path);
  // No such file or folder. Only where withFile may create one.
  PrivateHost& without(const std::string& path);

  PrivateHost& withConfig(const std::string& text);
  PrivateHost& withoutConfig();

  // Accounts come with a group of the same name and number. A private host starts with root,
  // daemon, nobody, alice, bob, carol, dave and the worker's account.
  PrivateHost& withUser(const std::string& name, uid_t uid);
  PrivateHost& withoutUser(const std::string& name);  // its group stays
  PrivateHost& withoutGroup(const std::string& name);
  PrivateHost& withoutWorkerAccount();  // neither user nor group
  uid_t uidOf(const std::string& user) const;

  // Replaces all of /proc by invented processes. The same object on every call.
  SyntheticProc& syntheticProc();
  // /proc is there, but opening it fails with ENOTCONN. Lasts until the host goes.
  PrivateHost& withUnopenableProc();

  // An empty /tmp, and a network of its own for this process and what it starts from now on: so
  // that servers whose sockets have well-known names can run. The folder below /tmp that holds this
  // program, if it does, is still there.
  PrivateHost& withOwnTmp();

  // At most this many System V segments may exist; the next shmget fails with ENOSPC.
  PrivateHost& withSegmentLimit(int count);

  ProcessBuilder process(const std::string& name) const { return ProcessBuilder(name); }
  // A process with one child less than this many: as many processes in all.
  Process idleProcesses(int count) const;
  // An X server with the command line of a session's; root's, unless told otherwise.
  ProcessBuilder xServer(const std::string& display) const;
  Worker worker(int lowestDisplay = 100) const;

  Program program(std::vector<std::string> commandLine) const;

  // From the start of the private host on, or from the last Log::clear.
  Log& log() { return log_; }

 private:
  class Undo;

  bool isPrivate(const std::string& path) const;
  void bind(const std::string& source, const std::string& target);
  void replace(const std::string& path, const std::string& content);

  Log log_;
  std::unique_ptr<SyntheticProc> syntheticProc_;
  std::unique_ptr<Undo> undo_;
};

}  // namespace mendline::rig
