#include "generators/ProtocolMetricGenerator.h"

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <mutex>
#include <utility>

#include "collector/SessionCounters.h"
#include "generators/NumberConversion.h"
#include "logging/InternalLogger.h"

namespace mendline {
namespace {

using boost::property_tree::ptree;

constinit const LogTag kTag("ProtocolInfo");

// Guards no data: it makes reports take turns. The worker that fills the records knows no lock.
std::mutex reportMutex;

// The record changes while it is read; what follows uses one reading.
SessionCounters readRecord(const SessionCounters& record) {
  SessionCounters counters = {};
  counters.frameRate = loadShared(record.frameRate);
  counters.rtt = loadShared(record.rtt);
  counters.pkLoss = loadShared(record.pkLoss);
  counters.bw = loadShared(record.bw);
  counters.imagingReceived = loadShared(record.imagingReceived);
  counters.imagingTransmitted = loadShared(record.imagingTransmitted);
  counters.audioReceived = loadShared(record.audioReceived);
  counters.audioTransmitted = loadShared(record.audioTransmitted);
  counters.cdrReceived = loadShared(record.cdrReceived);
  counters.cdrTransmitted = loadShared(record.cdrTransmitted);
  return counters;
}

// The line holds the low 32 bits of a byte counter; the report has it whole.
int low32(std::uint64_t counter) {
  return static_cast<int>(static_cast<std::uint32_t>(counter));
}

ptree flareElement(const SessionCounters& counters) {
  ptree element;
  element.put("audio_recv_bytes", decimalText(counters.audioReceived));
  element.put("audio_transmit_bytes", decimalText(counters.audioTransmitted));
  element.put("cdr_recv_bytes", decimalText(counters.cdrReceived));
  element.put("cdr_transmit_bytes", decimalText(counters.cdrTransmitted));
  element.put("image_frames_per_second", decimalText(truncateToUnsigned(counters.frameRate)));
  element.put("image_recv_bytes", decimalText(counters.imagingReceived));
  element.put("image_transmit_bytes", decimalText(counters.imagingTransmitted));
  element.put("session_rtt", decimalText(truncateToUnsigned(counters.rtt)));
  element.put("session_bandwidth_uplink", decimalText(truncateToUnsigned(counters.bw)));
  // The worker's mark for no figure.
  constexpr std::int64_t kNoFigure = -1;
  if (truncateToSigned(counters.pkLoss) != kNoFigure) {
    element.put("session_packet_loss_uplink", decimalText(truncateToUnsigned(counters.pkLoss)));
  }
  return element;
}

}  // namespace

std::shared_ptr<ProtocolMetricGenerator> ProtocolMetricGenerator::getInstance() {
  // This owner is never destroyed: a request may still be in here when the process exits.
  static const auto& owner =
      *new std::shared_ptr<ProtocolMetricGenerator>(std::make_shared<ProtocolMetricGenerator>());
  return owner;
}

// Asked through the instance, as every generator is.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
void ProtocolMetricGenerator::report(const std::string& display, ptree& tree) {
  const std::lock_guard lock(reportMutex);
  const std::int32_t index = displayIndex(display);
  if (!isAdmittedIndex(index)) {
    LogWarn(&kTag, "Invalid display number %s", display.c_str());
    return;
  }
  const SessionCounters counters = readRecord(*sessionRecord(loadShared(sessionShmBase), index));
  LogTrace(&kTag,
           "Counters: frameRate = %.2f, rtt = %.2f, pkLoss = %.2f, bw = %.2f, "
           "imagingReceived = %d, imagingTransmitted = %d, audioReceived = %d, "
           "audioTransmitted = %d, cdrReceived = %d, cdrTransmitted = %d\n",
           counters.frameRate, counters.rtt, counters.pkLoss, counters.bw,
           low32(counters.imagingReceived), low32(counters.imagingTransmitted),
           low32(counters.audioReceived), low32(counters.audioTransmitted),
           low32(counters.cdrReceived), low32(counters.cdrTransmitted));
  tree.push_back(std::make_pair("flare", flareElement(counters)));
}

bool protocolInfoReport(const std::string& display, ptree& responseTree) {
  ptree report;
  ProtocolMetricGenerator::getInstance()->report(display, report);
  responseTree.push_back(std::make_pair("protocol", report));
  return true;
}

}  // namespace mendline
