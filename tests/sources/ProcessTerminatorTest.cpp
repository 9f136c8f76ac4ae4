// Ending one process of the host, and what its row in the report makes of that.
#include "sources/ProcessTerminator.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FailingSyscalls.h"
#include "PrivateHost.h"
#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

// Calls of kill and nanosleep by one thread, with a chance to act before each. Other threads, and
// what is done in between, are not watched.
struct Watch {
  std::vector<std::string> calls;
  std::function<void()> beforeKill;
  std::function<void()> beforeSleep;
  std::vector<long> remaining;  // nanoseconds that an interrupted sleep gave back
};

thread_local Watch* watch = nullptr;

void act(Watch& watching, const std::string& call, const std::function<void()>& before) {
  watching.calls.push_back(call);
  watch = nullptr;
  if (before) {
    before();
  }
  watch = &watching;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace mendline

// The product's objects are part of this program and call these, which pass everything on.
extern "C" {

int kill(pid_t pid, int signalNumber) noexcept {
  if (mendline::watch != nullptr) {
    mendline::act(*mendline::watch,
                  "kill " + std::to_string(pid) + ' ' + std::to_string(signalNumber),
                  mendline::watch->beforeKill);
  }
  return mendline::next<int(pid_t, int)>("kill")(pid, signalNumber);
}

int nanosleep(const timespec* time, timespec* remaining) {
  if (mendline::watch != nullptr) {
    mendline::act(*mendline::watch,
                  "sleep " + std::to_string(time->tv_sec) + ' ' + std::to_string(time->tv_nsec),
                  mendline::watch->beforeSleep);
  }
  const int result = mendline::next<int(const timespec*, timespec*)>("nanosleep")(time, remaining);
  if (mendline::watch != nullptr && result != 0 && errno == EINTR && remaining != nullptr) {
    mendline::watch->remaining.push_back(remaining->tv_sec * 1'000'000'000 + remaining->tv_nsec);
    errno = EINTR;
  }
  return result;
}
}

namespace mendline {
namespace {

using boost::property_tree::ptree;
using rig::failSyscall;
using rig::inChild;
using rig::Process;
using rig::whenArgumentHas;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::uint64_t kBootTime = 1700000000;
const std::string kUpdate =
    "Debug ProcessTerminator: Update the process list to remove non-existing process";

// The top-level elements of an answer, as name and text.
std::vector<std::pair<std::string, std::string>> elementsOf(const ptree& answer) {
  std::vector<std::pair<std::string, std::string>> elements;
  for (const auto& [name, element] : answer) {
    elements.emplace_back(name, element.data());
  }
  return elements;
}

// A host whose processes stand in a report since the last tick; whatever is logged at Debug since
// then counts.
class ReportedHost : public rig::PrivateHost {
 public:
  ReportedHost() {
    // A signal to a whole group by mistake must end this program alone and not its runner too.
    EXPECT_EQ(setpgid(0, 0), 0);
    withProcStat("btime " + std::to_string(kBootTime) + "\n");
  }

  void tick() {
    PerfSample sample;
    ASSERT_TRUE(ListProcesses(sample.processes));
    ProcessMetricGenerator::getInstance()->generate(sample);
    SetLogThreshold(LogLevel::Debug);
    log().clear();
  }

  std::vector<std::string> logged() { return loggedLines(log()); }
};

// What a console sees of the host.
struct Row {
  std::int32_t pid = 0;
  std::uint64_t createTime = 0;
  bool operator==(const Row&) const = default;
};

std::vector<Row> report() {
  ptree answer;
  reportProcessMetrics(answer);
  std::vector<Row> rows;
  for (const auto& [name, element] : answer.get_child("processMetrics")) {
    if (name == "process") {
      rows.push_back({element.get<std::int32_t>("id"), element.get<std::uint64_t>("create_time")});
    }
  }
  return rows;
}

Row rowOf(pid_t pid) {
  for (const Row& row : report()) {
    if (row.pid == pid) {
      return row;
    }
  }
  throw std::runtime_error("process " + std::to_string(pid) + " is not in the report");
}

bool isReported(const Row& row) {
  const std::vector<Row> rows = report();
  return std::count(rows.begin(), rows.end(), row) == 1;
}

// A console asks for the end of the process in a row of its report.
class Termination {
 public:
  explicit Termination(const Row& row) : row_(row) {}

  Termination& beforeTheSignal(std::function<void()> action) {
    watch_.beforeKill = std::move(action);
    return *this;
  }
  Termination& atTheStartOfTheWait(std::function<void()> action) {
    watch_.beforeSleep = std::move(action);
    return *this;
  }

  bool run() {
    watch = &watch_;
    const auto start = steady_clock::now();
    const bool result = ProcessTerminator::terminate(row_.pid, row_.createTime, answer);
    duration_ = steady_clock::now() - start;
    watch = nullptr;
    return result;
  }

  const std::vector<std::string>& calls() const { return watch_.calls; }
  const std::vector<long>& remaining() const { return watch_.remaining; }
  steady_clock::duration duration() const { return duration_; }

  ptree answer;

 private:
  Row row_;
  Watch watch_;
  steady_clock::duration duration_ = {};
};

// The status of the process once it has ended, asked for by a parent that does its duty: without
// one the process stays a zombie.
std::future<int> reaped(const Process& process) {
  return std::async(std::launch::async, [pid = process.pid()] {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
  });
}

bool endedBy(int signalNumber, int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == signalNumber;
}

std::string signalTo(pid_t pid) {
  return "kill " + std::to_string(pid) + " 15";
}
const std::string kWait = "sleep 0 100000000";

// A process that outlives every signal that can be caught, and remembers them all.
class Listener {
 public:
  Listener() {
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0 || (pid_ = fork()) < 0) {
      throw std::runtime_error("no listener");
    }
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      sigset_t all;
      sigfillset(&all);
      sigprocmask(SIG_SETMASK, &all, nullptr);
      for (char heard = 0; write(ends[1], &heard, 1) == 1;) {
        heard = static_cast<char>(sigwaitinfo(&all, nullptr));
      }
      _exit(0);
    }
    close(ends[1]);
    heard_ = ends[0];
    char ready = 1;
    if (read(heard_, &ready, 1) != 1 || ready != 0) {
      throw std::runtime_error("the listener does not listen");
    }
  }
  ~Listener() { close(heard_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  pid_t pid() const { return pid_; }

  // Ends it; whether it was still there, and the signals it has heard until then.
  std::pair<bool, std::vector<int>> end() {
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
    const bool wasThere = info.si_pid == 0;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    std::vector<int> all;
    for (char signalNumber = 0; read(heard_, &signalNumber, 1) == 1;) {
      all.push_back(signalNumber);
    }
    return {wasThere, all};
  }

 private:
  pid_t pid_ = -1;
  int heard_ = -1;
};

void dropCapabilities(std::initializer_list<unsigned> capabilities) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
  for (const unsigned capability : capabilities) {
    data[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
  }
  ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

// Gives the pid, which must be free, to the next process that is started.
void makeNextPid(pid_t pid) {
  std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1;
}

milliseconds sinceBoot() {
  timespec time = {};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return std::chrono::duration_cast<milliseconds>(std::chrono::seconds(time.tv_sec) +
                                                  std::chrono::nanoseconds(time.tv_nsec));
}

// ---- A process that takes the signal ----

TEST(ProcessTerminator, TakesAProcessThatEndsInTimeOutOfTheReport) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  const Process other = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  const Row otherRow = rowOf(other.pid());
  std::future<int> status = reaped(process);
  Termination termination(row);
  termination.atTheStartOfTheWait([&] { status.wait(); });
  EXPECT_TRUE(termination.run());
  EXPECT_TRUE(endedBy(SIGTERM, status.get()));
  EXPECT_THAT(elementsOf(termination.answer), ElementsAre(Pair("terminatedProcessName", "xclock")));
  EXPECT_FALSE(isReported(row));
  EXPECT_TRUE(isReported(otherRow));
  EXPECT_TRUE(other.isRunning());
  const std::string pid = std::to_string(process.pid());
  EXPECT_THAT(host.logged(),
              ElementsAre(kUpdate,
                          "Debug ProcessQuery: Failed to open file /proc/" + pid +
                              "/stat, due to No such file or directory",
                          "Debug ProcessQuery: Process " + pid + " may not exist",
                          "Debug ProcessMetricGenerator: process: " + pid + " which created at " +
                              std::to_string(row.createTime) + " is removed"));
}

TEST(ProcessTerminator, SignalsThenWaitsThenLooksThenAnswers) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  Termination termination(rowOf(process.pid()));
  const auto expectNothingYet = [&] {
    EXPECT_TRUE(termination.answer.empty());
    EXPECT_THAT(host.logged(), IsEmpty());
  };
  termination.beforeTheSignal(expectNothingYet).atTheStartOfTheWait(expectNothingYet);
  EXPECT_TRUE(termination.run());
  EXPECT_THAT(termination.calls(), ElementsAre(signalTo(process.pid()), kWait));
  EXPECT_THAT(host.logged(), ElementsAre(kUpdate));
}

TEST(ProcessTerminator, AnswersForAProcessThatIgnoresTheSignalAllTheSame) {
  ReportedHost host;
  const Process process = host.process("stubborn").ignoringSigterm().start();
  host.tick();
  const Row row = rowOf(process.pid());
  Termination termination(row);
  EXPECT_TRUE(termination.run());
  EXPECT_THAT(elementsOf(termination.answer),
              ElementsAre(Pair("terminatedProcessName", "stubborn")));
  EXPECT_TRUE(process.isRunning());
  EXPECT_TRUE(isReported(row));
  EXPECT_THAT(host.logged(), ElementsAre(kUpdate));
}

TEST(ProcessTerminator, SendsOneSignalAndNoOther) {
  ReportedHost host;
  Listener listener;
  host.tick();
  Termination termination(rowOf(listener.pid()));
  EXPECT_TRUE(termination.run());
  EXPECT_THAT(listener.end(), Pair(true, ElementsAre(SIGTERM)));
}

TEST(ProcessTerminator, SendsOneSignalPerRequest) {
  ReportedHost host;
  const Process process = host.process("stubborn").ignoringSigterm().start();
  host.tick();
  const Row row = rowOf(process.pid());
  std::vector<std::future<void>> requests;
  for (int i = 0; i < 4; ++i) {
    requests.push_back(std::async(std::launch::async, [&] {
      Termination termination(row);
      EXPECT_TRUE(termination.run());
      EXPECT_THAT(termination.calls(), ElementsAre(signalTo(process.pid()), kWait));
      EXPECT_EQ(termination.answer.get<std::string>("terminatedProcessName"), "stubborn");
    }));
  }
  for (std::future<void>& request : requests) {
    request.get();
  }
  EXPECT_TRUE(isReported(row));
}

TEST(ProcessTerminator, LeavesAZombieInTheReportUntilItIsReaped) {
  ReportedHost host;
  Process zombie = host.process("gone").asZombie().start();
  host.tick();
  const Row row = rowOf(zombie.pid());
  Termination termination(row);
  EXPECT_TRUE(termination.run());
  EXPECT_THAT(elementsOf(termination.answer), ElementsAre(Pair("terminatedProcessName", "gone")));
  EXPECT_THAT(termination.calls(), ElementsAre(signalTo(zombie.pid()), kWait));
  EXPECT_THAT(host.logged(), ElementsAre(kUpdate));
  EXPECT_TRUE(isReported(row));
}

TEST(ProcessTerminator, LeavesAProcessInTheReportThatHasEndedButIsNotReaped) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  Termination termination(row);
  termination.atTheStartOfTheWait([&] {
    siginfo_t ended = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(process.pid()), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ended.si_status, SIGTERM);
  });
  EXPECT_TRUE(termination.run());
  EXPECT_EQ(process.state(), 'Z');
  EXPECT_TRUE(isReported(row));
  EXPECT_THAT(host.logged(), ElementsAre(kUpdate));
}

TEST(ProcessTerminator, TakesTheRowOfTheOldProcessWhenItsPidIsReusedDuringTheWait) {
  ReportedHost host;
  Process process = host.process("old").start();
  host.tick();
  const pid_t pid = process.pid();
  const Row row = rowOf(pid);
  std::vector<Process> successors;
  Termination termination(row);
  termination.atTheStartOfTheWait([&] {
    process.stop();
    std::this_thread::sleep_for(milliseconds(30));  // some clock ticks
    makeNextPid(pid);
    successors.push_back(host.process("young").start());
  });
  EXPECT_TRUE(termination.run());
  ASSERT_EQ(successors.front().pid(), pid);
  EXPECT_TRUE(successors.front().isRunning());
  EXPECT_THAT(elementsOf(termination.answer), ElementsAre(Pair("terminatedProcessName", "old")));
  EXPECT_THAT(termination.calls(), ElementsAre(signalTo(pid), kWait));
  EXPECT_FALSE(isReported(row));
  EXPECT_THAT(
      host.logged(),
      ElementsAre(kUpdate,
                  "Debug ProcessQuery: Process creation time not match, pid " +
                      std::to_string(pid) + " is reused",
                  "Debug ProcessMetricGenerator: process: " + std::to_string(pid) +
                      " which created at " + std::to_string(row.createTime) + " is removed"));
}

TEST(ProcessTerminator, AnswersWithTheNameFromBeforeTheSignal) {
  ReportedHost host;
  Process process = host.process("before").ignoringSigterm().start();
  host.tick();
  Termination termination(rowOf(process.pid()));
  termination.beforeTheSignal([&] { process.rename("after"); });
  EXPECT_TRUE(termination.run());
  EXPECT_EQ(termination.answer.get<std::string>("terminatedProcessName"), "before");
}

TEST(ProcessTerminator, AnswersWithTheNameAsItStands) {
  for (const std::string name : {"<a>&\"'", " (a b) c) ", "a.b|c", "\xc3\xa4\xff"}) {
    ReportedHost host;
    const Process process = host.process(name).ignoringSigterm().start();
    host.tick();
    Termination termination(rowOf(process.pid()));
    EXPECT_TRUE(termination.run());
    EXPECT_THAT(elementsOf(termination.answer), ElementsAre(Pair("terminatedProcessName", name)));
  }
}

TEST(ProcessTerminator, ReplacesANameThatStandsInTheAnswer) {
  ReportedHost host;
  const Process process = host.process("new").ignoringSigterm().start();
  host.tick();
  Termination termination(rowOf(process.pid()));
  termination.answer.put("first", "1");
  termination.answer.put("terminatedProcessName", "old");
  termination.answer.put("last", "2");
  EXPECT_TRUE(termination.run());
  EXPECT_THAT(
      elementsOf(termination.answer),
      ElementsAre(Pair("first", "1"), Pair("terminatedProcessName", "new"), Pair("last", "2")));
}

TEST(ProcessTerminator, TakesACreationTimeBeyond32Bits) {
  ReportedHost host;
  host.withProcStat("btime 9000000000\n");
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  const Row row = rowOf(process.pid());
  ASSERT_GT(row.createTime, 9000000000u - 1);
  EXPECT_TRUE(Termination(row).run());
  EXPECT_FALSE(Termination({row.pid, row.createTime - 4294967296}).run());
  EXPECT_FALSE(Termination({row.pid, row.createTime + 4294967296}).run());
}

TEST(ProcessTerminator, EndsAProcessOfAnotherUser) {
  ReportedHost host;
  const Process process = host.process("xclock").ownedBy("alice").start();
  host.tick();
  const Row row = rowOf(process.pid());
  std::future<int> status = reaped(process);
  Termination termination(row);
  termination.atTheStartOfTheWait([&] { status.wait(); });
  EXPECT_TRUE(termination.run());
  EXPECT_TRUE(endedBy(SIGTERM, status.get()));
  EXPECT_FALSE(isReported(row));
}

// A line without a pid is taken with pid 0, and a signal to 0 would reach this very program.
TEST(ProcessTerminator, SignalsThePidOfTheRequestWhateverTheStatLineStates) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  std::string line = process.stat();
  line.erase(0, line.find('('));
  host.withProcessFile(process.pid(), "stat", line);
  Termination termination(rowOf(process.pid()));
  EXPECT_TRUE(termination.run());
  EXPECT_THAT(termination.calls(), ElementsAre(signalTo(process.pid()), kWait));
}

TEST(ProcessTerminator, TakesRowsOutWhileOtherThreadsReport) {
  ReportedHost host;
  std::vector<Process> processes;
  for (int i = 0; i < 5; ++i) {
    processes.push_back(host.process("xclock").start());
  }
  const Process other = host.process("other").start();
  host.tick();
  const Row otherRow = rowOf(other.pid());
  const std::size_t all = report().size();
  std::atomic<bool> done = false;
  std::vector<std::future<void>> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(std::async(std::launch::async, [&] {
      std::size_t before = all;
      while (!done) {
        const std::vector<Row> rows = report();
        EXPECT_LE(rows.size(), before) << "a row is back";
        EXPECT_GE(rows.size(), all - 5);
        EXPECT_EQ(std::count(rows.begin(), rows.end(), otherRow), 1);
        before = rows.size();
      }
    }));
  }
  for (const Process& process : processes) {
    std::future<int> status = reaped(process);
    const Row row = rowOf(process.pid());
    Termination termination(row);
    termination.atTheStartOfTheWait([&] { status.wait(); });
    EXPECT_TRUE(termination.run());
    EXPECT_FALSE(isReported(row));
  }
  done = true;
  for (std::future<void>& reader : readers) {
    reader.get();
  }
  EXPECT_EQ(report().size(), all - 5);
}

TEST(ProcessTerminator, HoldsUpNoOtherThreadDuringTheWait) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  Process other = host.process("xclock").start();
  host.tick();
  const Row otherRow = rowOf(other.pid());
  Termination termination(rowOf(process.pid()));
  // Done before the wait begins, or never.
  termination.atTheStartOfTheWait([&] {
    std::async(std::launch::async, [&] {
      Termination gone(otherRow);
      gone.beforeTheSignal([&] { other.stop(); });
      EXPECT_FALSE(gone.run());
      EXPECT_FALSE(isReported(otherRow));
    }).get();
  });
  EXPECT_TRUE(termination.run());
}

// ---- The wait ----

TEST(ProcessTerminator, WaitsNoLessThanAHundredMilliseconds) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  Termination termination(rowOf(process.pid()));
  EXPECT_TRUE(termination.run());
  EXPECT_GE(termination.duration(), milliseconds(100));
  EXPECT_LT(termination.duration(), std::chrono::seconds(5));
}

TEST(ProcessTerminator, GoesOnWaitingForTheRestAfterAnInterruption) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  struct sigaction nothing = {};
  nothing.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &nothing, nullptr), 0);
  const itimerval everyTenMilliseconds = {{0, 10000}, {0, 10000}};
  const itimerval never = {};
  ASSERT_EQ(setitimer(ITIMER_REAL, &everyTenMilliseconds, nullptr), 0);
  Termination termination(rowOf(process.pid()));
  termination.atTheStartOfTheWait([&] {
    if (termination.calls().size() > 100) {
      setitimer(ITIMER_REAL, &never, nullptr);  // it would wait for ever
    }
  });
  EXPECT_TRUE(termination.run());
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_GE(termination.duration(), milliseconds(100));
  ASSERT_GT(termination.remaining().size(), 0u) << "nothing has interrupted the wait";
  std::vector<std::string> expected = {signalTo(process.pid()), kWait};
  for (const long nanoseconds : termination.remaining()) {
    expected.push_back("sleep 0 " + std::to_string(nanoseconds));
  }
  EXPECT_EQ(termination.calls(), expected);
  EXPECT_EQ(termination.answer.get<std::string>("terminatedProcessName"), "xclock");
}

TEST(ProcessTerminator, EndsTheWaitWhenTheKernelRefusesIt) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  Termination termination(rowOf(process.pid()));
  EXPECT_TRUE(inChild([&] {
    alarm(20);
    failSyscall(SYS_nanosleep, EFAULT);
    failSyscall(SYS_clock_nanosleep, EFAULT);
    EXPECT_TRUE(termination.run());
    EXPECT_THAT(termination.calls(), ElementsAre(signalTo(process.pid()), kWait));
    EXPECT_THAT(elementsOf(termination.answer),
                ElementsAre(Pair("terminatedProcessName", "xclock")));
    EXPECT_THAT(host.logged(), ElementsAre(kUpdate));
  }));
}

// ---- No such process ----

// All that is logged, and done to the report, when the process can't be read: the row of no process
// is taken out.
std::vector<std::string> linesOfNoProcess(std::int32_t pid, const std::string& whyNotRead) {
  return {"Debug ProcessQuery: Failed to open file " + whyNotRead,
          "Debug ProcessQuery: Failed to get process info",
          "Warn ProcessTerminator: GetProcessInfo failed, process: " + std::to_string(pid) +
              " not exist.",
          kUpdate,
          "Debug ProcessQuery: Failed to open file /proc/0/stat, due to No such file or directory",
          "Debug ProcessQuery: Process 0 may not exist",
          "Debug ProcessMetricGenerator: process: 0 which created at 1700000000 is removed"};
}

TEST(ProcessTerminator, LeavesTheRowOfAProcessThatIsGone) {
  ReportedHost host;
  Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  const std::vector<Row> before = report();
  process.stop();
  Termination termination(row);
  EXPECT_FALSE(termination.run());
  EXPECT_THAT(termination.calls(), IsEmpty());
  EXPECT_TRUE(termination.answer.empty());
  EXPECT_EQ(report(), before);
  EXPECT_EQ(host.logged(),
            linesOfNoProcess(row.pid, "/proc/" + std::to_string(row.pid) +
                                          "/stat, due to No such file or directory"));
}

TEST(ProcessTerminator, TakesAProcessWhoseIoCannotBeReadForNone) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  const std::string io = "/proc/" + std::to_string(process.pid()) + "/io";
  host.withUnopenable(io);
  Termination termination(row);
  EXPECT_FALSE(termination.run());
  EXPECT_THAT(termination.calls(), IsEmpty());
  EXPECT_TRUE(termination.answer.empty());
  EXPECT_TRUE(process.isRunning());
  EXPECT_TRUE(isReported(row));
  EXPECT_EQ(host.logged(), linesOfNoProcess(row.pid, io + ", due to No such device or address"));
}

// It may send the signal, but not look at the files of others.
TEST(ProcessTerminator, SparesAProcessWhoseIoTheKernelRefuses) {
  ReportedHost host;
  const Process process = host.process("xclock").ownedBy("alice").start();
  host.tick();
  const Row row = rowOf(process.pid());
  EXPECT_TRUE(inChild([&] {
    dropCapabilities({CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_SYS_PTRACE});
    Termination termination(row);
    EXPECT_FALSE(termination.run());
    EXPECT_THAT(termination.calls(), IsEmpty());
    EXPECT_TRUE(termination.answer.empty());
    EXPECT_TRUE(isReported(row));
    EXPECT_EQ(host.logged(), linesOfNoProcess(row.pid, "/proc/" + std::to_string(row.pid) +
                                                           "/io, due to Permission denied"));
    process.send(0);  // it could have sent one
  }));
  EXPECT_TRUE(process.isRunning());
}

TEST(ProcessTerminator, FindsNoProcessUnderANegativePid) {
  for (const std::int32_t pid : {-1, -5, -getpgrp(), std::numeric_limits<std::int32_t>::min()}) {
    ReportedHost host;
    host.tick();
    Termination termination({pid, kBootTime});
    EXPECT_FALSE(termination.run());
    EXPECT_THAT(termination.calls(), IsEmpty());
    EXPECT_TRUE(termination.answer.empty());
    EXPECT_EQ(host.logged(), linesOfNoProcess(pid, "/proc/" + std::to_string(pid) +
                                                       "/stat, due to No such file or directory"));
  }
}

TEST(ProcessTerminator, LeavesANameInTheAnswerAloneWhenItFails) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  Row row = rowOf(process.pid());
  ++row.createTime;
  Termination other(row);
  other.answer.put("terminatedProcessName", "old");
  EXPECT_FALSE(other.run());
  Termination none({std::numeric_limits<std::int32_t>::max(), kBootTime});
  none.answer.put("terminatedProcessName", "old");
  EXPECT_FALSE(none.run());
  for (const ptree& answer : {other.answer, none.answer}) {
    EXPECT_THAT(elementsOf(answer), ElementsAre(Pair("terminatedProcessName", "old")));
  }
}

// ---- Another process ----

std::vector<std::string> linesOfAnotherProcess(pid_t pid) {
  return {"Warn ProcessTerminator: Process not exist, creation time not match, pid " +
              std::to_string(pid) + " resued.",
          kUpdate};
}

TEST(ProcessTerminator, ComparesTheCreationTimeExactly) {
  ReportedHost host;
  Listener listener;
  host.tick();
  const Row row = rowOf(listener.pid());
  const std::vector<Row> before = report();
  for (const std::uint64_t createTime :
       {row.createTime - 1, row.createTime + 1, row.createTime + 4294967296,
        row.createTime + 9223372036854775808u, row.createTime - kBootTime, std::uint64_t{1},
        std::numeric_limits<std::uint64_t>::max()}) {
    host.log().clear();
    Termination termination({row.pid, createTime});
    EXPECT_FALSE(termination.run()) << createTime;
    EXPECT_THAT(termination.calls(), IsEmpty()) << createTime;
    EXPECT_TRUE(termination.answer.empty());
    EXPECT_EQ(host.logged(), linesOfAnotherProcess(row.pid));
  }
  EXPECT_EQ(report(), before);
  EXPECT_THAT(listener.end(), Pair(true, IsEmpty()));
}

TEST(ProcessTerminator, SparesTheYoungerProcessUnderAReusedPid) {
  ReportedHost host;
  Process old = host.process("old").start();
  host.tick();
  const pid_t pid = old.pid();
  const Row row = rowOf(pid);
  old.stop();
  const auto ticks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  const auto bornInSecond = [&](const Process& process) { return process.startTime() / ticks; };
  const auto nextSecond = static_cast<std::int64_t>(row.createTime - kBootTime + 1);
  while (sinceBoot() < milliseconds(1000 * nextSecond + 20)) {
    std::this_thread::sleep_for(milliseconds(10));
  }
  makeNextPid(pid);
  const Process young = host.process("young").start();
  ASSERT_EQ(young.pid(), pid);
  ASSERT_GT(bornInSecond(young), row.createTime - kBootTime);
  Termination termination(row);
  EXPECT_FALSE(termination.run());
  EXPECT_THAT(termination.calls(), IsEmpty());
  EXPECT_TRUE(termination.answer.empty());
  EXPECT_TRUE(young.isRunning());
  EXPECT_TRUE(isReported(row)) << "it goes with the next tick";
  EXPECT_EQ(host.logged(), linesOfAnotherProcess(pid));
  host.tick();
  EXPECT_FALSE(isReported(row));
}

TEST(ProcessTerminator, SparesEveryProcessWhileTheBootTimeCannotBeRead) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  host.withUnopenable("/proc/stat");
  for (const std::uint64_t createTime : {row.createTime, row.createTime - kBootTime, kBootTime}) {
    host.log().clear();
    Termination termination({row.pid, createTime});
    EXPECT_FALSE(termination.run());
    EXPECT_THAT(termination.calls(), IsEmpty());
    EXPECT_TRUE(termination.answer.empty());
    std::vector<std::string> expected = {
        "Error SystemQuery: Failed to open file /proc/stat, error is No such device or address",
        "Error SystemQuery: Failed to get system boot time"};
    for (const std::string& line : linesOfAnotherProcess(row.pid)) {
      expected.push_back(line);
    }
    EXPECT_EQ(host.logged(), expected);
  }
  EXPECT_TRUE(process.isRunning());
  EXPECT_TRUE(isReported(row));
}

// ---- A signal that is refused ----

TEST(ProcessTerminator, LeavesAProcessAloneThatItMayNotSignal) {
  ReportedHost host;
  const Process process = host.process("xclock").ownedBy("alice").start();
  host.tick();
  const Row row = rowOf(process.pid());
  EXPECT_TRUE(inChild([&] {
    dropCapabilities({CAP_KILL});
    Termination termination(row);
    EXPECT_FALSE(termination.run());
    EXPECT_THAT(termination.calls(), ElementsAre(signalTo(row.pid))) << "there is nothing to await";
    EXPECT_TRUE(termination.answer.empty());
    EXPECT_TRUE(isReported(row));
    EXPECT_THAT(host.logged(),
                ElementsAre("Error ProcessTerminator: Failed to send TERM signal to process, error "
                            "is Operation not permitted",
                            kUpdate));
  }));
  EXPECT_TRUE(process.isRunning());
}

TEST(ProcessTerminator, SaysWhyTheSignalCouldNotBeSent) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  failSyscall(SYS_kill, EAGAIN, {whenArgumentHas(1, 0xffffffff, SIGTERM)});
  Termination termination(rowOf(process.pid()));
  EXPECT_FALSE(termination.run());
  EXPECT_THAT(termination.calls(), ElementsAre(signalTo(process.pid())));
  EXPECT_THAT(
      host.logged(),
      ElementsAre("Error ProcessTerminator: Failed to send TERM signal to process, error is "
                  "Resource temporarily unavailable",
                  kUpdate));
}

TEST(ProcessTerminator, TakesTheRowOfAProcessThatIsGoneBeforeTheSignal) {
  ReportedHost host;
  Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  Termination termination(row);
  termination.beforeTheSignal([&] { process.stop(); });
  EXPECT_FALSE(termination.run());
  EXPECT_THAT(termination.calls(), ElementsAre(signalTo(row.pid)));
  EXPECT_TRUE(termination.answer.empty());
  EXPECT_FALSE(isReported(row));
  const std::string pid = std::to_string(row.pid);
  EXPECT_THAT(host.logged(),
              ElementsAre("Error ProcessTerminator: Failed to send TERM signal to process, error "
                          "is No such process",
                          kUpdate,
                          "Debug ProcessQuery: Failed to open file /proc/" + pid +
                              "/stat, due to No such file or directory",
                          "Debug ProcessQuery: Process " + pid + " may not exist",
                          "Debug ProcessMetricGenerator: process: " + pid + " which created at " +
                              std::to_string(row.createTime) + " is removed"));
}

// ---- What is logged at the usual level ----

TEST(ProcessTerminator, SaysNothingAboutSuccessAtTheUsualLevel) {
  ReportedHost host;
  const Process process = host.process("xclock").ignoringSigterm().start();
  host.tick();
  SetLogThreshold(LogLevel::Info);
  EXPECT_TRUE(Termination(rowOf(process.pid())).run());
  EXPECT_THAT(host.logged(), IsEmpty());
}

// ---- updateProcessList ----

TEST(UpdateProcessList, LeavesAProcessThatIsThere) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  ProcessTerminator::updateProcessList(
      {.iPid = process.pid(), .ullStartTime = process.startTime(), .strProcessName = {}});
  EXPECT_TRUE(isReported(row));
  EXPECT_THAT(host.logged(), ElementsAre(kUpdate));
}

TEST(UpdateProcessList, TakesTheOneRowOfAProcessThatIsGone) {
  ReportedHost host;
  Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  const std::size_t before = report().size();
  const std::uint64_t startTime = process.startTime();
  process.stop();
  ProcessTerminator::updateProcessList(
      {.iPid = row.pid, .ullStartTime = startTime, .strProcessName = "any"});
  EXPECT_FALSE(isReported(row));
  EXPECT_EQ(report().size(), before - 1);
}

TEST(UpdateProcessList, TakesTheRowOfTheRecordsOwnStartTime) {
  ReportedHost host;
  const Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  // Of two owners of the pid the one before is asked about.
  const auto ticks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  ProcessTerminator::updateProcessList(
      {.iPid = row.pid, .ullStartTime = 7 * ticks, .strProcessName = {}});
  EXPECT_TRUE(isReported(row));
  EXPECT_THAT(host.logged(),
              ElementsAre(kUpdate,
                          "Debug ProcessQuery: Process creation time not match, pid " +
                              std::to_string(row.pid) + " is reused",
                          "Debug ProcessMetricGenerator: process: " + std::to_string(row.pid) +
                              " which created at 1700000007 is removed"));
}

TEST(UpdateProcessList, FindsNoRowWithoutABootTime) {
  ReportedHost host;
  Process process = host.process("xclock").start();
  host.tick();
  const Row row = rowOf(process.pid());
  const std::uint64_t startTime = process.startTime();
  process.stop();
  host.withUnopenable("/proc/stat");
  ProcessTerminator::updateProcessList(
      {.iPid = row.pid, .ullStartTime = startTime, .strProcessName = {}});
  EXPECT_TRUE(isReported(row));
  EXPECT_EQ(host.logged().back(), "Debug ProcessMetricGenerator: process: " +
                                      std::to_string(row.pid) + " which created at 0 is removed");
}

}  // namespace
}  // namespace mendline
