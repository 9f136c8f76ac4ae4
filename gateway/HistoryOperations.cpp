#include "gateway/HistoryOperations.h"

#include <boost/property_tree/ptree.hpp>
#include <string>
#include <utility>

#include "gateway/MendLineOperation.h"
#include "generators/HistoricalMetricGenerator.h"
#include "generators/NumberConversion.h"
#include "logging/InternalLogger.h"
#include "sources/NvmlWrapper.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("MendLineOperation");

}  // namespace

void historicalMetrics(const ptree& requestTree, ptree& responseTree) {
  const auto userName = requestTree.get<std::string>("MendlineOperation.userName", "");
  if (userName.empty()) {
    LogError(&kTag, "Parameter userName missed");
    putResult(responseTree, "ERROR", "Parameter userName missed");
    return;
  }
  const auto display = requestTree.get<std::string>("MendlineOperation.display", "");
  if (display.empty()) {
    LogError(&kTag, "Parameter display missed");
    putResult(responseTree, "ERROR", "Parameter display missed");
    return;
  }
  if (!HistoricalMetricGenerator::getHistoricalMetrics(userName, display, responseTree)) {
    putResult(responseTree, "ERROR", "Failed to get historical metrics");
  }
}

void lbMetrics(const ptree& /*requestTree*/, ptree& responseTree) {
  const LatestSystemFigures figures = HistoricalMetricGenerator::getLatestSystemFigures();
  ptree answer;
  putResult(answer, "cpuUsage", fixedText(figures.cpuUsage));
  putResult(answer, "memUsage", fixedText(figures.memUsage));
  putResult(answer, "diskRead", fixedText(figures.diskRead));
  putResult(answer, "diskWrite", fixedText(figures.diskWrite));
  putResult(answer, "diskQueue", fixedText(figures.diskQueue));

  double vgpuUsage = 0.0;
  NvmlWrapper& nvml = NvmlWrapper::getInstance();
  if (nvml.isReady() && nvml.maxMemoryUsage(&vgpuUsage) && vgpuUsage > figures.memUsage) {
    LogDebug(&kTag, "Select vGPU memUsage: %.2f, system memUsage: %.2f", vgpuUsage,
             figures.memUsage);
    putResult(answer, "memUsage", fixedText(vgpuUsage));
  }
  responseTree.push_back(std::make_pair("LB", answer));
}

}  // namespace mendline
