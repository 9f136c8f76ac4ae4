#include "sources/ProtocolQuery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "PrivateHost.h"
#include "collector/SessionCounters.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using rig::PrivateHost;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

using RoundTripTimes = std::unordered_map<std::string, double>;

// A session table of this program's own in the place of the shared segment, with one record more
// than it counts.
class SessionTable {
 public:
  explicit SessionTable(int lowest = 100, int records = 60)
      : words_(static_cast<std::size_t>(records + 1) * kWords, 0xaaaaaaaaaaaaaaaa) {
    storeShared(displayNumberMin, lowest);
    storeShared(displayNumberMax, lowest + records - 1);
    storeShared(maxSessionNumber, records);
    storeShared(sessionShmBase, static_cast<void*>(words_.data()));
  }
  ~SessionTable() { storeShared(sessionShmBase, kNoSegment); }
  SessionTable(const SessionTable&) = delete;
  SessionTable& operator=(const SessionTable&) = delete;

  // The second word of the record of 80 bytes is the round trip time.
  std::uint64_t& roundTrip(int index) {
    return words_.at(static_cast<std::size_t>(index) * kWords + 1);
  }
  SessionTable& with(int index, double value) {
    std::memcpy(&roundTrip(index), &value, sizeof value);
    return *this;
  }

 private:
  static constexpr std::size_t kWords = 10;
  std::vector<std::uint64_t> words_;
};

RoundTripTimes read(const std::vector<std::string>& displays) {
  RoundTripTimes times;
  readProtocolMetrics(displays, times);
  return times;
}

TEST(ReadProtocolMetrics, TakesTheRoundTripTimeOfEachDisplay) {
  PrivateHost host;
  SessionTable table;
  table.with(0, 12.5).with(3, -1.5).with(59, 1e300);
  EXPECT_THAT(read({"103", "159", "100"}),
              UnorderedElementsAre(Pair("100", 12.5), Pair("103", -1.5), Pair("159", 1e300)));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ReadProtocolMetrics, TakesTheValueAsItStands) {
  SessionTable table;
  table.with(0, 0.0)
      .with(1, std::numeric_limits<double>::quiet_NaN())
      .with(2, std::numeric_limits<double>::infinity())
      .with(3, std::numeric_limits<double>::denorm_min());
  const RoundTripTimes times = read({"100", "101", "102", "103"});
  EXPECT_EQ(times.at("100"), 0.0);
  EXPECT_TRUE(std::isnan(times.at("101")));
  EXPECT_EQ(times.at("102"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(times.at("103"), std::numeric_limits<double>::denorm_min());
}

TEST(ReadProtocolMetrics, AnEmptyListDoesNothingEvenWithoutASegment) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  RoundTripTimes times = {{"100", 7.0}};
  readProtocolMetrics({}, times);
  EXPECT_THAT(times, ElementsAre(Pair("100", 7.0)));
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
}

TEST(ReadProtocolMetrics, TracesTheValueAndTheLengthOfTheText) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  SessionTable table;
  table.with(0, 12.5).with(3, 0.0000004).with(5, 123456789.1234567);
  read({"100", "103", " +105abc"});
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Trace ProtocolQuery: display 100, rtt is 12.500000",
                          "Trace ProtocolQuery: display length is 3",
                          "Trace ProtocolQuery: display 103, rtt is 0.000000",
                          "Trace ProtocolQuery: display length is 3",
                          "Trace ProtocolQuery: display  +105abc, rtt is 123456789.123457",
                          "Trace ProtocolQuery: display length is 8"));
}

TEST(ReadProtocolMetrics, StopsAtTheFirstTextThatIsNoDisplayNumber) {
  PrivateHost host;
  SessionTable table;
  table.with(0, 12.5).with(2, 13.5);
  EXPECT_THAT(read({"100", "abc", "102"}), ElementsAre(Pair("100", 12.5)));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProtocolQuery: Invalid display number abc"));
}

TEST(ReadProtocolMetrics, StopsAtTheFirstDisplayBeyondTheTable) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  SessionTable table;
  table.with(0, 12.5).with(2, 13.5).with(60, 14.5);
  EXPECT_THAT(read({"160", "100", "161", "102", "162"}),
              UnorderedElementsAre(Pair("100", 12.5), Pair("160", 14.5)));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Trace ProtocolQuery: display 160, rtt is 14.500000",
                          "Trace ProtocolQuery: display length is 3",
                          "Trace ProtocolQuery: display 100, rtt is 12.500000",
                          "Trace ProtocolQuery: display length is 3",
                          "Warn ProtocolQuery: Invalid display number 161"));
}

TEST(ReadProtocolMetrics, NothingIsTracedForTheTextItStopsAt) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  SessionTable table;
  read({"99", "100"});
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProtocolQuery: Invalid display number 99"));
}

TEST(ReadProtocolMetrics, KeepsWhatTheMapHeldAndReplacesADisplaysValue) {
  SessionTable table;
  table.with(0, 12.5);
  RoundTripTimes times = {{"100", 1.0}, {"102", 2.0}, {"other", 3.0}};
  readProtocolMetrics({"100", "-1", "102"}, times);
  EXPECT_THAT(times, UnorderedElementsAre(Pair("100", 12.5), Pair("102", 2.0), Pair("other", 3.0)));
}

TEST(ReadProtocolMetrics, ADisplayNamedTwiceIsReadTwiceAndKeptOnce) {
  PrivateHost host;
  SetLogThreshold(LogLevel::Trace);
  SessionTable table;
  table.with(0, 12.5);
  EXPECT_THAT(read({"100", "100"}), ElementsAre(Pair("100", 12.5)));
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Trace ProtocolQuery: display 100, rtt is 12.500000",
                          "Trace ProtocolQuery: display length is 3",
                          "Trace ProtocolQuery: display 100, rtt is 12.500000",
                          "Trace ProtocolQuery: display length is 3"));
}

TEST(ReadProtocolMetrics, TextsOfOneDisplayAreKeptApart) {
  SessionTable table;
  table.with(5, 12.5);
  EXPECT_THAT(read({"105", "105abc", " 105", "+105", "0105", "105.9"}),
              UnorderedElementsAre(Pair("105", 12.5), Pair("105abc", 12.5), Pair(" 105", 12.5),
                                   Pair("+105", 12.5), Pair("0105", 12.5), Pair("105.9", 12.5)));
}

TEST(ReadProtocolMetrics, AdmitsOneRecordBeyondTheTable) {
  PrivateHost host;
  SessionTable table;
  table.with(60, 14.5);
  EXPECT_THAT(read({"160"}), ElementsAre(Pair("160", 14.5)));
  EXPECT_THAT(read({"161"}), IsEmpty());
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre("Warn ProtocolQuery: Invalid display number 161"));
}

TEST(ReadProtocolMetrics, RefusesEveryTextWithoutARecord) {
  PrivateHost host;
  SessionTable table;
  for (const std::string text : {"99", "0", "-100", "", " ", "abc", "x100", ":100", "99999999999",
                                 "-99999999999", "2147483647", "2147483648", "100000"}) {
    host.log().clear();
    EXPECT_THAT(read({text}), IsEmpty()) << text;
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Warn ProtocolQuery: Invalid display number " + text));
  }
}

TEST(ReadProtocolMetrics, ATextThatIsNoNumberIsNeverTheFirstDisplay) {
  PrivateHost host;
  SessionTable table(0, 4);
  table.with(0, 12.5);
  EXPECT_THAT(read({"0"}), ElementsAre(Pair("0", 12.5)));
  EXPECT_THAT(read({"abc"}), IsEmpty());
  EXPECT_THAT(read({"-1"}), IsEmpty());
}

TEST(ReadProtocolMetrics, CountsFromTheLowestDisplayOfTheRange) {
  PrivateHost host;
  SessionTable table(10, 3);
  table.with(0, 10.5).with(2, 12.5).with(3, 13.5);
  EXPECT_THAT(read({"10", "12", "13"}),
              UnorderedElementsAre(Pair("10", 10.5), Pair("12", 12.5), Pair("13", 13.5)));
  EXPECT_THAT(read({"9"}), IsEmpty());
  EXPECT_THAT(read({"14"}), IsEmpty());
}

TEST(ReadProtocolMetrics, NeverSeesHalfAValueOfAWriterAtWork) {
  SessionTable table;
  table.with(0, 1.0);
  std::atomic<bool> done = false;
  std::thread writer([&] {
    constexpr std::uint64_t kOne = 0x3ff0000000000000;
    constexpr std::uint64_t kOther = 0x4008123456789abc;
    while (!done) {
      storeShared(table.roundTrip(0), kOther);
      storeShared(table.roundTrip(0), kOne);
    }
  });
  double other = 0;
  const std::uint64_t bits = 0x4008123456789abc;
  std::memcpy(&other, &bits, sizeof other);
  for (int i = 0; i < 20000; ++i) {
    const double value = read({"100"}).at("100");
    ASSERT_TRUE(value == 1.0 || value == other) << value;
  }
  done = true;
  writer.join();
}

}  // namespace
}  // namespace mendline
