#include "Log.h"

#include <stdio.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

using namespace mendline;

namespace {

TEST(LogLine, HasFiveParts) {
  const rig::LogRecord record = rig::parseLogLine(
      "2026-03-09 14:05:31:42 Info  <7f1c2a7fc700> [ProcessQuery] Process <4711> [x] is gone");
  EXPECT_TRUE(record.wellFormed());
  EXPECT_EQ(record.time, "2026-03-09 14:05:31:42");
  EXPECT_EQ(record.level, "Info");
  EXPECT_EQ(record.thread, "7f1c2a7fc700");
  EXPECT_EQ(record.tag, "ProcessQuery");
  EXPECT_EQ(record.message, "Process <4711> [x] is gone");
}

TEST(LogLine, OfAnotherFormIsAllMessage) {
  for (const char* line :
       {"", "plain text", "2026-03-09 14:05:31:42 Info <7f> [Tag] short padding",
        "2026-3-9 14:05:31:42 Debug <7f> [Tag] text", "2026-03-09 14:05:31: Debug <7f> [Tag] text",
        "2026-03-09 14:05:31:42 Debug 7f [Tag] text",
        "2026-03-09 14:05:31:42 Debug <7f> Tag text"}) {
    const rig::LogRecord record = rig::parseLogLine(line);
    EXPECT_FALSE(record.wellFormed()) << line;
    EXPECT_EQ(record.message, line);
  }
}

class LogFile : public testing::Test {
 protected:
  ~LogFile() override {
    unlink(path.c_str());
    unlink(backup.c_str());
  }
  void append(const std::string& level, const std::string& tag, const std::string& message) {
    std::ofstream(path, std::ios::app)
        << "2026-03-09 14:05:31:7 " << level << " <7f00> [" << tag << "] " << message << '\n';
  }
  void rotate() { rename(path.c_str(), backup.c_str()); }

  std::string path = "/var/log/norvane/tarnhost-mendline.log";
  std::string backup = "/var/log/norvane/tarnhost-mendline_backup.log";
  rig::Log log{path, backup};
};

TEST_F(LogFile, ThatIsMissingIsEmpty) {
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(log.hasNot("", ""));
}

TEST_F(LogFile, IsAskedForARecord) {
  append("Warn ", "Query", "cannot read");
  EXPECT_TRUE(log.has("Warn", "Query", "read"));
  EXPECT_TRUE(log.has("", "", "cannot"));
  EXPECT_FALSE(log.has("Error", "Query", "read"));
  EXPECT_FALSE(log.has("Warn", "Other", "read"));
  EXPECT_FALSE(log.has("Warn", "Query", "write"));
  EXPECT_FALSE(log.hasNot("Warn", "Query"));
  EXPECT_EQ(log.count("Warn", ""), 1U);
}

TEST_F(LogFile, IsShownWhenARecordIsMissing) {
  append("Warn ", "Query", "cannot read");
  EXPECT_NE(std::string(log.has("Error", "").message()).find("cannot read"), std::string::npos);
}

TEST_F(LogFile, IsReadFromTheMarkOn) {
  append("Debug", "A", "one");
  log.clear();
  EXPECT_TRUE(log.lines().empty());
  append("Debug", "A", "two");
  EXPECT_FALSE(log.has("Debug", "A", "one"));
  EXPECT_TRUE(log.has("Debug", "A", "two"));
}

TEST_F(LogFile, IsReadAcrossARotation) {
  append("Debug", "A", "one");
  log.clear();
  append("Debug", "A", "two");
  rotate();
  append("Debug", "A", "three");
  EXPECT_EQ(log.count("", "A"), 2U);
  EXPECT_FALSE(log.has("", "A", "one"));
}

TEST_F(LogFile, ThatWasBornAfterTheMarkIsReadWhole) {
  log.clear();
  append("Debug", "A", "one");
  EXPECT_TRUE(log.has("Debug", "A", "one"));
}

TEST_F(LogFile, IsAwaited) {
  std::thread writer([this] {
    usleep(30'000);
    append("Debug", "A", "late");
  });
  EXPECT_TRUE(log.willHave("Debug", "A", "late"));
  writer.join();
  EXPECT_FALSE(log.willHave("Debug", "A", "never", std::chrono::milliseconds(20)));
}

}  // namespace
