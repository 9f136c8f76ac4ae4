#include "collector/SessionCounters.h"

#include <stdexcept>

namespace mendline {

std::int32_t displayNumberMin = 100;
std::int32_t displayNumberMax = 159;
std::int32_t maxSessionNumber = displayNumberMax + 1 - displayNumberMin;
std::int32_t sessionShmId = -1;
void* sessionShmBase = kNoSegment;

std::int32_t displayIndex(const std::string& text) {
  std::int32_t number = 0;
  try {
    number = std::stoi(text);
  } catch (const std::logic_error&) {
    // std::invalid_argument or std::out_of_range: not a display number.
    return -1;
  }
  // In unsigned arithmetic, since a hostile text may hold a number near the lower limit.
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(number) -
                                   static_cast<std::uint32_t>(loadShared(displayNumberMin)));
}

bool isAdmittedIndex(std::int32_t index) {
  return index >= 0 && index <= loadShared(maxSessionNumber);
}

SessionCounters* sessionRecord(void* base, std::int32_t index) {
  // Through an integer: with no segment attached this is no address inside any object.
  const auto address = reinterpret_cast<std::uintptr_t>(base) +
                       static_cast<std::uintptr_t>(index) * sizeof(SessionCounters);
  return reinterpret_cast<SessionCounters*>(address);
}

void clearSessionRecord(SessionCounters& record) {
  storeShared(record.frameRate, 0.0);
  storeShared(record.rtt, 0.0);
  storeShared(record.pkLoss, 0.0);
  storeShared(record.bw, 0.0);
  storeShared(record.imagingReceived, 0);
  storeShared(record.imagingTransmitted, 0);
  storeShared(record.audioReceived, 0);
  storeShared(record.audioTransmitted, 0);
  storeShared(record.cdrReceived, 0);
  storeShared(record.cdrTransmitted, 0);
}

}  // namespace mendline
