// What a user of the host without any rights could try against the library, and what comes of it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Eventually.h"
#include "HostPaths.h"
#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "collector/SessionCounters.h"
#include "gateway/MendLineOperation.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string answer(const std::string& opcode, const std::string& parameters = "") {
  std::string response;
  handleRequest(
      "<MendlineOperation><opcode>" + opcode + "</opcode>" + parameters + "</MendlineOperation>",
      response);
  return response;
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

bool reportHas(const std::string& text) {
  return answer("ProcessMetrics").find(text) != std::string::npos;
}

std::vector<std::string> logLines() {
  std::vector<std::string> lines;
  std::ifstream file(rig::kLogFile);
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

bool hasTicked(std::size_t times) {
  return count(answer("HistoricalMetrics", "<userName>alice</userName><display>1</display>"),
               "<metric>") >= times;
}

class HostileUser : public testing::Test {
 protected:
  ~HostileUser() override { StopCollector(); }
  rig::PrivateHost host;
};

class HostileUserTicks : public HostileUser {};

TEST_F(HostileUserTicks, MarkupInAProcessNameStaysText) {
  const rig::Process forger = host.process("</name><cpu>9<!").ownedBy("alice").start();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually([] { return hasTicked(1); }));
  const std::string report = answer("ProcessMetrics");
  EXPECT_THAT(report, HasSubstr("<name>&lt;/name&gt;&lt;cpu&gt;9&lt;!</name>"));
  EXPECT_EQ(count(report, "<cpu>"), count(report, "<process>"));
}

// The kernel writes the name into the stat file as it is, and a line is read up to its line feed.
TEST_F(HostileUserTicks, ALineFeedInAProcessNameForgesNoLineOfTheLog) {
  SetLogThreshold(LogLevel::Trace);
  const rig::Process forger = host.process("a\n2026 Error [").ownedBy("alice").start();
  const rig::Process other = host.process("honest").ownedBy("bob").start();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually([] { return hasTicked(2); }));
  StopCollector();
  const std::regex genuine(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d+ (Trace|Debug|Info |Warn |Error) <[0-9a-f]+> \[.*)");
  for (const std::string& line : logLines()) {
    // An answer has a line feed behind its declaration.
    EXPECT_TRUE(line.empty() || line[0] == '<' || std::regex_match(line, genuine)) << line;
  }
  EXPECT_TRUE(host.log().has("Warn", "ProcessQueryUtil", "Failed to grap the whole proc name"));
  // It hides itself from the report, and nobody else.
  EXPECT_FALSE(reportHas("2026 Error"));
  EXPECT_TRUE(reportHas("<name>honest</name>"));
}

TEST_F(HostileUserTicks, AFakeXServerHidesRoundTripTimesAtMost) {
  rig::Worker worker = host.worker();
  const rig::Process genuine = host.xServer(":103").start();
  const rig::Process honest = host.process("honest").ownedBy("bob").start();
  ASSERT_TRUE(StartCollector());
  worker.writes(103, {.rtt = 18});
  const auto roundTrips = [] {
    return count(answer("HistoricalMetrics", "<userName>bob</userName><display>103</display>"),
                 "<flare_latency>18</flare_latency>");
  };
  ASSERT_TRUE(rig::eventually([&] { return roundTrips() > 0; }));

  const rig::Process fake =
      host.process("Xorg").ownedBy("alice").withArguments({"Xorg", ":x", "tarnhost"}).start();
  EXPECT_TRUE(host.log().willHave("Warn", "ProtocolQuery", "Invalid display number x"));
  // Ticks go on, and so do all other figures.
  const std::string now = answer("LbMetrics");
  EXPECT_TRUE(rig::eventually([&] { return answer("LbMetrics") != now; }));
  EXPECT_TRUE(reportHas("<name>honest</name>"));
  EXPECT_THAT(answer("ProtocolInfo", "<display>103</display>"),
              HasSubstr("<session_rtt>18</session_rtt>"));
}

std::string historyOf(const std::string& user, const std::string& display) {
  return answer("HistoricalMetrics",
                "<userName>" + user + "</userName><display>" + display + "</display>");
}

TEST_F(HostileUserTicks, AFakeXServerOfADisplayOfTheRangeIsASession) {
  rig::Worker worker = host.worker();
  const rig::Process fake =
      host.process("Xorg").ownedBy("alice").withArguments({"Xorg", ":101", "tarnhost"}).start();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually(
      [] { return count(historyOf("alice", "101"), "<flare_latency>0</flare_latency>") > 0; }));
  EXPECT_THAT(historyOf("alice", "102"), Not(HasSubstr("flare_latency")));
  worker.writes(101, {.rtt = 18});
  EXPECT_TRUE(rig::eventually(
      [] { return count(historyOf("alice", "101"), "<flare_latency>18</flare_latency>") > 0; }));
}

TEST_F(HostileUserTicks, ALongDisplayTextIsGoneAfterThirtyRecords) {
  const std::string display = "101" + std::string(100'000, 'x');
  const rig::Worker worker = host.worker();
  {
    const rig::Process fake = host.process("Xorg")
                                  .ownedBy("alice")
                                  .withArguments({"Xorg", ":" + display, "tarnhost"})
                                  .start();
    ASSERT_TRUE(StartCollector());
    ASSERT_TRUE(
        rig::eventually([&] { return count(historyOf("alice", display), "<flare_latency>") > 0; }));
  }
  EXPECT_TRUE(
      rig::eventually([&] { return count(historyOf("alice", display), "<flare_latency>") == 0; },
                      std::chrono::seconds(20)));
}

TEST_F(HostileUserTicks, AnOwnerWithoutAccountCostsALineInEachTick) {
  SetLogThreshold(LogLevel::Warn);
  constexpr uid_t kNobody = 987654;
  const rig::Process stranger = host.process("stranger").ownedBy(kNobody, kNobody).start();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually([] { return hasTicked(3) && !logLines().empty(); }));
  EXPECT_TRUE(reportHas("<name>stranger</name>"));
  StopCollector();
  const std::vector<std::string> lines = logLines();
  EXPECT_LE(lines.size(), count(historyOf("alice", "1"), "<metric>"));
  for (const std::string& line : lines) {
    EXPECT_THAT(line, HasSubstr("Failed to get user name for uid: 987654"));
  }
}

TEST_F(HostileUserTicks, AFakeXServerPutsAtMostOneLineIntoTheLogInEachTick) {
  SetLogThreshold(LogLevel::Warn);
  const rig::Worker worker = host.worker();
  std::vector<rig::Process> fakes;
  for (int i = 0; i < 10; ++i) {
    fakes.push_back(host.process("Xorg")
                        .ownedBy("alice")
                        .withArguments({"Xorg", ":" + std::string(3000, 'x'), "tarnhost"})
                        .start());
  }
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually([] { return !logLines().empty() && hasTicked(5); }));
  StopCollector();
  const std::size_t ticks = count(
      answer("HistoricalMetrics", "<userName>alice</userName><display>1</display>"), "<metric>");
  const std::vector<std::string> lines = logLines();
  ASSERT_LT(ticks, 30U) << "the history does not count more";
  EXPECT_LE(lines.size(), ticks);
  for (const std::string& line : lines) {
    EXPECT_LE(line.size(), 511U);
  }
}

TEST_F(HostileUserTicks, AFakeWorkerOpensNoWayToSessions) {
  const rig::Process fake = host.process("FlareWorker").ownedBy("alice").start();
  const rig::Process server = host.xServer(":103").start();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually([] { return hasTicked(3); }));
  EXPECT_THAT(answer("HistoricalMetrics", "<userName>alice</userName><display>103</display>"),
              Not(HasSubstr("flare_latency")));
}

TEST_F(HostileUserTicks, ThousandsOfProcessesCostNobodyElseARow) {
  const rig::Process honest = host.process("honest").ownedBy("bob").start();
  {
    const rig::Process crowd =
        host.process("crowd").ownedBy("alice").withIdleChildren(2000).start();
    ASSERT_TRUE(StartCollector());
    EXPECT_TRUE(rig::eventually(
        [] { return count(answer("ProcessMetrics"), "<name>crowd</name>") == 2001; },
        std::chrono::seconds(20)));
    EXPECT_TRUE(reportHas("<name>honest</name>"));
  }
  EXPECT_TRUE(
      rig::eventually([] { return !reportHas("<name>crowd</name>"); }, std::chrono::seconds(20)));
  EXPECT_TRUE(reportHas("<name>honest</name>"));
}

// What it does runs in a child, which takes on the user's account; its status is the errno.
int errorOf(uid_t user, int (*attempt)()) {
  const pid_t child = fork();
  if (child == 0) {
    if (setresgid(user, user, user) != 0 || setresuid(user, user, user) != 0) {
      _exit(255);
    }
    errno = 0;
    _exit(attempt() == -1 ? errno : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

TEST_F(HostileUser, CannotReachTheSessionTableOrItsKeyFileOrTheLog) {
  ASSERT_TRUE(StartCollector());
  const uid_t alice = host.uidOf("alice");
  EXPECT_EQ(errorOf(alice,
                    [] {
                      // The key file's place is no secret; its attributes are all a key takes.
                      const int id = shmget(ftok(rig::kKeyFile, 104), 0, 0);
                      return shmat(id, nullptr, 0) == reinterpret_cast<void*>(-1) ? -1 : 0;
                    }),
            EACCES);
  EXPECT_EQ(errorOf(alice, [] { return access(rig::kKeyFile, R_OK); }), EACCES);
  EXPECT_EQ(errorOf(alice, [] { return unlink(rig::kKeyFile); }), EACCES);
  EXPECT_EQ(errorOf(alice, [] { return access(rig::kLogFile, W_OK); }), EACCES);
  // What a log may be read by is its folder's business.
  EXPECT_EQ(errorOf(alice, [] { return access(rig::kLogFile, R_OK); }), 0);
  ASSERT_EQ(chmod(rig::kLogDirectory, 0750), 0);
  EXPECT_EQ(errorOf(alice, [] { return access(rig::kLogFile, R_OK); }), EACCES);
  EXPECT_EQ(errorOf(alice, [] { return unlink(rig::kLogFile); }), EACCES);
  // The worker's account can.
  EXPECT_EQ(errorOf(host.uidOf("qrsflare"),
                    [] {
                      const int id = shmget(ftok(rig::kKeyFile, 104), 0, 0);
                      return shmat(id, nullptr, 0) == reinterpret_cast<void*>(-1) ? -1 : 0;
                    }),
            0);
}

}  // namespace
}  // namespace mendline
