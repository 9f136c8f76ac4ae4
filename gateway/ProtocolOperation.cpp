#include "gateway/ProtocolOperation.h"

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "gateway/MendLineOperation.h"
#include "generators/ProtocolMetricGenerator.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("MendLineOperation");

}  // namespace

void protocolInfo(const ptree& requestTree, ptree& responseTree) {
  const auto display = requestTree.get<std::string>("MendlineOperation.display", "");
  if (display.empty()) {
    LogError(&kTag, "Display parameter missed");
    putResult(responseTree, "ERROR", "Display parameter missed");
    return;
  }
  if (!protocolInfoReport(display, responseTree)) {
    // A safeguard: the report has no failure today.
    putResult(responseTree, "ERROR", "Failed to get protocol metrics");
  }
}

}  // namespace mendline
