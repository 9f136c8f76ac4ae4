// The operations on the processes of the host.
#include "gateway/ProcessOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "PrivateHost.h"
#include "gateway/MendLineOperation.h"
#include "generators/ProcessMetricGenerator.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

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

}  // namespace
}  // namespace mendline
