// The live counters of one session as a report, from a session table of the test's own.
#include "generators/ProtocolMetricGenerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <future>
#include <limits>
#include <locale>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Eventually.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "collector/SessionCounters.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;
using rig::SessionRecord;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Elements = std::vector<std::pair<std::string, std::string>>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
const std::string kLost = "session_packet_loss_uplink";

// Two pages in the place of the shared segment; the records that it counts end in the first.
class SessionTable {
 public:
  explicit SessionTable(int lowest = 100, int records = 60)
      : size_(2 * static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        memory_(static_cast<char*>(
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    if (memory_ == MAP_FAILED) {
      throw std::bad_alloc();
    }
    storeShared(displayNumberMin, lowest);
    storeShared(displayNumberMax, lowest + records - 1);
    storeShared(maxSessionNumber, records);
    storeShared(sessionShmBase, static_cast<void*>(memory_));
  }
  ~SessionTable() {
    storeShared(sessionShmBase, kNoSegment);
    munmap(memory_, size_);
  }
  SessionTable(const SessionTable&) = delete;
  SessionTable& operator=(const SessionTable&) = delete;

  SessionTable& with(std::size_t index, const SessionRecord& record) {
    std::uint64_t words[10];
    static_assert(sizeof words == sizeof record);
    std::memcpy(words, &record, sizeof words);
    for (std::size_t i = 0; i < 10; ++i) {
      storeShared(reinterpret_cast<std::uint64_t*>(memory_ + index * sizeof record)[i], words[i]);
    }
    return *this;
  }

  // Whether the table may be touched at all.
  void open() const { mprotect(memory_, size_, PROT_READ | PROT_WRITE); }
  void close() const { mprotect(memory_, size_, PROT_NONE); }

 private:
  std::size_t size_;
  char* memory_;
};

ptree reportOf(const std::string& display) {
  ptree tree;
  ProtocolMetricGenerator::getInstance()->report(display, tree);
  return tree;
}

// The elements of the one "flare" element of a report.
Elements countersIn(const ptree& tree) {
  EXPECT_EQ(tree.size(), 1u);
  EXPECT_EQ(tree.count("flare"), 1u);
  Elements elements;
  for (const auto& [name, element] : tree.get_child("flare")) {
    EXPECT_TRUE(element.empty()) << name;
    elements.emplace_back(name, element.data());
  }
  return elements;
}

Elements counters(const std::string& display) {
  return countersIn(reportOf(display));
}

Elements expected(const std::string& audioReceived, const std::string& audioTransmitted,
                  const std::string& cdrReceived, const std::string& cdrTransmitted,
                  const std::string& frameRate, const std::string& imagingReceived,
                  const std::string& imagingTransmitted, const std::string& rtt,
                  const std::string& bandwidth, const std::string& packetLoss) {
  return {{"audio_recv_bytes", audioReceived},
          {"audio_transmit_bytes", audioTransmitted},
          {"cdr_recv_bytes", cdrReceived},
          {"cdr_transmit_bytes", cdrTransmitted},
          {"image_frames_per_second", frameRate},
          {"image_recv_bytes", imagingReceived},
          {"image_transmit_bytes", imagingTransmitted},
          {"session_rtt", rtt},
          {"session_bandwidth_uplink", bandwidth},
          {"session_packet_loss_uplink", packetLoss}};
}

const SessionRecord kFigures = {.frameRate = 29.97,
                                .rtt = 18.5,
                                .pkLoss = 3.25,
                                .bw = 900.75,
                                .imagingReceived = 4096,
                                .imagingTransmitted = 1048576,
                                .audioReceived = 512,
                                .audioTransmitted = 2048,
                                .cdrReceived = 7,
                                .cdrTransmitted = 11};
const Elements kReport =
    expected("512", "2048", "7", "11", "29", "4096", "1048576", "18", "900", "3");

// ---- The report ----

TEST(ProtocolMetricGenerator, IsOneObject) {
  const std::shared_ptr<ProtocolMetricGenerator> first = ProtocolMetricGenerator::getInstance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, ProtocolMetricGenerator::getInstance());
  EXPECT_EQ(first.use_count(), 2) << "the caller's and the library's";
}

TEST(ProtocolMetricGenerator, ReportsTheTenCountersInTheirOrder) {
  SessionTable table;
  table.with(3, kFigures);
  EXPECT_EQ(counters("103"), kReport);
}

TEST(ProtocolMetricGenerator, ReportsARecordOfZerosAsTenZeros) {
  SessionTable table;
  EXPECT_EQ(counters("100"), expected("0", "0", "0", "0", "0", "0", "0", "0", "0", "0"));
}

TEST(ProtocolMetricGenerator, ReportsTheRecordAtTheMomentOfTheCall) {
  SessionTable table;
  EXPECT_EQ(counters("103").front().second, "0");
  table.with(3, kFigures);
  EXPECT_EQ(counters("103"), kReport);
  table.with(3, {});
  EXPECT_EQ(counters("103").front().second, "0");
}

TEST(ProtocolMetricGenerator, ReportsTheRecordOfTheDisplayAndNoOther) {
  SessionTable table;
  for (std::size_t index = 0; index <= 60; ++index) {
    table.with(index, {.audioReceived = 1000 + index, .cdrTransmitted = 2000 + index});
  }
  for (int index = 0; index <= 60; ++index) {
    const Elements elements = counters(std::to_string(100 + index));
    EXPECT_EQ(elements[0].second, std::to_string(1000 + index));
    EXPECT_EQ(elements[3].second, std::to_string(2000 + index));
  }
}

TEST(ProtocolMetricGenerator, ReportsByteCountersWhole) {
  SessionTable table;
  table.with(0, {.imagingReceived = 4294967296,
                 .imagingTransmitted = 18446744073709551615u,
                 .audioReceived = 4294967301,
                 .audioTransmitted = 9223372036854775808u,
                 .cdrReceived = 4294967295,
                 .cdrTransmitted = 1234567890123456789});
  EXPECT_EQ(counters("100"),
            expected("4294967301", "9223372036854775808", "4294967295", "1234567890123456789", "0",
                     "4294967296", "18446744073709551615", "0", "0", "0"));
}

TEST(ProtocolMetricGenerator, CutsTheFourFiguresDownAndLetsThemWrap) {
  SessionTable table;
  const std::vector<std::pair<double, std::string>> cases = {
      {0.0, "0"},
      {-0.0, "0"},
      {0.9, "0"},
      {-0.5, "0"},
      {1.0, "1"},
      {29.97, "29"},
      {59.94, "59"},
      {-2.0, "18446744073709551614"},
      {-3.5, "18446744073709551613"},
      {4294967296.5, "4294967296"},
      {9223372036854774784.0, "9223372036854774784"},
      {9223372036854775808.0, "9223372036854775808"},
      {9223372036854777856.0, "9223372036854777856"},
      {1e19, "10000000000000000000"},
      {18446744073709549568.0, "18446744073709549568"},
      {18446744073709551616.0, "0"},
      {1e300, "0"},
      {-9223372036854775808.0, "9223372036854775808"},
      {-1e300, "9223372036854775808"},
      {kInfinity, "0"},
      {-kInfinity, "9223372036854775808"},
      {kNaN, "9223372036854775808"},
      {-kNaN, "9223372036854775808"}};
  for (const auto& [value, text] : cases) {
    table.with(0, {.frameRate = value}).with(1, {.rtt = value}).with(2, {.pkLoss = value});
    table.with(3, {.bw = value});
    EXPECT_EQ(counters("100"), expected("0", "0", "0", "0", text, "0", "0", "0", "0", "0"));
    EXPECT_EQ(counters("101"), expected("0", "0", "0", "0", "0", "0", "0", text, "0", "0"));
    EXPECT_EQ(counters("102"), expected("0", "0", "0", "0", "0", "0", "0", "0", "0", text));
    EXPECT_EQ(counters("103"), expected("0", "0", "0", "0", "0", "0", "0", "0", text, "0"));
  }
}

TEST(ProtocolMetricGenerator, LeavesOutAPacketLossThatStandsForNoFigure) {
  SessionTable table;
  Elements without = kReport;
  without.pop_back();
  for (const double mark : {-1.0, -1.5, -1.9999, std::nextafter(-2.0, 0.0)}) {
    SessionRecord record = kFigures;
    record.pkLoss = mark;
    table.with(3, record);
    EXPECT_EQ(counters("103"), without) << mark;
  }
}

TEST(ProtocolMetricGenerator, ReportsAPacketLossNextToTheMark) {
  SessionTable table;
  const std::vector<std::pair<double, std::string>> cases = {
      {-0.5, "0"},
      {std::nextafter(-1.0, 0.0), "0"},
      {-2.0, "18446744073709551614"},
      {std::nextafter(-2.0, -3.0), "18446744073709551614"},
      {1.0, "1"},
      {4294967295.0, "4294967295"},
      {18446744073709551615.0, "0"}};
  for (const auto& [value, text] : cases) {
    table.with(3, {.pkLoss = value});
    EXPECT_THAT(counters("103").back(), Pair(kLost, text)) << value;
  }
}

TEST(ProtocolMetricGenerator, ReportsTheOtherFiguresWhereTheyAreMinusOne) {
  SessionTable table;
  table.with(0, {.frameRate = -1, .rtt = -1.5, .bw = -1.9999});
  const std::string highest = "18446744073709551615";
  EXPECT_EQ(counters("100"),
            expected("0", "0", "0", "0", highest, "0", "0", highest, highest, "0"));
}

class Grouping : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(ProtocolMetricGenerator, ReportsPlainDigitsInEveryLocale) {
  SessionTable table;
  table.with(3, kFigures);
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  const Elements elements = counters("103");
  std::locale::global(before);
  EXPECT_EQ(elements, kReport);
}

TEST(ProtocolMetricGenerator, AppendsItsElementToWhateverStandsThere) {
  SessionTable table;
  table.with(3, kFigures);
  ptree tree;
  tree.put("flare.before", "x");
  const auto generator = ProtocolMetricGenerator::getInstance();
  generator->report("103", tree);
  generator->report("104", tree);
  ASSERT_EQ(tree.size(), 3u);
  EXPECT_EQ(tree.front().second.get<std::string>("before"), "x");
  auto element = tree.begin();
  for (const std::string audio : {"", "512", "0"}) {
    EXPECT_EQ(element->first, "flare");
    EXPECT_EQ(element->second.get("audio_recv_bytes", ""), audio);
    ++element;
  }
}

// ---- The display ----

TEST(ProtocolMetricGenerator, AdmitsOneRecordBeyondTheTable) {
  rig::PrivateHost host;
  SessionTable table;
  table.with(60, kFigures).with(61, kFigures);
  EXPECT_EQ(counters("160"), kReport);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  EXPECT_TRUE(reportOf("161").empty());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProtocolInfo: Invalid display number 161"));
}

TEST(ProtocolMetricGenerator, RefusesEveryTextWithoutARecord) {
  rig::PrivateHost host;
  SessionTable table;
  table.close();
  SetLogThreshold(LogLevel::Trace);
  for (const std::string text :
       {"99", "0", "-1", "-100", "", " ", "abc", "x101", ":101", "161", "99999999999",
        "-99999999999", "2147483647", "2147483648", "-2147483648", "100000"}) {
    host.log().clear();
    ptree tree;
    tree.put("before", "x");
    ProtocolMetricGenerator::getInstance()->report(text, tree);
    EXPECT_EQ(tree.size(), 1u) << text;
    EXPECT_EQ(tree.get<std::string>("before"), "x");
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Warn ProtocolInfo: Invalid display number " + text));
  }
}

TEST(ProtocolMetricGenerator, TakesTheNumberAtTheStartOfTheText) {
  SessionTable table;
  table.with(1, kFigures);
  for (const char* text : {"101abc", " 101", "\n101", "+101", "0101", "101.9", "101 102"}) {
    EXPECT_EQ(counters(text), kReport) << text;
  }
}

TEST(ProtocolMetricGenerator, CountsFromTheLowestDisplayOfTheRange) {
  SessionTable table(10, 3);
  table.with(0, {.audioReceived = 10}).with(2, {.audioReceived = 12});
  table.with(3, {.audioReceived = 13}).with(4, {.audioReceived = 14});
  EXPECT_EQ(counters("10").front().second, "10");
  EXPECT_EQ(counters("12").front().second, "12");
  EXPECT_EQ(counters("13").front().second, "13");
  EXPECT_TRUE(reportOf("9").empty());
  EXPECT_TRUE(reportOf("14").empty());
}

// What is no number does not become the number 0.
TEST(ProtocolMetricGenerator, ATextThatIsNoNumberIsNoDisplayOfARangeFromZero) {
  SessionTable table(0, 4);
  table.with(0, kFigures);
  EXPECT_EQ(counters("0"), kReport);
  EXPECT_TRUE(reportOf("abc").empty());
  EXPECT_TRUE(reportOf("-1").empty());
}

// ---- The log ----

TEST(ProtocolMetricGenerator, LogsNothingAboutAReportAtDebug) {
  rig::PrivateHost host;
  SessionTable table;
  SetLogThreshold(LogLevel::Debug);
  counters("103");
  EXPECT_EQ(host.log().text(), "");
}

TEST(ProtocolMetricGenerator, TracesAllCountersInTheRecordsOrderAndALineFeed) {
  rig::PrivateHost host;
  SessionTable table;
  table.with(3, kFigures);
  SetLogThreshold(LogLevel::Trace);
  counters("103");
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Trace ProtocolInfo: Counters: frameRate = 29.97, rtt = 18.50, pkLoss = 3.25, bw "
                  "= 900.75, imagingReceived = 4096, imagingTransmitted = 1048576, audioReceived = "
                  "512, audioTransmitted = 2048, cdrReceived = 7, cdrTransmitted = 11",
                  ""));
  EXPECT_THAT(host.log().text(), testing::EndsWith("cdrTransmitted = 11\n\n"));
}

TEST(ProtocolMetricGenerator, TracesTheLow32BitsOfByteCounters) {
  rig::PrivateHost host;
  SessionTable table;
  table.with(0, {.frameRate = 59.994,
                 .rtt = -3.5,
                 .pkLoss = -1.0,
                 .bw = 0.005,
                 .imagingReceived = 4294967301,
                 .imagingTransmitted = 2147483648,
                 .audioReceived = 18446744073709551615u,
                 .audioTransmitted = 4294967296,
                 .cdrReceived = 2147483647,
                 .cdrTransmitted = 0x12345678fffffff0});
  SetLogThreshold(LogLevel::Trace);
  counters("100");
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Trace ProtocolInfo: Counters: frameRate = 59.99, rtt = -3.50, pkLoss = -1.00, "
                  "bw = 0.01, imagingReceived = 5, imagingTransmitted = -2147483648, audioReceived "
                  "= -1, audioTransmitted = 0, cdrReceived = 2147483647, cdrTransmitted = -16",
                  ""));
}

// ---- The element of the answer ----

TEST(ProtocolInfoReport, HoldsTheReport) {
  SessionTable table;
  table.with(3, kFigures);
  ptree answer;
  EXPECT_TRUE(protocolInfoReport("103", answer));
  ASSERT_EQ(answer.size(), 1u);
  EXPECT_EQ(answer.front().first, "protocol");
  EXPECT_EQ(countersIn(answer.front().second), kReport);
}

TEST(ProtocolInfoReport, IsEmptyForWhatIsNoDisplay) {
  rig::PrivateHost host;
  SessionTable table;
  for (const std::string text : {"abc", "99", "161", ""}) {
    ptree answer;
    EXPECT_TRUE(protocolInfoReport(text, answer)) << text;
    ASSERT_EQ(answer.size(), 1u);
    EXPECT_EQ(answer.front().first, "protocol");
    EXPECT_EQ(answer.front().second, ptree());
  }
  EXPECT_EQ(host.log().count("Warn", "ProtocolInfo", "Invalid display number "), 4u);
}

TEST(ProtocolInfoReport, AppendsItsElementToWhateverStandsThere) {
  SessionTable table;
  table.with(3, kFigures);
  ptree answer;
  answer.put("protocol.flare.before", "x");
  EXPECT_TRUE(protocolInfoReport("103", answer));
  EXPECT_TRUE(protocolInfoReport("abc", answer));
  ASSERT_EQ(answer.size(), 3u);
  EXPECT_EQ(answer.count("protocol"), 3u);
  EXPECT_EQ(answer.front().second.get<std::string>("flare.before"), "x");
  EXPECT_EQ(countersIn((++answer.begin())->second), kReport);
  EXPECT_TRUE(answer.back().second.empty());
}

TEST(ProtocolInfoReport, LetsGoOfTheGenerator) {
  SessionTable table;
  const auto generator = ProtocolMetricGenerator::getInstance();
  ptree answer;
  protocolInfoReport("103", answer);
  protocolInfoReport("abc", answer);
  EXPECT_EQ(generator.use_count(), 2);
}

// ---- Ticks ----

TEST(ProtocolMetricGenerator, DoesNothingInATick) {
  rig::PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  PerfSample sample;
  sample.hasProtocolData = true;
  sample.displayNames = {"103", "abc"};
  sample.protocolMetrics = {{"103", 12.5}};
  // As whatever owns it would call it; no segment is there to be read.
  const std::shared_ptr<MetricGenerator> generator = ProtocolMetricGenerator::getInstance();
  generator->generate(sample);
  EXPECT_EQ(host.log().text(), "");
  SessionTable table;
  table.with(3, kFigures);
  SetLogThreshold(LogLevel::Info);
  generator->generate(sample);
  EXPECT_EQ(counters("103"), kReport);
}

TEST(ProtocolMetricGenerator, NeedsNoCollector) {
  SessionTable table;
  table.with(3, kFigures);
  const std::size_t threads = rig::threadCount();
  EXPECT_EQ(counters("103"), kReport);
  EXPECT_EQ(rig::threadCount(), threads);
}

// ---- Several requests, and a worker at work ----

// Lets a thread that touches the closed table wait there until the test lets go of it.
int gate[2] = {-1, -1};
std::atomic<int> waitingAtTheGate = 0;
const SessionTable* gatedTable = nullptr;

void waitAtTheGate(int) {
  ++waitingAtTheGate;
  char pass = 0;
  if (read(gate[0], &pass, 1) != 1) {
    _exit(1);
  }
  gatedTable->open();
}

TEST(ProtocolMetricGenerator, LetsReportsTakeTurns) {
  rig::PrivateHost host;
  SessionTable table;
  table.with(3, kFigures);
  ASSERT_EQ(pipe(gate), 0);
  gatedTable = &table;
  struct sigaction action = {};
  action.sa_handler = waitAtTheGate;
  ASSERT_EQ(sigaction(SIGSEGV, &action, nullptr), 0);
  table.close();
  std::future<Elements> first = std::async(std::launch::async, [] { return counters("103"); });
  ASSERT_TRUE(rig::eventually([] { return waitingAtTheGate == 1; }));
  // Even what needs no record has to wait.
  std::future<ptree> second = std::async(std::launch::async, [] { return reportOf("abc"); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  ASSERT_EQ(write(gate[1], "", 1), 1);
  EXPECT_EQ(first.get(), kReport);
  EXPECT_TRUE(second.get().empty());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProtocolInfo: Invalid display number abc"));
}

TEST(ProtocolMetricGenerator, GivesRequestsForDifferentDisplaysACompleteReportEach) {
  rig::PrivateHost host;
  SessionTable table;
  std::vector<std::future<void>> requests;
  for (std::size_t index = 0; index < 4; ++index) {
    const std::uint64_t base = 100 * (index + 1);
    const auto figure = [&](std::uint64_t offset) { return static_cast<double>(base + offset); };
    table.with(index, {figure(1), figure(2), figure(3), figure(4), base + 5, base + 6, base + 7,
                       base + 8, base + 9, base + 10});
    requests.push_back(std::async(std::launch::async, [index, base] {
      const auto text = [base](std::uint64_t offset) { return std::to_string(base + offset); };
      const Elements wanted = expected(text(7), text(8), text(9), text(10), text(1), text(5),
                                       text(6), text(2), text(4), text(3));
      for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(counters(std::to_string(100 + index)), wanted);
        ASSERT_TRUE(reportOf("none").empty());
      }
    }));
  }
  for (std::future<void>& request : requests) {
    request.get();
  }
}

// The one line of the log as the report that it tells of.
Elements tracedReport(const std::string& line) {
  double frameRate = 0;
  double rtt = 0;
  double loss = 0;
  double bandwidth = 0;
  int bytes[6] = {};
  EXPECT_EQ(std::sscanf(line.c_str() + line.find("frameRate"),
                        "frameRate = %lf, rtt = %lf, pkLoss = %lf, bw = %lf, imagingReceived = %d, "
                        "imagingTransmitted = %d, audioReceived = %d, audioTransmitted = %d, "
                        "cdrReceived = %d, cdrTransmitted = %d",
                        &frameRate, &rtt, &loss, &bandwidth, &bytes[0], &bytes[1], &bytes[2],
                        &bytes[3], &bytes[4], &bytes[5]),
            10)
      << line;
  const auto whole = [](double value) { return std::to_string(static_cast<long>(value)); };
  Elements elements =
      expected(std::to_string(bytes[2]), std::to_string(bytes[3]), std::to_string(bytes[4]),
               std::to_string(bytes[5]), whole(frameRate), std::to_string(bytes[0]),
               std::to_string(bytes[1]), whole(rtt), whole(bandwidth), whole(loss));
  if (loss == -1) {
    elements.pop_back();
  }
  return elements;
}

// What is traced, looked at for the mark and put in the answer is one copy.
TEST(ProtocolMetricGenerator, ReadsTheRecordOnceThoughItsWorkerGoesOn) {
  rig::PrivateHost host;
  SessionTable table;
  SetLogThreshold(LogLevel::Trace);
  const SessionRecord one = {1, 2, -1, 4, 5, 6, 7, 8, 9, 10};
  const SessionRecord other = {11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
  table.with(3, one);
  std::atomic<bool> done = false;
  std::thread worker([&] {
    while (!done) {
      table.with(3, other).with(3, one);
    }
  });
  std::vector<Elements> reports;
  std::set<std::size_t> sizes;
  while (reports.size() < 2000 || (sizes.size() < 2 && reports.size() < 20000)) {
    reports.push_back(counters("103"));
    sizes.insert(reports.back().size());
  }
  done = true;
  worker.join();
  const std::vector<std::string> lines = host.log().lines();
  ASSERT_EQ(lines.size(), 2 * reports.size());
  for (std::size_t i = 0; i < reports.size(); ++i) {
    ASSERT_EQ(reports[i], tracedReport(lines[2 * i]));
  }
  EXPECT_THAT(sizes, ElementsAre(9, 10)) << "the worker has not been at work";
}

TEST(ProtocolMetricGenerator, NeverReportsHalfAFigureOfAWorkerAtWork) {
  SessionTable table;
  const std::uint64_t all = std::numeric_limits<std::uint64_t>::max();
  const SessionRecord none = {};
  const SessionRecord full = {1e19, 1e19, 1e19, 1e19, all, all, all, all, all, all};
  std::atomic<bool> done = false;
  std::thread worker([&] {
    while (!done) {
      table.with(3, full).with(3, none);
    }
  });
  for (int i = 0; i < 5000; ++i) {
    for (const auto& [name, text] : counters("103")) {
      ASSERT_THAT(text, testing::AnyOf("0", "10000000000000000000", "18446744073709551615"))
          << name;
    }
  }
  done = true;
  worker.join();
}

}  // namespace
}  // namespace mendline
