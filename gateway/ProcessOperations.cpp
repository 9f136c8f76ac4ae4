#include "gateway/ProcessOperations.h"

#include <boost/property_tree/ptree.hpp>

#include "gateway/MendLineOperation.h"
#include "generators/ProcessMetricGenerator.h"

namespace mendline {

using boost::property_tree::ptree;

void processMetrics(const ptree& /*requestTree*/, ptree& responseTree) {
  if (!reportProcessMetrics(responseTree)) {
    // A safeguard: the report has no failure today.
    putResult(responseTree, "ERROR", "Failed to get process metrics");
  }
}

}  // namespace mendline
