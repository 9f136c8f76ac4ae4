#include "collector/SessionCounters.h"

#include <gtest/gtest.h>

#include <array>
#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>

#include "PrivateHost.h"
#include "collector/CollectorControl.h"
#include "sources/ProtocolQuery.h"

namespace mendline {
namespace {

using rig::PrivateHost;

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

// Three records full of a pattern, of which a test may touch the middle one.
class ThreeRecords {
 public:
  ThreeRecords() { std::memset(records_.data(), 0xa5, sizeof records_); }

  SessionCounters& middle() { return records_[1]; }
  bool middleIsZero() const { return isFilledWith(1, 0); }
  bool neighboursAreUntouched() const { return isFilledWith(0, 0xa5) && isFilledWith(2, 0xa5); }

 private:
  bool isFilledWith(std::size_t index, unsigned char value) const {
    std::array<unsigned char, sizeof(SessionCounters)> bytes;
    std::memcpy(bytes.data(), &records_[index], sizeof bytes);
    for (const unsigned char byte : bytes) {
      if (byte != value) {
        return false;
      }
    }
    return true;
  }

  std::array<SessionCounters, 3> records_;
};

TEST(SessionCounters, StartWithSixtyDisplaysAndNoSegment) {
  EXPECT_EQ(displayNumberMin, 100);
  EXPECT_EQ(displayNumberMax, 159);
  EXPECT_EQ(maxSessionNumber, 60);
  EXPECT_EQ(sessionShmId, -1);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(sessionShmBase), ~std::uintptr_t{0});
  EXPECT_EQ(sessionShmBase, kNoSegment);
}

TEST(SessionCounters, NameTheKeyOfTheSegment) {
  EXPECT_STREQ(kSessionShmKeyFile, "/usr/lib/norvane/tarnhost/mendline/mendLineShm");
  EXPECT_EQ(kSessionShmProjectId, 'h');
}

TEST(SessionCounters, AreTenWordsInTheWorkersOrder) {
  const std::array<std::uint64_t, 10> words = {0x3ff0000000000000,
                                               0x4000000000000000,
                                               0x4008000000000000,
                                               0x4010000000000000,
                                               5,
                                               6,
                                               7,
                                               8,
                                               9,
                                               10};
  SessionCounters record;
  static_assert(sizeof words == sizeof record && alignof(SessionCounters) == 8);
  std::memcpy(&record, words.data(), sizeof record);
  EXPECT_EQ(record.frameRate, 1.0);
  EXPECT_EQ(record.rtt, 2.0);
  EXPECT_EQ(record.pkLoss, 3.0);
  EXPECT_EQ(record.bw, 4.0);
  EXPECT_EQ(record.imagingReceived, 5u);
  EXPECT_EQ(record.imagingTransmitted, 6u);
  EXPECT_EQ(record.audioReceived, 7u);
  EXPECT_EQ(record.audioTransmitted, 8u);
  EXPECT_EQ(record.cdrReceived, 9u);
  EXPECT_EQ(record.cdrTransmitted, 10u);
}

TEST(DisplayIndex, CountsFromTheLowestDisplay) {
  EXPECT_EQ(displayIndex("100"), 0);
  EXPECT_EQ(displayIndex("103"), 3);
  EXPECT_EQ(displayIndex("159"), 59);
  EXPECT_EQ(displayIndex("160"), 60);
  EXPECT_EQ(displayIndex("99"), -1);
  EXPECT_EQ(displayIndex("0"), -100);
  displayNumberMin = 7;
  EXPECT_EQ(displayIndex("103"), 96);
  displayNumberMin = 0;
  EXPECT_EQ(displayIndex("0"), 0);
}

TEST(DisplayIndex, TakesWhiteSpaceAndASignBeforeTheNumber) {
  EXPECT_EQ(displayIndex(" \t\n\v\f\r103"), 3);
  EXPECT_EQ(displayIndex("+103"), 3);
  EXPECT_EQ(displayIndex(" -7"), -107);
}

TEST(DisplayIndex, IgnoresWhateverFollowsTheNumber) {
  EXPECT_EQ(displayIndex("105abc"), 5);
  EXPECT_EQ(displayIndex("105 106"), 5);
  EXPECT_EQ(displayIndex("105.9"), 5);
  EXPECT_EQ(displayIndex("1e2"), -99);
  EXPECT_EQ(displayIndex(std::string("105\0006", 5)), 5);
}

TEST(DisplayIndex, ReadsBaseTenOnly) {
  EXPECT_EQ(displayIndex("0x67"), -100);
  EXPECT_EQ(displayIndex("0103"), 3);
}

TEST(DisplayIndex, IsMinusOneWhenNoDigitCanBeRead) {
  for (const std::string text : {"", " ", "abc", "a105", "-", "+", "--5", "+-5", ":103", "$103"}) {
    EXPECT_EQ(displayIndex(text), -1) << text;
  }
  EXPECT_EQ(displayIndex(std::string("\0", 1) + "103"), -1);
}

TEST(DisplayIndex, IsMinusOneWhenTheNumberNeedsMoreThan32Bits) {
  for (const std::string text :
       {"99999999999", "-99999999999", "2147483648", "-2147483649", "4294967399",
        "18446744073709551719", "99999999999999999999999999"}) {
    EXPECT_EQ(displayIndex(text), -1) << text;
  }
  EXPECT_EQ(displayIndex("2147483647"), 2147483547);
}

TEST(DisplayIndex, OfTheLowestNumberIsRefused) {
  // There the difference does not fit 32 bits.
  EXPECT_FALSE(isAdmittedIndex(displayIndex("-2147483648")));
  EXPECT_FALSE(isAdmittedIndex(displayIndex("-2147483549")));
  EXPECT_FALSE(isAdmittedIndex(displayIndex("-2147483548")));
}

TEST(DisplayIndex, LogsNothing) {
  PrivateHost host;
  for (const std::string text : {"103", "abc", "99999999999", "", "1"}) {
    static_cast<void>(displayIndex(text));
  }
  EXPECT_EQ(host.log().text(), "");
}

TEST(IsAdmittedIndex, HoldsFromZeroToTheNumberOfRecords) {
  EXPECT_FALSE(isAdmittedIndex(kLowest));
  EXPECT_FALSE(isAdmittedIndex(-2));
  EXPECT_FALSE(isAdmittedIndex(-1));
  EXPECT_TRUE(isAdmittedIndex(0));
  EXPECT_TRUE(isAdmittedIndex(59));
  EXPECT_TRUE(isAdmittedIndex(60));
  EXPECT_FALSE(isAdmittedIndex(61));
  EXPECT_FALSE(isAdmittedIndex(kHighest));
  maxSessionNumber = 1;
  EXPECT_TRUE(isAdmittedIndex(0));
  EXPECT_TRUE(isAdmittedIndex(1));
  EXPECT_FALSE(isAdmittedIndex(2));
}

TEST(SessionCounters, AdmitsOneRecordBeyondTheSegment) {
  PrivateHost host;
  ASSERT_TRUE(StartCollector());
  // Sixty records of 80 bytes end in the middle of a page; what follows can be touched.
  auto* beyond = static_cast<unsigned char*>(sessionShmBase) + 60 * sizeof(SessionCounters);
  const double rtt = 12.5;
  std::memset(beyond, 0xa5, sizeof(SessionCounters) + 1);
  std::memcpy(beyond + 8, &rtt, sizeof rtt);

  std::unordered_map<std::string, double> metrics;
  readProtocolMetrics({"160", "161", "100"}, metrics);
  EXPECT_EQ(metrics, (std::unordered_map<std::string, double>{{"160", 12.5}}));

  boost::property_tree::ptree request;
  request.put("MendlineOperation.display", "160");
  ClearShm(request);
  for (std::size_t offset = 0; offset < sizeof(SessionCounters); ++offset) {
    EXPECT_EQ(beyond[offset], 0) << offset;
  }
  EXPECT_EQ(beyond[sizeof(SessionCounters)], 0xa5);
  EXPECT_TRUE(host.log().hasNot("Warn", "MendLineOperation"));
  StopCollector();
}

TEST(SessionRecord, LiesEightyBytesBehindTheOneBefore) {
  std::array<SessionCounters, 4> table;
  for (std::int32_t index = 0; index < 4; ++index) {
    EXPECT_EQ(sessionRecord(table.data(), index), &table[static_cast<std::size_t>(index)]);
  }
  char* bytes = reinterpret_cast<char*>(table.data());
  EXPECT_EQ(reinterpret_cast<char*>(sessionRecord(table.data(), 3)) - bytes, 240);
}

TEST(ClearSessionRecord, ZeroesAllEightyBytesAndNoNeighbour) {
  ThreeRecords records;
  clearSessionRecord(records.middle());
  EXPECT_TRUE(records.middleIsZero());
  EXPECT_TRUE(records.neighboursAreUntouched());
}

TEST(SharedValues, KeepEveryBit) {
  std::uint64_t word = 0;
  storeShared(word, 0x0123456789abcdef);
  EXPECT_EQ(word, 0x0123456789abcdefu);
  EXPECT_EQ(loadShared(word), 0x0123456789abcdefu);

  double number = 0;
  storeShared(number, -0.0);
  std::memcpy(&word, &number, sizeof word);
  EXPECT_EQ(word, std::uint64_t{1} << 63);
  word = 0x7ff4000000000001;  // a signalling NaN, which arithmetic would make a quiet one
  std::memcpy(&number, &word, sizeof word);
  const double loaded = loadShared(number);
  EXPECT_EQ(std::memcmp(&loaded, &word, sizeof word), 0);

  void* address = nullptr;
  storeShared(address, kNoSegment);
  EXPECT_EQ(loadShared(address), kNoSegment);
}

}  // namespace
}  // namespace mendline
