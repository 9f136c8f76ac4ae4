// The shipped library in a real JVM: every answer byte for byte, with each JDK of this host.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/shm.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "CommaLocale.h"
#include "Inventory.h"
#include "Jdks.h"
#include "PrivateHost.h"

namespace mendline {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string kDeclaration = R"(<?xml version="1.0" encoding="utf-8"?>\n)";
const std::string kFallback = "<ERROR>Failed to do mendline operation</ERROR>";
const std::string kInvalidOpcode = kDeclaration + "<ERROR>Invalid mendline opcode</ERROR>";
const std::string kStarted = kDeclaration + "<INFO>Succeed to start collector</INFO>";
const std::string kStopped = kDeclaration + "<INFO>Finish to stop collector</INFO>";

std::string operation(const std::string& opcode, const std::string& parameters = "") {
  return "<MendlineOperation><opcode>" + opcode + "</opcode>" + parameters + "</MendlineOperation>";
}

struct Jvm {
  std::string java;
  bool checksJni;
};

void PrintTo(const Jvm& jvm, std::ostream* out) {
  *out << jvm.java;
}

std::string nameOf(const testing::TestParamInfo<Jvm>& info) {
  std::string name = fs::path(info.param.java).parent_path().parent_path().filename().string();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  if (name == "usr") {
    name = "default_jdk";  // found as /usr/bin/java
  }
  return name + (info.param.checksJni ? "_CheckingJni" : "_Plain");
}

std::vector<Jvm> jvms() {
  std::vector<Jvm> result;
  for (const std::string& java : javas()) {
    result.push_back({java, false});
    result.push_back({java, true});
  }
  return result;
}

class RealJvm : public testing::TestWithParam<Jvm> {
 protected:
  // Whatever the locale of whoever runs the tests: a JVM would take its decimals.
  void SetUp() override { ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0); }

  rig::Program driver(const std::vector<std::string>& lines) const {
    std::vector<std::string> command = {GetParam().java, "-Xmx256m", "-XX:ErrorFile=/dev/null",
                                        "-XX:-CreateCoredumpOnCrash",
                                        // One file in /tmp per process id, and every private host
                                        // counts its own.
                                        "-XX:-UsePerfData"};
    if (GetParam().checksJni) {
      command.push_back("-Xcheck:jni");
    }
    if (takesNativeAccess()) {
      command.push_back("--enable-native-access=ALL-UNNAMED");
    }
    for (const char* word : {"-cp", MENDLINE_DRIVER_CLASS_PATH, "JvmDriver", MENDLINE_LIBRARY}) {
      command.emplace_back(word);
    }
    std::string input;
    for (const std::string& line : lines) {
      input += line + "\n";
    }
    return host.program(command).withInput(input);
  }

  // Every line, one answer each; the JVM ends well and has nothing to complain about.
  std::vector<std::string> answers(const std::vector<std::string>& lines) const {
    const rig::Run run = driver(lines).run();
    EXPECT_EQ(run.exitStatus, 0) << run.errors;
    EXPECT_THAT(run.errors, IsEmpty());
    for (const char* word : {"WARNING", "FATAL", "Check failed"}) {
      EXPECT_THAT(run.output, Not(HasSubstr(word)));
    }
    return run.outputLines();
  }

  rig::PrivateHost host;

 private:
  // JDK 17 knows the option too, but warns about it; from 22 on its lack is warned about.
  bool takesNativeAccess() const {
    const rig::Run run =
        host.program({GetParam().java, "-XshowSettings:properties", "-version"}).run();
    const std::string key = "java.specification.version = ";
    const std::size_t at = run.errors.find(key);
    return at != std::string::npos && std::stoi(run.errors.substr(at + key.size())) >= 22;
  }
};

INSTANTIATE_TEST_SUITE_P(EveryJdk, RealJvm, testing::ValuesIn(jvms()), nameOf);

TEST_P(RealJvm, AnswersEveryFormOfTheEnvelopeByteForByte) {
  EXPECT_THAT(answers({
                  "",
                  "  \\n\\n ",
                  "hello",
                  "<MendlineOperation>",
                  "<MendlineOperation><opcode>GetLogLevel</opcode>",
                  "<MendlineOperation/>",
                  "<MendlineOperation opcode=\"GetLogLevel\"/>",
                  "<opcode>GetLogLevel</opcode>",
                  operation(" GetLogLevel "),
                  operation("getloglevel"),
                  operation("Get<!-- x -->LogLevel"),
                  operation("<![CDATA[GetLogLevel]]>"),
                  operation("Get&#76;ogLevel"),
                  "<?xml version=\"1.0\"?>" + operation("GetLogLevel"),
              }),
              ElementsAre(kInvalidOpcode, kInvalidOpcode, kFallback, kFallback, kFallback,
                          kInvalidOpcode, kInvalidOpcode, kInvalidOpcode, kInvalidOpcode,
                          kInvalidOpcode, kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>",
                          kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>",
                          kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>",
                          kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>"));
}

TEST_P(RealJvm, AnswersEveryOperationOfTheDispatcherByteForByte) {
  EXPECT_THAT(
      answers({
          operation("StopCollector"),
          operation("ClearShm"),
          operation("ClearShm", "<display>abc</display>"),
          operation("ProcessMetrics"),
          operation("StartvGPUMemoryCollector"),
          operation("HistoricalMetrics", "<userName>alice</userName><display>101</display>"),
          operation("HistoricalMetrics", "<display>101</display>"),
          operation("HistoricalMetrics", "<userName>alice</userName>"),
          operation("HistoricalMetrics", "<userName>nobody2</userName><display>1</display>"),
          operation("LbMetrics"),
          operation("GetLogLevel"),
          "<?xml version=\"1.0\"?>" + operation("SetLogLevel", "<loglevel>DEBUG</loglevel>"),
          operation("GetLogLevel"),
          operation("SetLogLevel", "<loglevel>TRACE</loglevel>"),
          operation("GetLogLevel"),
          operation("SetLogLevel", "<loglevel>VERBOSE</loglevel>"),
          operation("GetLogLevel"),
          operation("SetLogLevel", "<loglevel>INFO</loglevel>"),
          operation("GetLogLevel"),
          operation("SetLogLevel", "<loglevel>Debug</loglevel>"),
          operation("SetLogLevel", "<loglevel>WARN</loglevel>"),
          operation("SetLogLevel"),
          operation("SetLogLevel", "<loglevel>&lt;a&amp;b&gt;</loglevel>"),
          operation("SetLogLevel", "<loglevel>XYZ</loglevel>"),
          operation(""),
      }),
      ElementsAre(
          kStopped, kDeclaration + "<INFO>Finish to clear shared memory</INFO>",
          kDeclaration + "<INFO>Finish to clear shared memory</INFO>",
          kDeclaration + "<processMetrics><timestamp>0</timestamp></processMetrics>",
          kDeclaration + "<ERROR>Failed to start vGPU memory collector</ERROR>", kDeclaration,
          kDeclaration + "<ERROR>Parameter userName missed</ERROR>",
          kDeclaration + "<ERROR>Parameter display missed</ERROR>",
          kDeclaration + "<ERROR>Failed to get historical metrics</ERROR>",
          kDeclaration +
              "<LB><cpuUsage>0.000000</cpuUsage><memUsage>0.000000</memUsage><diskRead>0.000000"
              "</diskRead><diskWrite>0.000000</diskWrite><diskQueue>0.000000</diskQueue></LB>",

          kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>",
          kDeclaration + "<INFO>Succeed to set loglevel</INFO>",
          kDeclaration + "<LOGLEVEL>DEBUG</LOGLEVEL>",
          kDeclaration + "<INFO>Succeed to set loglevel</INFO>",
          kDeclaration + "<LOGLEVEL>TRACE</LOGLEVEL>",
          kDeclaration + "<INFO>Succeed to set loglevel</INFO>",
          kDeclaration + "<LOGLEVEL>VERBOSE</LOGLEVEL>",
          kDeclaration + "<INFO>Succeed to set loglevel</INFO>",
          kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>",
          kDeclaration + "<ERROR>Invalid loglevel Debug</ERROR>",
          kDeclaration + "<ERROR>Invalid loglevel WARN</ERROR>",
          kDeclaration + "<ERROR>Invalid loglevel </ERROR>",
          kDeclaration + "<ERROR>Invalid loglevel &lt;a&amp;b&gt;</ERROR>",
          kDeclaration + "<ERROR>Invalid loglevel XYZ</ERROR>", kInvalidOpcode));
}

// A JVM takes the locale of its environment, decimals included.
TEST_P(RealJvm, AnswersTheLoadUnderACommaLocaleWithCommas) {
  const rig::CommaLocale locale;
  EXPECT_THAT(
      answers({operation("LbMetrics")}),
      ElementsAre(
          kDeclaration +
          "<LB><cpuUsage>0,000000</cpuUsage><memUsage>0,000000</memUsage><diskRead>0,000000"
          "</diskRead><diskWrite>0,000000</diskWrite><diskQueue>0,000000</diskQueue></LB>"));
}

TEST_P(RealJvm, StartsAndStopsTheCollectorAndLeavesNothingBehind) {
  EXPECT_THAT(answers({operation("StartCollector"), operation("ClearShm", "<display>105</display>"),
                       operation("StopCollector"), operation("StartCollector"),
                       operation("StopCollector")}),
              ElementsAre(kStarted, kDeclaration + "<INFO>Finish to clear shared memory</INFO>",
                          kStopped, kStarted, kStopped));
  EXPECT_THAT(rig::segments(), IsEmpty());
  EXPECT_FALSE(fs::exists("/usr/lib/norvane/tarnhost/mendline/mendLineShm"));
  EXPECT_TRUE(host.log().has("Info", "PerfCollector", "Created collection thread"));
  EXPECT_TRUE(host.log().hasNot("Error", ""));
}

TEST_P(RealJvm, FailsToStartWithoutTheWorkersAccount) {
  host.withoutWorkerAccount();
  EXPECT_THAT(answers({operation("StartCollector")}),
              ElementsAre(kDeclaration + "<ERROR>Failed to start collector</ERROR>"));
}

// Text of every element of that name inside `xml`, in order.
std::vector<std::string> texts(const std::string& xml, const std::string& name) {
  std::vector<std::string> found;
  const std::string open = "<" + name + ">";
  for (std::size_t at = 0; (at = xml.find(open, at)) != std::string::npos;) {
    at += open.size();
    found.push_back(xml.substr(at, xml.find('<', at) - at));
  }
  return found;
}

TEST_P(RealJvm, ReportsEveryProcessOfTheHostOnce) {
  const rig::Process crowd = host.idleProcesses(300);
  const rig::Process editor = host.process("xedit & <co>").ownedBy("alice").start();
  const rig::Run run = driver({operation("StartCollector"), "!sleep 1500",
                               operation("ProcessMetrics"), operation("StopCollector")})
                           .withClockSpeed(600)
                           .run();
  ASSERT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_THAT(run.outputLines(), SizeIs(testing::Ge(3U)));
  std::string report;
  for (const std::string& line : run.outputLines()) {
    if (line.find("<processMetrics>") != std::string::npos) {
      report = line;
    }
  }
  std::multiset<std::string> pids;
  for (const std::string& pid : texts(report, "id")) {
    pids.insert(pid);
  }
  EXPECT_EQ(pids.count(std::to_string(editor.pid())), 1U);
  EXPECT_EQ(pids.count(std::to_string(crowd.pid())), 1U);
  for (const pid_t child : crowd.children()) {
    EXPECT_EQ(pids.count(std::to_string(child)), 1U) << child;
  }
  EXPECT_EQ(std::set<std::string>(pids.begin(), pids.end()).size(), pids.size());
  EXPECT_THAT(report, HasSubstr("<id>" + std::to_string(editor.pid()) + "</id>"));
  EXPECT_THAT(report, HasSubstr("<name>xedit &amp; &lt;co&gt;</name>"));
  EXPECT_THAT(report, HasSubstr("<user_name>alice</user_name>"));
}

TEST_P(RealJvm, AnswersManyThreadsAtOnce) {
  EXPECT_THAT(answers({"!together 16 " + operation("GetLogLevel"),
                       "!together 16 " + operation("ProcessMetrics")}),
              ElementsAre("1 " + kDeclaration + "<LOGLEVEL>INFO</LOGLEVEL>",
                          "1 " + kDeclaration +
                              "<processMetrics><timestamp>0</timestamp></processMetrics>"));
}

TEST_P(RealJvm, ExitsCleanlyWhileTheCollectorRuns) {
  for (int i = 0; i < 3; ++i) {
    const rig::Run run = driver({operation("StartCollector")}).run();
    EXPECT_EQ(run.exitStatus, 0) << run.errors;
    EXPECT_THAT(run.output, HasSubstr("Succeed to start collector"));
  }
  // Nobody stopped the collector, so its segment waits for the next process.
  EXPECT_THAT(rig::segments(), SizeIs(1));
}

TEST_P(RealJvm, EndsOnARequestForTheSessionTableWithNoneAttached) {
  const rig::Run run =
      driver({operation("ClearShm", "<display>105</display>"), operation("GetLogLevel")}).run();
  EXPECT_NE(run.exitStatus, 0);
  EXPECT_THAT(run.output, Not(HasSubstr("LOGLEVEL")));
  EXPECT_THAT(run.output, HasSubstr("SIGSEGV"));
}

TEST_P(RealJvm, EndsOnANullRequest) {
  const rig::Run run = driver({"!null", operation("GetLogLevel")}).run();
  EXPECT_NE(run.exitStatus, 0);
  EXPECT_THAT(run.output, Not(HasSubstr("LOGLEVEL")));
}

}  // namespace
}  // namespace mendline
