#include "Process.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "Error.h"
#include "Eventually.h"
#include "HostPaths.h"
#include "StandInProtocol.h"
#include "Worker.h"

namespace mendline::rig {
namespace {

constexpr int kAnswerSeconds = 30;

std::string readProcFile(pid_t pid, const char* entry) {
  const std::string path = std::string(kTrueProc) + "/" + std::to_string(pid) + "/" + entry;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file || text.str().empty()) {
    throw Error("cannot read " + path);
  }
  return text.str();
}

// The column of a stat line, counted from 1 as proc(5) does; the name in column 2 may hold
// anything, so only columns behind it can be asked for.
std::string statColumn(const std::string& line, int column) {
  std::istringstream rest(line.substr(line.rfind(')') + 1));
  std::string word;
  for (int at = 3; at <= column; ++at) {
    rest >> word;
  }
  return word;
}

std::uint64_t statNumber(const std::string& line, int column) {
  return std::stoull(statColumn(line, column));
}

// Puts bytes on disk on behalf of a stand-in, so that it can read them without having written.
void fillScratch(pid_t pid, std::uint64_t bytes) {
  const std::string path = std::string(kTrueProc) + "/" + std::to_string(pid) + "/fd/" +
                           std::to_string(standin::kScratchFile);
  const int file = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (file < 0) {
    throwErrno("cannot open the scratch file of process " + std::to_string(pid));
  }
  const std::string block(64 * 1024, 'r');
  for (std::uint64_t done = 0; done < bytes;) {
    const std::uint64_t size = std::min<std::uint64_t>(block.size(), bytes - done);
    if (::write(file, block.data(), size) != static_cast<ssize_t>(size)) {
      close(file);
      throwErrno("cannot fill a scratch file");
    }
    done += size;
  }
  // Out of the page cache, so that reading it reaches the disk.
  fsync(file);
  posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  close(file);
}

std::vector<char*> pointersInto(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& text : strings) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

Channel::Channel(Channel&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

Channel& Channel::operator=(Channel&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

Channel::~Channel() {
  close();
}

void Channel::close() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
    descriptor_ = -1;
  }
}

std::string Channel::request(const std::string& verb, const std::string& payload) const {
  const std::string order = verb + '\n' + payload;
  if (::send(descriptor_, order.data(), order.size(), MSG_NOSIGNAL) < 0) {
    throwErrno("stand-in does not take the order '" + verb + "'");
  }
  std::string answer(standin::kLongestPacket, '\0');
  const ssize_t size = recv(descriptor_, answer.data(), answer.size(), 0);
  if (size <= 0) {
    throw Error("stand-in did not answer the order '" + verb +
                "': " + (size == 0 ? "it has ended" : std::strerror(errno)));
  }
  answer.resize(static_cast<std::size_t>(size));
  if (answer[0] != standin::kDone) {
    throw Error("stand-in cannot carry out '" + verb + "': " + answer.substr(1));
  }
  return answer.substr(1);
}

Process::Process(Process&& other) noexcept
    : pid_(std::exchange(other.pid_, 0)),
      channel_(std::move(other.channel_)),
      children_(std::move(other.children_)) {}

Process& Process::operator=(Process&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(channel_, other.channel_);
  std::swap(children_, other.children_);
  return *this;
}

Process::~Process() {
  stop();
}

std::string Process::stat() const {
  return readProcFile(pid_, "stat");
}
std::string Process::io() const {
  return readProcFile(pid_, "io");
}
std::uint64_t Process::startTime() const {
  return statNumber(stat(), 22);
}
char Process::state() const {
  return statColumn(stat(), 3).at(0);
}

std::uint64_t Process::cpuTicks() const {
  const std::string line = stat();
  return statNumber(line, 14) + statNumber(line, 15);
}

void Process::rename(const std::string& name) {
  channel_.request("name", name);
}

void Process::burn(std::chrono::milliseconds cpuTime) {
  channel_.request("burn", std::to_string(cpuTime.count()));
}

void Process::write(std::uint64_t bytes) {
  channel_.request("write", std::to_string(bytes));
}

void Process::read(std::uint64_t bytes) {
  fillScratch(pid_, bytes);
  channel_.request("read", std::to_string(bytes));
}

void Process::send(int signalNumber) const {
  if (kill(pid_, signalNumber) != 0) {
    throwErrno("cannot send a signal to process " + std::to_string(pid_));
  }
}

bool Process::isRunning() const {
  siginfo_t ended = {};
  return pid_ > 0 &&
         waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         ended.si_pid == 0;
}

void Process::stop() {
  if (pid_ <= 0) {
    return;
  }
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  channel_.close();
  // They die with their parent, and the first process of the private host reaps them.
  for (const pid_t child : children_) {
    eventually([child] { return kill(child, 0) != 0; });
  }
  children_.clear();
  pid_ = 0;
}

ProcessBuilder::ProcessBuilder(std::string name) : name_(std::move(name)) {}

ProcessBuilder& ProcessBuilder::ownedBy(const std::string& user) {
  const passwd* account = getpwnam(user.c_str());
  if (account == nullptr) {
    throw Error("this private host has no user " + user);
  }
  return ownedBy(account->pw_uid, account->pw_gid);
}

ProcessBuilder& ProcessBuilder::ownedBy(uid_t user, gid_t group) {
  owner_ = {user, group};
  return *this;
}

ProcessBuilder& ProcessBuilder::withArguments(std::vector<std::string> arguments) {
  arguments_ = std::move(arguments);
  return *this;
}

ProcessBuilder& ProcessBuilder::burningCpu() {
  burning_ = true;
  return *this;
}

ProcessBuilder& ProcessBuilder::havingWritten(std::uint64_t bytes) {
  written_ = bytes;
  return *this;
}

ProcessBuilder& ProcessBuilder::havingRead(std::uint64_t bytes) {
  read_ = bytes;
  return *this;
}

ProcessBuilder& ProcessBuilder::ignoringSigterm() {
  ignoringSigterm_ = true;
  return *this;
}

ProcessBuilder& ProcessBuilder::withIdleChildren(int count) {
  idleChildren_ = count;
  return *this;
}

ProcessBuilder& ProcessBuilder::asZombie() {
  zombie_ = true;
  return *this;
}

Process ProcessBuilder::start() const {
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throwErrno("cannot make a channel");
  }
  Channel channel(ends[0]);
  const timeval patience = {kAnswerSeconds, 0};
  setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], standin::kChannel);
  posix_spawn_file_actions_addclosefrom_np(&actions, standin::kChannel + 1);

  std::vector<std::string> arguments =
      arguments_.has_value() ? *arguments_ : std::vector<std::string>{name_};
  std::vector<std::string> environment;
  pid_t pid = 0;
  const int failure = posix_spawn(&pid, STAND_IN_PROGRAM, &actions, nullptr,
                                  pointersInto(arguments).data(), pointersInto(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (failure != 0) {
    errno = failure;
    throwErrno("cannot start a stand-in");
  }
  // From here on the process is owned: an exception ends it.
  Process process(pid, std::move(channel));
  const Channel& orders = process.channel_;
  if (owner_.has_value()) {
    orders.request("owner", std::to_string(owner_->first) + " " + std::to_string(owner_->second));
  }
  if (ignoringSigterm_) {
    orders.request("ignore-sigterm");
  }
  orders.request("name", name_);
  if (written_ > 0) {
    process.write(written_);
  }
  if (read_ > 0) {
    process.read(read_);
  }
  if (idleChildren_ > 0) {
    const std::string pids = orders.request("children", std::to_string(idleChildren_));
    process.children_.resize(pids.size() / sizeof(pid_t));
    std::memcpy(process.children_.data(), pids.data(), pids.size());
  }
  if (burning_) {
    orders.request("burn-on");
  }
  if (zombie_) {
    orders.request("exit");
    siginfo_t ended = {};
    if (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) != 0) {
      throwErrno("cannot wait for a zombie");
    }
  }
  return process;
}

Worker::Worker(Process process, int lowestDisplay)
    : process_(std::move(process)), lowestDisplay_(lowestDisplay) {}

void Worker::attach() {
  process_.channel_.request("attach", kKeyFile);
}

void Worker::writes(int display, const SessionRecord& record) {
  attach();
  std::string payload(sizeof record, '\0');
  std::memcpy(payload.data(), &record, sizeof record);
  process_.channel_.request("put", std::to_string(indexOf(display)) + "\n" + payload);
}

SessionRecord Worker::reads(int display) {
  attach();
  const std::string bytes = process_.channel_.request("get", std::to_string(indexOf(display)));
  SessionRecord record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

void Worker::detach() {
  process_.channel_.request("detach");
}

}  // namespace mendline::rig
