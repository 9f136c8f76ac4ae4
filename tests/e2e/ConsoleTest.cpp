// The client as a person uses it, on the real library.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "Inventory.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
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

  // A shell with a collector, on its way.
  rig::RunningProgram shellWithCollector() const {
    rig::RunningProgram shell = mendline({"shell"}).start();
    EXPECT_EQ(shell.ask("start"), "Succeed to start collector");
    return shell;
  }

  static std::string receiveLines(rig::RunningProgram& program, int count) {
    std::string lines;
    for (int i = 0; i < count; ++i) {
      lines += program.receive() + "\n";
    }
    return lines;
  }

  static std::string textOf(pid_t pid) { return std::to_string(pid); }

  rig::PrivateHost host;
};

// Asks for a process's status as soon as it has ended, as most parents do. Until somebody does, it
// is a zombie, which the host still lists.
class Parent {
 public:
  explicit Parent(rig::Process& child)
      : thread_([this, &child] {
          while (!leaving_.load() && child.isRunning()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
          if (!leaving_.load()) {
            child.stop();
          }
        }) {}
  ~Parent() {
    leaving_.store(true);
    thread_.join();
  }
  Parent(const Parent&) = delete;
  Parent& operator=(const Parent&) = delete;

 private:
  std::atomic<bool> leaving_ = false;
  std::thread thread_;
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

TEST_F(Console, ShowsWhatAWorkerWroteWithoutWaitingForATick) {
  rig::RunningProgram shell = shellWithCollector();
  rig::Worker worker = host.worker();
  worker.attach();
  worker.writes(159, {.frameRate = 59.94,
                      .rtt = 18.5,
                      .pkLoss = -1.0,
                      .bw = 900,
                      .imagingReceived = 4096,
                      .imagingTransmitted = 5'000'000'000,
                      .audioReceived = 512,
                      .audioTransmitted = 2048,
                      .cdrReceived = 0,
                      .cdrTransmitted = 18'446'744'073'709'551'615U});
  shell.send("session 159");
  EXPECT_EQ(receiveLines(shell, 7),
            "display 159\n"
            "CHANNEL    RECEIVED        SENT\n"
            "image       4.0 KiB     4.7 GiB\n"
            "audio         512 B     2.0 KiB\n"
            "cdr             0 B    16.0 EiB\n"
            "FRAMES/s  ROUND TRIP  UPLINK BANDWIDTH  UPLINK LOSS\n"
            "      59          18               900            -\n");
  worker.detach();
  shell.closeInput();
  EXPECT_EQ(shell.wait(), 0);
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST_F(Console, ShowsHowFastTheCountersOfASessionGrow) {
  rig::RunningProgram shell = shellWithCollector();
  rig::Worker worker = host.worker();
  worker.attach();
  worker.writes(101, {.imagingTransmitted = 1 << 20, .audioReceived = 77});
  shell.send("session 101 --count 2");
  EXPECT_THAT(receiveLines(shell, 7), HasSubstr("image           0 B           -     1.0 MiB"
                                                "           -\n"));
  worker.writes(101, {.imagingTransmitted = 3 << 20, .audioReceived = 76});
  const std::string second = receiveLines(shell, 8);
  EXPECT_THAT(second, HasSubstr("display 101, reading 2 of 2\n"));
  // Two mebibytes in a second or, on a busy machine, somewhat more.
  EXPECT_THAT(second,
              ContainsRegex("image           0 B         0 B     3.0 MiB +[0-9.]+ [KM]iB\n"));
  EXPECT_THAT(second, HasSubstr("audio          76 B           -         0 B         0 B\n"));
}

TEST_F(Console, ShowsASessionOnItsOwnOnceTheWorkerHasFoundTheNewTable) {
  const rig::RunningProgram worker =
      host.program({MENDLINE_FLAREWORKER_SIM, "--record", "103=29.97,nan,-2,0,1,2,3,4,5,6"})
          .start();
  const rig::Run run = mendline({"session", "103", "--json"}).run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.output,
            "{\"display\":\"103\",\"audio_recv_bytes\":3,\"audio_transmit_bytes\":4,"
            "\"cdr_recv_bytes\":5,\"cdr_transmit_bytes\":6,\"image_frames_per_second\":29,"
            "\"image_recv_bytes\":1,\"image_transmit_bytes\":2,\"session_rtt\":null,"
            "\"session_bandwidth_uplink\":0,"
            "\"session_packet_loss_uplink\":18446744073709551614}\n");
  EXPECT_TRUE(rig::eventually([] { return rig::segments().empty(); }));
}

TEST_F(Console, SaysThatADisplayIsOutsideTheRangeAndGoesNoFurtherThanTheTable) {
  const rig::Run run = mendline({"shell"}).withInput("start\nsession 99\nsession 160\n").run();
  EXPECT_EQ(run.exitStatus, 4) << run.errors;
  EXPECT_EQ(run.output, "Succeed to start collector\n");
  EXPECT_THAT(run.errors, HasSubstr("no such display in the range: 99"));
  EXPECT_THAT(run.errors, HasSubstr("display 160 lies one record beyond the session table"));
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST_F(Console, EndsAProcessOnItsOwnWhenToldNotToAsk) {
  rig::Process victim = host.process("vic\x1b[31mtim").ownedBy("alice").start();
  const rig::Process other = host.process("other").ownedBy("alice").start();
  const pid_t pid = victim.pid();
  const Parent parent(victim);
  const rig::Run run = mendline({"end", textOf(pid), "--yes"}).run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_THAT(run.output, MatchesRegex("ended process " + textOf(pid) +
                                       " of alice, [0-9]+s old: vic\xEF\xBF\xBD\\[31mtim\n"));
  EXPECT_NE(kill(pid, 0), 0);
  EXPECT_TRUE(other.isRunning());
  EXPECT_THAT(rig::segments(), IsEmpty());
}

TEST_F(Console, EndsAProcessInTheShellAfterAYesOnTheNextLine) {
  rig::Process victim = host.process("victim").ownedBy("alice").start();
  const rig::Process spared = host.process("spared").ownedBy("bob").start();
  const pid_t pid = victim.pid();
  const Parent parent(victim);
  const rig::Run run = mendline({"shell"})
                           .withInput("start\nwait\nend " + textOf(spared.pid()) + "\nn\nend " +
                                      textOf(pid) + "\ny\nprocesses --json\n")
                           .run();
  // Of the answer that was no.
  EXPECT_EQ(run.exitStatus, 4) << run.errors;
  EXPECT_THAT(run.errors, ContainsRegex("End process " + textOf(pid) +
                                        " of alice, [0-9]+s old: victim\\? \\[y/N\\]"));
  EXPECT_THAT(run.output, ContainsRegex("ended process " + textOf(pid) + " of alice"));
  EXPECT_NE(kill(pid, 0), 0);
  EXPECT_TRUE(spared.isRunning());
  EXPECT_THAT(run.output, Not(HasSubstr("\"name\":\"victim\"")));
  EXPECT_THAT(run.output, HasSubstr("\"name\":\"spared\""));
}

TEST_F(Console, SaysThatAProcessIgnoredTheSignal) {
  const rig::Process stubborn = host.process("stubborn").ignoringSigterm().start();
  const rig::Run run = mendline({"end", textOf(stubborn.pid()), "--yes"}).run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("still there after SIGTERM: process " + textOf(stubborn.pid()) +
                                    " of root"));
  EXPECT_THAT(run.errors, HasSubstr("ignores the signal"));
  EXPECT_TRUE(stubborn.isRunning());
}

TEST_F(Console, EndsNothingWhereNobodyCanBeAsked) {
  const rig::Process victim = host.process("victim").start();
  const rig::Run run = mendline({"end", textOf(victim.pid())}).withInput("y\n").run();
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_THAT(run.errors, HasSubstr("--yes is needed"));
  EXPECT_TRUE(victim.isRunning());
}

TEST_F(Console, SaysWhyAProcessThatHasGoneOrIsTooYoungWasNotEnded) {
  rig::Process victim = host.process("victim").start();
  const pid_t pid = victim.pid();
  rig::RunningProgram shell =
      host.program({"sh", "-c", "exec \"$0\" shell 2>&1", MENDLINE_CLIENT}).start();
  shell.send("start");
  shell.send("wait");
  shell.send("loglevel");
  while (shell.receive() != "INFO") {
  }
  victim.stop();
  EXPECT_THAT(shell.ask("end " + textOf(pid) + " --yes"),
              HasSubstr("Failed to terminate process " + textOf(pid) + ": it has gone"));
  const rig::Process young = host.process("young").start();
  EXPECT_THAT(shell.ask("end " + textOf(young.pid()) + " --yes"),
              HasSubstr("no process " + textOf(young.pid()) + " in the figures"));
  EXPECT_TRUE(young.isRunning());
  shell.closeInput();
  EXPECT_EQ(shell.wait(), 1);
}

TEST_F(Console, LeavesNoSegmentBehindWhenTheShellEndsWithoutAStop) {
  const rig::Run run = mendline({"shell"}).withInput("start\n").run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("/usr/lib/norvane/tarnhost/mendline/mendLineShm"));
}

}  // namespace
}  // namespace mendline
