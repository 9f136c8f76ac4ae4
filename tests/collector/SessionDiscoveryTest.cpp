#include "collector/SessionDiscovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "PrivateHost.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using rig::kWorkerUid;
using rig::PrivateHost;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// Arguments as they stand in /proc/<pid>/cmdline, each ended by a NUL.
std::string commandLine(const std::vector<std::string>& arguments) {
  std::string text;
  for (const std::string& argument : arguments) {
    text += argument + '\0';
  }
  return text;
}

std::string agentsServer(const std::string& display) {
  return commandLine({"Xorg", display, "-config", rig::kXConfigFile});
}

ProcessInfo processInfo(std::int32_t pid, const std::string& name, std::uint32_t uid = 0,
                        std::uint64_t startTime = 50) {
  ProcessInfo info;
  info.iPid = pid;
  info.uiUserId = uid;
  info.ullStartTime = startTime;
  info.strProcessName = name;
  return info;
}

ProcessInfo flareWorker(std::int32_t pid, std::uint64_t startTime = 50) {
  return processInfo(pid, "FlareWorker", kWorkerUid, startTime);
}

ProcessInfoSet listed() {
  ProcessInfoSet processes;
  EXPECT_TRUE(ListProcesses(processes));
  return processes;
}

// ---- What a command line says ----

TEST(SessionDiscovery, FindsTheDisplayBehindTheColon) {
  EXPECT_EQ(displayOfCommandLine(agentsServer(":103")), "103");
  EXPECT_EQ(displayOfCommandLine(commandLine({"/opt/tarnhost/Xorg", ":7", "vt1"})), "7");
}

TEST(SessionDiscovery, EndsTheDisplayBehindTheColonAtTheNextNul) {
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg", "host:103.0 x", "tarnhost"})), "103.0 x");
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg:", "103", "tarnhost"})), "");
}

TEST(SessionDiscovery, TakesWhatIsBehindTheColonToTheEndWithoutANul) {
  EXPECT_EQ(displayOfCommandLine("Xorg :103 tarnhost"), "103 tarnhost");
  EXPECT_EQ(displayOfCommandLine("tarnhost:103"), "103");
}

TEST(SessionDiscovery, TakesTheFirstColonOfTheLineEvenInAnEarlierArgument) {
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg", "a:b", ":103", "tarnhost"})), "b");
  EXPECT_EQ(displayOfCommandLine(commandLine({"x:7", "tarnhost", ":103"})), "7");
  EXPECT_EQ(displayOfCommandLine(commandLine({"tarnhost", "::5"})), ":5");
  EXPECT_EQ(displayOfCommandLine(commandLine({":103:104", "tarnhost"})), "103:104");
}

TEST(SessionDiscovery, HasNoDisplayBehindAColonAtTheEnd) {
  EXPECT_EQ(displayOfCommandLine("Xorg tarnhost:"), "");
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg", "tarnhost", ":"})), "");
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg", ":", "tarnhost"})), "");
}

TEST(SessionDiscovery, TakesTheWholeLineWithoutAColon) {
  const std::string line = commandLine({"Xorg", "-config", rig::kXConfigFile});
  EXPECT_EQ(displayOfCommandLine(line), line);
  EXPECT_EQ(displayOfCommandLine("tarnhost"), "tarnhost");
}

TEST(SessionDiscovery, PassesOverALineWithoutTheAgentsMarker) {
  for (const std::string& line :
       {commandLine({"Xorg", ":103", "-config", "/etc/X11/xorg.conf"}),
        commandLine({"Xorg", ":103", "Tarnhost", "TARNHOST"}),
        commandLine({"Xorg", ":103", "tarn", "host"}), commandLine({"Xorg", ":103", "tarn-host"}),
        std::string("Xorg :1"), std::string(":103"), std::string("tarnhos"), std::string()}) {
    EXPECT_EQ(displayOfCommandLine(line), "") << line;
  }
}

TEST(SessionDiscovery, FindsTheMarkerAnywhereInTheLine) {
  EXPECT_EQ(displayOfCommandLine(commandLine({"tarnhost", ":103"})), "103");
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg", ":103tarnhost"})), "103tarnhost");
  EXPECT_EQ(displayOfCommandLine(commandLine({"Xorg", ":103", "xxtarnhostxx"})), "103");
}

// ---- The agent's X servers ----

class SessionDiscoveryOnAnInventedHost : public testing::Test {
 protected:
  // A process of the set, with this command line under /proc.
  void add(std::int32_t pid, const std::string& name, const std::string& text,
           std::uint32_t owner = 0) {
    rig::ProcEntry entry;
    entry.cmdline = text;
    entry.owner = owner;
    host.syntheticProc().addProcess(pid, entry);
    processes.insert(processInfo(pid, name, owner));
  }

  PrivateHost host;
  ProcessInfoSet processes;
};

TEST_F(SessionDiscoveryOnAnInventedHost, TellsTheDisplaysInTheOrderOfTheSet) {
  for (std::int32_t pid = 10; pid < 40; ++pid) {
    add(pid, "Xorg", agentsServer(":" + std::to_string(90 + pid)));
    add(100 + pid, "idle", agentsServer(":1"));
  }
  std::vector<std::string> expected;
  for (const ProcessInfo& process : processes) {
    if (process.strProcessName == "Xorg") {
      expected.push_back(std::to_string(90 + process.iPid));
    }
  }
  EXPECT_EQ(findSessions(processes), expected);
  EXPECT_THAT(expected, SizeIs(30));
}

TEST_F(SessionDiscoveryOnAnInventedHost, ComparesTheWholeNameAndItsCase) {
  std::int32_t pid = 10;
  for (const std::string name : {"Xorg2", "xorg", "XORG", "Xor", "Xorg ", " Xorg", "Xorh", "X", "",
                                 "Xorg.wrap", "Xwayland"}) {
    add(pid++, name, agentsServer(":103"));
  }
  add(pid++, std::string("Xorg\0", 5), agentsServer(":103"));
  EXPECT_THAT(findSessions(processes), IsEmpty());
}

TEST_F(SessionDiscoveryOnAnInventedHost, DoesNotAskWhoOwnsTheServer) {
  add(10, "Xorg", agentsServer(":101"), 0);
  add(11, "Xorg", agentsServer(":102"), 2001);
  add(12, "Xorg", agentsServer(":103"), 4242);
  EXPECT_THAT(findSessions(processes), UnorderedElementsAre("101", "102", "103"));
  EXPECT_EQ(host.log().text(), "");
}

TEST_F(SessionDiscoveryOnAnInventedHost, TellsADisplayOncePerServer) {
  add(10, "Xorg", agentsServer(":103"));
  add(11, "Xorg", agentsServer(":103"));
  EXPECT_THAT(findSessions(processes), ElementsAre("103", "103"));
}

TEST_F(SessionDiscoveryOnAnInventedHost, PassesOverServersWithoutMarkerOrDisplay) {
  add(10, "Xorg", commandLine({"Xorg", ":102", "-config", "/etc/X11/xorg.conf"}));
  add(11, "Xorg", agentsServer(":"));
  add(12, "Xorg", "");
  add(13, "Xorg", agentsServer(":103"));
  EXPECT_THAT(findSessions(processes), ElementsAre("103"));
  EXPECT_EQ(host.log().text(), "");
}

TEST_F(SessionDiscoveryOnAnInventedHost, TellsTheWholeLineOfAServerWithoutAColon) {
  const std::string line = commandLine({"Xorg", rig::kXConfigFile});
  add(10, "Xorg", line);
  EXPECT_THAT(findSessions(processes), ElementsAre(line));
}

TEST_F(SessionDiscoveryOnAnInventedHost, ReadsTheFirstLineOnly) {
  add(10, "Xorg", std::string("Xorg\0:103\0tarn\nhost\0tarnhost\0", 30));
  add(11, "Xorg", std::string("Xorg\0tarnhost\n:104\0", 19));
  add(12, "Xorg", std::string("\nXorg\0:105\0tarnhost\0", 20));
  add(13, "Xorg", std::string("Xorg\0tarnhost\0:106\n7\0", 21));
  EXPECT_THAT(findSessions(processes),
              UnorderedElementsAre(std::string("Xorg\0tarnhost", 13), "106"));
}

TEST_F(SessionDiscoveryOnAnInventedHost, ReadsLongCommandLines) {
  std::vector<std::string> arguments(20000, "-argument");
  arguments[0] = "Xorg";
  arguments.push_back(":103");
  arguments.push_back("tarnhost");
  add(10, "Xorg", commandLine(arguments));
  EXPECT_THAT(findSessions(processes), ElementsAre("103"));
}

TEST_F(SessionDiscoveryOnAnInventedHost, ReadsTheCommandLineOfTheLongestPid) {
  add(2147483647, "Xorg", agentsServer(":103"));
  EXPECT_THAT(findSessions(processes), ElementsAre("103"));
}

TEST_F(SessionDiscoveryOnAnInventedHost, PassesInSilenceOverACommandLineThatCannotBeRead) {
  add(10, "Xorg", agentsServer(":101"));
  add(11, "Xorg", agentsServer(":102"));
  add(12, "Xorg", agentsServer(":103"));
  add(13, "Xorg", agentsServer(":104"));
  host.withUnopenable("/proc/10/cmdline").withUnreadable("/proc/11/cmdline");
  host.syntheticProc().removeProcess(12);
  EXPECT_THAT(findSessions(processes), ElementsAre("104"));
  EXPECT_EQ(host.log().text(), "");
}

TEST(SessionDiscovery, FindsRealServers) {
  PrivateHost host;
  const rig::Process first = host.xServer(":103").start();
  const rig::Process second = host.xServer(":104").ownedBy("alice").start();
  const rig::Process foreign = host.process("Xorg").withArguments({"Xorg", ":105"}).start();
  const rig::Process other =
      host.process("Xorg2").withArguments({"Xorg2", ":106", rig::kXConfigFile}).start();
  const rig::Process zombie = host.process("Xorg").asZombie().start();
  ProcessInfoSet processes = listed();
  EXPECT_THAT(findSessions(processes), UnorderedElementsAre("103", "104"));
}

TEST(SessionDiscovery, PassesInSilenceOverARealServerThatHasJustGone) {
  PrivateHost host;
  rig::Process server = host.xServer(":103").start();
  const ProcessInfoSet processes = listed();
  server.stop();
  EXPECT_THAT(findSessions(processes), IsEmpty());
  EXPECT_EQ(host.log().text(), "");
}

TEST(SessionDiscovery, FindsNoSessionAmongNoProcesses) {
  EXPECT_THAT(findSessions({}), IsEmpty());
}

// ---- The worker ----

TEST(SessionDiscovery, KnowsTheWorkerByNameAndUser) {
  PrivateHost host;
  EXPECT_FALSE(isWorkerKnown({}));
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "FlareWorker", 0)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "FlareWorker", 2001)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "other", kWorkerUid)}));
  EXPECT_TRUE(isWorkerKnown({processInfo(9, "other", kWorkerUid), flareWorker(10)}));
  EXPECT_EQ(host.log().text(), "");
}

TEST(SessionDiscovery, ComparesTheWorkersWholeNameAndItsCase) {
  PrivateHost host;
  for (const std::string name : {"flareworker", "FLAREWORKER", "FlareWorke", "FlareWorker2",
                                 "FlareWorker ", " FlareWorker", "FlareWorker\n", ""}) {
    EXPECT_FALSE(isWorkerKnown({processInfo(10, name, kWorkerUid)})) << name;
  }
}

TEST(SessionDiscovery, ComparesTheNameOfTheWorkersUserAndNotItsNumber) {
  PrivateHost host;
  host.withUser(rig::kWorkerAccount, 7777);
  EXPECT_FALSE(isWorkerKnown({flareWorker(10)}));
  EXPECT_TRUE(isWorkerKnown({processInfo(10, "FlareWorker", 7777)}));
}

TEST(SessionDiscovery, ComparesTheWorkersUserWithItsCase) {
  PrivateHost host;
  host.withUser("QRSFLARE", 7001).withUser("qrsflare2", 7002).withUser("qrsflar", 7003);
  EXPECT_FALSE(
      isWorkerKnown({processInfo(10, "FlareWorker", 7001), processInfo(11, "FlareWorker", 7002),
                     processInfo(12, "FlareWorker", 7003)}));
}

TEST(SessionDiscovery, DoesNotKnowAWorkerOfANamelessUser) {
  PrivateHost host;
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "FlareWorker", 4242), processInfo(11, "x", 4343)}));
  // Nobody but the candidate is looked up.
  EXPECT_THAT(host.log().lines(), SizeIs(1));
  EXPECT_TRUE(host.log().has("Warn", "SystemQuery", "Failed to get user name for uid: 4242"));
}

TEST(SessionDiscovery, LooksOnBehindACandidateOfAnotherUser) {
  PrivateHost host;
  ProcessInfoSet processes;
  for (std::int32_t pid = 1; pid <= 50; ++pid) {
    processes.insert(processInfo(pid, "FlareWorker", 2001));
  }
  processes.insert(flareWorker(51));
  EXPECT_TRUE(isWorkerKnown(processes));
}

TEST(SessionDiscovery, RemembersTheWorkerByPidAndStartTimeAlone) {
  PrivateHost host;
  ASSERT_TRUE(isWorkerKnown({flareWorker(10, 50)}));
  // No name is compared and no user looked up any more.
  EXPECT_TRUE(isWorkerKnown({processInfo(10, "renamed", 4242, 50), processInfo(11, "x")}));
  EXPECT_TRUE(isWorkerKnown({processInfo(10, "FlareWorker", 4242, 50)}));
  EXPECT_EQ(host.log().text(), "");
}

TEST(SessionDiscovery, TakesAReusedPidForAnotherProcess) {
  PrivateHost host;
  ASSERT_TRUE(isWorkerKnown({flareWorker(10, 50)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "renamed", kWorkerUid, 51)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(11, "renamed", kWorkerUid, 50)}));
}

TEST(SessionDiscovery, ComparesAllBitsOfTheWorkersIdentity) {
  PrivateHost host;
  constexpr std::uint64_t kLate = (std::uint64_t{1} << 32) + 50;
  ASSERT_TRUE(isWorkerKnown({flareWorker(10, kLate)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "renamed", 0, 50)}));
  EXPECT_TRUE(isWorkerKnown({processInfo(10, "renamed", 0, kLate)}));
}

TEST(SessionDiscovery, RemembersAWorkerThatIsGoneUntilAnotherTakesOver) {
  PrivateHost host;
  ASSERT_TRUE(isWorkerKnown({flareWorker(10, 50)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(11, "other")}));
  EXPECT_TRUE(isWorkerKnown({processInfo(10, "renamed", 0, 50)}));
  // In the same tick in which it is missed.
  EXPECT_TRUE(isWorkerKnown({flareWorker(12, 60)}));
  EXPECT_FALSE(isWorkerKnown({processInfo(10, "renamed", 0, 50)}));
  EXPECT_TRUE(isWorkerKnown({processInfo(12, "renamed", 0, 60)}));
}

TEST(SessionDiscovery, KeepsTheFirstOfSeveralWorkersAsLongAsItLives) {
  PrivateHost host;
  ProcessInfoSet processes;
  for (std::int32_t pid = 10; pid < 20; ++pid) {
    processes.insert(flareWorker(pid));
  }
  const std::int32_t first = processes.begin()->iPid;
  ASSERT_TRUE(isWorkerKnown(processes));
  for (std::int32_t pid = 10; pid < 20; ++pid) {
    EXPECT_EQ(isWorkerKnown({processInfo(pid, "renamed")}), pid == first) << pid;
  }
  // A table that begins with another one changes nothing.
  for (std::int32_t pid = 100; pid < 110; ++pid) {
    processes.insert(flareWorker(pid));
  }
  ASSERT_TRUE(isWorkerKnown(processes));
  EXPECT_TRUE(isWorkerKnown({processInfo(first, "renamed")}));
}

TEST(SessionDiscovery, HasSeenNoWorkerAtFirst) {
  PrivateHost host;
  // Both numbers are zero then, which no process of a running kernel is.
  EXPECT_FALSE(isWorkerKnown({processInfo(0, "x", 0, 1), processInfo(1, "x", 0, 0)}));
  EXPECT_TRUE(isWorkerKnown({processInfo(0, "x", 0, 0)}));
}

TEST(SessionDiscovery, KnowsARealWorker) {
  PrivateHost host;
  const rig::Process impostor = host.process("FlareWorker").ownedBy("alice").start();
  const rig::Process rootsOwn = host.process("FlareWorker").start();
  const rig::Process misnamed = host.process("FlareWorker2").ownedBy(rig::kWorkerAccount).start();
  EXPECT_FALSE(isWorkerKnown(listed()));
  rig::Worker worker = host.worker();
  EXPECT_TRUE(isWorkerKnown(listed()));
  host.withoutWorkerAccount();
  EXPECT_TRUE(isWorkerKnown(listed()));
  worker.stop();
  EXPECT_FALSE(isWorkerKnown(listed()));
  host.withUser(rig::kWorkerAccount, kWorkerUid);
  const rig::Worker next = host.worker();
  EXPECT_TRUE(isWorkerKnown(listed()));
}

}  // namespace
}  // namespace mendline
