#include "PrivateHost.h"

#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <utility>

#include "Error.h"
#include "HostPaths.h"

namespace mendline::rig {
namespace {

bool insidePrivateHost() {
  char name[64] = {};
  const char* marker = std::getenv(kMarkerVariable);
  return marker != nullptr && readlink("/proc/self/ns/mnt", name, sizeof name - 1) > 0 &&
         std::strcmp(marker, name) == 0;
}

std::optional<std::string> contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Every name under which scratch files are made, over all PrivateHost objects of the process and of
// its forked copies.
std::string freshScratchName() {
  static unsigned count = 0;
  return std::string(kScratchDirectory) + "/file-" + std::to_string(getpid()) + "-" +
         std::to_string(count++);
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) {
    throwErrno("cannot write " + path);
  }
}

std::string withoutEntry(const std::string& table, const std::string& name) {
  std::istringstream lines(table);
  std::string kept;
  bool found = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name + ":", 0) == 0) {
      found = true;
    } else {
      kept += line + '\n';
    }
  }
  if (!found) {
    throw Error("this private host has no account " + name + " to remove");
  }
  return kept;
}

bool hasEntry(const std::string& table, const std::string& name) {
  return ("\n" + table).find("\n" + name + ":") != std::string::npos;
}

}  // namespace

// What was there before the first change, to be put back in reverse order.
class PrivateHost::Undo {
 public:
  ~Undo() {
    for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
      (*step)();
    }
  }
  Undo() = default;
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;

  void mounted(const std::string& target) {
    steps_.push_back([target] { umount2(target.c_str(), MNT_DETACH); });
  }

  void aboutToReplace(const std::string& path) {
    if (!replaced_.emplace(path, true).second) {
      return;
    }
    steps_.push_back([path, before = contentOf(path)] {
      // Destructors run this: what cannot be put back ends with the private host anyway.
      if (before.has_value()) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << *before;
      } else {
        unlink(path.c_str());
      }
    });
  }

 private:
  std::map<std::string, bool> replaced_;
  std::vector<std::function<void()>> steps_;
};

PrivateHost::PrivateHost() : log_(kLogFile, kLogBackup), undo_(std::make_unique<Undo>()) {
  if (!insidePrivateHost()) {
    throw Error("not inside a private host; start this program as 'private-host PROGRAM'");
  }
}

PrivateHost::~PrivateHost() = default;

bool PrivateHost::isPrivate(const std::string& path) const {
  const auto isBelow = [&](const char* folder) { return path.rfind(folder, 0) == 0; };
  return isBelow("/etc/") || isBelow("/usr/lib/") || isBelow("/var/log/") || isBelow("/run/") ||
         (syntheticProc_ != nullptr && isBelow("/proc/"));
}

void PrivateHost::bind(const std::string& source, const std::string& target) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    throwErrno("cannot lay something over " + target);
  }
  undo_->mounted(target);
}

void PrivateHost::replace(const std::string& path, const std::string& content) {
  undo_->aboutToReplace(path);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const std::string staged = path + ".new";
  writeFile(staged, content);
  if (::rename(staged.c_str(), path.c_str()) != 0) {
    throwErrno("cannot replace " + path);
  }
}

PrivateHost& PrivateHost::withFile(const std::string& path, const std::string& content) {
  if (isPrivate(path)) {
    replace(path, content);
    return *this;
  }
  const std::string source = freshScratchName();
  writeFile(source, content);
  bind(source, path);
  return *this;
}

PrivateHost& PrivateHost::withProcessFile(pid_t pid, const std::string& entry,
                                          const std::string& content) {
  return withFile("/proc/" + std::to_string(pid) + "/" + entry, content);
}

PrivateHost& PrivateHost::withUnopenable(const std::string& path) {
  // What open refuses even to root: a socket.
  const std::string source = freshScratchName();
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", source.c_str());
  // The interface of sockets is older than inheritance.
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(listener);
    throwErrno("cannot make a socket");
  }
  close(listener);
  bind(source, path);
  return *this;
}

PrivateHost& PrivateHost::withUnreadable(const std::string& path) {
  // The memory of a process opens like a file, and nothing is mapped at its beginning.
  bind(std::string(kTrueProc) + "/self/mem", path);
  return *this;
}

PrivateHost& PrivateHost::without(const std::string& path) {
  if (!isPrivate(path)) {
    throw Error(path + " cannot be removed here; use withUnopenable, or a synthetic /proc");
  }
  struct stat attributes = {};
  if (lstat(path.c_str(), &attributes) == 0 && S_ISREG(attributes.st_mode)) {
    undo_->aboutToReplace(path);
  }
  std::error_code failure;
  std::filesystem::remove_all(path, failure);
  if (failure) {
    throw Error("cannot remove " + path + ": " + failure.message());
  }
  return *this;
}

PrivateHost& PrivateHost::withConfig(const std::string& text) {
  return withFile(kConfigFile, text);
}

PrivateHost& PrivateHost::withoutConfig() {
  return without(kConfigFile);
}

PrivateHost& PrivateHost::withUser(const std::string& name, uid_t uid) {
  const std::string users = contentOf("/etc/passwd").value_or("");
  const std::string groups = contentOf("/etc/group").value_or("");
  const std::string id = std::to_string(uid);
  const std::string others = hasEntry(users, name) ? withoutEntry(users, name) : users;
  replace("/etc/passwd", others + name + ":x:" + id + ":" + id + "::/:/bin/sh\n");
  const std::string otherGroups = hasEntry(groups, name) ? withoutEntry(groups, name) : groups;
  replace("/etc/group", otherGroups + name + ":x:" + id + ":\n");
  return *this;
}

PrivateHost& PrivateHost::withoutUser(const std::string& name) {
  replace("/etc/passwd", withoutEntry(contentOf("/etc/passwd").value_or(""), name));
  return *this;
}

PrivateHost& PrivateHost::withoutGroup(const std::string& name) {
  replace("/etc/group", withoutEntry(contentOf("/etc/group").value_or(""), name));
  return *this;
}

PrivateHost& PrivateHost::withoutWorkerAccount() {
  return withoutUser(kWorkerAccount).withoutGroup(kWorkerAccount);
}

uid_t PrivateHost::uidOf(const std::string& user) const {
  const passwd* account = getpwnam(user.c_str());
  if (account == nullptr) {
    throw Error("this private host has no user " + user);
  }
  return account->pw_uid;
}

SyntheticProc& PrivateHost::syntheticProc() {
  if (syntheticProc_ == nullptr) {
    const std::string base = freshScratchName();
    // Not make_unique: only a PrivateHost may construct one.
    syntheticProc_.reset(new SyntheticProc(base + "/proc", base + "/staging"));
    bind(base + "/proc", "/proc");
  }
  return *syntheticProc_;
}

PrivateHost& PrivateHost::withUnopenableProc() {
  // A file system in user space whose server has gone answers nothing but ENOTCONN.
  const int server = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (server < 0) {
    throwErrno("cannot open /dev/fuse, which an unopenable /proc needs");
  }
  const std::string settings =
      "fd=" + std::to_string(server) + ",rootmode=40000,user_id=0,group_id=0";
  const int result = mount("private-host", "/proc", "fuse", 0, settings.c_str());
  const int reason = errno;
  close(server);
  if (result != 0) {
    errno = reason;
    throwErrno("cannot mount an unopenable /proc");
  }
  undo_->mounted("/proc");
  return *this;
}

PrivateHost& PrivateHost::withOwnTmp() {
  namespace fs = std::filesystem;
  if (unshare(CLONE_NEWNET) != 0) {
    throwErrno("cannot make a network");
  }
  const std::string program = fs::read_symlink(std::string(kTrueProc) + "/self/exe").string();
  std::string kept;
  const std::string aside = std::string(kScratchDirectory) + "/kept-tmp";
  if (program.rfind("/tmp/", 0) == 0) {
    kept = program.substr(0, program.find('/', 5));
    fs::create_directories(aside);
    bind(kept, aside);
  }
  if (mount("private-host", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
    throwErrno("cannot mount a tmpfs on /tmp");
  }
  undo_->mounted("/tmp");
  if (!kept.empty()) {
    fs::create_directories(kept);
    bind(aside, kept);
  }
  return *this;
}

PrivateHost& PrivateHost::withSegmentLimit(int count) {
  const std::string path = std::string(kTrueProc) + "/sys/kernel/shmmni";
  undo_->aboutToReplace(path);
  std::ofstream limit(path);
  limit << count << std::flush;
  if (!limit) {
    throwErrno("cannot limit the number of segments");
  }
  return *this;
}

Process PrivateHost::idleProcesses(int count) const {
  return process("idle").withIdleChildren(count - 1).start();
}

ProcessBuilder PrivateHost::xServer(const std::string& display) const {
  return process("Xorg").withArguments({"Xorg", display, "-config", kXConfigFile});
}

Worker PrivateHost::worker(int lowestDisplay) const {
  return Worker(process("FlareWorker").ownedBy(kWorkerAccount).start(), lowestDisplay);
}

Program PrivateHost::program(std::vector<std::string> commandLine) const {
  return Program(std::move(commandLine));
}

}  // namespace mendline::rig
