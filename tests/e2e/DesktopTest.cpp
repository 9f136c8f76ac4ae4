// Sessions as they are on a desktop host: real X servers started the way an agent starts them, a
// worker that fills their records, the shipped library in a real JVM, and real X clients.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "Eventually.h"
#include "Inventory.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

constexpr char kDeclaration[] = R"(<?xml version="1.0" encoding="utf-8"?>\n)";

// The agent's X configuration: a screen without a graphics card, and no devices of this machine.
constexpr char kXConfigPath[] = "/usr/lib/norvane/tarnhost/resources/X11/xorg.conf";
constexpr char kXConfig[] = R"(Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoEnableDevices" "false"
EndSection
Section "Device"
  Identifier "memory"
  Driver "dummy"
EndSection
Section "Screen"
  Identifier "screen"
  Device "memory"
  DefaultDepth 24
EndSection
)";

// The texts of the elements of that name, in order; "-" stands for an element without it.
std::vector<std::string> childOfEach(const std::string& xml, const std::string& element,
                                     const std::string& child) {
  std::vector<std::string> texts;
  const std::string open = "<" + element + ">";
  const std::string close = "</" + element + ">";
  for (std::size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at + 1)) {
    const std::string inner = xml.substr(at, xml.find(close, at) - at);
    const std::size_t begin = inner.find("<" + child + ">");
    if (begin == std::string::npos) {
      texts.emplace_back("-");
      continue;
    }
    const std::size_t text = begin + child.size() + 2;
    texts.push_back(inner.substr(text, inner.find('<', text) - text));
  }
  return texts;
}

struct ReportedProcess {
  std::string id;
  std::string createTime;
  std::string name;
  std::string user;
};

class Desktop : public testing::Test {
 protected:
  Desktop() {
    host.withOwnTmp();
    host.withFile(kXConfigPath, kXConfig);
  }

  static std::string nameOf(pid_t pid) {
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
    return name;
  }

  // A JVM with the library, in which the collector's half minute takes about this long.
  rig::RunningProgram jvm(std::chrono::milliseconds tick) const {
    return host
        .program({MENDLINE_JAVA, "-Xmx256m", "-Xcheck:jni", "-XX:-UsePerfData",
                  "-XX:ErrorFile=/dev/null", "-XX:-CreateCoredumpOnCrash", "-cp",
                  MENDLINE_DRIVER_CLASS_PATH, "JvmDriver", MENDLINE_LIBRARY})
        .withClockSpeed(static_cast<int>(std::chrono::seconds(30) / tick))
        .start();
  }

  rig::RunningProgram xServer(int display, const std::string& configuration = kXConfigPath) const {
    const std::string number = std::to_string(display);
    rig::RunningProgram server =
        host.program({"/usr/lib/xorg/Xorg", ":" + number, "-config", configuration, "-ac",
                      "-noreset", "-nolisten", "tcp", "-logfile", "/var/log/Xorg." + number})
            .start();
    EXPECT_TRUE(
        rig::eventually([&] { return std::filesystem::exists("/tmp/.X11-unix/X" + number); },
                        std::chrono::seconds(20)))
        << "X server " << number << " does not come up";
    return server;
  }

  // A program with a window on that display.
  rig::RunningProgram xclock(const std::string& user, int display) const {
    const std::string id = std::to_string(host.uidOf(user));
    return host
        .program({"/usr/bin/setpriv", "--reuid", id, "--regid", id, "--clear-groups",
                  "/usr/bin/xclock", "-display", ":" + std::to_string(display)})
        .start();
  }

  rig::RunningProgram worker(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), MENDLINE_FLAREWORKER_SIM);
    rig::RunningProgram program = host.program(arguments).start();
    EXPECT_TRUE(rig::eventually([&] { return nameOf(program.pid()) == "FlareWorker"; }));
    return program;
  }

  static std::string ask(rig::RunningProgram& jvm, const std::string& opcode,
                         const std::string& parameters = "") {
    const std::string answer = jvm.ask("<MendlineOperation><opcode>" + opcode + "</opcode>" +
                                       parameters + "</MendlineOperation>");
    EXPECT_THAT(answer, testing::StartsWith(kDeclaration));
    return answer.substr(std::min(answer.size(), sizeof(kDeclaration) - 1));
  }

  // The round trip time of each record of the display's history, "-" where it had none.
  static std::vector<std::string> roundTrips(rig::RunningProgram& jvm, int display) {
    return childOfEach(
        ask(jvm, "HistoricalMetrics",
            "<userName>root</userName><display>" + std::to_string(display) + "</display>"),
        "metric", "flare_latency");
  }

  // Lets so many ticks begin and end from now on; gives the number of the first of their records.
  static std::size_t passTicks(rig::RunningProgram& jvm, std::size_t count) {
    // The tick that runs at this moment may have looked around before this moment.
    const std::size_t first = roundTrips(jvm, 0).size() + 1;
    EXPECT_TRUE(rig::eventually([&] { return roundTrips(jvm, 0).size() >= first + count; },
                                std::chrono::seconds(30)));
    return first;
  }

  static std::string roundTripAfterATick(rig::RunningProgram& jvm, int display) {
    const std::size_t record = passTicks(jvm, 1);
    return roundTrips(jvm, display).at(record);
  }

  static std::vector<ReportedProcess> processes(rig::RunningProgram& jvm) {
    const std::string report = ask(jvm, "ProcessMetrics");
    const std::vector<std::string> ids = childOfEach(report, "process", "id");
    const std::vector<std::string> times = childOfEach(report, "process", "create_time");
    const std::vector<std::string> names = childOfEach(report, "process", "name");
    const std::vector<std::string> users = childOfEach(report, "process", "user_name");
    std::vector<ReportedProcess> result;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      result.push_back({ids[i], times[i], names[i], users[i]});
    }
    return result;
  }

  static std::optional<ReportedProcess> reported(rig::RunningProgram& jvm, const std::string& id) {
    for (const ReportedProcess& process : processes(jvm)) {
      if (process.id == id) {
        return process;
      }
    }
    return std::nullopt;
  }

  static void end(rig::RunningProgram& jvm) {
    EXPECT_EQ(ask(jvm, "StopCollector"), "<INFO>Finish to stop collector</INFO>");
    jvm.closeInput();
    EXPECT_EQ(jvm.wait(), 0);
    // The worker lets its attachment go a moment later.
    EXPECT_TRUE(rig::eventually([] { return rig::segments().empty(); }));
  }

  rig::PrivateHost host;
};

TEST_F(Desktop, SessionsAppearInTheHistoryWithinATickAndVanishWithTheirServer) {
  // The history holds 30 ticks, and the whole test has to fit.
  rig::RunningProgram jvm = this->jvm(std::chrono::seconds(1));
  ASSERT_EQ(ask(jvm, "StartCollector"), "<INFO>Succeed to start collector</INFO>");
  const rig::RunningProgram worker = this->worker(
      {"--record", "103=1,18.9,0,0,0,0,0,0,0,0", "--record", "104=1,27.1,0,0,0,0,0,0,0,0"});

  const std::size_t without = passTicks(jvm, 1);
  EXPECT_EQ(roundTrips(jvm, 103).at(without), "-");

  rig::RunningProgram first = xServer(103);
  const std::size_t withOne = passTicks(jvm, 1);
  EXPECT_EQ(roundTrips(jvm, 103).at(withOne), "18");
  EXPECT_EQ(roundTrips(jvm, 104).at(withOne), "-");

  const rig::RunningProgram second = xServer(104);
  const std::size_t withTwo = passTicks(jvm, 1);
  EXPECT_EQ(roundTrips(jvm, 103).at(withTwo), "18");
  EXPECT_EQ(roundTrips(jvm, 104).at(withTwo), "27");

  first.stop(SIGTERM);
  const std::size_t withTheOther = passTicks(jvm, 1);
  EXPECT_EQ(roundTrips(jvm, 103).at(withTheOther), "-");
  EXPECT_EQ(roundTrips(jvm, 104).at(withTheOther), "27");
  // What was is kept.
  EXPECT_EQ(roundTrips(jvm, 103).at(withOne), "18");
  end(jvm);
}

TEST_F(Desktop, SessionsAreThoseOfTheAgentAlone) {
  host.withFile("/etc/other/xorg.conf", kXConfig);
  const rig::RunningProgram agents = xServer(103);
  const rig::RunningProgram somebodys = xServer(104, "/etc/other/xorg.conf");
  const rig::RunningProgram worker = this->worker(
      {"--record", "103=1,18.9,0,0,0,0,0,0,0,0", "--record", "104=1,27.1,0,0,0,0,0,0,0,0"});
  rig::RunningProgram jvm = this->jvm(std::chrono::milliseconds(500));
  ask(jvm, "StartCollector");
  const std::size_t tick = passTicks(jvm, 1);
  EXPECT_EQ(roundTrips(jvm, 103).at(tick), "18");
  EXPECT_EQ(roundTrips(jvm, 104).at(tick), "-");
  end(jvm);
}

TEST_F(Desktop, SessionsNeedTheWorkerToRun) {
  const rig::RunningProgram server = xServer(103);
  rig::RunningProgram jvm = this->jvm(std::chrono::seconds(1));
  ask(jvm, "StartCollector");
  rig::RunningProgram worker = this->worker({"103"});
  EXPECT_NE(roundTripAfterATick(jvm, 103), "-");
  worker.stop(SIGTERM);
  EXPECT_EQ(roundTripAfterATick(jvm, 103), "-");
  const rig::RunningProgram successor = this->worker({"103"});
  EXPECT_NE(roundTripAfterATick(jvm, 103), "-");
  end(jvm);
}

TEST_F(Desktop, ShowsTheLiveCountersOfASession) {
  rig::RunningProgram jvm = this->jvm(std::chrono::seconds(30));
  ask(jvm, "StartCollector");
  EXPECT_EQ(childOfEach(ask(jvm, "ProtocolInfo", "<display>103</display>"), "flare",
                        "image_transmit_bytes"),
            std::vector<std::string>{"0"});
  const rig::RunningProgram worker = this->worker({"--interval", "10", "103"});
  const auto sent = [&] {
    const std::string answer = ask(jvm, "ProtocolInfo", "<display>103</display>");
    return std::stoull(childOfEach(answer, "flare", "image_transmit_bytes").at(0));
  };
  std::uint64_t before = 0;
  EXPECT_TRUE(rig::eventually([&] { return (before = sent()) > 0; }));
  EXPECT_TRUE(rig::eventually([&] { return sent() > before; }));
  EXPECT_EQ(ask(jvm, "ProtocolInfo", "<display>99</display>"), "<protocol/>");
  end(jvm);
}

TEST_F(Desktop, EndsAnXClientPickedFromTheReport) {
  const rig::RunningProgram server = xServer(103);
  std::vector<rig::RunningProgram> clocks;
  for (int i = 0; i < 4; ++i) {
    clocks.push_back(xclock("alice", 103));
  }
  const rig::RunningProgram other = xclock("bob", 103);
  ASSERT_TRUE(rig::eventually([&] {
    return std::all_of(clocks.begin(), clocks.end(),
                       [](const auto& clock) { return nameOf(clock.pid()) == "xclock"; });
  }));
  // One tick, and no other that could take a row out.
  rig::RunningProgram jvm = this->jvm(std::chrono::seconds(30));
  ask(jvm, "StartCollector");
  ASSERT_TRUE(rig::eventually([&] { return !processes(jvm).empty(); }));

  int gone = 0;
  for (rig::RunningProgram& clock : clocks) {
    const std::string id = std::to_string(clock.pid());
    const std::optional<ReportedProcess> picked = reported(jvm, id);
    ASSERT_TRUE(picked.has_value());
    EXPECT_EQ(picked->name, "xclock");
    EXPECT_EQ(picked->user, "alice");
    const std::string parameters =
        "<processId>" + id + "</processId><createTime>" + picked->createTime + "</createTime>";
    jvm.send("<MendlineOperation><opcode>EndProcess</opcode>" + parameters +
             "</MendlineOperation>");
    EXPECT_EQ(clock.wait(), 128 + SIGTERM);
    EXPECT_EQ(jvm.receive(),
              std::string(kDeclaration) + "<terminatedProcessName>xclock</terminatedProcessName>");
    gone += reported(jvm, id).has_value() ? 0 : 1;
    EXPECT_EQ(ask(jvm, "EndProcess", parameters), "<ERROR>Failed to terminate process</ERROR>");
  }
  // On a busy machine one or the other may need more than the 100 ms in which it is looked for.
  EXPECT_GE(gone, 1);
  EXPECT_TRUE(reported(jvm, std::to_string(other.pid())).has_value());
  EXPECT_TRUE(other.isRunning());
  EXPECT_TRUE(server.isRunning());
  end(jvm);
}

TEST_F(Desktop, LeavesAnXClientAloneThatIsNotTheOneOfTheReport) {
  const rig::RunningProgram server = xServer(103);
  rig::RunningProgram clock = xclock("alice", 103);
  rig::RunningProgram jvm = this->jvm(std::chrono::milliseconds(200));
  ask(jvm, "StartCollector");
  const std::string id = std::to_string(clock.pid());
  ASSERT_TRUE(rig::eventually([&] { return reported(jvm, id).has_value(); }));
  const std::string createTime = reported(jvm, id)->createTime;
  for (const int difference : {-1, 1}) {
    EXPECT_EQ(ask(jvm, "EndProcess",
                  "<processId>" + id + "</processId><createTime>" +
                      std::to_string(std::stoll(createTime) + difference) + "</createTime>"),
              "<ERROR>Failed to terminate process</ERROR>");
  }
  EXPECT_TRUE(clock.isRunning());
  EXPECT_TRUE(reported(jvm, id).has_value());
  end(jvm);
}

}  // namespace
}  // namespace mendline
