// The contract with the remote display worker: a System V segment of one 80-byte record per X
// display of the configured range, and the process-wide values that describe it.
//
// The library creates, zeroes and reads the segment; the worker fills it, without any lock or
// protocol between them. StartCollector and StopCollector write the values; the collection thread
// and request threads read them. Everything here stays a plain field and is accessed through
// loadShared and storeShared alone, one relaxed atomic access each: a reader gets a whole word,
// and nothing about its neighbours.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

namespace mendline {

// One session's counters, in host byte order. All zero: the session has reported nothing. The units
// of the doubles are the worker's.
struct SessionCounters {
  double frameRate;                  // frames per second of the image channel
  double rtt;                        // round trip time
  double pkLoss;                     // uplink packet loss; above -2.0 up to -1.0: no figure
  double bw;                         // uplink bandwidth
  std::uint64_t imagingReceived;     // bytes
  std::uint64_t imagingTransmitted;  // bytes
  std::uint64_t audioReceived;       // bytes
  std::uint64_t audioTransmitted;    // bytes
  std::uint64_t cdrReceived;         // bytes
  std::uint64_t cdrTransmitted;      // bytes
};
static_assert(sizeof(SessionCounters) == 80 && std::is_trivially_copyable_v<SessionCounters>);
static_assert(offsetof(SessionCounters, rtt) == 8 && offsetof(SessionCounters, pkLoss) == 16 &&
              offsetof(SessionCounters, bw) == 24 &&
              offsetof(SessionCounters, imagingReceived) == 32 &&
              offsetof(SessionCounters, imagingTransmitted) == 40 &&
              offsetof(SessionCounters, audioReceived) == 48 &&
              offsetof(SessionCounters, audioTransmitted) == 56 &&
              offsetof(SessionCounters, cdrReceived) == 64 &&
              offsetof(SessionCounters, cdrTransmitted) == 72);

// What the segment's key is derived from, by ftok. The worker derives it afresh for each life of
// the segment, since removing and creating the file gives a new key.
inline constexpr char kSessionShmKeyFile[] = "/usr/lib/norvane/tarnhost/mendline/mendLineShm";
inline constexpr int kSessionShmProjectId = 104;

// "No segment": all bits set, as shmat gives it for a failure.
inline void* const kNoSegment = reinterpret_cast<void*>(-1);

// They survive StopCollector, which sets only the last two back.
extern std::int32_t displayNumberMin;  // lowest X display number of a session
extern std::int32_t displayNumberMax;  // highest X display number of a session
extern std::int32_t maxSessionNumber;  // records in the segment
extern std::int32_t sessionShmId;      // identifier of the segment, -1: none
extern void* sessionShmBase;           // address of the attached segment, kNoSegment: none

// The compiler's own operations and not std::atomic_ref, whose assertion on alignment would turn
// the fault of an access with no segment attached into an abort.
template <typename Value>
Value loadShared(const Value& field) {
  Value value;
  __atomic_load(&field, &value, __ATOMIC_RELAXED);
  return value;
}

template <typename Value>
void storeShared(Value& field, std::type_identity_t<Value> value) {
  __atomic_store(&field, &value, __ATOMIC_RELAXED);
}

// The index of a display's record: the number at the start of `text`, as std::stoi reads it, minus
// displayNumberMin; -1 when no number of 32 bits can be read. Trailing characters are ignored.
std::int32_t displayIndex(const std::string& text);

// The one test that all readers of a record make.
// Required: an index equal to maxSessionNumber passes, one record beyond the segment. Pinned by
// SessionCounters.AdmitsOneRecordBeyondTheSegment.
bool isAdmittedIndex(std::int32_t index);

// The record at `base` + index * 80. Nothing tests that a segment is attached.
SessionCounters* sessionRecord(void* base, std::int32_t index);

// Writes zeros over one record, word by word, while its worker may be writing too.
void clearSessionRecord(SessionCounters& record);

}  // namespace mendline
