#include "gateway/MendLineOperation.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <optional>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>

#include "collector/CollectorControl.h"
#include "gateway/HistoryOperations.h"
#include "gateway/LogLevelOperations.h"
#include "gateway/ProcessOperations.h"
#include "gateway/ProtocolOperation.h"
#include "gateway/RequestNesting.h"
#include "generators/NumberConversion.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("MendLineOperation");

constexpr char kFallbackAnswer[] = "<ERROR>Failed to do mendline operation</ERROR>";

// The operations of the collector know nothing of answers; these give theirs.

void startCollector(const ptree& /*requestTree*/, ptree& responseTree) {
  if (StartCollector()) {
    putResult(responseTree, "INFO", "Succeed to start collector");
  } else {
    putResult(responseTree, "ERROR", "Failed to start collector");
  }
}

void stopCollector(const ptree& /*requestTree*/, ptree& responseTree) {
  StopCollector();
  putResult(responseTree, "INFO", "Finish to stop collector");
}

void startvGPUMemoryCollector(const ptree& /*requestTree*/, ptree& responseTree) {
  if (StartvGPUMemoryCollector()) {
    putResult(responseTree, "INFO", "Finish to start vGPU memory collector");
  } else {
    putResult(responseTree, "ERROR", "Failed to start vGPU memory collector");
  }
}

// Required: a request that wiped nothing gets the same answer. Pinned by
// DispatchOperation.*ClearShm*.
void clearShm(const ptree& requestTree, ptree& responseTree) {
  ClearShm(requestTree);
  putResult(responseTree, "INFO", "Finish to clear shared memory");
}

// What is written through it is behind `text` at once. A string stream would hold the whole answer
// a second time when it hands it over.
class AppendingBuffer : public std::streambuf {
 public:
  explicit AppendingBuffer(std::string& text) : text_(text) {}

 protected:
  std::streamsize xsputn(const char* characters, std::streamsize count) override {
    text_.append(characters, static_cast<std::size_t>(count));
    return count;
  }
  int_type overflow(int_type character) override {
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
      text_ += traits_type::to_char_type(character);
    }
    return traits_type::not_eof(character);
  }

 private:
  std::string& text_;
};

struct Operation {
  const char* opcode;
  void (*run)(const ptree& requestTree, ptree& responseTree);
};

constexpr Operation kOperations[] = {
    {"StartCollector", startCollector},
    {"StopCollector", stopCollector},
    {"StartvGPUMemoryCollector", startvGPUMemoryCollector},
    {"ClearShm", clearShm},
    {"ProcessMetrics", processMetrics},
    {"HistoricalMetrics", historicalMetrics},
    {"ProtocolInfo", protocolInfo},
    {"EndProcess", endProcess},
    {"LbMetrics", lbMetrics},
    {"GetLogLevel", getLogLevel},
    {"SetLogLevel", setLogLevel},
};

}  // namespace

void putResult(ptree& tree, const char* path, const std::string& text) {
  tree.put(path, text);
}

void dispatchOperation(const ptree& requestTree, ptree& responseTree) {
  const auto opcode = requestTree.get<std::string>("MendlineOperation.opcode", "");
  for (const Operation& operation : kOperations) {
    if (opcode == operation.opcode) {
      operation.run(requestTree, responseTree);
      return;
    }
  }
  putResult(responseTree, "ERROR", "Invalid mendline opcode");
}

void handleRequest(const std::string& request, std::string& response) {
  ptree requestTree;
  ptree responseTree;
  std::istringstream requestStream(request);
  LogDebug(&kTag, "Receive mendline request %s", request.c_str());
  try {
    if (const std::optional<long> line = lineNestedTooDeeply(request)) {
      throw boost::property_tree::xml_parser_error(
          "elements nested deeper than " + decimalText(kDeepestNesting), "",
          static_cast<unsigned long>(*line));
    }
    boost::property_tree::read_xml(requestStream, requestTree, 0);
    dispatchOperation(requestTree, responseTree);
    std::string answer;
    AppendingBuffer answerBuffer(answer);
    std::ostream responseStream(&answerBuffer);
    boost::property_tree::write_xml(
        responseStream, responseTree,
        boost::property_tree::xml_writer_make_settings<std::string>(' ', 0, "utf-8"));
    response = std::move(answer);
  } catch (const boost::property_tree::xml_parser_error& error) {
    LogError(&kTag, "Failed to parse xml, error is %s", error.what());
    response = kFallbackAnswer;
  }
  LogDebug(&kTag, "Send mendline response %s", response.c_str());
}

}  // namespace mendline
