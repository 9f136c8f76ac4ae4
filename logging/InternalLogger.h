// The one log of the library: a text file with a single-generation rotation by size.
//
// Any thread may call anything here, from the library's load on. When the process exits or the
// library is unloaded the file is closed, and messages are dropped from then on. Logging never
// reports a failure to its caller; the logger's own trouble goes
// to standard error.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>

namespace mendline {

// Message levels and thresholds. A message is written when its level is not below the threshold.
// Nothing is ever logged at Verbose or "Faltal", so a threshold of 1 acts like 2 and a threshold
// of 7 silences the log.
namespace LogLevel {
inline constexpr std::int32_t Verbose = 1;
inline constexpr std::int32_t Trace = 2;
inline constexpr std::int32_t Debug = 3;
inline constexpr std::int32_t Info = 4;
inline constexpr std::int32_t Warn = 5;
inline constexpr std::int32_t Error = 6;
inline constexpr std::int32_t Faltal = 7;
}  // namespace LogLevel

// The name under which one source unit logs: at most 63 bytes, zero-filled to 64. A null text gives
// "Mendline". A tag is a file-scope constant of its unit; it is initialised at compile time, so it
// is there for whatever static initialiser comes first.
struct LogTag {
  char name[64] = {};

  LogTag(const LogTag&) = delete;
  LogTag& operator=(const LogTag&) = delete;
  constexpr explicit LogTag(const char* text) {
    if (text == nullptr) {
      text = "Mendline";
    }
    for (std::size_t i = 0; i + 1 < sizeof(name) && text[i] != '\0'; ++i) {
      name[i] = text[i];
    }
  }
};

class InternalLogger {
 public:
  // Reads the threshold from TARNHOST_MENDLINE_LOGLEVEL and opens the log file for appending. Does
  // not create the folder: where the file can't be opened, lines go to standard error.
  InternalLogger();
  ~InternalLogger();
  InternalLogger(const InternalLogger&) = delete;
  InternalLogger& operator=(const InternalLogger&) = delete;

  // Creates the logger on the first call (the library's load makes it).
  static std::shared_ptr<InternalLogger> getInstance();

  // Closes the file for good.
  void close();

  // Writes one line, at most 511 bytes before its line feed, and flushes it; drops the message when
  // `messageLevel` is below the threshold. A message that arrives on another thread in the middle
  // of a rotation may be dropped.
  void log(std::int32_t messageLevel, const LogTag* tag, const char* format, va_list arguments)
      __attribute__((format(printf, 4, 0)));

  // The threshold, 1 to 7. Read and written without the lock: a change holds from the next message
  // on, and a message being written at that moment may use either value.
  std::int32_t threshold();
  void setThreshold(std::int32_t newLevel);

 private:
  void openLogFile();
  void closeLogFile();
  void rotate();

  // A plain field, by design without a lock; every access is one relaxed atomic load or store.
  std::int32_t level;

  // The log file, or stderr after a failed open. Used under `mutex`; only its being null is also
  // looked at without. Only a stream other than stderr is ever closed.
  std::FILE* stream = nullptr;

  // From the rotation test through the flush of one line. Always the innermost lock of the library.
  std::mutex mutex;
};

// One function per message level. `format` is a printf format.
void LogTrace(const LogTag* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogDebug(const LogTag* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogInfo(const LogTag* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogWarn(const LogTag* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogError(const LogTag* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

// True when Trace messages are written. Spares a caller the forming of costly arguments; the
// message itself is tested again by LogTrace. The tag is ignored.
bool IsTraceEnabled(const LogTag* tag);

// The level operations' way to the threshold of the one logger.
std::int32_t GetLogThreshold();
void SetLogThreshold(std::int32_t newLevel);

}  // namespace mendline
