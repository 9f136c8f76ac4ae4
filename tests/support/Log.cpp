#include "Log.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

#include "Eventually.h"

namespace mendline::rig {
namespace {

constexpr std::size_t kLevelWidth = 5;

// Only the log's own directory decides which file is which: names change at rotation.
ino_t inodeOf(const std::string& path) {
  struct stat attributes = {};
  return stat(path.c_str(), &attributes) == 0 ? attributes.st_ino : 0;
}

std::string readFrom(const std::string& path, std::size_t offset) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool looksLikeTime(std::string_view text) {
  constexpr std::string_view kPattern = "dddd-dd-dd dd:dd:dd:";
  if (text.size() <= kPattern.size()) {
    return false;
  }
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  for (std::size_t i = 0; i < kPattern.size(); ++i) {
    if (kPattern[i] == 'd' ? !isDigit(text[i]) : kPattern[i] != text[i]) {
      return false;
    }
  }
  return std::all_of(text.begin() + kPattern.size(), text.end(), isDigit);
}

bool matches(const LogRecord& record, std::string_view level, std::string_view tag,
             std::string_view text) {
  return (level.empty() || record.level == level) && (tag.empty() || record.tag == tag) &&
         record.message.find(text) != std::string::npos;
}

std::string describe(std::string_view level, std::string_view tag, std::string_view text) {
  std::ostringstream description;
  description << (level.empty() ? "any level" : level) << " [" << (tag.empty() ? "any tag" : tag)
              << "] \"" << text << '"';
  return description.str();
}

}  // namespace

LogRecord parseLogLine(const std::string& line) {
  LogRecord record;
  const std::size_t dateEnd = line.find(' ');
  const std::size_t timeEnd = dateEnd == std::string::npos ? dateEnd : line.find(' ', dateEnd + 1);
  const std::size_t threadStart =
      timeEnd == std::string::npos ? timeEnd : line.find(" <", timeEnd + 1);
  const std::size_t threadEnd =
      threadStart == std::string::npos ? threadStart : line.find("> [", threadStart);
  const std::size_t tagEnd =
      threadEnd == std::string::npos ? threadEnd : line.find("] ", threadEnd);
  if (tagEnd == std::string::npos || !looksLikeTime(line.substr(0, timeEnd))) {
    record.message = line;
    return record;
  }
  std::string level = line.substr(timeEnd + 1, threadStart - timeEnd - 1);
  if (level.size() < kLevelWidth) {
    record.message = line;
    return record;
  }
  level.erase(level.find_last_not_of(' ') + 1);
  record.time = line.substr(0, timeEnd);
  record.level = level;
  record.thread = line.substr(threadStart + 2, threadEnd - threadStart - 2);
  record.tag = line.substr(threadEnd + 3, tagEnd - threadEnd - 3);
  record.message = line.substr(tagEnd + 2);
  return record;
}

Log::Log(std::string path, std::string backupPath)
    : path_(std::move(path)), backupPath_(std::move(backupPath)) {}

std::string Log::text() const {
  if (startFile_ == 0) {
    return readFrom(backupPath_, 0) + readFrom(path_, 0);
  }
  if (inodeOf(path_) == startFile_) {
    return readFrom(path_, startOffset_);
  }
  const bool rotated = inodeOf(backupPath_) == startFile_;
  return readFrom(backupPath_, rotated ? startOffset_ : 0) + readFrom(path_, 0);
}

std::vector<std::string> Log::lines() const {
  std::vector<std::string> result;
  std::istringstream stream(text());
  for (std::string line; std::getline(stream, line);) {
    result.push_back(line);
  }
  return result;
}

std::vector<LogRecord> Log::records() const {
  std::vector<LogRecord> result;
  for (const std::string& line : lines()) {
    result.push_back(parseLogLine(line));
  }
  return result;
}

testing::AssertionResult Log::has(std::string_view level, std::string_view tag,
                                  std::string_view text) const {
  if (count(level, tag, text) > 0) {
    return testing::AssertionSuccess() << "the log has " << describe(level, tag, text);
  }
  return testing::AssertionFailure() << "no " << describe(level, tag, text) << " in the log:\n"
                                     << this->text() << "(end of log)";
}

testing::AssertionResult Log::hasNot(std::string_view level, std::string_view tag,
                                     std::string_view text) const {
  if (count(level, tag, text) == 0) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure()
         << "unexpected " << describe(level, tag, text) << " in the log:\n"
         << this->text() << "(end of log)";
}

std::size_t Log::count(std::string_view level, std::string_view tag, std::string_view text) const {
  const std::vector<LogRecord> all = records();
  return static_cast<std::size_t>(
      std::count_if(all.begin(), all.end(),
                    [&](const LogRecord& record) { return matches(record, level, tag, text); }));
}

testing::AssertionResult Log::willHave(std::string_view level, std::string_view tag,
                                       std::string_view text,
                                       std::chrono::milliseconds patience) const {
  eventually([&] { return count(level, tag, text) > 0; }, patience);
  return has(level, tag, text);
}

void Log::clear() {
  struct stat attributes = {};
  if (stat(path_.c_str(), &attributes) != 0) {
    // An unborn log: whatever appears is later, unless an old backup lies there already.
    startFile_ = inodeOf(backupPath_);
    startOffset_ = startFile_ == 0 ? 0 : readFrom(backupPath_, 0).size();
    return;
  }
  startFile_ = attributes.st_ino;
  startOffset_ = static_cast<std::size_t>(attributes.st_size);
}

}  // namespace mendline::rig
