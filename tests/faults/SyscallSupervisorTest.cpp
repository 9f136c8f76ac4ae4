// The supervisor of the rig itself, on programs that everybody knows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include "Error.h"
#include "FailingSyscalls.h"
#include "HostPaths.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

using rig::SupervisedCall;
using rig::SyscallSupervisor;
using rig::Verdict;
using testing::Contains;
using testing::Ge;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kFile = std::string(rig::kScratchDirectory) + "/file";

rig::Program shell(const std::string& script) {
  return rig::Program({"/bin/sh", "-c", script});
}

class SyscallSupervisorOf : public testing::Test {
 protected:
  void SetUp() override { host.withFile(kFile, "text\n"); }

  rig::PrivateHost host;
};

TEST_F(SyscallSupervisorOf, AProgramFailsTheChosenCallsOnly) {
  int opened = 0;
  SyscallSupervisor supervisor([&](const SupervisedCall& call) {
    const bool chosen = call.number == SYS_openat && call.textAt(1) == kFile && ++opened == 2;
    return chosen ? Verdict::fail(EMFILE) : Verdict::goOn();
  });
  rig::RunningProgram program = supervisor.start(
      shell("for i in 1 2 3; do { read line < " + kFile + "; echo $? $line; } 2>&1; done"));
  EXPECT_EQ(program.receive(), "0 text");
  // The shell names the reason.
  EXPECT_THAT(program.receive(), testing::HasSubstr("open files"));
  EXPECT_THAT(program.receive(), testing::HasSubstr("2"));
  EXPECT_EQ(program.receive(), "0 text");
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(SyscallSupervisorOf, AProgramCanPretendThatACallWasMade) {
  SyscallSupervisor supervisor(
      [&](const SupervisedCall& call) {
        return call.textAt(1) == kFile ? Verdict::pretend(0) : Verdict::goOn();
      },
      {SYS_unlinkat});
  rig::RunningProgram program = supervisor.start(shell("rm -f " + kFile + "; echo $?"));
  EXPECT_EQ(program.receive(), "0");
  EXPECT_EQ(program.wait(), 0);
  EXPECT_TRUE(std::filesystem::exists(kFile));
}

TEST_F(SyscallSupervisorOf, AProgramSeesWhatItStartsAndTheFilesBehindDescriptors) {
  std::set<pid_t> threads;
  int reads = 0;
  pid_t pid = -1;
  {
    SyscallSupervisor supervisor([&](const SupervisedCall& call) {
      threads.insert(call.thread);
      if (call.number == SYS_read && call.fileAt(0) == kFile) {
        ++reads;
      }
      return Verdict::goOn();
    });
    rig::RunningProgram program = supervisor.start(shell("cat " + kFile + "; true"));
    pid = program.pid();
    EXPECT_EQ(program.receive(), "text");
    EXPECT_EQ(program.wait(), 0);
  }
  EXPECT_THAT(threads, SizeIs(Ge(2U))) << "the shell and cat";
  EXPECT_THAT(threads, Contains(pid));
  EXPECT_EQ(reads, 2) << "the text and the end of the file";
}

TEST_F(SyscallSupervisorOf, AProgramIsAskedForTheChosenNumbersOnly) {
  std::set<long> numbers;
  {
    SyscallSupervisor supervisor(
        [&](const SupervisedCall& call) {
          numbers.insert(call.number);
          return Verdict::goOn();
        },
        {SYS_read, SYS_getppid});
    rig::RunningProgram program = supervisor.start(shell("cat " + kFile));
    EXPECT_EQ(program.receive(), "text");
    EXPECT_EQ(program.wait(), 0);
  }
  EXPECT_THAT(numbers, Contains(SYS_read));
  numbers.erase(SYS_read);
  numbers.erase(SYS_getppid);
  EXPECT_THAT(numbers, IsEmpty());
}

TEST_F(SyscallSupervisorOf, AProgramLeavesThisProcessAlone) {
  SyscallSupervisor supervisor([](const SupervisedCall&) { return Verdict::goOn(); });
  rig::RunningProgram program = supervisor.start(shell("read line; echo $line"));
  // No call of this process is put to a judge that would refuse all.
  EXPECT_TRUE(std::filesystem::exists(kFile));
  EXPECT_EQ(program.ask("hello"), "hello");
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(SyscallSupervisorOf, AProgramThatCannotBeStartedSaysSo) {
  SyscallSupervisor supervisor([](const SupervisedCall&) { return Verdict::goOn(); });
  EXPECT_THROW(supervisor.start(rig::Program({"/no/such/program"})), rig::Error);
}

}  // namespace
}  // namespace mendline
