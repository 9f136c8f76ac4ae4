// Owns the one background thread of the library and the list of generators that it feeds.
//
// The public operations are called by request threads and take turns; none is called by the
// collection thread. What the thread does in each tick stands in CollectionLoop.cpp.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "generators/MetricGenerator.h"

namespace mendline {

class PerfCollector {
 public:
  // The one object, created on first use; the caller shares its ownership.
  static std::shared_ptr<PerfCollector> getInstance();

  // Ends the thread if it runs, then releases the generators in the order of registration.
  ~PerfCollector();
  PerfCollector(const PerfCollector&) = delete;
  PerfCollector& operator=(const PerfCollector&) = delete;

  // Appends a generator; nothing removes one, and one that is there already is appended again.
  // While the thread runs: logs at Warn and returns false.
  bool registerGenerator(std::shared_ptr<MetricGenerator> generator);

  // True when the thread runs at return. Raises std::system_error when it can't be created.
  bool start();

  // Returns when the thread has ended: at once during the wait between ticks, else at the end of
  // the tick. The object can be started again.
  void stop();

 private:
  PerfCollector() = default;

  // The body of the thread.
  void collectionLoop();

  // One tick and, unless the host could not be read, the wait behind it.
  void collectOnce();

  // Returns after 30 seconds of the steady clock, or as soon as a stop is requested.
  void waitForNextTick();

  bool isStopRequested();
  void setStopRequested(bool requested);

  // Asks the thread to end. Plain, written under waitMutex; the thread reads it with that lock
  // inside the wait and without it around each tick, always as one relaxed atomic access.
  bool stopRequested = false;

  // Guarded by controlMutex. `started` is true from the thread's creation until it is joined.
  bool started = false;
  std::thread collectionThread;

  // Serialises start, stop and registerGenerator. Taken before waitMutex, and never by the
  // collection thread, so that stop may join with it held.
  std::mutex controlMutex;

  // Held by the thread during its wait, apart from the sleep itself, and by stop while it sets
  // stopRequested.
  std::mutex waitMutex;
  std::condition_variable wakeup;

  // In registration order. Changed under controlMutex and only while no thread runs, which is why
  // the thread reads it without a lock.
  std::vector<std::shared_ptr<MetricGenerator>> generators;
};

}  // namespace mendline
