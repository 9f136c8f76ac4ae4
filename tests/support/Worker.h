// A stand-in for the program that measures sessions: a process FlareWorker of the worker's account
// that writes session records into shared memory.
//
// It knows the record layout and the key by itself, from the outside contract, so that a mistake in
// the product cannot hide in both. Every order is synchronous and throws Error when the operating
// system refuses it, for instance while there is no segment or the account may not attach it.
#pragma once

#include <cstdint>

#include "Process.h"

namespace mendline::rig {

struct SessionRecord {
  double frameRate = 0;
  double rtt = 0;
  double pkLoss = 0;
  double bw = 0;
  std::uint64_t imagingReceived = 0;
  std::uint64_t imagingTransmitted = 0;
  std::uint64_t audioReceived = 0;
  std::uint64_t audioTransmitted = 0;
  std::uint64_t cdrReceived = 0;
  std::uint64_t cdrTransmitted = 0;

  bool operator==(const SessionRecord&) const = default;
};
static_assert(sizeof(SessionRecord) == 80, "the record is 80 bytes in shared memory");

class Worker {
 public:
  explicit Worker(Process process, int lowestDisplay = 100);

  Process& process() { return process_; }
  pid_t pid() const { return process_.pid(); }

  // The first of these attaches the segment; it stays attached until detach or stop.
  void attach();
  void writes(int display, const SessionRecord& record);
  SessionRecord reads(int display);
  void detach();

  void stop() { process_.stop(); }

 private:
  int indexOf(int display) const { return display - lowestDisplay_; }

  Process process_;
  int lowestDisplay_;
};

}  // namespace mendline::rig
