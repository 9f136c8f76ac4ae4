// Months in a host process, in short: a JVM full of requests, ticks in quick succession, and a host
// whose processes and sessions come and go. What the library holds has to stay what it was.
//
// MENDLINE_SOAK_TICKS sets how many ticks there are at least; without it, a day has passed at the
// end, or with a sanitizer 300 ticks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

constexpr int kClockSpeed = 3000;  // a tick each 10 ms, and what it takes
constexpr int kRequestThreads = 16;
constexpr std::string_view kSanitizer = MENDLINE_SANITIZER_RUNTIME;
constexpr bool kIsSanitized = !kSanitizer.empty();
constexpr int kCycles = 4;  // stops and starts, spread over the run
// Where the ticks are over before so many looks at what is held, the run goes on until it has both:
// from fewer, a growth could not be told.
constexpr std::size_t kLeastLooks = 200;

// Reads the log as it grows, over its rotations.
class LogReader {
 public:
  explicit LogReader(pid_t hostProcess)
      : ownLine_("[ProcessQuery] For process info, pid is: " + std::to_string(hostProcess) + ",") {}

  std::size_t ticks() const { return ticks_; }
  int rotations() const { return rotations_; }
  const std::vector<std::string>& complaints() const { return complaints_; }

  void readOn() {
    if (!file_.is_open()) {
      open();
    }
    readToEnd();
    struct stat status = {};
    if (stat(rig::kLogFile, &status) == 0 && status.st_ino != inode_) {
      readToEnd();
      ++rotations_;
      open();
      readToEnd();
    }
  }

 private:
  void open() {
    file_ = std::ifstream(rig::kLogFile);
    pending_.clear();
    struct stat status = {};
    inode_ = stat(rig::kLogFile, &status) == 0 ? status.st_ino : 0;
  }

  void readToEnd() {
    file_.clear();
    // In blocks: a letter at a time, with a sanitizer looking on, it falls behind what is written.
    static constexpr std::size_t kBlock = 1 << 16;
    do {
      const std::size_t had = pending_.size();
      pending_.resize(had + kBlock);
      file_.read(pending_.data() + had, kBlock);
      pending_.resize(had + static_cast<std::size_t>(file_.gcount()));
    } while (file_);
    std::size_t begin = 0;
    for (std::size_t end; (end = pending_.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
      take(std::string_view(pending_).substr(begin, end - begin));
    }
    pending_.erase(0, begin);
  }

  void take(std::string_view line) {
    // Each tick lists the host process itself once.
    if (line.find(ownLine_) != std::string_view::npos) {
      ++ticks_;
    }
    if (line.find(" Warn  <") != std::string_view::npos ||
        line.find(" Error <") != std::string_view::npos) {
      complain(line);
    }
  }

  void complain(std::string_view line) {
    // Processes that end while they are read, or before they are ended.
    for (const char* expected :
         {"[ProcessQuery] Failed to read file /proc/", "[ProcessTerminator] GetProcessInfo failed",
          "[ProcessTerminator] Failed to send TERM signal to process, error is No such process"}) {
      if (line.find(expected) != std::string_view::npos) {
        return;
      }
    }
    complaints_.emplace_back(line);
  }

  std::string ownLine_;
  std::ifstream file_;
  ino_t inode_ = 0;
  std::string pending_;
  std::size_t ticks_ = 0;
  int rotations_ = 0;
  std::vector<std::string> complaints_;
};

// What a process holds at one moment.
struct Holding {
  double memory = 0;  // anonymous resident memory, KiB
  double descriptors = 0;
  double threads = 0;
  double segments = 0;     // of the host
  double attachments = 0;  // to them, of all processes
};

double numberBehind(const std::string& text, const std::string& key) {
  const std::size_t position = text.find(key);
  return position == std::string::npos ? std::numeric_limits<double>::quiet_NaN()
                                       : std::strtod(text.c_str() + position + key.size(), nullptr);
}

Holding holdingOf(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  std::ifstream file(folder + "/status");
  const std::string status{std::istreambuf_iterator<char>(file), {}};
  Holding holding;
  holding.memory = numberBehind(status, "RssAnon:");
  holding.threads = numberBehind(status, "Threads:");
  const auto files = std::filesystem::directory_iterator(folder + "/fd");
  holding.descriptors = static_cast<double>(std::distance(begin(files), end(files)));
  for (const rig::Segment& segment : rig::segments()) {
    holding.segments += 1;
    holding.attachments += static_cast<double>(segment.attachments);
  }
  return holding;
}

// Without what requests hold for a moment.
Holding leastHoldingOf(pid_t pid) {
  Holding least = holdingOf(pid);
  for (int look = 0; look < 30; ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const Holding holding = holdingOf(pid);
    least.descriptors = std::min(least.descriptors, holding.descriptors);
    least.threads = std::min(least.threads, holding.threads);
    least.segments = std::min(least.segments, holding.segments);
  }
  return least;
}

// How much a figure grows from the first to the last of a series, by least squares over the means
// of ten blocks (neighbours in time are too much alike to be counted one by one), and how much of
// that may be chance: the half-width of the interval that holds the true value 9,999 times in
// 10,000.
struct Drift {
  double growth = 0;
  double chance = 0;
  bool isZero() const { return std::abs(growth) <= chance; }
};

Drift driftOf(const std::vector<double>& series) {
  constexpr std::size_t kBlocks = 10;
  constexpr double kStudent = 7.120;  // two-sided, 99.99 percent, 8 degrees of freedom
  std::array<double, kBlocks> means = {};
  const std::size_t length = series.size() / kBlocks;
  if (length == 0) {
    return {std::numeric_limits<double>::quiet_NaN(), 0};
  }
  for (std::size_t block = 0; block < kBlocks; ++block) {
    for (std::size_t i = 0; i < length; ++i) {
      means.at(block) += series[block * length + i] / static_cast<double>(length);
    }
  }
  double mean = 0;
  for (const double value : means) {
    mean += value / kBlocks;
  }
  const double middle = (kBlocks - 1) / 2.0;
  double covariance = 0;
  double variance = 0;
  for (std::size_t block = 0; block < kBlocks; ++block) {
    const double distance = static_cast<double>(block) - middle;
    covariance += distance * (means.at(block) - mean);
    variance += distance * distance;
  }
  const double slope = covariance / variance;
  double residual = 0;
  for (std::size_t block = 0; block < kBlocks; ++block) {
    const double expected = mean + slope * (static_cast<double>(block) - middle);
    residual += (means.at(block) - expected) * (means.at(block) - expected);
  }
  const double error = std::sqrt(residual / (kBlocks - 2) / variance);
  return {slope * kBlocks, kStudent * error * kBlocks};
}

TEST(DriftOf, TellsGrowthFromNoise) {
  std::mt19937 random(1);
  std::normal_distribution<double> noise(1000, 20);
  std::vector<double> flat;
  std::vector<double> growing;
  std::vector<double> still(1000, 7);
  for (int i = 0; i < 1000; ++i) {
    flat.push_back(noise(random));
    growing.push_back(noise(random) + i * 0.05);
  }
  EXPECT_TRUE(driftOf(flat).isZero());
  EXPECT_FALSE(driftOf(growing).isZero());
  EXPECT_NEAR(driftOf(growing).growth, 50, 10);
  EXPECT_TRUE(driftOf(still).isZero());
  EXPECT_EQ(driftOf(still).growth, 0);
  EXPECT_FALSE(driftOf({7, 7, 7, 7, 7, 7, 7, 7, 7}).isZero()) << "too short to tell";
}

// Processes and sessions that come and go while the rest of the run stays as it is.
class Guests {
 public:
  explicit Guests(const rig::PrivateHost& host) : host_(host) {}

  void change() {
    static const std::array<const char*, 4> kUsers = {"alice", "bob", "carol", "dave"};
    const auto user = kUsers.at(random_() % kUsers.size());
    processes_.push_back(
        host_.process(random_() % 3 == 0 ? "victim" : "guest").ownedBy(user).start());
    if (processes_.size() > 12) {
      processes_.pop_front();
    }
    if (random_() % 4 == 0) {
      servers_.push_back(host_.xServer(":" + std::to_string(101 + random_() % 4)).start());
      if (servers_.size() > 3) {
        servers_.pop_front();
      }
    }
  }

 private:
  const rig::PrivateHost& host_;
  std::mt19937 random_{2};
  std::deque<rig::Process> processes_;
  std::deque<rig::Process> servers_;
};

// A JVM that takes the library as it was built. It interprets, because a compiler's threads and
// code come and go as they like. With a sanitizer in the library, the runtime has to be there
// before the JVM is, and what it does with its own memory is its own affair.
rig::Program jvmWithTheDriver(const rig::PrivateHost& host) {
  std::vector<std::string> command = {MENDLINE_JAVA,
                                      "-Xms48m",
                                      "-Xmx48m",
                                      "-XX:+AlwaysPreTouch",
                                      "-XX:+UseSerialGC",
                                      "-Xint",
                                      "-XX:-UsePerfData",
                                      "-XX:ErrorFile=/dev/null",
                                      "-XX:-CreateCoredumpOnCrash"};
  for (const std::string& word :
       {std::string("-cp"), std::string(MENDLINE_SOAK_CLASS_PATH), std::string("SoakDriver"),
        std::string(MENDLINE_LIBRARY), std::to_string(kRequestThreads)}) {
    command.push_back(word);
  }
  rig::Program program = host.program(command);
  // With a heap for each of so many threads it takes days until all of them have settled.
  program.withEnvironment("MALLOC_ARENA_MAX", "1");
  program.withEnvironment("TARNHOST_MENDLINE_LOGLEVEL", "TRACE").withClockSpeed(kClockSpeed);
  if (kIsSanitized) {
    program.withEnvironment("LD_PRELOAD", std::string(kSanitizer))
        .withEnvironment("TSAN_OPTIONS",
                         "halt_on_error=1:exitcode=66:ignore_noninstrumented_modules=1")
        .withEnvironment("ASAN_OPTIONS", "handle_segv=0:detect_leaks=0:exitcode=66");
  }
  return program;
}

std::size_t ticksToRun() {
  const char* const text = std::getenv("MENDLINE_SOAK_TICKS");
  if (text != nullptr) {
    return std::strtoul(text, nullptr, 10);
  }
  return kIsSanitized ? 300 : 2880;
}

TEST(Soak, HoldsNoMoreAtTheEndThanInTheMiddle) {
  const std::size_t ticks = ticksToRun();
  rig::PrivateHost host;
  host.withFile("/usr/lib/norvane/tarnhost/resources/X11/xorg.conf", "");
  const rig::RunningProgram worker =
      host.program({MENDLINE_FLAREWORKER_SIM, "--interval", "20", "101", "102", "103", "104"})
          .start();
  rig::RunningProgram jvm = jvmWithTheDriver(host).start();
  ASSERT_EQ(jvm.ask("StartCollector"), "<INFO>Succeed to start collector</INFO>");

  LogReader log(jvm.pid());
  Guests guests(host);
  std::vector<Holding> series;
  std::vector<Holding> betweenLives;
  int cycles = 0;
  const auto isThrough = [&](int parts) {  // so many parts of the way, of kCycles + 1
    return log.ticks() * (kCycles + 1) >= ticks * static_cast<std::size_t>(parts) &&
           series.size() * (kCycles + 1) >= kLeastLooks * static_cast<std::size_t>(parts);
  };
  const auto began = std::chrono::steady_clock::now();
  while (cycles < kCycles || !isThrough(kCycles + 1)) {
    ASSERT_TRUE(jvm.isRunning());
    ASSERT_LT(std::chrono::steady_clock::now() - began, std::chrono::minutes(14));
    guests.change();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    log.readOn();
    if (cycles < kCycles && isThrough(cycles + 1)) {
      ASSERT_EQ(jvm.ask("StopCollector"), "<INFO>Finish to stop collector</INFO>");
      betweenLives.push_back(leastHoldingOf(jvm.pid()));
      ASSERT_EQ(jvm.ask("StartCollector"), "<INFO>Succeed to start collector</INFO>");
      ++cycles;
    }
    series.push_back(holdingOf(jvm.pid()));
  }
  const std::string answers = jvm.ask("!count");
  ASSERT_EQ(jvm.ask("StopCollector"), "<INFO>Finish to stop collector</INFO>");
  EXPECT_TRUE(rig::eventually([] { return rig::segments().empty(); }));
  jvm.closeInput();
  EXPECT_EQ(jvm.wait(), 0);
  log.readOn();

  const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began);
  std::printf(
      "soak: %zu ticks, %s answers to %d threads, %d restarts, %d log rotations, %zu looks, %.0f "
      "s\n",
      log.ticks(), answers.c_str(), kRequestThreads, cycles, log.rotations(), series.size(),
      seconds.count());
  EXPECT_EQ(cycles, kCycles);
  // A leak of one for each restart would be too small for the slope.
  for (const Holding& holding : betweenLives) {
    EXPECT_EQ(holding.descriptors, betweenLives.front().descriptors);
    EXPECT_EQ(holding.threads, betweenLives.front().threads);
    EXPECT_EQ(holding.segments, 0);
  }
  EXPECT_THAT(log.complaints(), testing::IsEmpty());

  const struct {
    const char* name;
    double Holding::*field;
  } kFigures[] = {{"memory, KiB", &Holding::memory},
                  {"descriptors", &Holding::descriptors},
                  {"threads", &Holding::threads},
                  {"segments", &Holding::segments},
                  {"attachments", &Holding::attachments}};
  for (const auto& figure : kFigures) {
    std::vector<double> values;
    for (std::size_t i = series.size() / 2; i < series.size(); ++i) {
      values.push_back(series[i].*figure.field);
    }
    const Drift drift = driftOf(values);
    std::printf("soak: %-12s at the middle %10.1f, at the end %10.1f, growth %+8.2f +- %.2f\n",
                figure.name, values.front(), values.back(), drift.growth, drift.chance);
    // The runtimes of the sanitizers hold on to memory. Else what the heap may still settle by is
    // six bytes for each answer; a leak is more than that, and grows with the run.
    constexpr double kSettling = 256;
    const bool isMemory = figure.field == &Holding::memory;
    const bool isTheirs = isMemory && (kIsSanitized || std::abs(drift.growth) <= kSettling);
    EXPECT_TRUE(drift.isZero() || isTheirs) << figure.name << " grows by " << drift.growth;
  }
}

}  // namespace
}  // namespace mendline
