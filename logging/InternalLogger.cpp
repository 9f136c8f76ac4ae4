#include "logging/InternalLogger.h"

#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <string_view>

namespace mendline {
namespace {

constexpr char kLogPath[] = "/var/log/norvane/tarnhost-mendline.log";
constexpr char kBackupPath[] = "/var/log/norvane/tarnhost-mendline_backup.log";
constexpr char kLevelVariable[] = "TARNHOST_MENDLINE_LOGLEVEL";

// 25 MiB less one byte: a position beyond it rotates.
constexpr std::int32_t kRotationPosition = 0x18fffff;

constexpr std::size_t kMaxLineLength = 511;
constexpr std::size_t kLineLimit = kMaxLineLength + 1;

constexpr const char* kLevelNames[] = {nullptr, "Verbose", "Trace", "Debug",
                                       "Info",  "Warn",    "Error", "Faltal"};

struct LevelWord {
  const char* word;
  std::size_t limit;
  std::int32_t level;
};

// The limit is the word's length plus one, so that the terminator takes part in the comparison and
// a value with anything behind the word does not count.
constexpr LevelWord kLevelWords[] = {
    {"Verbose", 8, LogLevel::Verbose}, {"Trace", 6, LogLevel::Trace}, {"Debug", 6, LogLevel::Debug},
    {"Info", 5, LogLevel::Info},       {"Warn", 5, LogLevel::Warn},   {"Error", 6, LogLevel::Error},
    {"Faltal", 7, LogLevel::Faltal}};

// Required: a value counts when it is a prefix of a word, so the empty value is the first word, and
// a value that matches nothing means Debug, not the default Info. Pinned by
// InternalLoggerThreshold.*.
std::int32_t thresholdFromEnvironment() {
  const char* value = std::getenv(kLevelVariable);
  if (value == nullptr) {
    return LogLevel::Info;
  }
  const std::size_t length = std::strlen(value);
  for (const LevelWord& entry : kLevelWords) {
    if (std::strncmp(value, entry.word, std::min(length, entry.limit)) == 0) {
      return entry.level;
    }
  }
  return LogLevel::Debug;
}

char* append(char* at, std::string_view text) {
  return std::ranges::copy(text, at).out;
}

char* appendNumber(char* at, unsigned long number, int base = 10) {
  constexpr std::ptrdiff_t kLongest = std::numeric_limits<unsigned long>::digits10 + 1;
  return std::to_chars(at, at + kLongest, number, base).ptr;
}

char* appendTwoDigits(char* at, char before, int number) {
  *at++ = before;
  *at++ = static_cast<char>('0' + number / 10);
  *at++ = static_cast<char>('0' + number % 10);
  return at;
}

// Nothing when there is no time to be had.
char* appendTime(char* at) {
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) {
    return at;
  }
  // The reentrant form: lines are formatted outside the lock, by several threads at once.
  tm local{};
  if (localtime_r(&now.tv_sec, &local) == nullptr) {
    return at;
  }
  at = appendNumber(at, static_cast<unsigned long>(local.tm_year + 1900L));
  at = appendTwoDigits(at, '-', local.tm_mon + 1);
  at = appendTwoDigits(at, '-', local.tm_mday);
  at = appendTwoDigits(at, ' ', local.tm_hour);
  at = appendTwoDigits(at, ':', local.tm_min);
  at = appendTwoDigits(at, ':', local.tm_sec);
  // Required: milliseconds without leading zeros. Pinned by InternalLoggerLine.*.
  *at++ = ':';
  return appendNumber(at, static_cast<unsigned long>(now.tv_usec / 1000));
}

// What stands before the message, as "%s %-5s <%lx> [%s] " would write it. Piece by piece, because
// strftime and snprintf take longer for it than the file for the whole line.
char* appendPrefix(char* at, std::int32_t messageLevel, const LogTag* tag) {
  constexpr std::size_t kLevelWidth = 5;
  const std::string_view level = kLevelNames[messageLevel];
  at = append(appendTime(at), " ");
  at = append(at, level);
  at = std::fill_n(at, kLevelWidth - std::min(level.size(), kLevelWidth), ' ');
  at = append(at, " <");
  at = appendNumber(at, static_cast<unsigned long>(pthread_self()), 16);
  at = append(at, "> [");
  at = append(at, tag->name);
  return append(at, "] ");
}

// The logger's memory. It stays when the last owner has let go: a request may still be logging when
// the process exits.
alignas(InternalLogger) unsigned char storage[sizeof(InternalLogger)];

// From the library's load on there is this second owner. The log functions go through the plain
// pointer, which spares them the guard of the function-local static and needs no destruction.
const std::shared_ptr<InternalLogger> secondOwner = InternalLogger::getInstance();
InternalLogger* const logger = secondOwner.get();

// Here as well as in log: nearly all messages are below the threshold, and the list of arguments of
// those is not even made.
bool isWritten(std::int32_t messageLevel) {
  return logger->threshold() <= messageLevel;
}

}  // namespace

InternalLogger::InternalLogger() : level(thresholdFromEnvironment()) {
  openLogFile();
}

InternalLogger::~InternalLogger() {
  closeLogFile();
}

void InternalLogger::close() {
  const std::lock_guard lock(mutex);
  closeLogFile();
}

std::shared_ptr<InternalLogger> InternalLogger::getInstance() {
  static const std::shared_ptr<InternalLogger> instance(
      new (storage) InternalLogger, [](InternalLogger* ended) { ended->close(); });
  return instance;
}

std::int32_t InternalLogger::threshold() {
  return std::atomic_ref(level).load(std::memory_order_relaxed);
}

void InternalLogger::setThreshold(std::int32_t newLevel) {
  std::atomic_ref(level).store(newLevel, std::memory_order_relaxed);
}

void InternalLogger::openLogFile() {
  std::FILE* opened = std::fopen(kLogPath, "a");
  if (opened == nullptr) {
    static_cast<void>(
        std::fprintf(stderr, "Failed to open log file %s, falling back to stderr\n", kLogPath));
    opened = stderr;
  }
  std::atomic_ref(stream).store(opened, std::memory_order_relaxed);
}

// By hand, in this one place: an owning pointer could not be looked at without the lock, and stderr
// is not ours to close.
void InternalLogger::closeLogFile() {
  std::FILE* const closing = stream;
  std::atomic_ref(stream).store(nullptr, std::memory_order_relaxed);
  if (closing != nullptr && closing != stderr) {
    static_cast<void>(std::fclose(closing));
  }
}

void InternalLogger::rotate() {
  closeLogFile();
  if (std::rename(kLogPath, kBackupPath) != 0) {
    static_cast<void>(std::fprintf(stderr, "Failed to rename/rotate log file %s to %s: %s\n",
                                   kLogPath, kBackupPath, std::strerror(errno)));
  }
  openLogFile();
}

void InternalLogger::log(std::int32_t messageLevel, const LogTag* tag, const char* format,
                         va_list arguments) {
  if (threshold() > messageLevel ||
      std::atomic_ref(stream).load(std::memory_order_relaxed) == nullptr) {
    return;
  }

  char line[kLineLimit + 1];
  const auto prefix = static_cast<std::size_t>(appendPrefix(line, messageLevel, tag) - line);
  line[prefix] = '\0';
  static_cast<void>(std::vsnprintf(line + prefix, kLineLimit - prefix, format, arguments));
  const std::size_t length = prefix + std::strlen(line + prefix);
  line[length] = '\n';

  const std::lock_guard lock(mutex);
  if (stream == nullptr) {
    return;  // closed since
  }
  // Required: the position is narrowed to 32 bits before the comparison, and tested before the line
  // is written, so the file may exceed the limit by one line. Pinned by InternalLoggerRotation.*.
  if (static_cast<std::int32_t>(std::ftell(stream)) > kRotationPosition) {
    rotate();
  }
  static_cast<void>(std::fwrite(line, 1, length + 1, stream));
  static_cast<void>(std::fflush(stream));
}

void LogTrace(const LogTag* tag, const char* format, ...) {
  if (!isWritten(LogLevel::Trace)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logger->log(LogLevel::Trace, tag, format, arguments);
  va_end(arguments);
}

void LogDebug(const LogTag* tag, const char* format, ...) {
  if (!isWritten(LogLevel::Debug)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logger->log(LogLevel::Debug, tag, format, arguments);
  va_end(arguments);
}

void LogInfo(const LogTag* tag, const char* format, ...) {
  if (!isWritten(LogLevel::Info)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logger->log(LogLevel::Info, tag, format, arguments);
  va_end(arguments);
}

void LogWarn(const LogTag* tag, const char* format, ...) {
  if (!isWritten(LogLevel::Warn)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logger->log(LogLevel::Warn, tag, format, arguments);
  va_end(arguments);
}

void LogError(const LogTag* tag, const char* format, ...) {
  if (!isWritten(LogLevel::Error)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logger->log(LogLevel::Error, tag, format, arguments);
  va_end(arguments);
}

bool IsTraceEnabled(const LogTag* /*tag*/) {
  return GetLogThreshold() < LogLevel::Debug;
}

std::int32_t GetLogThreshold() {
  return logger->threshold();
}

void SetLogThreshold(std::int32_t newLevel) {
  logger->setThreshold(newLevel);
}

}  // namespace mendline
