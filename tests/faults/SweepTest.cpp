// Every system call of a life of the library fails once: the first, the second, the third ...,
// until there is none left to fail. The library may then answer with an error, but it lives, it
// answers, it gives back what it holds, and what failed works the next time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Eventually.h"
#include "Inventory.h"
#include "tests/faults/SupervisedSession.h"
#include "tests/faults/SweptCalls.h"

namespace mendline {
namespace {

struct Sweep {
  SweptCall call;
  int error = 0;
  int stride = 1;
};

void PrintTo(const Sweep& sweep, std::ostream* out) {
  *out << sweep.call.name << " " << std::strerror(sweep.error);
}

std::string nameOf(const testing::TestParamInfo<Sweep>& info) {
  return std::string(info.param.call.name) + "_" + strerrorname_np(info.param.error);
}

// Instrumentation has memory and threads of its own: a refusal would end that and not the product.
#ifdef MENDLINE_INSTRUMENTED
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

std::vector<Sweep> sweeps(int stride) {
  std::vector<Sweep> result;
  for (const SweptCall& call : sweptCalls()) {
    const bool ofInstrumentation = call.number == SYS_mmap || call.number == SYS_mprotect ||
                                   call.number == SYS_munmap || call.number == SYS_madvise ||
                                   call.number == SYS_clone3;
    if (kInstrumented && ofInstrumentation) {
      continue;
    }
    for (const int error : call.errors) {
      result.push_back({call, error, stride});
    }
  }
  return result;
}

// What one life with one failure led to.
struct Outcome {
  std::string injected;  // the call that failed; empty: none was left to fail
  std::vector<std::string> faults;

  void expect(bool holds, const std::string& what) {
    if (!holds) {
      faults.push_back(what);
    }
  }
};

std::string describe(const rig::SupervisedCall& call) {
  switch (call.number) {
    case SYS_openat:
      return call.textAt(1);
    case SYS_newfstatat: {
      const std::string path = call.textAt(1);
      return path.empty() ? call.fileAt(0) : path;
    }
    case kUnlink:
    case kChown:
    case kChmod:
    case kRename:
      return call.textAt(0);
    case SYS_shmctl:
      return "command " + std::to_string(call.arguments[1]);
    case SYS_read:
    case SYS_write:
    case SYS_close:
    case SYS_lseek:
    case SYS_getdents64:
      return call.fileAt(0);
    default:
      return "";
  }
}

// Without its declaration an answer is a run of elements, without a root of its own.
bool isWellFormed(std::string answer) {
  if (answer.rfind(kDeclaration, 0) != 0) {
    return false;
  }
  answer = "<answer>" + answer.substr(kDeclaration.size()) + "</answer>";
  std::istringstream text(answer);
  boost::property_tree::ptree tree;
  try {
    boost::property_tree::read_xml(text, tree);
  } catch (const boost::property_tree::xml_parser_error&) {
    return false;
  }
  return tree.size() == 1;
}

void removeSegments() {
  for (const rig::Segment& segment : rig::segments()) {
    shmctl(segment.id, IPC_RMID, nullptr);
  }
}

// The request, and the beginnings that its answer may have behind the declaration: the good one
// first.
struct Exchange {
  std::string request;
  std::vector<std::string> answers;
};

std::vector<Exchange> exchanges(const SmallHost& small) {
  return {
      {operation("SetLogLevel", "<loglevel>TRACE</loglevel>"),
       {"<INFO>Succeed to set loglevel</INFO>"}},
      {operation("GetLogLevel"), {"<LOGLEVEL>TRACE</LOGLEVEL>"}},
      {operation("SetLogLevel", "<loglevel>DEBUG</loglevel>"),
       {"<INFO>Succeed to set loglevel</INFO>"}},
      {operation("ProcessMetrics"), {"<processMetrics><timestamp>"}},
      {operation("LbMetrics"), {"<LB><cpuUsage>"}},
      {operation("HistoricalMetrics", "<userName>alice</userName><display>101</display>"),
       {"<historicalMetrics><metric>", "<ERROR>Failed to get historical metrics</ERROR>"}},
      {operation("ProtocolInfo", "<display>101</display>"), {"<protocol><flare>"}},
      {operation("ProtocolInfo", "<display>99</display>"), {"<protocol/>"}},
      {operation("ClearShm", "<display>101</display>"),
       {"<INFO>Finish to clear shared memory</INFO>"}},
      {operation("StartvGPUMemoryCollector"),
       {"<INFO>Finish to start vGPU memory collector</INFO>",
        "<ERROR>Failed to start vGPU memory collector</ERROR>"}},
      {operation("LbMetrics"), {"<LB><cpuUsage>"}},
      {operation("EndProcess", small.victim()),
       {"<terminatedProcessName>victim</terminatedProcessName>",
        "<ERROR>Failed to terminate process</ERROR>"}},
      {operation("EndProcess"), {"<ERROR>Miss some parameters</ERROR>"}},
      {operation("NoSuchOperation"), {"<ERROR>Invalid mendline opcode</ERROR>"}},
  };
}

class SweepOnASmallHost : public testing::Test {
 protected:
  void TearDown() override { removeSegments(); }

  // The library lives once while the Nth of these calls fails.
  Outcome live(long number, int error, int nth);

  void sweepAll(const Sweep& sweep);

  SmallHost small;

 private:
  void liveOn(SupervisedSession& session, long number, Outcome& outcome);
  void checkEnd(SupervisedSession& session, long number, Outcome& outcome);
  void startAgain(SupervisedSession& session, Outcome& outcome);
};

// The figures of the second start cannot be those of the first: a process is new on the host.
void SweepOnASmallHost::startAgain(SupervisedSession& session, Outcome& outcome) {
  small.host.syntheticProc().addProcess({.pid = 99, .name = "latecomer", .startTime = 900}, 0);
  outcome.expect(session.request(operation("StartCollector")) == kStarted,
                 "cannot be started again");
  outcome.expect(session.waitForTicks(1), "no tick after a second start");
  const std::string report = session.request(operation("ProcessMetrics")).value_or("");
  outcome.expect(report.find("<name>latecomer</name>") != std::string::npos,
                 "the second start gathers nothing: " + report);
  outcome.expect(session.request(operation("StopCollector")) == kStopped,
                 "cannot be stopped again");
  small.host.syntheticProc().removeProcess(99);
}

// A thread that cannot be made is let out as an exception, and that ends the process; so does the
// lack of memory for its stack. Nothing else may.
void SweepOnASmallHost::checkEnd(SupervisedSession& session, long number, Outcome& outcome) {
  const int status = session.wait();
  const bool mayEnd = number == SYS_clone3 || number == SYS_mmap || number == SYS_mprotect;
  outcome.expect(mayEnd, "the process has ended with status " + std::to_string(status));
  const std::string said = LibraryProgram::errors();
  outcome.expect(
      status == kLetAnExceptionOut && said == "request-driver: Resource temporarily unavailable\n",
      "ended with status " + std::to_string(status) + ", saying " + said);
  // The key file and the segment outlive it, and the next process takes them over.
  outcome.expect(std::filesystem::exists(rig::kKeyFile), "the key file has gone");
  outcome.expect(rig::segments().size() == 1, "not one segment is left");
  SupervisedSession next([](const rig::SupervisedCall&) { return rig::Verdict::goOn(); });
  startAgain(next, outcome);
  outcome.expect(next.end() == 0, "the next process does not end well");
}

void SweepOnASmallHost::liveOn(SupervisedSession& session, long number, Outcome& outcome) {
  const std::string files = session.order("!files").value_or("none");
  const std::optional<std::string> threads = session.order("!threads");
  std::optional<std::string> start = session.request(operation("StartCollector"));
  if (start == kNotStarted) {
    start = session.request(operation("StartCollector"));  // nothing fails any more
    outcome.expect(start == kStarted || !start.has_value(), "does not start the second time");
  }
  if (!start.has_value()) {
    checkEnd(session, number, outcome);
    return;
  }
  outcome.expect(start == kStarted, "answers a start with " + *start);
  outcome.expect(session.waitForTicks(2), "no two ticks");
  for (const Exchange& exchange : exchanges(small)) {
    const std::optional<std::string> answer = session.request(exchange.request);
    if (!answer.has_value()) {
      checkEnd(session, 0, outcome);
      return;
    }
    outcome.expect(isWellFormed(*answer), "not well-formed: " + *answer);
    outcome.expect(std::any_of(exchange.answers.begin(), exchange.answers.end(),
                               [&](const std::string& beginning) {
                                 return answer->rfind(kDeclaration + beginning, 0) == 0;
                               }),
                   "answers " + exchange.request + " with " + *answer);
  }
  outcome.expect(session.request("<Mendline") == "<ERROR>Failed to do mendline operation</ERROR>",
                 "takes a broken request");
  outcome.expect(session.request(operation("StopCollector")) == kStopped, "cannot be stopped");
  session.judgeNoMore();

  outcome.expect(rig::eventually([&] { return session.order("!threads") == threads; }),
                 "a thread is left");
  // A descriptor that the kernel was not asked to close is still open.
  const int extra = number == SYS_close ? 1 : 0;
  const std::string now = session.order("!files").value_or("none");
  outcome.expect(std::stoi(now) <= std::stoi(files) + extra,
                 "descriptors: " + files + " before, " + now + " behind");
  // Of these calls nobody looks at the result: what they should have removed stays.
  const bool keepsSegment = number == SYS_shmdt || number == SYS_shmctl;
  outcome.expect(rig::segments().empty() || keepsSegment, "a segment is left");
  outcome.expect(rig::segments().size() <= 1, "several segments are left");
  outcome.expect(!std::filesystem::exists(rig::kKeyFile) || number == kUnlink,
                 "the key file is left");

  startAgain(session, outcome);
  outcome.expect(!std::filesystem::exists(rig::kKeyFile), "the key file is left for good");
  outcome.expect(session.end() == 0, "does not end well");
}

Outcome SweepOnASmallHost::live(long number, int error, int nth) {
  Outcome outcome;
  std::filesystem::remove(rig::kKeyFile);
  removeSegments();
  std::filesystem::remove(rig::kLogBackup);
  // The first line finds the log full; on this disk its emptiness takes no room.
  std::ofstream(rig::kLogFile) << "";
  std::filesystem::resize_file(rig::kLogFile, 26214400);
  int seen = 0;
  std::string injected;  // of the supervisor's thread, until its program has ended
  {
    SupervisedSession session([&, number, error, nth](const rig::SupervisedCall& call) {
      if (call.number != number || ++seen != nth) {
        return rig::Verdict::goOn();
      }
      injected = std::string("number ") + std::to_string(nth) + " " + describe(call);
      return rig::Verdict::fail(error);
    });
    liveOn(session, number, outcome);
  }
  outcome.injected = injected;
  return outcome;
}

void SweepOnASmallHost::sweepAll(const Sweep& sweep) {
  const auto begin = std::chrono::steady_clock::now();
  int injections = 0;
  for (int nth = 1;; nth += sweep.stride) {
    const Outcome outcome = live(sweep.call.number, sweep.error, nth);
    for (const std::string& fault : outcome.faults) {
      ADD_FAILURE() << sweep.call.name << " " << std::strerror(sweep.error) << ", "
                    << outcome.injected << ": " << fault;
    }
    if (outcome.injected.empty()) {
      break;
    }
    ++injections;
  }
  // A sweep that never met its call has shown nothing.
  EXPECT_GT(injections, 0);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - begin)
                                .count();
  std::cout << sweep.call.name << " " << std::strerror(sweep.error) << ": " << injections
            << " failures in " << milliseconds << " ms\n";
}

class SweepSlow : public SweepOnASmallHost, public testing::WithParamInterface<Sweep> {};

TEST_P(SweepSlow, LivesOnWhicheverCallFails) {
  sweepAll(GetParam());
}

INSTANTIATE_TEST_SUITE_P(EveryCall, SweepSlow, testing::ValuesIn(sweeps(kInstrumented ? 5 : 1)),
                         nameOf);

class SweepAtAStride : public SweepOnASmallHost, public testing::WithParamInterface<Sweep> {};

TEST_P(SweepAtAStride, LivesOnWhicheverCallFails) {
  sweepAll(GetParam());
}

INSTANTIATE_TEST_SUITE_P(EveryCall, SweepAtAStride, testing::ValuesIn(sweeps(13)), nameOf);

}  // namespace
}  // namespace mendline
