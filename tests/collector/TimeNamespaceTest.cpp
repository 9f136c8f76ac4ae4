// A host whose time since boot is not this machine's: a container that was moved here, or one that
// has been up for a century. The kernel shifts uptime, boot time and start times together.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>

#include "Eventually.h"
#include "FailingSyscalls.h"
#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "gateway/MendLineOperation.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;
using testing::HasSubstr;

long uptime() {
  struct sysinfo info = {};
  EXPECT_EQ(sysinfo(&info), 0);
  return info.uptime;
}

// Runs the body where that many seconds more have passed since boot.
testing::AssertionResult inShiftedTime(long seconds, const std::function<void()>& body) {
  if (unshare(CLONE_NEWTIME) != 0) {
    return testing::AssertionFailure() << "no time namespace: " << std::strerror(errno);
  }
  std::ofstream offsets("/proc/self/timens_offsets");
  offsets << "boottime " << seconds << " 0\n" << std::flush;
  if (!offsets) {
    return testing::AssertionFailure() << "cannot shift the time by " << seconds << " seconds";
  }
  return rig::inChild(body);
}

std::string answer(const std::string& opcode, const std::string& parameters = "") {
  std::string response;
  handleRequest(
      "<MendlineOperation><opcode>" + opcode + "</opcode>" + parameters + "</MendlineOperation>",
      response);
  return response;
}

ptree report() {
  std::istringstream text(answer("ProcessMetrics"));
  ptree tree;
  read_xml(text, tree);
  return tree.get_child("processMetrics");
}

std::optional<ptree> rowOf(pid_t pid) {
  for (const auto& [name, row] : report()) {
    if (name == "process" && row.get<pid_t>("id") == pid) {
      return row;
    }
  }
  return std::nullopt;
}

std::uint64_t bootTime() {
  std::ifstream file("/proc/stat");
  std::string word;
  std::uint64_t time = 0;
  while (file >> word) {
    if (word == "btime") {
      file >> time;
      return time;
    }
  }
  ADD_FAILURE() << "no boot time";
  return 0;
}

std::uint64_t startTime(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(file, line);
  std::istringstream fields(line.substr(line.rfind(')') + 2));
  std::string field;
  constexpr int kStartTime = 20;  // counted from the state
  for (int i = 0; i < kStartTime; ++i) {
    fields >> field;
  }
  return std::stoull(field);
}

// What holds on such a host whatever its shift: creation times are those of the wall clock, so that
// they name a process for EndProcess.
void expectCreationTimesOfTheWallClock(rig::PrivateHost& host) {
  const auto before = static_cast<std::uint64_t>(std::time(nullptr));
  const rig::Process editor = host.process("editor").ownedBy("alice").start();
  const auto after = static_cast<std::uint64_t>(std::time(nullptr));
  const long ticking = uptime();
  ASSERT_TRUE(StartCollector());
  ASSERT_TRUE(rig::eventually([&] { return rowOf(editor.pid()).has_value(); }));

  const auto timestamp = report().get<long>("timestamp");
  EXPECT_GE(timestamp, ticking);
  EXPECT_LE(timestamp, uptime());
  const auto created = rowOf(editor.pid())->get<std::uint64_t>("create_time");
  EXPECT_GE(created + 1, before);
  EXPECT_LE(created, after + 1);
  EXPECT_EQ(created, startTime(editor.pid()) / 100 + bootTime());
  EXPECT_THAT(answer("EndProcess", "<processId>" + std::to_string(editor.pid()) +
                                       "</processId><createTime>" + std::to_string(created) +
                                       "</createTime>"),
              HasSubstr("<terminatedProcessName>editor</terminatedProcessName>"));
  StopCollector();
}

TEST(TimeNamespace, UpForACenturyHasCreationTimesOfTheWallClock) {
  constexpr long kCentury = 3'155'760'000;
  rig::PrivateHost host;
  EXPECT_TRUE(inShiftedTime(kCentury, [&] {
    EXPECT_GT(uptime(), kCentury);
    // Before 1970: the kernel writes it as a number of 20 digits, and the sum wraps back.
    EXPECT_GT(bootTime(), std::uint64_t{1} << 63);
    expectCreationTimesOfTheWallClock(host);
  }));
}

TEST(TimeNamespace, UpForADecadeHasCreationTimesOfTheWallClock) {
  constexpr long kDecade = 315'576'000;
  rig::PrivateHost host;
  EXPECT_TRUE(inShiftedTime(kDecade, [&] {
    EXPECT_GT(uptime(), kDecade);
    expectCreationTimesOfTheWallClock(host);
  }));
}

// Whatever was started before has a start time that wraps round; it takes nobody else's row.
TEST(TimeNamespace, UpForAMomentTakesProcessesThatAreOlderThanTheHost) {
  rig::PrivateHost host;
  const rig::Process elder = host.process("elder").ownedBy("bob").start();
  sleep(2);
  EXPECT_TRUE(inShiftedTime(1 - uptime(), [&] {
    EXPECT_LE(uptime(), 3);
    expectCreationTimesOfTheWallClock(host);
    const std::optional<ptree> row = rowOf(elder.pid());
    ASSERT_TRUE(row);
    EXPECT_EQ(row->get<std::uint64_t>("create_time"), startTime(elder.pid()) / 100 + bootTime());
  }));
}

}  // namespace
}  // namespace mendline
