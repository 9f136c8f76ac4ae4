// The launcher, tested from inside a private host: it makes hosts within hosts just as well.
#include <pwd.h>
#include <signal.h>
#include <sys/personality.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "Error.h"
#include "Eventually.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"

using namespace mendline;

namespace {

rig::Run launch(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), PRIVATE_HOST_PROGRAM);
  return rig::Program(std::move(arguments)).run();
}

rig::Run shell(const std::string& script) {
  return launch({"--", "/bin/sh", "-c", script});
}

std::string readAll(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(Launcher, PassesTheStatusOn) {
  EXPECT_EQ(shell("exit 0").exitStatus, 0);
  EXPECT_EQ(shell("exit 42").exitStatus, 42);
}

TEST(Launcher, ReportsADeathBySignal) {
  const rig::Run run = shell("kill -TERM $$");
  EXPECT_EQ(run.exitStatus, 128 + SIGTERM);
  EXPECT_NE(run.errors.find("signal 15"), std::string::npos) << run.errors;
}

TEST(Launcher, PassesInputOutputAndArgumentsOn) {
  const rig::Run run = rig::Program({PRIVATE_HOST_PROGRAM, "/bin/sh", "-c",
                                     "cat; printf '[%s]' \"$@\" >&2", "sh", "", "a b", "--user"})
                           .withInput("text")
                           .run();
  EXPECT_EQ(run.output, "text");
  EXPECT_EQ(run.errors, "[][a b][--user]");
}

TEST(Launcher, SaysWhatCannotBeExecuted) {
  const rig::Run missing = launch({"--", "/no/such/program"});
  EXPECT_EQ(missing.exitStatus, 127);
  EXPECT_NE(missing.errors.find("/no/such/program"), std::string::npos) << missing.errors;
  EXPECT_EQ(launch({"--", "/etc/passwd"}).exitStatus, 126);
}

TEST(Launcher, RefusesAWrongCall) {
  EXPECT_EQ(launch({}).exitStatus, 64);
  EXPECT_EQ(launch({"--frobnicate", "--", "/bin/true"}).exitStatus, 64);
  EXPECT_EQ(launch({"--user", "nonumber", "--", "/bin/true"}).exitStatus, 64);
  EXPECT_EQ(launch({"--user"}).exitStatus, 64);
}

TEST(Launcher, NeedsRoot) {
  const rig::Run run = rig::Program({"/usr/bin/setpriv", "--reuid=2001", "--regid=2001",
                                     "--clear-groups", PRIVATE_HOST_PROGRAM, "/bin/true"})
                           .run();
  EXPECT_EQ(run.exitStatus, 77) << run.errors;
  EXPECT_NE(run.errors.find("root"), std::string::npos) << run.errors;
}

TEST(Launcher, MakesTheProductsFolders) {
  const rig::Run run = shell(
      "ls -d /var/log/norvane /etc/norvane /usr/lib/norvane/tarnhost/mendline "
      "/usr/lib/norvane/tarnhost/resources/X11");
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
}

TEST(Launcher, HasAccountsOfItsOwn) {
  ASSERT_EQ(setenv("LC_ALL", "C", 1), 0);  // id speaks the language of whoever runs the tests
  const rig::Run run = launch({"--user", "erin:3001", "--", "/usr/bin/id", "erin"});
  EXPECT_EQ(run.output, "uid=3001(erin) gid=3001(erin) groups=3001(erin)\n") << run.errors;
  EXPECT_EQ(shell("id -u qrsflare").output, "6104\n");
  EXPECT_NE(launch({"--no-worker-account", "--", "/usr/bin/id", "qrsflare"}).exitStatus, 0);
}

TEST(Launcher, ShowsNoProcessButItsOwn) {
  // The first process, the shell and ls.
  const rig::Run run = shell("ls /proc | grep -c '^[0-9]*$'; exit $?");
  EXPECT_LE(std::stoi(run.output), 4) << run.output;
  EXPECT_GE(std::stoi(run.output), 2) << run.output;
}

TEST(Launcher, KeepsTheProcessesIfAsked) {
  rig::PrivateHost host;
  rig::Process process = host.process("xedit").ownedBy("alice").start();
  const std::string pid = std::to_string(process.pid());
  const std::string script =
      "cat /proc/" + pid + "/comm; id -un 2001; id -un 6104; ls /etc/norvane";
  const rig::Run run = launch({"--keep-proc", "--", "/bin/sh", "-c", script});
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.output, "xedit\nalice\nqrsflare\n");
}

TEST(Launcher, EndsWhatTheProgramLeavesBehind) {
  for (const char* option : {"--keep-proc", "--no-worker-account"}) {
    const std::string mark = "987654.25";
    const rig::Run run = launch(
        {option, "--", "/bin/sh", "-c", "(setsid sleep " + mark + " >/dev/null 2>&1 &) ; exit 3"});
    EXPECT_EQ(run.exitStatus, 3);
    EXPECT_EQ(
        rig::Program({"/bin/sh", "-c", "grep -lzx " + mark + " /proc/[0-9]*/cmdline"}).run().output,
        "")
        << option;
  }
}

TEST(Launcher, TakesTheHostDownWhenKilled) {
  rig::PrivateHost host;
  // Each writes a byte when it is up; the descriptor closes when the last of them has ended.
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe(ends), 0);
  const pid_t launcher = fork();
  if (launcher == 0) {
    dup2(ends[1], 1);
    close(ends[0]);
    close(ends[1]);
    execl(PRIVATE_HOST_PROGRAM, PRIVATE_HOST_PROGRAM, "/bin/sh", "-c",
          "(setsid sh -c 'echo; exec sleep 1000' &); sleep 1000", nullptr);
    _exit(127);
  }
  close(ends[1]);
  char byte = 0;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);
  kill(launcher, SIGKILL);
  int status = 0;
  waitpid(launcher, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "somebody still holds the pipe";
  close(ends[0]);
}

TEST(Launcher, LeavesNothingBehind) {
  const std::string mounts = readAll("/proc/self/mounts");
  const std::string passwd = readAll("/etc/passwd");
  const rig::Run run = shell(
      "echo x > /etc/norvane/config; echo x >> /etc/passwd; echo x > /usr/lib/norvane/new; "
      "echo x > /var/log/norvane/new; echo x > /run/new; ipcmk -M 4096");
  ASSERT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(readAll("/proc/self/mounts"), mounts);
  EXPECT_EQ(readAll("/etc/passwd"), passwd);
  for (const char* path :
       {"/etc/norvane/config", "/usr/lib/norvane/new", "/var/log/norvane/new", "/run/new"}) {
    EXPECT_NE(access(path, F_OK), 0) << path;
  }
  EXPECT_TRUE(rig::segments().empty());
}

TEST(Launcher, WorksWhereOverlaysStackNoDeeper) {
  // This test's own host is the first level; overlayfs gives up at the third at the latest.
  const std::string passwd = readAll("/etc/passwd");
  const rig::Run run = launch(
      {PRIVATE_HOST_PROGRAM, PRIVATE_HOST_PROGRAM, "--user", "erin:3001", "--", "/bin/sh", "-c",
       "grep -E ' /(etc|usr/lib) ' /proc/mounts | tail -n 2 | cut -d ' ' -f 3; id -u erin; "
       "id -u qrsflare; ls -d /usr/lib/norvane/tarnhost/mendline && ls /etc/ld.so.cache && "
       "echo x > /etc/norvane/config && mv /etc/norvane/config /etc/new && "
       "cp /etc/passwd /etc/p && mv /etc/p /etc/passwd"});
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.output,
            "tmpfs\ntmpfs\n3001\n6104\n/usr/lib/norvane/tarnhost/mendline\n/etc/ld.so.cache\n");
  EXPECT_EQ(readAll("/etc/passwd"), passwd);
  EXPECT_NE(launch({PRIVATE_HOST_PROGRAM, PRIVATE_HOST_PROGRAM, "--", "/bin/sh", "-c",
                    "echo x >> /etc/ld.so.cache"})
                .exitStatus,
            0)
      << "a file of the real host could be written";
}

TEST(Launcher, FixesAddresses) {
  EXPECT_NE(personality(0xffffffff) & ADDR_NO_RANDOMIZE, 0);
  const std::string script = "grep -m1 stack /proc/self/maps";
  EXPECT_EQ(shell(script).output, shell(script).output);
}

TEST(Launcher, PreloadsTheClockOnRequest) {
  const std::string script = "echo $MENDLINE_CLOCK_SPEED; grep -c tick-clock /proc/self/maps";
  const rig::Run quick = launch({"--clock-speed", "60", "--", "/bin/sh", "-c", script});
  ASSERT_EQ(quick.outputLines().size(), 2U) << quick.errors;
  EXPECT_EQ(quick.outputLines()[0], "60");
  EXPECT_GT(std::stoi(quick.outputLines()[1]), 0);
  EXPECT_EQ(shell(script).output, "\n0\n");
}

TEST(Launcher, IsMarkedForThisHostAlone) {
  rig::PrivateHost inside;
  const char* marker = std::getenv(rig::kMarkerVariable);
  ASSERT_NE(marker, nullptr);
  const std::string mine = marker;
  setenv(rig::kMarkerVariable, "mnt:[1]", 1);
  EXPECT_THROW(rig::PrivateHost(), rig::Error);
  unsetenv(rig::kMarkerVariable);
  EXPECT_THROW(rig::PrivateHost(), rig::Error);
  setenv(rig::kMarkerVariable, mine.c_str(), 1);
}

}  // namespace
