// stand-in: a process that is what it is told to be. See Process.h and Worker.h, which start it and
// talk to it; it contains nothing of the product. It ends when the test that started it does.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "StandInProtocol.h"

namespace {

using namespace mendline::rig::standin;

constexpr int kKeyProject = 104;
constexpr std::size_t kRecordSize = 80;

struct Refusal {
  std::string reason;
};

void require(bool success, const char* what) {
  if (!success) {
    throw Refusal{std::string(what) + ": " + std::strerror(errno)};
  }
}

unsigned long parseNumber(const std::string& text) {
  return std::strtoul(text.c_str(), nullptr, 10);
}

class StandIn {
 public:
  StandIn() {
    // Opened while still root. Without a name, so that nothing of it can be left behind.
    const int scratch = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (scratch >= 0 && scratch != kScratchFile) {
      dup2(scratch, kScratchFile);
      close(scratch);
    }
  }

  void serve() {
    std::string packet(kLongestPacket, '\0');
    while (true) {
      if (burning_) {
        burnFor(1);
      }
      pollfd channel = {kChannel, POLLIN, 0};
      if (poll(&channel, 1, burning_ ? 0 : -1) <= 0) {
        continue;
      }
      const ssize_t size = recv(kChannel, packet.data(), packet.size(), 0);
      if (size <= 0) {
        return;
      }
      const std::string order = packet.substr(0, static_cast<std::size_t>(size));
      const std::size_t newline = order.find('\n');
      answer(order.substr(0, newline), order.substr(newline + 1));
    }
  }

 private:
  void answer(const std::string& verb, const std::string& payload) {
    std::string reply;
    try {
      reply = kDone + obey(verb, payload);
    } catch (const Refusal& refusal) {
      reply = kRefused + refusal.reason;
    }
    send(kChannel, reply.data(), reply.size(), MSG_NOSIGNAL);
    if (verb == "exit") {
      _exit(0);
    }
  }

  std::string obey(const std::string& verb, const std::string& payload) {
    if (verb == "name") {
      require(prctl(PR_SET_NAME, payload.c_str()) == 0, "prctl");
    } else if (verb == "owner") {
      setOwner(payload);
    } else if (verb == "ignore-sigterm") {
      signal(SIGTERM, SIG_IGN);
    } else if (verb == "burn-on") {
      burning_ = true;
    } else if (verb == "burn") {
      burnFor(static_cast<long>(parseNumber(payload)));
    } else if (verb == "write") {
      writeScratch(parseNumber(payload));
    } else if (verb == "read") {
      readScratch(parseNumber(payload));
    } else if (verb == "children") {
      return forkChildren(parseNumber(payload));
    } else if (verb == "attach") {
      attach(payload);
    } else if (verb == "put") {
      const std::size_t newline = payload.find('\n');
      std::memcpy(recordAt(payload.substr(0, newline)), payload.data() + newline + 1, kRecordSize);
    } else if (verb == "get") {
      return std::string(recordAt(payload), kRecordSize);
    } else if (verb == "detach") {
      detach();
    } else if (verb != "exit") {
      throw Refusal{"unknown order"};
    }
    return "";
  }

  static void setOwner(const std::string& ids) {
    const auto user = static_cast<uid_t>(parseNumber(ids));
    const auto group = static_cast<gid_t>(parseNumber(ids.substr(ids.find(' ') + 1)));
    require(setgroups(0, nullptr) == 0, "setgroups");
    require(setresgid(group, group, group) == 0, "setresgid");
    require(setresuid(user, user, user) == 0, "setresuid");
    // The /proc files of a process that has changed its owner are root's, until it says that it
    // hides nothing.
    require(prctl(PR_SET_DUMPABLE, 1) == 0, "prctl");
  }

  static void burnFor(long milliseconds) {
    const auto spent = [] {
      timespec time = {};
      clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
      return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
    };
    const long end = spent() + milliseconds;
    while (spent() < end) {
    }
  }

  static void writeScratch(std::uint64_t bytes) {
    const std::string block(64 * 1024, 'w');
    for (std::uint64_t done = 0; done < bytes;) {
      const std::uint64_t size = std::min<std::uint64_t>(block.size(), bytes - done);
      require(write(kScratchFile, block.data(), size) == static_cast<ssize_t>(size), "write");
      done += size;
    }
  }

  static void readScratch(std::uint64_t bytes) {
    std::string block(64 * 1024, '\0');
    require(lseek(kScratchFile, 0, SEEK_SET) == 0, "lseek");
    for (std::uint64_t done = 0; done < bytes;) {
      const std::uint64_t size = std::min<std::uint64_t>(block.size(), bytes - done);
      const ssize_t got = read(kScratchFile, block.data(), size);
      require(got > 0, "read");
      done += static_cast<std::uint64_t>(got);
    }
  }

  // Without exec and without answers of their own: thousands must be quick.
  static std::string forkChildren(unsigned long count) {
    std::vector<pid_t> pids;
    const pid_t parent = getpid();
    while (pids.size() < count) {
      const pid_t child = fork();
      require(child >= 0, "fork");
      if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
          _exit(0);
        }
        // Dumpable is not lost by fork, but the channel must end with the parent.
        close(kChannel);
        while (true) {
          pause();
        }
      }
      pids.push_back(child);
    }
    std::string bytes(pids.size() * sizeof(pid_t), '\0');
    std::memcpy(bytes.data(), pids.data(), bytes.size());
    return bytes;
  }

  void attach(const std::string& keyFile) {
    if (segment_ != nullptr) {
      return;
    }
    const key_t key = ftok(keyFile.c_str(), kKeyProject);
    require(key != -1, "ftok of the key file");
    const int id = shmget(key, 0, 0);
    require(id >= 0, "shmget");
    void* address = shmat(id, nullptr, 0);
    require(address != reinterpret_cast<void*>(-1), "shmat");
    segment_ = static_cast<char*>(address);
    shmid_ds description = {};
    require(shmctl(id, IPC_STAT, &description) == 0, "shmctl");
    size_ = description.shm_segsz;
  }

  void detach() {
    if (segment_ != nullptr) {
      require(shmdt(segment_) == 0, "shmdt");
      segment_ = nullptr;
    }
  }

  char* recordAt(const std::string& index) {
    if (segment_ == nullptr) {
      throw Refusal{"no segment is attached"};
    }
    const long at = std::strtol(index.c_str(), nullptr, 10);
    if (at < 0 || (static_cast<std::size_t>(at) + 1) * kRecordSize > size_) {
      throw Refusal{"record " + index + " lies outside the segment of " + std::to_string(size_) +
                    " bytes"};
    }
    return segment_ + static_cast<std::size_t>(at) * kRecordSize;
  }

  bool burning_ = false;
  char* segment_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace

int main() {
  StandIn().serve();
}
