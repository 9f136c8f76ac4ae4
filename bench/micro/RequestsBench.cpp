// The reports, and whole requests from text to text.
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstddef>
#include <sstream>
#include <string>
#include <utility>

#include "bench/micro/Population.h"
#include "collector/CollectorControl.h"
#include "collector/PerfCollector.h"
#include "gateway/MendLineOperation.h"
#include "generators/HistoricalMetricGenerator.h"
#include "generators/ProcessMetricGenerator.h"
#include "generators/ProtocolMetricGenerator.h"

using namespace mendline;
using namespace mendline::bench;

namespace {

using boost::property_tree::ptree;

constexpr char kUser[] = "bench07";
constexpr char kDisplay[] = "103";

// Fills the table of processes and all 30 records of the history.
void fillTables(std::int64_t processes) {
  static std::int64_t filled = -1;
  if (processes == filled) {
    return;
  }
  const Samples& host = samplesOf(processes);
  ProcessMetricGenerator::getInstance()->generate(host.first);
  ProcessMetricGenerator::getInstance()->generate(host.second);
  HistoricalMetricGenerator& history = *HistoricalMetricGenerator::getInstance();
  // As many users and displays as any sample has, and figures that only grow.
  PerfSample sample = host.first;
  for (std::size_t record = 0; record < HistoricalMetricGenerator::kMaxRecords; ++record) {
    sample.system.uptime += 30;
    sample.system.cpuUser += 1'000 + 10 * record;
    sample.system.cpuIdle += 5'000;
    sample.system.diskReads += 300;
    sample.system.diskReadMs += 450;
    history.generate(sample);
  }
  filled = processes;
}

void fillProcessMetrics(benchmark::State& state) {
  fillTables(state.range(0));
  for (auto _ : state) {
    ptree tree;
    ProcessMetricGenerator::getInstance()->fillProcessMetrics(tree);
    if (tree.size() <= static_cast<std::size_t>(state.range(0))) {
      fail(state, "the table is too short");
      break;
    }
  }
  reportPerProcess(state);
}

void getHistoricalMetrics(benchmark::State& state) {
  fillTables(state.range(0));
  for (auto _ : state) {
    ptree tree;
    if (!HistoricalMetricGenerator::getHistoricalMetrics(kUser, kDisplay, tree) || tree.empty() ||
        tree.front().second.size() != HistoricalMetricGenerator::kMaxRecords) {
      fail(state, "the history is not full");
      break;
    }
  }
}

void getLatestSystemFigures(benchmark::State& state) {
  fillTables(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(HistoricalMetricGenerator::getLatestSystemFigures());
  }
}

// Its own thread would put the host's real figures into the tables, hence it ends at once; the
// segment stays attached.
bool attachSegment() {
  static const bool attached = StartCollector();
  PerfCollector::getInstance()->stop();
  return attached;
}

void protocolReport(benchmark::State& state) {
  if (!attachSegment()) {
    fail(state, "the collector can't be started");
  }
  for (auto _ : state) {
    ptree tree;
    protocolInfoReport(kDisplay, tree);
    if (tree.empty() || tree.front().second.empty()) {
      fail(state, "the report is empty");
      break;
    }
  }
}

std::string requestText(const std::string& opcode, const std::string& parameters = "") {
  return "<MendlineOperation><opcode>" + opcode + "</opcode>" + parameters + "</MendlineOperation>";
}

// An answer of any other end would be the quick one of a failure.
void request(benchmark::State& state, const std::string& text, const std::string& expectedEnd) {
  std::size_t length = 0;
  for (auto _ : state) {
    std::string answer;
    handleRequest(text, answer);
    if (!answer.ends_with(expectedEnd)) {
      fail(state, "unexpected answer: " + answer.substr(0, 200));
      break;
    }
    length = answer.size();
  }
  state.counters["answer_bytes"] = static_cast<double>(length);
}
// What no request is spared: the streams, the parser, the path of the opcode, a tree and the
// writer, as plainly as a program would use them.
void parserTreeAndWriter(benchmark::State& state) {
  const std::string text = requestText("GetLogLevel");
  for (auto _ : state) {
    ptree request;
    ptree response;
    std::istringstream input(text);
    boost::property_tree::read_xml(input, request, 0);
    benchmark::DoNotOptimize(request.get<std::string>("MendlineOperation.opcode", ""));
    response.put("LOGLEVEL", "INFO");
    std::ostringstream output;
    boost::property_tree::write_xml(
        output, response,
        boost::property_tree::xml_writer_make_settings<std::string>(' ', 0, "utf-8"));
    benchmark::DoNotOptimize(std::move(output).str());
  }
}

void registerRequest(const std::string& name, const std::string& text, const std::string& end) {
  benchmark::RegisterBenchmark(name.c_str(), [text, end](benchmark::State& state) {
    fillTables(state.range(0));
    request(state, text, end);
  })->Arg(kPopulations[0]);
}

}  // namespace

int main(int argc, char** argv) {
  // First, since the start adds a tick of its own to the tables.
  benchmark::RegisterBenchmark("protocolInfoReport", protocolReport);
  benchmark::RegisterBenchmark("request ProtocolInfo", [](benchmark::State& state) {
    if (!attachSegment()) {
      fail(state, "the collector can't be started");
    }
    request(state, requestText("ProtocolInfo", "<display>103</display>"), "</flare></protocol>");
  });

  benchmark::RegisterBenchmark("getHistoricalMetrics", getHistoricalMetrics)
      ->Arg(kPopulations[0])
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("getLatestSystemFigures", getLatestSystemFigures)
      ->Arg(kPopulations[0]);
  registerRequest(
      "request HistoricalMetrics",
      requestText("HistoricalMetrics", "<userName>bench07</userName><display>103</display>"),
      "</metric></historicalMetrics>");
  registerRequest("request LbMetrics", requestText("LbMetrics"), "</LB>");
  registerRequest("request GetLogLevel", requestText("GetLogLevel"), "</LOGLEVEL>");
  benchmark::RegisterBenchmark("parser, tree and writer alone", parserTreeAndWriter);
  registerRequest("request of an unknown opcode", requestText("Nonsense"),
                  "<ERROR>Invalid mendline opcode</ERROR>");
  registerRequest("request that does not parse", "<MendlineOperation><opcode>GetLogLevel</opcode>",
                  "<ERROR>Failed to do mendline operation</ERROR>");

  registerForEachPopulation([](std::int64_t processes) {
    benchmark::RegisterBenchmark("fillProcessMetrics", fillProcessMetrics)
        ->Arg(processes)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("request ProcessMetrics",
                                 [](benchmark::State& state) {
                                   fillTables(state.range(0));
                                   request(state, requestText("ProcessMetrics"),
                                           "</process></processMetrics>");
                                   reportPerProcess(state);
                                 })
        ->Arg(processes)
        ->Unit(benchmark::kMicrosecond);
  });
  const int status = runRegistered(argc, argv);
  StopCollector();
  return status;
}
