// The product's log file, read as records.
//
// A Log owns nothing but its starting point: every question reads the files afresh, across one
// rotation. A missing log reads as an empty one.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace mendline::rig {

// One line such as
//   2026-03-09 14:05:31:42 Debug <7f1c2a7fc700> [ProcessQuery] Process 4711 may not exist
// A line of any other form has only its message, which then is the whole line.
struct LogRecord {
  std::string time;
  std::string level;  // without its padding
  std::string thread;
  std::string tag;
  std::string message;

  bool wellFormed() const { return !time.empty(); }
};

LogRecord parseLogLine(const std::string& line);

class Log {
 public:
  explicit Log(std::string path, std::string backupPath);

  std::string text() const;
  std::vector<std::string> lines() const;
  std::vector<LogRecord> records() const;

  // Whether a record has this level, this tag and this text somewhere in its message. An empty
  // level or tag stands for any. A failure shows the log.
  testing::AssertionResult has(std::string_view level, std::string_view tag,
                               std::string_view text = "") const;
  testing::AssertionResult hasNot(std::string_view level, std::string_view tag,
                                  std::string_view text = "") const;
  std::size_t count(std::string_view level, std::string_view tag, std::string_view text = "") const;

  // Like has, but gives other threads and processes time to write the record.
  testing::AssertionResult willHave(
      std::string_view level, std::string_view tag, std::string_view text = "",
      std::chrono::milliseconds patience = std::chrono::seconds(5)) const;

  // From now on only what is written later counts. The file itself stays as it is.
  void clear();

 private:
  std::string path_;
  std::string backupPath_;
  ino_t startFile_ = 0;
  std::size_t startOffset_ = 0;
};

}  // namespace mendline::rig
