#include "Program.h"

#include <signal.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "Error.h"
#include "Inventory.h"

using namespace mendline;

namespace {

rig::Program shell(const std::string& script) {
  return rig::Program({"/bin/sh", "-c", script});
}

TEST(Program, KeepsOutputErrorsAndStatusApart) {
  const rig::Run run = shell("echo out; echo err >&2; exit 5").run();
  EXPECT_EQ(run.output, "out\n");
  EXPECT_EQ(run.errors, "err\n");
  EXPECT_EQ(run.exitStatus, 5);
  EXPECT_EQ(run.signal, 0);
}

TEST(Program, TellsOfASignal) {
  const rig::Run run = shell("kill -KILL $$").run();
  EXPECT_EQ(run.signal, SIGKILL);
  EXPECT_EQ(run.exitStatus, -1);
}

TEST(Program, PassesMoreInputThanAPipeHolds) {
  const std::string input(1'000'000, 'x');
  EXPECT_EQ(rig::Program({"/bin/cat"}).withInput(input).run().output, input);
}

TEST(Program, SurvivesAProgramThatDoesNotRead) {
  EXPECT_EQ(shell("exit 0").withInput(std::string(1'000'000, 'x')).run().exitStatus, 0);
}

TEST(Program, ChangesTheEnvironment) {
  setenv("RIG_ONE", "1", 1);
  setenv("RIG_TWO", "2", 1);
  const rig::Run run = shell("echo $RIG_ONE,$RIG_TWO,$RIG_THREE")
                           .withoutEnvironment("RIG_ONE")
                           .withEnvironment("RIG_THREE", "3")
                           .run();
  EXPECT_EQ(run.output, ",2,3\n");
}

TEST(Program, IsKilledWhenItsTimeIsUp) {
  const rig::Run run = shell("exec sleep 100").withTimeout(std::chrono::milliseconds(100)).run();
  EXPECT_TRUE(run.timedOut);
  EXPECT_EQ(run.signal, SIGKILL);
}

TEST(RunningProgram, AnswersLineByLine) {
  rig::RunningProgram cat = rig::Program({"/bin/cat"}).start();
  EXPECT_EQ(cat.ask("one"), "one");
  EXPECT_EQ(cat.ask("two"), "two");
  EXPECT_TRUE(cat.isRunning());
  cat.closeInput();
  EXPECT_EQ(cat.wait(), 0);
  EXPECT_FALSE(cat.isRunning());
}

TEST(RunningProgram, IsStoppedByASignal) {
  rig::RunningProgram sleeper = rig::Program({"/bin/sleep", "100"}).start();
  EXPECT_EQ(sleeper.stop(SIGTERM), 128 + SIGTERM);
}

TEST(RunningProgram, ThatSaysNothingOrHasEndedIsAnError) {
  rig::RunningProgram sleeper = rig::Program({"/bin/sleep", "100"}).start();
  EXPECT_THROW(sleeper.receive(std::chrono::milliseconds(50)), rig::Error);
  rig::RunningProgram ended = rig::Program({"/bin/true"}).start();
  EXPECT_THROW(ended.receive(), rig::Error);
}

TEST(RunningProgram, IsEndedAndReapedWithItsHandle) {
  pid_t pid = 0;
  {
    const rig::RunningProgram sleeper = rig::Program({"/bin/sleep", "100"}).start();
    pid = sleeper.pid();
  }
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST(Program, ThatDoesNotExistIsAnError) {
  EXPECT_THROW(rig::Program({"/no/such/program"}).run(), rig::Error);
}

TEST(Program, LeavesNoFilesOpen) {
  const std::size_t before = rig::openFileCount();
  shell("exit 0").run();
  EXPECT_EQ(rig::openFileCount(), before);
}

}  // namespace
