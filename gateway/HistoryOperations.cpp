#include "gateway/HistoryOperations.h"

#include <boost/property_tree/ptree.hpp>
#include <string>
#include <utility>

#include "gateway/MendLineOperation.h"
#include "generators/HistoricalMetricGenerator.h"
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
  // Required: std::to_string, which follows the process's locale. A JVM takes its own from the
  // environment, so under a comma locale the figures have commas. Pinned by
  // HistoryOperations.LoadHasTheDecimalCommaOfTheProcesssLocale.
  putResult(answer, "cpuUsage", std::to_string(figures.cpuUsage));
  putResult(answer, "memUsage", std::to_string(figures.memUsage));
  putResult(answer, "diskRead", std::to_string(figures.diskRead));
  putResult(answer, "diskWrite", std::to_string(figures.diskWrite));
  putResult(answer, "diskQueue", std::to_string(figures.diskQueue));

  double vgpuUsage = 0.0;
  NvmlWrapper& nvml = NvmlWrapper::getInstance();
  if (nvml.isReady() && nvml.maxMemoryUsage(&vgpuUsage) && vgpuUsage > figures.memUsage) {
    LogDebug(&kTag, "Select vGPU memUsage: %.2f, system memUsage: %.2f", vgpuUsage,
             figures.memUsage);
    putResult(answer, "memUsage", std::to_string(vgpuUsage));
  }
  responseTree.push_back(std::make_pair("LB", answer));
}

}  // namespace mendline
