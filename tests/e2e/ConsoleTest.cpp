// The client as a person uses it, on the real library.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "Inventory.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Console : public testing::Test {
 protected:
  rig::Program mendline(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), MENDLINE_CLIENT);
    // One performance data file in /tmp per process id would be shared by all private hosts.
    return host.program(arguments).withEnvironment("JDK_JAVA_OPTIONS", "-XX:-UsePerfData");
  }

  // The JVM tells on standard error what it took from the environment.
  static std::string errorsOf(const rig::Run& run) {
    std::string rest;
    std::size_t begin = 0;
    while (begin < run.errors.size()) {
      const std::size_t end = std::min(run.errors.find('\n', begin), run.errors.size() - 1) + 1;
      const std::string line = run.errors.substr(begin, end - begin);
      if (line.find("JDK_JAVA_OPTIONS") == std::string::npos) {
        rest += line;
      }
      begin = end;
    }
    return rest;
  }

  rig::PrivateHost host;
};

TEST_F(Console, PrintsAnAnswerByteForByte) {
  const rig::Run run =
      mendline({"request", "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>"})
          .run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.output, "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<LOGLEVEL>INFO</LOGLEVEL>");
  EXPECT_THAT(errorsOf(run), IsEmpty());
}

TEST_F(Console, SaysByItsStatusThatTheLibraryRefused) {
  const rig::Run run = mendline({"loglevel", "LOUD"}).run();
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.errors, HasSubstr("Invalid loglevel LOUD"));
}

TEST_F(Console, RefusesWhatWouldEndTheProcess) {
  const rig::Run run =
      mendline({"request",
                "<MendlineOperation><opcode>ClearShm</opcode><display>105</display>"
                "</MendlineOperation>"})
          .run();
  EXPECT_EQ(run.exitStatus, 4) << run.errors;
  EXPECT_THAT(run.output, IsEmpty());
  EXPECT_THAT(errorsOf(run), Not(IsEmpty()));
}

TEST_F(Console, SaysThatTheLibraryCannotBeLoaded) {
  const rig::Run run = mendline({"--library", "/nowhere/libmendline.so", "loglevel"}).run();
  EXPECT_EQ(run.exitStatus, 3);
  EXPECT_THAT(run.errors, HasSubstr("/nowhere/libmendline.so"));
}

TEST_F(Console, ShowsRealProcessesAfterTwoTicksInTheShell) {
  const rig::Process busy = host.process("busy\x1b[31m").ownedBy("alice").burningCpu().start();
  const rig::Run run = mendline({"shell"})
                           .withInput("start\nwait 2\nprocesses --sort cpu --limit 100\nstop\n")
                           .withClockSpeed(60)
                           .run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  // What the terminal would obey is replaced before it is shown.
  EXPECT_THAT(run.output,
              ContainsRegex(std::to_string(busy.pid()) + " +alice .*busy\xEF\xBF\xBD\\[31m"));
  EXPECT_THAT(run.output, Not(HasSubstr("\x1b")));
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST_F(Console, LeavesNoSegmentBehindWhenTheShellEndsWithoutAStop) {
  const rig::Run run = mendline({"shell"}).withInput("start\n").run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("/usr/lib/norvane/tarnhost/mendline/mendLineShm"));
}

}  // namespace
}  // namespace mendline
