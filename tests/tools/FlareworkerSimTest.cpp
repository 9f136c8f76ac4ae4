// The stand-in worker that ships with the sources, against the table that the library makes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "Eventually.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "collector/SessionCounters.h"
#include "gateway/MendLineOperation.h"

namespace mendline {
namespace {

using testing::HasSubstr;

class FlareworkerSim : public testing::Test {
 protected:
  ~FlareworkerSim() override { StopCollector(); }

  rig::Program sim(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), MENDLINE_BINARY_DIR "/flareworker-sim");
    return host.program(arguments);
  }

  static bool isCalledWorker(const rig::RunningProgram& program) {
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(program.pid()) + "/comm"), name);
    return name == "FlareWorker";
  }

  static const SessionCounters& recordOf(int index) {
    return *sessionRecord(sessionShmBase, index);
  }

  static std::string protocolInfo(const std::string& display) {
    std::string response;
    handleRequest("<MendlineOperation><opcode>ProtocolInfo</opcode><display>" + display +
                      "</display></MendlineOperation>",
                  response);
    return response.substr(response.find('\n') + 1);
  }

  rig::PrivateHost host;
};

TEST_F(FlareworkerSim, WritesExactlyTheRecordItIsTold) {
  ASSERT_TRUE(StartCollector());
  const rig::Run run =
      sim({"--once", "--record", "103=59.94,18.5,-1,-3.5,1,2,3,4,5,18446744073709551615"}).run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  const SessionCounters& record = recordOf(3);
  EXPECT_EQ(record.frameRate, 59.94);
  EXPECT_EQ(record.rtt, 18.5);
  EXPECT_EQ(record.pkLoss, -1.0);
  EXPECT_EQ(record.bw, -3.5);
  EXPECT_EQ(record.imagingReceived, 1U);
  EXPECT_EQ(record.imagingTransmitted, 2U);
  EXPECT_EQ(record.audioReceived, 3U);
  EXPECT_EQ(record.audioTransmitted, 4U);
  EXPECT_EQ(record.cdrReceived, 5U);
  EXPECT_EQ(record.cdrTransmitted, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(protocolInfo("103"),
            "<protocol><flare><audio_recv_bytes>3</audio_recv_bytes>"
            "<audio_transmit_bytes>4</audio_transmit_bytes><cdr_recv_bytes>5</cdr_recv_bytes>"
            "<cdr_transmit_bytes>18446744073709551615</cdr_transmit_bytes>"
            "<image_frames_per_second>59</image_frames_per_second>"
            "<image_recv_bytes>1</image_recv_bytes><image_transmit_bytes>2</image_transmit_bytes>"
            "<session_rtt>18</session_rtt>"
            "<session_bandwidth_uplink>18446744073709551613</session_bandwidth_uplink>"
            "</flare></protocol>");
}

TEST_F(FlareworkerSim, WritesNothingButTheRecordsOfItsDisplays) {
  ASSERT_TRUE(StartCollector());
  ASSERT_EQ(
      sim({"--once", "--record", "100=1,1,1,1,1,1,1,1,1,1", "--record", "159=2,2,2,2,2,2,2,2,2,2"})
          .run()
          .exitStatus,
      0);
  EXPECT_EQ(recordOf(0).cdrTransmitted, 1U);
  EXPECT_EQ(recordOf(59).cdrTransmitted, 2U);
  for (int index = 1; index < 59; ++index) {
    EXPECT_EQ(recordOf(index).frameRate, 0.0) << index;
    EXPECT_EQ(recordOf(index).cdrTransmitted, 0U) << index;
  }
}

TEST_F(FlareworkerSim, LooksLikeTheWorker) {
  const rig::RunningProgram worker = sim({"103"}).start();
  EXPECT_TRUE(rig::eventually([&] { return isCalledWorker(worker); }));
  struct stat status = {};
  ASSERT_EQ(stat(("/proc/" + std::to_string(worker.pid())).c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, host.uidOf("qrsflare"));
}

TEST_F(FlareworkerSim, MovesTheCountersOfTheDisplaysItIsTold) {
  ASSERT_TRUE(StartCollector());
  const rig::RunningProgram worker = sim({"--interval", "5", "101", "102"}).start();
  for (const int index : {1, 2}) {
    SessionCounters before = {};
    ASSERT_TRUE(rig::eventually([&] {
      before.imagingTransmitted = loadShared(recordOf(index).imagingTransmitted);
      before.frameRate = loadShared(recordOf(index).frameRate);
      return before.imagingTransmitted > 0;
    }));
    EXPECT_TRUE(rig::eventually([&] {
      return loadShared(recordOf(index).imagingTransmitted) > before.imagingTransmitted &&
             loadShared(recordOf(index).cdrReceived) > 0 &&
             loadShared(recordOf(index).frameRate) != before.frameRate;
    })) << index;
    EXPECT_GT(loadShared(recordOf(index).rtt), 0.0);
  }
  EXPECT_EQ(loadShared(recordOf(0).imagingTransmitted), 0U);
}

TEST_F(FlareworkerSim, WaitsForTheTableAndTakesUpTheNextOne) {
  const rig::RunningProgram worker = sim({"--interval", "5", "101"}).start();
  for (int life = 0; life < 3; ++life) {
    ASSERT_TRUE(StartCollector());
    EXPECT_TRUE(rig::eventually([] { return loadShared(recordOf(1).frameRate) > 0; })) << life;
    StopCollector();
    // It lets the removed segment go.
    EXPECT_TRUE(rig::eventually([] { return rig::segments().empty(); })) << life;
  }
}

TEST_F(FlareworkerSim, EndsOnSigterm) {
  rig::RunningProgram waiting = sim({"101"}).start();
  ASSERT_TRUE(rig::eventually([&] { return isCalledWorker(waiting); }));
  EXPECT_EQ(waiting.stop(SIGTERM), 0);
  ASSERT_TRUE(StartCollector());
  rig::RunningProgram writing = sim({"101"}).start();
  EXPECT_TRUE(rig::eventually([] { return loadShared(recordOf(1).frameRate) > 0; }));
  EXPECT_EQ(writing.stop(SIGTERM), 0);
}

TEST_F(FlareworkerSim, CountsFromTheConfiguredRange) {
  const struct {
    const char* config;
    const char* display;
    int index;
  } kCases[] = {
      {"Desktop.displayNumberMin = 200\nDesktop.displayNumberMax=210\n", "203", 3},
      {"; a comment\n# another\n\nDesktop.displayNumberMin=7\n[Section]\n"
       "Desktop.displayNumberMin=9\n",
       "10", 3},
      {"Desktop.displayNumberMin=-5\nDesktop.displayNumberMax=10\n", "3", 3},
      {"Desktop.displayNumberMin=300\nDesktop.displayNumberMax=200\n", "103", 3},
      {"Desktop.displayNumberMin=60000\nDesktop.displayNumberMax=70000\n", "103", 3},
      {"Desktop.displayNumberMin=20x\n", "103", 3},
      {"Desktop.displayNumberMin=150\n", "153", 3},
      {"Desktop.displayNumberMin=50\nno configuration\n", "103", 3},
      {"Desktop.displayNumberMin=50\nDesktop.displayNumberMin=60\n", "103", 3},
      {"Desktop.displayNumberMin=50\n[Section]\nOption=1\nOption=2\n", "103", 3},
      {"Desktop.displayNumberMin=50\n[Section]\nA=1\n[Section]\nB=2\n", "103", 3},
      {"Desktop.displayNumberMin=50\n[Section\n", "103", 3},
      {"Desktop.displayNumberMin=50\n=1\n", "103", 3},
      {"Desktop.displayNumberMin=50\n[One]\nOption=1\n[Two]\nOption=1\n", "53", 3},
      {"Desktop.displayNumberMin=+120\n", "123", 3},
  };
  for (const auto& example : kCases) {
    host.withConfig(example.config);
    // The library keeps what it took from an earlier configuration.
    displayNumberMin = 100;
    displayNumberMax = 159;
    ASSERT_TRUE(StartCollector());
    const rig::Run run =
        sim({"--once", "--record", std::string(example.display) + "=1,2,3,4,5,6,7,8,9,10"}).run();
    EXPECT_EQ(run.exitStatus, 0) << example.config << run.errors;
    EXPECT_EQ(recordOf(example.index).cdrTransmitted, 10U) << example.config;
    EXPECT_THAT(protocolInfo(example.display),
                HasSubstr("<cdr_transmit_bytes>10</cdr_transmit_bytes>"))
        << example.config;
    StopCollector();
  }
}

TEST_F(FlareworkerSim, RefusesADisplayOutsideTheTable) {
  ASSERT_TRUE(StartCollector());
  for (const char* display : {"99", "160"}) {
    const rig::Run run = sim({display}).run();
    EXPECT_EQ(run.exitStatus, 1) << display;
    EXPECT_THAT(run.errors, HasSubstr("outside the table"));
  }
}

TEST_F(FlareworkerSim, RefusesAWrongCall) {
  const std::vector<std::vector<std::string>> kCalls = {
      {},
      {"abc"},
      {"--record", "103=1,2,3"},
      {"--record", "103"},
      {"--record", "103=1,2,3,4,5,6,7,8,9,-1"},
      {"--record", "103=x,2,3,4,5,6,7,8,9,10"},
      {"--interval", "0", "103"},
      {"--interval"},
      {"--loud", "103"},
  };
  for (const auto& call : kCalls) {
    const rig::Run run = sim(call).run();
    EXPECT_EQ(run.exitStatus, 64) << testing::PrintToString(call);
    EXPECT_THAT(run.errors, HasSubstr("usage:"));
  }
  EXPECT_EQ(sim({"--help"}).run().exitStatus, 0);
}

TEST_F(FlareworkerSim, NeedsTheWorkersAccount) {
  host.withoutWorkerAccount();
  const rig::Run run = sim({"103"}).run();
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.errors, HasSubstr("no account qrsflare"));
}

}  // namespace
}  // namespace mendline
