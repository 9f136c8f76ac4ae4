// The operations on the processes of the host.
#include "gateway/ProcessOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "FailingSyscalls.h"
#include "PrivateHost.h"
#include "gateway/MendLineOperation.h"
#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "sources/ProcessQuery.h"
#include "tests/sources/LoggedLines.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;
using rig::Process;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRequest =
    "<MendlineOperation><opcode>ProcessMetrics</opcode></MendlineOperation>";
constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

class ProcessOperations : public testing::Test {
 protected:
  // The generator has seen one tick with this process, of a user of this host.
  static void tickWith(const std::string& name) {
    ProcessInfo process;
    process.iPid = 4711;
    process.uiUserId = 2001;
    process.ulMemory = 3;
    process.ullStartTime = 100;
    process.strProcessName = name;
    PerfSample sample;
    sample.processes.insert(process);
    ProcessMetricGenerator::getInstance()->generate(sample);
  }

  static ptree processMetricsFor(const ptree& request) {
    ptree answer;
    processMetrics(request, answer);
    return answer;
  }

  static std::string answerTo(const std::string& request) {
    std::string answer;
    handleRequest(request, answer);
    return answer;
  }

  static ptree parsed(const std::string& xml) {
    std::istringstream stream(xml);
    ptree tree;
    boost::property_tree::read_xml(stream, tree);
    return tree;
  }

  rig::PrivateHost host;
};

TEST_F(ProcessOperations, AnswerProcessMetricsWithTheTimestampAloneBeforeTheFirstTick) {
  EXPECT_EQ(answerTo(kRequest), std::string(kDeclaration) +
                                    "<processMetrics><timestamp>0</timestamp></processMetrics>");
}

TEST_F(ProcessOperations, AnswerProcessMetricsWithTheLatestTable) {
  tickWith("xclock");
  const ptree answer = processMetricsFor(ptree());
  ASSERT_EQ(answer.size(), 1u);
  EXPECT_EQ(answer.front().first, "processMetrics");
  EXPECT_EQ(answer.count("ERROR"), 0u);
  const ptree& report = answer.front().second;
  EXPECT_EQ(report.size(), 2u);
  EXPECT_GT(report.get<long>("timestamp"), 0);
  EXPECT_EQ(report.get<std::string>("process.id"), "4711");
  EXPECT_EQ(report.get<std::string>("process.name"), "xclock");
  EXPECT_EQ(report.get<std::string>("process.user_name"), "alice");
}

TEST_F(ProcessOperations, AnswerProcessMetricsOnOneLineBehindTheDeclaration) {
  tickWith("xclock");
  ptree expected = processMetricsFor(ptree());
  std::string text = kDeclaration;
  text += "<processMetrics><timestamp>" + expected.get<std::string>("processMetrics.timestamp") +
          "</timestamp><process>";
  for (const auto& [name, element] : expected.get_child("processMetrics.process")) {
    text += "<" + name + ">" + element.data() + "</" + name + ">";
  }
  EXPECT_EQ(answerTo(kRequest), text + "</process></processMetrics>");
}

TEST_F(ProcessOperations, AnswerProcessMetricsWithReservedCharactersAsEntities) {
  const std::string name = "a<b>&\"'";
  tickWith(name);
  const std::string answer = answerTo(kRequest);
  EXPECT_THAT(answer, testing::HasSubstr("<name>a&lt;b&gt;&amp;&quot;&apos;</name>"));
  EXPECT_EQ(parsed(answer).get<std::string>("processMetrics.process.name"), name);
}

TEST_F(ProcessOperations, AnswerProcessMetricsWhateverElseTheRequestHolds) {
  tickWith("xclock");
  const ptree expected = processMetricsFor(ptree());
  ptree request;
  request.put("MendlineOperation.display", "103");
  request.put("MendlineOperation.userName", "bob");
  request.put("MendlineOperation.processId", "12abc");
  request.put("MendlineOperation.createTime", "0");
  EXPECT_EQ(processMetricsFor(request), expected);
}

TEST_F(ProcessOperations, AnswerProcessMetricsBehindWhatIsInTheAnswerAlready) {
  ptree answer;
  answer.put("before", "x");
  answer.put("processMetrics.timestamp", "y");
  processMetrics(ptree(), answer);
  ASSERT_EQ(answer.size(), 3u);
  EXPECT_EQ(answer.front().first, "before");
  EXPECT_EQ(answer.back().first, "processMetrics");
  EXPECT_EQ(answer.back().second.get<std::string>("timestamp"), "0");
}

TEST_F(ProcessOperations, AnswerProcessMetricsWithoutALine) {
  tickWith("xclock");
  SetLogThreshold(LogLevel::Verbose);
  host.log().clear();
  processMetricsFor(ptree());
  EXPECT_EQ(host.log().text(), "");
}

TEST_F(ProcessOperations, AnswerProcessMetricsOfTheLastTickAfterTheCollectorHasStopped) {
  tickWith("xclock");
  const std::string before = answerTo(kRequest);
  answerTo("<MendlineOperation><opcode>StopCollector</opcode></MendlineOperation>");
  EXPECT_EQ(answerTo(kRequest), before);
}

// ---- EndProcess ----

class EndProcessOperation : public ProcessOperations {
 protected:
  // A signal to a whole group by mistake must end this program alone and not its runner too.
  void SetUp() override { ASSERT_EQ(setpgid(0, 0), 0); }

  // The generator has seen every process of the host.
  void tick() {
    PerfSample sample;
    ASSERT_TRUE(ListProcesses(sample.processes));
    ProcessMetricGenerator::getInstance()->generate(sample);
    host.log().clear();
  }

  // "create_time" as the report of a console has it; empty when it does not have the process.
  static std::string createTimeOf(pid_t pid) {
    const ptree answer = parsed(answerTo(kRequest));
    for (const auto& [name, process] : answer.get_child("processMetrics")) {
      if (name == "process" && process.get<pid_t>("id") == pid) {
        return process.get<std::string>("create_time");
      }
    }
    return "";
  }

  // What follows the declaration in the answer.
  static std::string end(const std::string& parameters) {
    const std::string answer = answerTo("<MendlineOperation><opcode>EndProcess</opcode>" +
                                        parameters + "</MendlineOperation>");
    EXPECT_THAT(answer, testing::StartsWith(kDeclaration));
    return answer.substr(std::string(kDeclaration).size());
  }
  static std::string end(const std::string& processId, const std::string& createTime) {
    return end("<processId>" + processId + "</processId><createTime>" + createTime +
               "</createTime>");
  }
};

constexpr const char* kMissed = "<ERROR>Miss some parameters</ERROR>";
constexpr const char* kFailed = "<ERROR>Failed to terminate process</ERROR>";

std::string incomplete(const std::string& pid, const std::string& createTime) {
  return "Error MendLineOperation: Incomplete parameters, pid: " + pid +
         ", ullCreationTime: " + createTime;
}

TEST_F(EndProcessOperation, EndsAProcessOfTheReport) {
  signal(SIGCHLD, SIG_IGN);  // nothing is left of a process that ends
  const Process process = host.process("xclock").start();
  const Process other = host.process("xclock").start();
  tick();
  const std::string createTime = createTimeOf(process.pid());
  EXPECT_EQ(end(std::to_string(process.pid()), createTime),
            "<terminatedProcessName>xclock</terminatedProcessName>");
  EXPECT_FALSE(process.isRunning());
  EXPECT_EQ(createTimeOf(process.pid()), "");
  EXPECT_NE(createTimeOf(other.pid()), "");
  EXPECT_TRUE(other.isRunning());
  EXPECT_THAT(loggedLines(host.log()), IsEmpty());
  // The console does not see it any more, but may ask again.
  EXPECT_EQ(end(std::to_string(process.pid()), createTime), kFailed);
}

TEST_F(EndProcessOperation, AnswersForAProcessThatStays) {
  const Process process = host.process("stubborn").ignoringSigterm().start();
  tick();
  const std::string createTime = createTimeOf(process.pid());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(end(std::to_string(process.pid()), createTime),
            "<terminatedProcessName>stubborn</terminatedProcessName>");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  EXPECT_TRUE(process.isRunning());
  EXPECT_EQ(createTimeOf(process.pid()), createTime);
}

TEST_F(EndProcessOperation, AnswersWithReservedCharactersAsEntities) {
  const Process process = host.process("a<b>&\"'").ignoringSigterm().start();
  tick();
  EXPECT_EQ(end(std::to_string(process.pid()), createTimeOf(process.pid())),
            "<terminatedProcessName>a&lt;b&gt;&amp;&quot;&apos;</terminatedProcessName>");
}

TEST_F(EndProcessOperation, TakesNumbersWithWhiteSpaceASignOrZerosAroundThem) {
  const Process process = host.process("xclock").ignoringSigterm().start();
  tick();
  const std::string pid = std::to_string(process.pid());
  const std::string time = createTimeOf(process.pid());
  const std::string ended = "<terminatedProcessName>xclock</terminatedProcessName>";
  EXPECT_EQ(end(" " + pid + " ", time), ended);
  EXPECT_EQ(end(pid, " " + time + " "), ended);
  EXPECT_EQ(end("\n\t" + pid + "\n", "\n\t" + time + "\n"), ended);
  EXPECT_EQ(end("+" + pid, "+" + time), ended);
  EXPECT_EQ(end("000" + pid, "000" + time), ended);
}

TEST_F(EndProcessOperation, FindsItsParametersInAnyOrderAmongOthers) {
  const Process process = host.process("xclock").ignoringSigterm().start();
  tick();
  EXPECT_EQ(end("<display>101</display><createTime>" + createTimeOf(process.pid()) +
                "</createTime><x/><processId>" + std::to_string(process.pid()) +
                "</processId><processId>abc</processId><createTime>1</createTime>"),
            "<terminatedProcessName>xclock</terminatedProcessName>");
}

TEST_F(EndProcessOperation, MissesParametersThatAreNotThere) {
  EXPECT_EQ(end(""), kMissed);
  EXPECT_EQ(end("<processId>4711</processId>"), kMissed);
  EXPECT_EQ(end("<createTime>123456789</createTime>"), kMissed);
  EXPECT_EQ(end("<processid>4711</processid><createtime>123456789</createtime>"), kMissed);
  EXPECT_EQ(end("<x><processId>4711</processId><createTime>123456789</createTime></x>"), kMissed);
  EXPECT_EQ(end("<processId value=\"4711\"/><createTime value=\"123456789\"/>"), kMissed);
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre(incomplete("0", "0"), incomplete("4711", "0"), incomplete("0", "123456789"),
                  incomplete("0", "0"), incomplete("0", "0"), incomplete("0", "0")));
}

TEST_F(EndProcessOperation, MissesAPidThatIsNoNumberOf32BitsOrZero) {
  for (const std::string text : {"",
                                 "0",
                                 "00",
                                 "-0",
                                 "+0",
                                 " ",
                                 "abc",
                                 "12abc",
                                 "4711.0",
                                 "4711 4712",
                                 "4,711",
                                 "1e3",
                                 "0x10",
                                 "- 5",
                                 "--5",
                                 "2147483648",
                                 "-2147483649",
                                 "4294967296",
                                 "4294972007",
                                 "99999999999",
                                 "-99999999999",
                                 "18446744073709551616"}) {
    host.log().clear();
    EXPECT_EQ(end(text, "123456789"), kMissed) << text;
    EXPECT_THAT(loggedLines(host.log()), ElementsAre(incomplete("0", "123456789"))) << text;
  }
}

TEST_F(EndProcessOperation, MissesACreationTimeThatIsNoNumberOf64BitsOrZero) {
  for (const std::string text :
       {"", "0", "00", "-0", " ", "abc", "12abc", "123456789.0", "1 2", "123,456,789", "1e9",
        "0x10", "18446744073709551616", "99999999999999999999999"}) {
    host.log().clear();
    EXPECT_EQ(end("4711", text), kMissed) << text;
    EXPECT_THAT(loggedLines(host.log()), ElementsAre(incomplete("4711", "0"))) << text;
  }
}

TEST_F(EndProcessOperation, LogsWholeNumbersWithASign) {
  EXPECT_EQ(end("-5", "0"), kMissed);
  EXPECT_EQ(end("-2147483648", ""), kMissed);
  EXPECT_EQ(end("2147483647", "x"), kMissed);
  EXPECT_EQ(end("0", "18446744073709551615"), kMissed);
  EXPECT_EQ(end("0", "-1"), kMissed);
  EXPECT_THAT(loggedLines(host.log()),
              ElementsAre(incomplete("-5", "0"), incomplete("-2147483648", "0"),
                          incomplete("2147483647", "0"), incomplete("0", "18446744073709551615"),
                          incomplete("0", "18446744073709551615")));
}

TEST_F(EndProcessOperation, PassesOnAPidOfAnySign) {
  for (const std::string pid : {"-1", "-5", "-2147483648", "2147483647"}) {
    host.log().clear();
    EXPECT_EQ(end(pid, "123456789"), kFailed) << pid;
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Warn ProcessTerminator: GetProcessInfo failed, process: " + pid +
                            " not exist."));
  }
}

TEST_F(EndProcessOperation, SparesAProcessOfAnotherCreationTime) {
  const Process process = host.process("xclock").start();
  tick();
  const std::string pid = std::to_string(process.pid());
  const std::uint64_t createTime = std::stoull(createTimeOf(process.pid()));
  for (const std::string& text : {std::to_string(createTime - 1), std::to_string(createTime + 1),
                                  std::string("1"), std::string("18446744073709551615"),
                                  std::string("-1"), std::to_string(createTime + 4294967296)}) {
    host.log().clear();
    EXPECT_EQ(end(pid, text), kFailed) << text;
    EXPECT_THAT(loggedLines(host.log()),
                ElementsAre("Warn ProcessTerminator: Process not exist, creation time not match, "
                            "pid " +
                            pid + " resued."));
  }
  EXPECT_TRUE(process.isRunning());
  EXPECT_EQ(createTimeOf(process.pid()), std::to_string(createTime));
}

TEST_F(EndProcessOperation, DoesNotTellTheCallerThatTheSignalWasRefused) {
  const Process process = host.process("xclock").start();
  tick();
  rig::failSyscall(SYS_kill, EPERM, {rig::whenArgumentHas(1, 0xffffffff, SIGTERM)});
  EXPECT_EQ(end(std::to_string(process.pid()), createTimeOf(process.pid())), kFailed);
  EXPECT_TRUE(process.isRunning());
  EXPECT_NE(createTimeOf(process.pid()), "");
  EXPECT_THAT(
      loggedLines(host.log()),
      ElementsAre("Error ProcessTerminator: Failed to send TERM signal to process, error is "
                  "Operation not permitted"));
}

TEST_F(EndProcessOperation, ReplacesAnErrorThatStandsInTheAnswer) {
  ptree answer;
  answer.put("ERROR", "old");
  answer.put("last", "x");
  endProcess(ptree(), answer);
  ASSERT_EQ(answer.size(), 2u);
  EXPECT_EQ(answer.front().second.data(), "Miss some parameters");
  ptree request;
  request.put("MendlineOperation.processId", "-5");
  request.put("MendlineOperation.createTime", "1");
  endProcess(request, answer);
  ASSERT_EQ(answer.size(), 2u);
  EXPECT_EQ(answer.front().second.data(), "Failed to terminate process");
}

}  // namespace
}  // namespace mendline
