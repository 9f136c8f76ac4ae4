// private-host: runs one program on a host of its own.
//
// The program sees its own /etc, /usr/lib, /var/log, /run, System V objects and, unless
// --keep-proc is given, processes. Whatever it changes there vanishes with it; the real host is
// never written to. The launcher owns the program: however the launcher ends, the program and all
// its descendants end too (with --keep-proc: those that did not leave the program's family).
//
// Exit status: the program's own; 128 + N when signal N killed it; 77 when this machine does not
// permit a private host; 126 or 127 when the program cannot be executed; 64 for a wrong call.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ClockPreload.h"
#include "HostPaths.h"

namespace {

using namespace mendline::rig;

constexpr int kWrongCall = 64;
constexpr int kNotPermitted = 77;
constexpr int kCannotExecute = 126;
constexpr int kNotFound = 127;

struct Account {
  std::string name;
  unsigned long uid = 0;
};

struct Options {
  bool keepProcesses = false;
  bool workerAccount = true;
  std::vector<Account> accounts;
  std::string clockSpeed;
  std::vector<char*> program;  // ends in a null pointer
};

[[noreturn]] void quit(int status, const std::string& message) {
  std::fprintf(stderr, "private-host: %s\n", message.c_str());
  std::exit(status);
}

[[noreturn]] void notPermitted(const std::string& what) {
  quit(kNotPermitted, what + ": " + std::strerror(errno));
}

[[noreturn]] void showUsage(const std::string& complaint) {
  quit(kWrongCall,
       complaint +
           "\nusage: private-host [--user NAME:UID]... [--no-worker-account] [--keep-proc]\n"
           "                    [--clock-speed N] [--] PROGRAM [ARGUMENT]...");
}

Account parseAccount(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0) {
    showUsage("--user takes NAME:UID, not '" + text + "'");
  }
  char* end = nullptr;
  const std::string number = text.substr(colon + 1);
  const unsigned long uid = std::strtoul(number.c_str(), &end, 10);
  if (number.empty() || *end != '\0') {
    showUsage("--user takes NAME:UID, not '" + text + "'");
  }
  return {text.substr(0, colon), uid};
}

Options parse(int argc, char** argv) {
  Options options;
  int next = 1;
  const auto valueOf = [&](const std::string& option) -> std::string {
    if (next + 1 >= argc) {
      showUsage(option + " needs a value");
    }
    return argv[++next];
  };
  for (; next < argc; ++next) {
    const std::string word = argv[next];
    if (word == "--") {
      ++next;
      break;
    }
    if (word.empty() || word[0] != '-') {
      break;
    }
    if (word == "--user") {
      options.accounts.push_back(parseAccount(valueOf(word)));
    } else if (word == "--no-worker-account") {
      options.workerAccount = false;
    } else if (word == "--keep-proc") {
      options.keepProcesses = true;
    } else if (word == "--clock-speed") {
      options.clockSpeed = valueOf(word);
    } else {
      showUsage("unknown option '" + word + "'");
    }
  }
  if (next >= argc) {
    showUsage("no program given");
  }
  options.program.assign(argv + next, argv + argc);
  options.program.push_back(nullptr);
  return options;
}

void makeDirectories(const std::string& path) {
  std::error_code failure;
  std::filesystem::create_directories(path, failure);
  if (failure) {
    quit(kNotPermitted, "cannot create " + path + ": " + failure.message());
  }
}

void write(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) {
    notPermitted("cannot write " + path);
  }
}

void mountTmpfs(const char* target) {
  if (mount("private-host", target, "tmpfs", 0, "mode=755") != 0) {
    notPermitted(std::string("cannot mount a tmpfs on ") + target);
  }
}

std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool mountOverlay(const std::string& target, const std::string& name) {
  const std::string base = std::string(kScratchDirectory) + "/overlay/" + name;
  makeDirectories(base + "/upper");
  makeDirectories(base + "/work");
  const std::string settings =
      "lowerdir=" + target + ",upperdir=" + base + "/upper,workdir=" + base + "/work";
  return mount("private-host", target.c_str(), "overlay", 0, settings.c_str()) == 0;
}

void bindMount(const std::string& source, const std::string& target) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    notPermitted("cannot show " + source + " at " + target);
  }
}

// A fresh folder that shows every entry of the real one, read-only.
void coverWithEntries(const std::string& target, const std::string& name) {
  namespace fs = std::filesystem;
  const std::string original = std::string(kScratchDirectory) + "/original/" + name;
  makeDirectories(original);
  bindMount(target, original);
  if (mount(nullptr, original.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
    notPermitted("cannot make " + original + " read-only");
  }
  mountTmpfs(target.c_str());
  for (const fs::directory_entry& entry : fs::directory_iterator(original)) {
    const std::string place = target + "/" + entry.path().filename().string();
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), place);
    } else if (entry.is_directory()) {
      makeDirectories(place);
      bindMount(entry.path().string(), place);
    } else if (place == "/etc/passwd" || place == "/etc/group" || place == "/etc/nsswitch.conf") {
      // These are rewritten, and a mounted file could not be replaced.
      fs::copy_file(entry.path(), place);
    } else {
      write(place, "");
      bindMount(entry.path().string(), place);
    }
  }
}

// Whether an overlay would hide something: it does not show what is mounted below its lower folder.
bool hasMountsBelow(const std::string& target) {
  std::istringstream mounts(readAll("/proc/self/mounts"));
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream columns(line);
    std::string source;
    std::string place;
    columns >> source >> place;
    if (place.rfind(target + "/", 0) == 0 && place != target + "/norvane") {
      return true;
    }
  }
  return false;
}

// Overlayfs may be missing, may be forbidden in a container and stacks two deep at most.
void makeWritable(const std::string& target, const std::string& name) {
  if (hasMountsBelow(target) || !mountOverlay(target, name)) {
    coverWithEntries(target, name);
  }
}

// Accounts come from files alone and from none of the real host's, unless its real processes are
// to be shown: then their owners keep their names.
void writeAccounts(const Options& options) {
  std::string users = options.keepProcesses ? readAll("/etc/passwd")
                                            : "root:x:0:0:root:/root:/bin/sh\n"
                                              "daemon:x:1:1:daemon:/usr/sbin:/usr/sbin/nologin\n"
                                              "nobody:x:65534:65534:nobody:/:/usr/sbin/nologin\n";
  std::string groups = options.keepProcesses ? readAll("/etc/group")
                                             : "root:x:0:\n"
                                               "daemon:x:1:\n"
                                               "nogroup:x:65534:\n";
  std::vector<Account> accounts = options.accounts;
  if (!options.keepProcesses) {
    accounts.insert(accounts.begin(),
                    {{"alice", 2001}, {"bob", 2002}, {"carol", 2003}, {"dave", 2004}});
  }
  if (options.workerAccount) {
    accounts.push_back({kWorkerAccount, kWorkerUid});
  }
  const auto has = [](const std::string& table, const std::string& name) {
    return ("\n" + table).find("\n" + name + ":") != std::string::npos;
  };
  for (const Account& account : accounts) {
    const std::string id = std::to_string(account.uid);
    if (!has(users, account.name)) {
      users += account.name + ":x:" + id + ":" + id + "::/:/bin/sh\n";
    }
    if (!has(groups, account.name)) {
      groups += account.name + ":x:" + id + ":\n";
    }
  }
  write("/etc/passwd", users);
  write("/etc/group", groups);
  write("/etc/nsswitch.conf", "passwd: files\ngroup: files\nshadow: files\nhosts: files dns\n");
}

void makePrivate(const Options& options) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    notPermitted("cannot make the mounts private");
  }
  // Hides the sockets of name-service daemons too, which would answer for the real host.
  mountTmpfs("/run");
  makeDirectories("/run/lock");
  makeDirectories(kTrueProc);
  makeWritable("/etc", "etc");
  makeWritable("/usr/lib", "usr-lib");
  writeAccounts(options);
  makeDirectories(kConfigDirectory);
  mountTmpfs(kConfigDirectory);
  makeDirectories(kProductDirectory);
  mountTmpfs(kProductDirectory);
  makeDirectories(kKeyDirectory);
  makeDirectories(kXConfigDirectory);
  write(kXConfigFile, "# stand-in\n");
  mountTmpfs("/var/log");
  makeDirectories(kLogDirectory);
  if (!options.keepProcesses && mount("proc", "/proc", "proc", 0, nullptr) != 0) {
    notPermitted("cannot mount a private /proc");
  }
  if (mount("/proc", kTrueProc, nullptr, MS_BIND, nullptr) != 0) {
    notPermitted("cannot mount a second /proc");
  }
}

std::string mountNamespace() {
  char name[64] = {};
  if (readlink("/proc/self/ns/mnt", name, sizeof name - 1) < 0) {
    notPermitted("cannot read the name of the mount namespace");
  }
  return name;
}

[[noreturn]] void become(const Options& options) {
  setenv(kMarkerVariable, mountNamespace().c_str(), 1);
  if (!options.clockSpeed.empty()) {
    setenv(kClockSpeedVariable, options.clockSpeed.c_str(), 1);
  }
  if (getenv(kClockSpeedVariable) != nullptr || getenv(kGettimeofdayVariable) != nullptr) {
    setenv("LD_PRELOAD", withClockPreloaded(getenv("LD_PRELOAD")).c_str(), 1);
  }
  // The thread sanitizer of gcc 12 cannot place its shadow memory where a kernel randomises
  // addresses by more than 28 bits; and addresses that repeat make failures repeat.
  personality(ADDR_NO_RANDOMIZE);
  execvp(options.program[0], options.program.data());
  const int reason = errno;
  std::fprintf(stderr, "private-host: cannot execute %s: %s\n", options.program[0],
               std::strerror(reason));
  _exit(reason == ENOENT ? kNotFound : kCannotExecute);
}

// Only needed where the program's family has no process namespace that ends with it.
void killFamily() {
  const std::string children = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  while (true) {
    std::istringstream list(readAll(children));
    for (pid_t child = 0; list >> child;) {
      kill(child, SIGKILL);
    }
    if (waitpid(-1, nullptr, 0) < 0 && errno == ECHILD) {
      return;
    }
  }
}

int waitFor(pid_t program, const char* name) {
  int status = 0;
  while (true) {
    const pid_t ended = waitpid(-1, &status, 0);
    if (ended == program) {
      break;
    }
    if (ended < 0 && errno != EINTR) {
      quit(kNotPermitted, std::string("lost sight of the program: ") + std::strerror(errno));
    }
  }
  if (WIFSIGNALED(status)) {
    const int signalNumber = WTERMSIG(status);
    std::fprintf(stderr, "private-host: %s was killed by signal %d (%s)\n", name, signalNumber,
                 strsignal(signalNumber));
    return 128 + signalNumber;
  }
  return WEXITSTATUS(status);
}

// The first process of the private host: sets it up, starts the program, reaps orphans.
[[noreturn]] void runInside(const Options& options, int launcherAlive) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The launcher may have died before that request; then nobody holds the pipe's other end.
  pollfd pipeEnd = {launcherAlive, POLLIN, 0};
  if (poll(&pipeEnd, 1, 0) > 0) {
    _exit(kNotPermitted);
  }
  if (options.keepProcesses) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
  }
  makePrivate(options);
  const pid_t program = fork();
  if (program < 0) {
    notPermitted("cannot fork");
  }
  if (program == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    become(options);
  }
  const int status = waitFor(program, options.program[0]);
  if (options.keepProcesses) {
    killFamily();
  }
  std::exit(status);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  if (geteuid() != 0) {
    quit(kNotPermitted,
         "needs root, to make namespaces and mount over /etc, /usr/lib, /proc and /var/log for "
         "this one program. Run it with sudo, or as root of a container started with "
         "'--privileged'.");
  }
  const int namespaces = CLONE_NEWNS | CLONE_NEWIPC | (options.keepProcesses ? 0 : CLONE_NEWPID);
  if (unshare(namespaces) != 0) {
    quit(kNotPermitted, std::string("cannot make namespaces: ") + std::strerror(errno) +
                            ". Inside a container, start the container with '--privileged'.");
  }
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    notPermitted("cannot make a pipe");
  }
  std::fflush(nullptr);
  const pid_t first = fork();
  if (first < 0) {
    notPermitted("cannot fork");
  }
  if (first == 0) {
    close(ends[1]);
    runInside(options, ends[0]);
  }
  close(ends[0]);
  int status = 0;
  while (waitpid(first, &status, 0) < 0) {
    if (errno != EINTR) {
      notPermitted("lost sight of the private host");
    }
  }
  if (WIFSIGNALED(status)) {
    quit(128 + WTERMSIG(status), "the private host was killed from outside");
  }
  return WEXITSTATUS(status);
}
