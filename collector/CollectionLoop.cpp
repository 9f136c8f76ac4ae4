// The body of the collection thread: one tick after another.

#include "collector/PerfCollector.h"
#include "collector/SessionDiscovery.h"
#include "sources/ProcessQuery.h"
#include "sources/ProtocolQuery.h"
#include "sources/SystemQuery.h"

namespace mendline {

void PerfCollector::collectionLoop() {
  if (isStopRequested()) {
    return;
  }
  do {
    collectOnce();
  } while (!isStopRequested());
}

void PerfCollector::collectOnce() {
  PerfSample sample;
  // Required: a host that can't be read is read again at once, without a wait, until it can be or
  // the collector is stopped. Pinned by CollectionLoop.AnUnreadableHostIsReadAgainWithoutAWait.
  if (!ListProcesses(sample.processes) || !getSystemPerfStats(sample.system)) {
    return;
  }
  if (isWorkerKnown(sample.processes)) {
    sample.displayNames = findSessions(sample.processes);
    if (!sample.displayNames.empty()) {
      readProtocolMetrics(sample.displayNames, sample.protocolMetrics);
      sample.hasProtocolData = true;
    }
  }
  for (const std::shared_ptr<MetricGenerator>& generator : generators) {
    generator->generate(sample);
  }
  waitForNextTick();
}

}  // namespace mendline
