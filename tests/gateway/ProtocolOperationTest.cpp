// The operation on the live counters of one session, on the segment that its worker writes to.
#include "gateway/ProtocolOperation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <csignal>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "PrivateHost.h"
#include "Worker.h"
#include "collector/CollectorControl.h"
#include "collector/PerfCollector.h"
#include "collector/SessionCounters.h"
#include "gateway/MendLineOperation.h"
#include "logging/InternalLogger.h"
#include "tests/collector/CollectorThread.h"
#include "tests/collector/RecordingGenerator.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;
using rig::SessionRecord;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

const SessionRecord kFigures = {.frameRate = 29.97,
                                .rtt = 18.9,
                                .pkLoss = 0.5,
                                .bw = 900.25,
                                .imagingReceived = 4096,
                                .imagingTransmitted = 1048576,
                                .audioReceived = 512,
                                .audioTransmitted = 2048,
                                .cdrReceived = 0,
                                .cdrTransmitted = 0};
const std::string kReport =
    "<protocol><flare><audio_recv_bytes>512</audio_recv_bytes>"
    "<audio_transmit_bytes>2048</audio_transmit_bytes><cdr_recv_bytes>0</cdr_recv_bytes>"
    "<cdr_transmit_bytes>0</cdr_transmit_bytes>"
    "<image_frames_per_second>29</image_frames_per_second>"
    "<image_recv_bytes>4096</image_recv_bytes><image_transmit_bytes>1048576</image_transmit_bytes>"
    "<session_rtt>18</session_rtt><session_bandwidth_uplink>900</session_bandwidth_uplink>"
    "<session_packet_loss_uplink>0</session_packet_loss_uplink></flare></protocol>";
const std::string kZeros =
    "<protocol><flare><audio_recv_bytes>0</audio_recv_bytes>"
    "<audio_transmit_bytes>0</audio_transmit_bytes><cdr_recv_bytes>0</cdr_recv_bytes>"
    "<cdr_transmit_bytes>0</cdr_transmit_bytes>"
    "<image_frames_per_second>0</image_frames_per_second><image_recv_bytes>0</image_recv_bytes>"
    "<image_transmit_bytes>0</image_transmit_bytes><session_rtt>0</session_rtt>"
    "<session_bandwidth_uplink>0</session_bandwidth_uplink>"
    "<session_packet_loss_uplink>0</session_packet_loss_uplink></flare></protocol>";
const std::string kNothing = "<protocol/>";

std::string requestWith(const std::string& parameters) {
  return "<MendlineOperation><opcode>ProtocolInfo</opcode>" + parameters + "</MendlineOperation>";
}

// What follows the declaration in the answer.
std::string answer(const std::string& parameters) {
  std::string response;
  handleRequest(requestWith(parameters), response);
  EXPECT_THAT(response, testing::StartsWith(kDeclaration));
  return response.substr(kDeclaration.size());
}

std::string counters(const std::string& display) {
  return answer("<display>" + display + "</display>");
}

class ProtocolOperation : public testing::Test {
 protected:
  ~ProtocolOperation() override { StopCollector(); }

  void startCollector() {
    ASSERT_TRUE(StartCollector());
    host.log().clear();
  }

  rig::PrivateHost host;
};

TEST_F(ProtocolOperation, AnswersWithTheCountersThatTheWorkerHasWritten) {
  startCollector();
  rig::Worker worker = host.worker();
  worker.writes(101, kFigures);
  EXPECT_EQ(counters("101"), kReport);
  EXPECT_EQ(counters("100"), kZeros);
  EXPECT_EQ(counters("102"), kZeros);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST_F(ProtocolOperation, AnswersWithNineCountersWithoutAPacketLoss) {
  startCollector();
  SessionRecord record = kFigures;
  record.pkLoss = -1;
  rig::Worker worker = host.worker();
  worker.writes(101, record);
  const std::string loss = "<session_packet_loss_uplink>0</session_packet_loss_uplink>";
  std::string nine = kReport;
  nine.erase(nine.find(loss), loss.size());
  EXPECT_EQ(counters("101"), nine);
}

TEST_F(ProtocolOperation, AnswersWithByteCountersBeyond32BitsWhole) {
  startCollector();
  rig::Worker worker = host.worker();
  worker.writes(101, {.imagingTransmitted = 18446744073709551615u, .audioReceived = 4294967301});
  const std::string text = counters("101");
  EXPECT_THAT(text, testing::HasSubstr("<audio_recv_bytes>4294967301</audio_recv_bytes>"));
  EXPECT_THAT(text, testing::HasSubstr(
                        "<image_transmit_bytes>18446744073709551615</image_transmit_bytes>"));
}

TEST_F(ProtocolOperation, AnswersWithTheMomentAndNotWithATick) {
  const auto generator = std::make_shared<RecordingGenerator>();
  ASSERT_TRUE(PerfCollector::getInstance()->registerGenerator(generator));
  startCollector();
  ASSERT_TRUE(generator->willHaveFinished(1));
  // The next tick is half a minute away.
  rig::Worker worker = host.worker();
  worker.writes(101, kFigures);
  EXPECT_EQ(counters("101"), kReport);
  worker.writes(101, {});
  EXPECT_EQ(counters("101"), kZeros);
  EXPECT_EQ(generator->begun(), 1u);
}

TEST_F(ProtocolOperation, DoesNotWaitForATickThatTakesLong) {
  const auto generator = std::make_shared<RecordingGenerator>();
  ASSERT_TRUE(PerfCollector::getInstance()->registerGenerator(generator));
  generator->hold();
  startCollector();
  ASSERT_TRUE(generator->willHaveBegun(1));
  rig::Worker worker = host.worker();
  worker.writes(101, kFigures);
  EXPECT_EQ(counters("101"), kReport);
  EXPECT_EQ(generator->finished(), 0u);
  generator->release();
}

TEST_F(ProtocolOperation, AnswersWithZerosAfterTheRecordIsCleared) {
  startCollector();
  SessionRecord record = kFigures;
  record.pkLoss = -1;
  rig::Worker worker = host.worker();
  worker.writes(101, record);
  std::string cleared;
  handleRequest(
      "<MendlineOperation><opcode>ClearShm</opcode><display>101</display></MendlineOperation>",
      cleared);
  EXPECT_EQ(counters("101"), kZeros);
}

TEST_F(ProtocolOperation, AsksForADisplay) {
  startCollector();
  for (const char* parameters :
       {"", "<display></display>", "<display/>", "<display number=\"101\"/>",
        "<Display>101</Display>", "<x><display>101</display></x>", "<userName>101</userName>"}) {
    host.log().clear();
    EXPECT_EQ(answer(parameters), "<ERROR>Display parameter missed</ERROR>") << parameters;
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Error MendLineOperation: Display parameter missed"));
  }
}

TEST_F(ProtocolOperation, AnswersWithAnEmptyElementForWhatIsNoDisplay) {
  startCollector();
  for (const std::string display :
       {"abc", "99", "161", "-5", "0", "99999999999", " x ", "x101", "2147483648"}) {
    host.log().clear();
    EXPECT_EQ(counters(display), kNothing) << display;
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Warn ProtocolInfo: Invalid display number " + display));
  }
  EXPECT_EQ(counters("&lt;&amp;"), kNothing);
  EXPECT_TRUE(host.log().has("Warn", "ProtocolInfo", "Invalid display number <&"));
}

TEST_F(ProtocolOperation, TakesTheNumberAtTheStartOfTheText) {
  startCollector();
  rig::Worker worker = host.worker();
  worker.writes(101, kFigures);
  for (const std::string display : {"101abc", " 101", "\n101\n", "+101", "0101", "101.9"}) {
    EXPECT_EQ(counters(display), kReport) << display;
  }
}

TEST_F(ProtocolOperation, IgnoresEverythingElseInTheRequest) {
  startCollector();
  rig::Worker worker = host.worker();
  worker.writes(101, kFigures);
  EXPECT_EQ(answer("<userName>nosuchuser</userName><display>101</display><display>abc</display>"
                   "<processId>x</processId>"),
            kReport);
}

TEST_F(ProtocolOperation, CountsFromTheLowestDisplayOfTheConfiguration) {
  host.withConfig("Desktop.displayNumberMin=10\nDesktop.displayNumberMax=12\n");
  startCollector();
  rig::Worker worker = host.worker(10);
  worker.writes(10, kFigures);
  worker.writes(12, kFigures);
  EXPECT_EQ(counters("10"), kReport);
  EXPECT_EQ(counters("11"), kZeros);
  EXPECT_EQ(counters("12"), kReport);
  EXPECT_EQ(counters("9"), kNothing);
  EXPECT_EQ(counters("14"), kNothing);
}

TEST_F(ProtocolOperation, AdmitsOneRecordBeyondTheSegment) {
  startCollector();
  // Sixty records of 80 bytes end in the middle of a page; what follows can be touched.
  std::memcpy(static_cast<char*>(sessionShmBase) + 60 * sizeof kFigures, &kFigures,
              sizeof kFigures);
  EXPECT_EQ(counters("160"), kReport);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  EXPECT_EQ(counters("161"), kNothing);
}

TEST_F(ProtocolOperation, GivesRequestsAtOnceACompleteAnswerEach) {
  startCollector();
  rig::Worker worker = host.worker();
  worker.writes(101, kFigures);
  std::vector<std::future<void>> requests;
  for (const auto& [display, wanted] : {std::pair{"101", &kReport}, std::pair{"102", &kZeros},
                                        std::pair{"101", &kReport}, std::pair{"abc", &kNothing}}) {
    requests.push_back(
        std::async(std::launch::async, [display = std::string(display), wanted = wanted] {
          for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(counters(display), *wanted);
          }
        }));
  }
  for (std::future<void>& request : requests) {
    request.get();
  }
}

TEST_F(ProtocolOperation, PutsItsAnswerBehindOrOverWhatStandsThere) {
  ptree tree;
  tree.put("protocol", "old");
  tree.put("ERROR", "old");
  ptree request;
  protocolInfo(request, tree);
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree.get<std::string>("ERROR"), "Display parameter missed");
  request.put("MendlineOperation.display", " ");
  protocolInfo(request, tree);
  ASSERT_EQ(tree.size(), 3u);
  EXPECT_EQ(tree.front().second.data(), "old");
  EXPECT_EQ(tree.back().first, "protocol");
  EXPECT_EQ(tree.back().second, ptree());
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer reports the fault and exits.
bool endedByTheFault(int status) {
  return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
}
#else
bool endedByTheFault(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
}
#endif

TEST_F(ProtocolOperation, EndsTheProcessWithNoSegmentAttached) {
  for (const std::string display : {"100", "101", "159", "160", "101abc"}) {
    EXPECT_EXIT(counters(display), endedByTheFault, "") << display;
  }
  // What is refused is refused before.
  EXPECT_EQ(counters("99"), kNothing);
  EXPECT_EQ(counters("abc"), kNothing);
  EXPECT_EQ(answer(""), "<ERROR>Display parameter missed</ERROR>");
}

TEST_F(ProtocolOperation, EndsTheProcessAfterAStop) {
  startCollector();
  StopCollector();
  ASSERT_TRUE(collectorThreadHasEnded());
  EXPECT_EXIT(counters("100"), endedByTheFault, "");
}

}  // namespace
}  // namespace mendline
