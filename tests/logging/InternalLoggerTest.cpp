// The log: which lines are written, what a line looks like, where it goes, when the file rotates.
//
// Most tests make a logger of their own beside the process's, which has been there since before
// main: a fresh one reads the environment and opens the log file under the test's eyes.
#include "logging/InternalLogger.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Error.h"
#include "Eventually.h"
#include "FailingSyscalls.h"
#include "FakeJvm.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"
#include "Program.h"

namespace {

enum class Clock { kRunning, kPinned, kFailing };
std::atomic<Clock> clockMode = Clock::kRunning;
std::atomic<std::int64_t> pinnedSeconds = 0;
std::atomic<std::int64_t> pinnedMicroseconds = 0;

thread_local std::size_t allocations = 0;

}  // namespace

// Stands before the C library's for all of this program, so that a line can be known to the byte.
extern "C" int gettimeofday(timeval* now, void* zone) noexcept {
  switch (clockMode) {
    case Clock::kPinned:
      now->tv_sec = pinnedSeconds;
      now->tv_usec = pinnedMicroseconds;
      return 0;
    case Clock::kFailing:
      errno = EFAULT;
      return -1;
    case Clock::kRunning:
      break;
  }
  using Function = int (*)(timeval*, void*);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "gettimeofday"));
  return real(now, zone);
}

// Not inlined: the compiler would take one of a pair for the mate of malloc or free.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace mendline {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr const char* kVariable = "TARNHOST_MENDLINE_LOGLEVEL";
constexpr const char* kNotOpened =
    "Failed to open log file /var/log/norvane/tarnhost-mendline.log, falling back to stderr\n";
constexpr off_t kLastPositionWithoutRotation = 26214399;
constexpr off_t kFirstPositionWithRotation = 26214400;
constexpr std::size_t kLongestLine = 511;

const LogTag kTag("Test");

void logTo(InternalLogger& logger, std::int32_t level, const LogTag* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

void logTo(InternalLogger& logger, std::int32_t level, const LogTag* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  logger.log(level, tag, format, arguments);
  va_end(arguments);
}

void say(InternalLogger& logger, const std::string& message) {
  logTo(logger, LogLevel::Error, &kTag, "%s", message.c_str());
}

std::string contentOf(const std::string& path, off_t from = 0) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(from);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

off_t sizeOf(const std::string& path) {
  return static_cast<off_t>(std::filesystem::file_size(path));
}

// Of this length, and empty of everything but its last line: costs no memory, whatever its size.
void makeFile(const std::string& path, off_t size, const std::string& lastLine) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).close();
  std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size) - lastLine.size());
  std::ofstream(path, std::ios::binary | std::ios::app) << lastLine;
}

std::string threadHandle() {
  std::ostringstream text;
  text << std::hex << static_cast<unsigned long>(pthread_self());
  return text.str();
}

// Time stands still, in this time zone, until this goes.
class PinnedTime {
 public:
  PinnedTime(std::int64_t seconds, std::int64_t microseconds, const char* zone = "UTC0") {
    setenv("TZ", zone, 1);
    tzset();
    pinnedSeconds = seconds;
    pinnedMicroseconds = microseconds;
    clockMode = Clock::kPinned;
  }
  ~PinnedTime() { clockMode = Clock::kRunning; }
  PinnedTime(const PinnedTime&) = delete;
  PinnedTime& operator=(const PinnedTime&) = delete;
};

// 9 March 2026, 14:05:31 UTC.
constexpr std::int64_t kMoment = 1773065131;

// Standard error is a file, written from this position on, until this goes.
class StandardErrorInFile {
 public:
  explicit StandardErrorInFile(off_t position = 0) : position_(position) {
    std::fflush(stderr);
    before_ = dup(STDERR_FILENO);
    const int file = open(kPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (before_ < 0 || file < 0 || lseek(file, position, SEEK_SET) != position ||
        dup2(file, STDERR_FILENO) < 0) {
      rig::throwErrno("cannot redirect standard error");
    }
    close(file);
  }
  ~StandardErrorInFile() {
    dup2(before_, STDERR_FILENO);
    close(before_);
  }
  StandardErrorInFile(const StandardErrorInFile&) = delete;
  StandardErrorInFile& operator=(const StandardErrorInFile&) = delete;

  std::string text() const { return contentOf(kPath, position_); }
  // What comes next is written here; the file need not be that long.
  void moveTo(off_t position) { lseek(STDERR_FILENO, position, SEEK_SET); }

 private:
  static constexpr const char* kPath = "/run/standard-error";
  off_t position_;
  int before_ = -1;
};

class LoggerHost : public testing::Test {
 protected:
  static std::string log() { return contentOf(rig::kLogFile); }

  rig::Program driver() const { return host.program({REQUEST_DRIVER_PROGRAM, MENDLINE_LIBRARY}); }

  rig::PrivateHost host;
};

// --- Threshold ---------------------------------------------------------------------------------

class InternalLoggerThreshold : public LoggerHost {
 protected:
  // A null value: the variable is not set.
  static std::int32_t thresholdWith(const char* value) {
    if (value == nullptr) {
      unsetenv(kVariable);
    } else {
      setenv(kVariable, value, 1);
    }
    InternalLogger logger;
    return logger.threshold();
  }

  static std::int32_t thresholdWith(const std::string& value) {
    return thresholdWith(value.c_str());
  }

  static bool isPrefixOfAWord(const std::string& value) {
    return std::any_of(kWords.begin(), kWords.end(), [&](const auto& word) {
      return std::string(word.first).rfind(value, 0) == 0;
    });
  }

  static constexpr std::array<std::pair<const char*, std::int32_t>, 7> kWords = {{{"Verbose", 1},
                                                                                  {"Trace", 2},
                                                                                  {"Debug", 3},
                                                                                  {"Info", 4},
                                                                                  {"Warn", 5},
                                                                                  {"Error", 6},
                                                                                  {"Faltal", 7}}};
};

TEST_F(InternalLoggerThreshold, IsInfoWithoutTheVariable) {
  EXPECT_EQ(thresholdWith(nullptr), 4);
}

TEST_F(InternalLoggerThreshold, IsTheWordsLevelForEveryPrefixOfAWord) {
  for (const auto& [word, level] : kWords) {
    const std::string whole = word;
    for (std::size_t length = 1; length <= whole.size(); ++length) {
      const std::string value = whole.substr(0, length);
      EXPECT_EQ(thresholdWith(value), level) << value;
    }
  }
}

TEST_F(InternalLoggerThreshold, IsVerboseForTheEmptyValue) {
  EXPECT_EQ(thresholdWith(""), 1);
}

TEST_F(InternalLoggerThreshold, IsDebugForAWordWithAnythingBehindIt) {
  for (const auto& [word, level] : kWords) {
    for (const char* rest : {"x", " ", "\n", "s", "0", "\x01"}) {
      EXPECT_EQ(thresholdWith(word + std::string(rest)), 3) << word << rest;
    }
    EXPECT_EQ(thresholdWith(std::string(word) + word), 3) << word;
  }
}

TEST_F(InternalLoggerThreshold, IsDebugForAnotherCase) {
  for (const auto& [word, level] : kWords) {
    const std::string whole = word;
    for (std::size_t length = 1; length <= whole.size(); ++length) {
      std::string lower = whole.substr(0, length);
      std::string upper = lower;
      std::transform(lower.begin(), lower.end(), lower.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      std::transform(upper.begin(), upper.end(), upper.begin(),
                     [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
      EXPECT_EQ(thresholdWith(lower), 3) << lower;
      if (!isPrefixOfAWord(upper)) {
        EXPECT_EQ(thresholdWith(upper), 3) << upper;
      }
    }
  }
}

TEST_F(InternalLoggerThreshold, IsDebugForWhatIsNoWord) {
  for (const char* value : {"Fatal", "Fat", "Warning", "Information", "Err0r", " Info", "4", "0",
                            "Off", "x", " ", "Vx", "Tx", "Dx", "Ix", "Wx", "Ex", "Fx", "nfo"}) {
    EXPECT_EQ(thresholdWith(value), 3) << value;
  }
  EXPECT_EQ(thresholdWith(std::string(100000, 'I')), 3);
}

struct LevelAtLoad {
  const char* value;  // null: not set
  const char* answer;
  bool debug;  // what of each level is written
  bool warn;
  bool error;
};

// What the four words of the answer cannot tell apart shows in what is logged.
TEST_F(InternalLoggerThreshold, IsReadWhenTheLibraryIsLoaded) {
  const std::vector<LevelAtLoad> levels = {
      {nullptr, "INFO", false, true, true},     {"", "VERBOSE", true, true, true},
      {"Verbose", "VERBOSE", true, true, true}, {"Trace", "TRACE", true, true, true},
      {"Debug", "DEBUG", true, true, true},     {"Info", "INFO", false, true, true},
      {"Warn", "INFO", false, true, true},      {"Error", "INFO", false, false, true},
      {"Faltal", "INFO", false, false, false},  {"Fatal", "DEBUG", true, true, true},
      {"INFO", "DEBUG", true, true, true},      {"I", "INFO", false, true, true}};
  for (const LevelAtLoad& level : levels) {
    SCOPED_TRACE(level.value == nullptr ? "not set" : level.value);
    host.log().clear();
    rig::Program program = driver();
    if (level.value == nullptr) {
      program.withoutEnvironment(kVariable);
    } else {
      program.withEnvironment(kVariable, level.value);
    }
    const rig::Run run =
        program
            .withInput(
                "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>\n"
                "<MendlineOperation><opcode>ClearShm</opcode></MendlineOperation>\n"
                "no xml\n")
            .run();
    ASSERT_EQ(run.exitStatus, 0) << run.errors;
    EXPECT_THAT(run.outputLines().at(0),
                HasSubstr("<LOGLEVEL>" + std::string(level.answer) + "</LOGLEVEL>"));
    EXPECT_EQ(host.log().count("Debug", "", ""), level.debug ? 6u : 0u);
    EXPECT_EQ(host.log().count("Warn", "", "Parameter display missed"), level.warn ? 1u : 0u);
    EXPECT_EQ(host.log().count("Error", "", "Failed to parse xml"), level.error ? 1u : 0u);
    EXPECT_THAT(run.errors, IsEmpty());
  }
}

TEST_F(InternalLoggerThreshold, LetsAMessagePassThatIsNotBelowIt) {
  using Function = void (*)(const LogTag*, const char*, ...);
  const std::array<std::pair<Function, std::int32_t>, 5> functions = {
      {{LogTrace, 2}, {LogDebug, 3}, {LogInfo, 4}, {LogWarn, 5}, {LogError, 6}}};
  for (std::int32_t threshold = 1; threshold <= 7; ++threshold) {
    SetLogThreshold(threshold);
    for (const auto& [function, level] : functions) {
      const std::string message =
          "threshold " + std::to_string(threshold) + " level " + std::to_string(level);
      function(&kTag, "%s", message.c_str());
      EXPECT_EQ(host.log().count("", "Test", message), level >= threshold ? 1u : 0u) << message;
    }
  }
}

TEST_F(InternalLoggerThreshold, OfSevenSilencesTheLog) {
  setenv(kVariable, "Faltal", 1);
  const rig::Run run = driver().withInput("no xml\n").run();
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_THAT(run.errors, IsEmpty());
}

TEST_F(InternalLoggerThreshold, EnablesTraceBelowDebug) {
  for (std::int32_t threshold = 1; threshold <= 7; ++threshold) {
    SetLogThreshold(threshold);
    EXPECT_EQ(IsTraceEnabled(&kTag), threshold < 3) << threshold;
    EXPECT_EQ(IsTraceEnabled(nullptr), threshold < 3) << threshold;
  }
}

TEST_F(InternalLoggerThreshold, HoldsFromTheNextMessageOnInAllThreads) {
  SetLogThreshold(LogLevel::Debug);
  EXPECT_EQ(GetLogThreshold(), 3);
  LogDebug(&kTag, "one");
  SetLogThreshold(LogLevel::Info);
  EXPECT_EQ(GetLogThreshold(), 4);
  LogDebug(&kTag, "two");
  std::thread([] { LogDebug(&kTag, "three"); }).join();
  std::thread([] { SetLogThreshold(LogLevel::Trace); }).join();
  LogTrace(&kTag, "four");
  EXPECT_THAT(linesOf(log()), ElementsAre(EndsWith("] one"), EndsWith("] four")));
}

TEST_F(InternalLoggerThreshold, SparesTheFormattingOfWhatItDrops) {
  SetLogThreshold(LogLevel::Info);
  // Would crash if it were looked at.
  const char* nowhere = reinterpret_cast<const char*>(std::uintptr_t{8});
  LogDebug(&kTag, "%s", nowhere);
  LogTrace(&kTag, "%s", nowhere);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(InternalLoggerThreshold, IsOneForTheWholeProcess) {
  const std::shared_ptr<InternalLogger> logger = InternalLogger::getInstance();
  EXPECT_EQ(logger, InternalLogger::getInstance());
  logger->setThreshold(6);
  EXPECT_EQ(GetLogThreshold(), 6);
  SetLogThreshold(2);
  EXPECT_EQ(logger->threshold(), 2);
  logTo(*logger, LogLevel::Trace, &kTag, "through the object");
  LogTrace(&kTag, "through the function");
  EXPECT_THAT(linesOf(log()),
              ElementsAre(EndsWith("] through the object"), EndsWith("] through the function")));
}

TEST_F(InternalLoggerThreshold, LeavesTheEnvironmentAsItIs) {
  setenv(kVariable, "Warn", 1);
  SetLogThreshold(LogLevel::Trace);
  EXPECT_STREQ(std::getenv(kVariable), "Warn");
}

// --- Line --------------------------------------------------------------------------------------

class InternalLoggerLine : public LoggerHost {
 protected:
  void SetUp() override { SetLogThreshold(LogLevel::Verbose); }
};

TEST_F(InternalLoggerLine, HasTimeLevelThreadTagAndMessage) {
  const PinnedTime time(kMoment, 42000);
  const LogTag tag("ProcessQuery");
  LogDebug(&tag, "Process %d may not exist", 4711);
  EXPECT_EQ(log(), "2026-03-09 14:05:31:42 Debug <" + threadHandle() +
                       "> [ProcessQuery] Process 4711 may not exist\n");
}

TEST_F(InternalLoggerLine, HasTheLevelsNameInFivePlaces) {
  const PinnedTime time(kMoment, 0);
  LogTrace(&kTag, "m");
  LogDebug(&kTag, "m");
  LogInfo(&kTag, "m");
  LogWarn(&kTag, "m");
  LogError(&kTag, "m");
  const auto logger = InternalLogger::getInstance();
  logTo(*logger, LogLevel::Verbose, &kTag, "m");
  logTo(*logger, LogLevel::Faltal, &kTag, "m");
  const std::string start = "2026-03-09 14:05:31:0 ";
  const std::string end = " <" + threadHandle() + "> [Test] m";
  EXPECT_THAT(linesOf(log()),
              ElementsAre(start + "Trace" + end, start + "Debug" + end, start + "Info " + end,
                          start + "Warn " + end, start + "Error" + end, start + "Verbose" + end,
                          start + "Faltal" + end));
}

TEST_F(InternalLoggerLine, HasMillisecondsWithoutLeadingZerosAndCutOff) {
  const std::vector<std::pair<std::int64_t, const char*>> cases = {
      {0, "0"},      {999, "0"},    {1000, "1"},     {7000, "7"},     {7999, "7"},
      {42500, "42"}, {99999, "99"}, {100000, "100"}, {500999, "500"}, {999999, "999"}};
  std::vector<std::string> expected;
  for (const auto& [microseconds, milliseconds] : cases) {
    const PinnedTime time(kMoment, microseconds);
    LogInfo(&kTag, "m");
    expected.push_back("2026-03-09 14:05:31:" + std::string(milliseconds) + " Info  <" +
                       threadHandle() + "> [Test] m");
  }
  EXPECT_EQ(linesOf(log()), expected);
}

TEST_F(InternalLoggerLine, HasLocalTime) {
  {
    const PinnedTime time(kMoment, 0, "XST-05:45");
    LogInfo(&kTag, "east");
  }
  {
    const PinnedTime time(kMoment, 0, "YST+14:06");
    LogInfo(&kTag, "west");
  }
  {
    const PinnedTime time(946684805, 0);
    LogInfo(&kTag, "zeros");
  }
  EXPECT_THAT(linesOf(log()), ElementsAre(StartsWith("2026-03-09 19:50:31:0 Info "),
                                          StartsWith("2026-03-08 23:59:31:0 Info "),
                                          StartsWith("2000-01-01 00:00:05:0 Info ")));
}

TEST_F(InternalLoggerLine, HasTheTimeOfTheMessage) {
  setenv("TZ", "UTC0", 1);
  tzset();
  timeval before = {};
  timeval after = {};
  gettimeofday(&before, nullptr);
  LogInfo(&kTag, "now");
  gettimeofday(&after, nullptr);
  const std::string line = log();
  tm parts = {};
  const char* rest = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
  ASSERT_NE(rest, nullptr) << line;
  parts.tm_isdst = -1;
  const auto milliseconds = [](const timeval& time) {
    return time.tv_sec * 1000 + time.tv_usec / 1000;
  };
  const std::int64_t logged = std::int64_t{mktime(&parts)} * 1000 + std::atol(rest + 1);
  EXPECT_GE(logged, milliseconds(before));
  EXPECT_LE(logged, milliseconds(after));
}

TEST_F(InternalLoggerLine, GoesOutWithoutAClock) {
  clockMode = Clock::kFailing;
  LogWarn(&kTag, "no time");
  clockMode = Clock::kRunning;
  const std::string end = " Warn  <" + threadHandle() + "> [Test] no time\n";
  EXPECT_THAT(log(), EndsWith(end));
  EXPECT_THAT(linesOf(log()), testing::SizeIs(1));
}

TEST_F(InternalLoggerLine, NamesTheThreadThatLogs) {
  std::string handle;
  std::thread([&] {
    handle = threadHandle();
    LogInfo(&kTag, "other");
  }).join();
  LogInfo(&kTag, "main");
  ASSERT_NE(handle, threadHandle());
  EXPECT_THAT(linesOf(log()), ElementsAre(HasSubstr(" <" + handle + "> "),
                                          HasSubstr(" <" + threadHandle() + "> ")));
}

TEST_F(InternalLoggerLine, TakesPrintfFormats) {
  LogInfo(&kTag, "%d|%5.1f|%-4s|%lu|%%|%c", -7, 2.25, "ab", 18446744073709551615ul, 'x');
  EXPECT_THAT(log(), EndsWith("] -7|  2.2|ab  |18446744073709551615|%|x\n"));
}

TEST_F(InternalLoggerLine, DoesNotReadFormatsInArguments) {
  LogInfo(&kTag, "%s", "100%s %n %d");
  EXPECT_THAT(log(), EndsWith("] 100%s %n %d\n"));
}

TEST_F(InternalLoggerLine, KeepsBytesAsTheyAre) {
  LogInfo(&kTag, "%s", "line one\nJos\xC3\xA9 \xFF\t\x01");
  EXPECT_THAT(log(), EndsWith("] line one\nJos\xC3\xA9 \xFF\t\x01\n"));
}

TEST_F(InternalLoggerLine, MayHaveAnEmptyMessage) {
  LogInfo(&kTag, "%s", "");
  EXPECT_THAT(log(), EndsWith("> [Test] \n"));
}

TEST_F(InternalLoggerLine, OfFiveHundredAndElevenCharactersIsWhole) {
  const PinnedTime time(kMoment, 42000);
  const StandardErrorInFile errors;
  const std::string prefix = "2026-03-09 14:05:31:42 Info  <" + threadHandle() + "> [Test] ";
  const std::string message(kLongestLine - prefix.size(), 'm');
  LogInfo(&kTag, "%s", message.c_str());
  EXPECT_EQ(log(), prefix + message + "\n");
  EXPECT_THAT(errors.text(), IsEmpty());
}

TEST_F(InternalLoggerLine, IsCutToFiveHundredAndElevenCharactersInSilence) {
  const PinnedTime time(kMoment, 42000);
  const StandardErrorInFile errors;
  const std::string prefix = "2026-03-09 14:05:31:42 Info  <" + threadHandle() + "> [Test] ";
  const std::size_t room = kLongestLine - prefix.size();
  const std::string fits(room, 'm');
  std::string expected;
  for (const std::size_t length : {room + 1, room + 2, std::size_t{600}, std::size_t{100000}}) {
    LogInfo(&kTag, "%s", (fits + std::string(length - room, 'n')).c_str());
    expected += prefix + fits + "\n";
  }
  EXPECT_EQ(log(), expected);
  EXPECT_THAT(errors.text(), IsEmpty());
}

TEST_F(InternalLoggerLine, IsCutBehindTheLongestPrefixToo) {
  const StandardErrorInFile errors;
  const LogTag tag(std::string(63, 't').c_str());
  LogError(&tag, "%s", std::string(600, 'm').c_str());
  EXPECT_EQ(log().size(), kLongestLine + 1);
  EXPECT_THAT(log(), HasSubstr("> [" + std::string(63, 't') + "] mmm"));
  EXPECT_THAT(errors.text(), IsEmpty());
}

TEST_F(InternalLoggerLine, IsInTheFileWhenTheCallReturns) {
  for (int i = 1; i <= 3; ++i) {
    LogInfo(&kTag, "%d", i);
    EXPECT_THAT(log(), EndsWith("] " + std::to_string(i) + "\n"));
  }
  EXPECT_EXIT(
      {
        LogInfo(&kTag, "last words");
        _exit(7);
      },
      testing::ExitedWithCode(7), "");
  EXPECT_THAT(log(), EndsWith("] last words\n"));
}

TEST_F(InternalLoggerLine, NeedsNoAllocation) {
  LogInfo(&kTag, "the stream has its buffer now");
  const std::string longText(2000, 'x');
  const std::size_t before = allocations;
  for (int i = 0; i < 20; ++i) {
    LogError(&kTag, "%d %s", i, longText.c_str());
  }
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(linesOf(log()).size(), 21u);
}

TEST_F(InternalLoggerLine, StaysWholeAmongManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string padding(static_cast<std::size_t>(20 + 40 * t), static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) {
        LogInfo(&kTag, "%d %d %s.", t, i, padding.c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : linesOf(log())) {
    const rig::LogRecord record = rig::parseLogLine(line);
    ASSERT_TRUE(record.wellFormed()) << line;
    const auto thread = static_cast<std::size_t>(record.message[0] - '0');
    ASSERT_LT(thread, next.size()) << line;
    const std::string padding(20 + 40 * thread, static_cast<char>('a' + thread));
    EXPECT_EQ(record.message,
              std::to_string(thread) + " " + std::to_string(next[thread]++) + " " + padding + ".");
    EXPECT_EQ(record.level, "Info");
    EXPECT_EQ(record.tag, "Test");
  }
  EXPECT_THAT(next, testing::Each(kLines));
}

// --- Tag ---------------------------------------------------------------------------------------

using InternalLoggerTag = LoggerHost;

TEST_F(InternalLoggerTag, IsMendlineForANullText) {
  const LogTag tag(nullptr);
  LogError(&tag, "m");
  EXPECT_THAT(log(), EndsWith("> [Mendline] m\n"));
}

TEST_F(InternalLoggerTag, IsCutToSixtyThreeCharacters) {
  for (const std::size_t length : {62u, 63u, 64u, 70u, 1000u}) {
    const LogTag tag(std::string(length, 't').c_str());
    const std::size_t kept = std::min<std::size_t>(length, 63);
    EXPECT_STREQ(tag.name, std::string(kept, 't').c_str());
    LogError(&tag, "%zu", length);
    EXPECT_THAT(log(),
                EndsWith("> [" + std::string(kept, 't') + "] " + std::to_string(length) + "\n"));
  }
}

TEST_F(InternalLoggerTag, IsZeroBehindItsText) {
  static_assert(sizeof(LogTag) == 64);
  alignas(LogTag) std::array<char, sizeof(LogTag)> memory;
  memory.fill('\x55');
  const LogTag* tag = new (memory.data()) LogTag("ab");
  std::array<char, 64> expected = {'a', 'b'};
  EXPECT_EQ(std::memcmp(tag->name, expected.data(), expected.size()), 0);
}

TEST_F(InternalLoggerTag, MayBeEmpty) {
  const LogTag tag("");
  LogError(&tag, "m");
  EXPECT_THAT(log(), EndsWith("> [] m\n"));
}

// --- Opening -----------------------------------------------------------------------------------

class InternalLoggerOpening : public LoggerHost {
 protected:
  // A fresh logger where no log can be: its words, and those on standard error.
  static void expectFallback() {
    const StandardErrorInFile errors;
    InternalLogger logger;
    EXPECT_EQ(errors.text(), kNotOpened);
    const PinnedTime time(kMoment, 1000);
    say(logger, "first");
    say(logger, "second");
    const std::string start = "2026-03-09 14:05:31:1 Error <" + threadHandle() + "> [Test] ";
    EXPECT_EQ(errors.text(), kNotOpened + start + "first\n" + start + "second\n");
  }
};

TEST_F(InternalLoggerOpening, AppendsToTheLog) {
  std::ofstream(rig::kLogFile, std::ios::app) << "from an earlier life\n";
  InternalLogger logger;
  say(logger, "from this one");
  EXPECT_THAT(linesOf(log()), ElementsAre("from an earlier life", EndsWith("] from this one")));
}

TEST_F(InternalLoggerOpening, CreatesTheLogBeforeTheFirstLine) {
  std::filesystem::remove(rig::kLogFile);
  const InternalLogger logger;
  EXPECT_TRUE(std::filesystem::is_regular_file(rig::kLogFile));
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(InternalLoggerOpening, FallsBackToStandardErrorWithoutTheFolderAndDoesNotCreateIt) {
  std::filesystem::remove_all(rig::kLogDirectory);
  expectFallback();
  EXPECT_FALSE(std::filesystem::exists(rig::kLogDirectory));
}

TEST_F(InternalLoggerOpening, FallsBackToStandardErrorWhereTheLogIsAFolder) {
  std::filesystem::remove(rig::kLogFile);
  std::filesystem::create_directory(rig::kLogFile);
  expectFallback();
}

TEST_F(InternalLoggerOpening, FallsBackToStandardErrorWhenTheLogRefuses) {
  host.withUnopenable(rig::kLogFile);
  expectFallback();
}

TEST_F(InternalLoggerOpening, StaysWithStandardErrorWhenTheFolderAppears) {
  std::filesystem::remove_all(rig::kLogDirectory);
  const StandardErrorInFile errors;
  InternalLogger logger;
  std::filesystem::create_directory(rig::kLogDirectory);
  say(logger, "still here");
  EXPECT_THAT(errors.text(), EndsWith("] still here\n"));
  EXPECT_FALSE(std::filesystem::exists(rig::kLogFile));
}

TEST_F(InternalLoggerOpening, FallsBackInTheShippedLibrary) {
  std::filesystem::remove_all(rig::kLogDirectory);
  // A pipe has no position: however much is written there, nothing rotates.
  const rig::Run run =
      driver().withEnvironment(kVariable, "Info").withInput("no xml\nno xml either\n").run();
  EXPECT_EQ(run.exitStatus, 0);
  const std::vector<std::string> lines = linesOf(run.errors);
  ASSERT_EQ(lines.size(), 3u) << run.errors;
  EXPECT_EQ(lines[0] + "\n", kNotOpened);
  for (const std::string& line : {lines[1], lines[2]}) {
    const rig::LogRecord record = rig::parseLogLine(line);
    EXPECT_TRUE(record.wellFormed()) << line;
    EXPECT_EQ(record.level, "Error");
  }
  EXPECT_FALSE(std::filesystem::exists(rig::kLogDirectory));
}

TEST_F(InternalLoggerOpening, IsUndoneByTheLoggersEnd) {
  const std::size_t before = rig::openFileCount();
  {
    InternalLogger logger;
    EXPECT_EQ(rig::openFileCount(), before + 1);
    say(logger, "m");
  }
  EXPECT_EQ(rig::openFileCount(), before);
}

TEST_F(InternalLoggerOpening, IsUndoneOnceByAClosingBehindWhichMessagesAreDropped) {
  const std::size_t before = rig::openFileCount();
  {
    InternalLogger logger;
    say(logger, "last");
    logger.close();
    EXPECT_EQ(rig::openFileCount(), before);
    say(logger, "too late");
    logger.close();
  }
  EXPECT_EQ(rig::openFileCount(), before);
  const std::vector<std::string> lines = linesOf(log());
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0], EndsWith("last"));
}

TEST_F(InternalLoggerOpening, IsUndoneWhenTheLibraryIsUnloaded) {
  const std::size_t before = rig::openFileCount();
  rig::NativeLibrary library;
  EXPECT_EQ(rig::openFileCount(), before + 1);
  library.request("no xml");
  EXPECT_EQ(rig::openFileCount(), before + 1);
  library.unload();
  EXPECT_EQ(rig::openFileCount(), before);
}

TEST_F(InternalLoggerOpening, LeavesStandardErrorOpenAtTheLoggersEnd) {
  std::filesystem::remove_all(rig::kLogDirectory);
  const StandardErrorInFile errors;
  { const InternalLogger logger; }
  EXPECT_GE(std::fputs("still open", stderr), 0);
  EXPECT_THAT(errors.text(), EndsWith("still open"));
}

// --- Rotation ----------------------------------------------------------------------------------

class InternalLoggerRotation : public LoggerHost {
 protected:
  // The folder's files, and so every generation there is.
  static std::set<std::string> files() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(rig::kLogDirectory)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  static std::string notRenamed(int error) {
    return std::string(
               "Failed to rename/rotate log file /var/log/norvane/tarnhost-mendline.log to "
               "/var/log/norvane/tarnhost-mendline_backup.log: ") +
           std::strerror(error) + "\n";
  }

  static void makeLog(off_t size) { makeFile(rig::kLogFile, size, "\nold end\n"); }

  // Whether a line written to a log of this size goes to a new file. Looks at no more of the old
  // one than its end, for it may be huge.
  static bool rotatesAt(off_t size) {
    std::filesystem::remove(rig::kLogBackup);
    makeLog(size);
    InternalLogger logger;
    say(logger, "new line");
    if (!std::filesystem::exists(rig::kLogBackup)) {
      EXPECT_THAT(contentOf(rig::kLogFile, size), EndsWith("> [Test] new line\n"));
      EXPECT_THAT(linesOf(contentOf(rig::kLogFile, size)), testing::SizeIs(1));
      return false;
    }
    EXPECT_EQ(sizeOf(rig::kLogBackup), size);
    EXPECT_THAT(contentOf(rig::kLogBackup, size - 9), "\nold end\n");
    EXPECT_THAT(log(), EndsWith("> [Test] new line\n"));
    EXPECT_THAT(linesOf(log()), testing::SizeIs(1));
    return true;
  }
};

TEST_F(InternalLoggerRotation, DoesNotHappenAtOneByteLessThanTheLimit) {
  EXPECT_FALSE(rotatesAt(kLastPositionWithoutRotation));
  EXPECT_FALSE(rotatesAt(1000));
}

TEST_F(InternalLoggerRotation, HappensAtTheLimit) {
  EXPECT_TRUE(rotatesAt(kFirstPositionWithRotation));
  EXPECT_TRUE(rotatesAt(kFirstPositionWithRotation + 1));
}

TEST_F(InternalLoggerRotation, ComesBeforeTheLineSoTheFileMayPassTheLimitByOne) {
  makeLog(kLastPositionWithoutRotation);
  InternalLogger logger;
  say(logger, "across the limit");
  const off_t size = sizeOf(rig::kLogFile);
  EXPECT_GT(size, kFirstPositionWithRotation);
  say(logger, "in the new file");
  EXPECT_EQ(sizeOf(rig::kLogBackup), size);
  EXPECT_THAT(contentOf(rig::kLogBackup, kLastPositionWithoutRotation),
              EndsWith("] across the limit\n"));
  EXPECT_THAT(linesOf(log()), ElementsAre(EndsWith("] in the new file")));
}

TEST_F(InternalLoggerRotation, ReplacesTheBackupAndKeepsOneGeneration) {
  std::ofstream(rig::kLogBackup) << "an old backup";
  makeLog(kFirstPositionWithRotation);
  const StandardErrorInFile errors;
  InternalLogger logger;
  say(logger, "one");
  EXPECT_EQ(sizeOf(rig::kLogBackup), kFirstPositionWithRotation);
  // The limit is reached once more: its position moves with what others append.
  std::filesystem::resize_file(rig::kLogFile,
                               static_cast<std::uintmax_t>(kFirstPositionWithRotation));
  say(logger, "two");
  say(logger, "three");
  EXPECT_THAT(contentOf(rig::kLogBackup), AllOf(HasSubstr("] one\n"), EndsWith("] two\n")));
  EXPECT_THAT(linesOf(log()), ElementsAre(EndsWith("] three")));
  EXPECT_EQ(files(),
            (std::set<std::string>{"tarnhost-mendline.log", "tarnhost-mendline_backup.log"}));
  EXPECT_THAT(errors.text(), IsEmpty());
}

TEST_F(InternalLoggerRotation, ClosesTheOldFile) {
  makeLog(kFirstPositionWithRotation);
  InternalLogger logger;
  const std::size_t before = rig::openFileCount();
  say(logger, "m");
  EXPECT_EQ(rig::openFileCount(), before);
}

// The position is looked at as 32 bits with a sign.
TEST_F(InternalLoggerRotation, SeesTheLowest32BitsOfThePosition) {
  constexpr off_t kTwoGiB = off_t{1} << 31;
  constexpr off_t kFourGiB = off_t{1} << 32;
  EXPECT_TRUE(rotatesAt(kTwoGiB - 1));
  EXPECT_FALSE(rotatesAt(kTwoGiB));
  EXPECT_FALSE(rotatesAt(kFourGiB - 1));
  EXPECT_FALSE(rotatesAt(kFourGiB));
  EXPECT_FALSE(rotatesAt(kFourGiB + kLastPositionWithoutRotation));
  EXPECT_TRUE(rotatesAt(kFourGiB + kFirstPositionWithRotation));
}

TEST_F(InternalLoggerRotation, HappensInTheShippedLibrary) {
  makeLog(kFirstPositionWithRotation);
  const rig::Run run = driver().withEnvironment(kVariable, "Info").withInput("no xml\n").run();
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_THAT(run.errors, IsEmpty());
  EXPECT_EQ(sizeOf(rig::kLogBackup), kFirstPositionWithRotation);
  EXPECT_THAT(linesOf(log()), ElementsAre(HasSubstr("Failed to parse xml")));
}

TEST_F(InternalLoggerRotation, GoesOnWithTheSameFileAfterAFailedRenameAndTriesAgainAtEveryLine) {
  std::filesystem::create_directory(rig::kLogBackup);
  std::ofstream(std::string(rig::kLogBackup) + "/keeps it from being replaced") << 'x';
  makeLog(kFirstPositionWithRotation);
  const StandardErrorInFile errors;
  InternalLogger logger;
  const std::size_t before = rig::openFileCount();
  say(logger, "one");
  EXPECT_EQ(errors.text(), notRenamed(EISDIR));
  say(logger, "two");
  EXPECT_EQ(errors.text(), notRenamed(EISDIR) + notRenamed(EISDIR));
  EXPECT_THAT(linesOf(contentOf(rig::kLogFile, kFirstPositionWithRotation)),
              ElementsAre(EndsWith("] one"), EndsWith("] two")));
  EXPECT_EQ(rig::openFileCount(), before);
}

TEST_F(InternalLoggerRotation, MakesANewLogWhereTheOldOneIsGone) {
  makeLog(kFirstPositionWithRotation);
  const StandardErrorInFile errors;
  InternalLogger logger;
  std::filesystem::remove(rig::kLogFile);
  say(logger, "m");
  EXPECT_EQ(errors.text(), notRenamed(ENOENT));
  EXPECT_THAT(linesOf(log()), ElementsAre(EndsWith("] m")));
  EXPECT_EQ(files(), (std::set<std::string>{"tarnhost-mendline.log"}));
}

TEST_F(InternalLoggerRotation, FallsBackToStandardErrorWhenTheLogCannotBeOpenedAgain) {
  makeLog(kFirstPositionWithRotation);
  const StandardErrorInFile errors;
  InternalLogger logger;
  rig::failSyscall(SYS_openat, EACCES, {rig::whenArgumentHas(2, O_APPEND, O_APPEND)});
  const PinnedTime time(kMoment, 1000);
  say(logger, "one");
  say(logger, "two");
  const std::string start = "2026-03-09 14:05:31:1 Error <" + threadHandle() + "> [Test] ";
  EXPECT_EQ(errors.text(), kNotOpened + start + "one\n" + start + "two\n");
  EXPECT_EQ(sizeOf(rig::kLogBackup), kFirstPositionWithRotation);
  EXPECT_FALSE(std::filesystem::exists(rig::kLogFile));
}

TEST_F(InternalLoggerRotation, SaysBothWhenNeitherRenameNorOpeningSucceeds) {
  makeLog(kFirstPositionWithRotation);
  const StandardErrorInFile errors;
  InternalLogger logger;
  std::filesystem::remove_all(rig::kLogDirectory);
  say(logger, "m");
  EXPECT_THAT(errors.text(), StartsWith(notRenamed(ENOENT) + kNotOpened));
  EXPECT_THAT(linesOf(errors.text()), ElementsAre(testing::_, testing::_, EndsWith("] m")));
  EXPECT_FALSE(std::filesystem::exists(rig::kLogDirectory));
}

TEST_F(InternalLoggerRotation, BringsTheLoggerBackFromAStandardErrorThatGrewPastTheLimit) {
  std::filesystem::remove_all(rig::kLogDirectory);
  StandardErrorInFile errors;
  InternalLogger logger;
  std::filesystem::create_directory(rig::kLogDirectory);
  errors.moveTo(kLastPositionWithoutRotation);
  const std::size_t before = rig::openFileCount();
  say(logger, "on standard error");
  EXPECT_FALSE(std::filesystem::exists(rig::kLogFile));
  say(logger, "in the file");
  say(logger, "and there");
  const std::string text = errors.text();
  EXPECT_THAT(text, StartsWith(kNotOpened));
  EXPECT_THAT(text, EndsWith("] on standard error\n" + notRenamed(ENOENT)));
  EXPECT_THAT(linesOf(log()), ElementsAre(EndsWith("] in the file"), EndsWith("] and there")));
  EXPECT_FALSE(std::filesystem::exists(rig::kLogBackup));
  // Standard error is still there, too.
  EXPECT_EQ(rig::openFileCount(), before + 1);
}

TEST_F(InternalLoggerRotation, OfStandardErrorRenamesWhateverLogThereIs) {
  std::filesystem::remove(rig::kLogFile);
  std::filesystem::create_directory(rig::kLogFile);
  StandardErrorInFile errors(kFirstPositionWithRotation);
  InternalLogger logger;
  std::filesystem::remove(rig::kLogFile);
  std::ofstream(rig::kLogFile) << "somebody else's\n";
  say(logger, "in the file");
  EXPECT_EQ(errors.text(), kNotOpened);
  EXPECT_EQ(contentOf(rig::kLogBackup), "somebody else's\n");
  EXPECT_THAT(linesOf(log()), ElementsAre(EndsWith("] in the file")));
}

// Lines may be lost to a rotation, but none is torn, doubled or out of its thread's order.
class RotationAmongThreads : public InternalLoggerRotation {
 protected:
  static constexpr int kThreads = 6;

  // Until there is enough: how many lines are lost to rotations, nobody knows.
  static void logFromManyThreads(InternalLogger& logger, const std::function<bool()>& enough) {
    std::atomic<bool> stopping = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&logger, &stopping, t] {
        for (int i = 0; !stopping; ++i) {
          logTo(logger, LogLevel::Error, &kTag, "%d %d .", t, i);
        }
      });
    }
    EXPECT_TRUE(rig::eventually(enough, std::chrono::seconds(20)));
    stopping = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  static void expectWholeLines(const std::vector<std::string>& lines) {
    std::vector<int> last(kThreads, -1);
    for (const std::string& line : lines) {
      const rig::LogRecord record = rig::parseLogLine(line);
      ASSERT_TRUE(record.wellFormed()) << line;
      std::istringstream message(record.message);
      std::size_t thread = last.size();
      int number = -1;
      message >> thread >> number;
      ASSERT_LT(thread, last.size()) << line;
      EXPECT_EQ(record.message, std::to_string(thread) + " " + std::to_string(number) + " .");
      EXPECT_LT(last[thread], number) << line;
      last[thread] = number;
    }
  }
};

using InternalLoggerRotationAmongThreads = RotationAmongThreads;

TEST_F(InternalLoggerRotationAmongThreads, TearsNoLine) {
  const off_t start = kLastPositionWithoutRotation - 20000;
  makeLog(start);
  InternalLogger logger;
  logFromManyThreads(logger, [] {
    return std::filesystem::exists(rig::kLogBackup) && std::filesystem::exists(rig::kLogFile) &&
           sizeOf(rig::kLogFile) > 20000;
  });
  const std::vector<std::string> before = linesOf(contentOf(rig::kLogBackup, start));
  const std::vector<std::string> after = linesOf(log());
  EXPECT_FALSE(before.empty());
  EXPECT_FALSE(after.empty());
  std::vector<std::string> all = before;
  all.insert(all.end(), after.begin(), after.end());
  expectWholeLines(all);
}

TEST_F(InternalLoggerRotationAmongThreads, TearsNoLineWhenEveryOneRotates) {
  std::filesystem::create_directory(rig::kLogBackup);
  makeLog(kFirstPositionWithRotation);
  std::size_t complaints = 0;
  std::vector<std::string> lines;
  {
    const StandardErrorInFile errors;
    InternalLogger logger;
    logFromManyThreads(logger,
                       [] { return sizeOf(rig::kLogFile) > kFirstPositionWithRotation + 400000; });
    lines = linesOf(contentOf(rig::kLogFile, kFirstPositionWithRotation));
    for (const std::string& line : linesOf(errors.text())) {
      ASSERT_EQ(line + "\n", notRenamed(EISDIR));
      ++complaints;
    }
  }
  EXPECT_FALSE(lines.empty());
  EXPECT_EQ(complaints, lines.size());
  expectWholeLines(lines);
}

}  // namespace
}  // namespace mendline
