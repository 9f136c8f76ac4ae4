// What the records of the readers hold before anything is read.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "sources/ProcessQuery.h"
#include "sources/SystemQuery.h"

namespace mendline {
namespace {

template <typename Record>
bool beginsWithZeros() {
  static_assert(std::is_trivially_copyable_v<Record>);
  // In static storage the padding is zero too.
  static constinit const Record fresh;
  std::array<unsigned char, sizeof(Record)> bytes{};
  std::memcpy(bytes.data(), &fresh, sizeof(Record));
  return std::ranges::all_of(bytes, [](unsigned char byte) { return byte == 0; });
}

TEST(FreshRecords, OfAProcessHoldZeros) {
  EXPECT_TRUE(beginsWithZeros<ProcessStat>());
  EXPECT_TRUE(beginsWithZeros<ProcessIo>());
  const ProcessInfo info;
  EXPECT_EQ(info.iPid, 0);
  EXPECT_EQ(info.uiUserId, 0U);
  EXPECT_EQ(info.ulUserTime, 0U);
  EXPECT_EQ(info.ulSystemTime, 0U);
  EXPECT_EQ(info.ulMemory, 0U);
  EXPECT_EQ(info.ullStartTime, 0U);
  EXPECT_EQ(info.ullReadBytesCount, 0U);
  EXPECT_EQ(info.ullWriteBytesCount, 0U);
  EXPECT_EQ(info.strProcessName, "");
}

TEST(FreshRecords, OfTheHostHoldZeros) {
  EXPECT_TRUE(beginsWithZeros<SystemPerfStats>());
  EXPECT_TRUE(beginsWithZeros<CpuTimes>());
  EXPECT_TRUE(beginsWithZeros<MemoryStats>());
  EXPECT_TRUE(beginsWithZeros<DiskStatLine>());
  EXPECT_TRUE(beginsWithZeros<UserIds>());
}

}  // namespace
}  // namespace mendline
