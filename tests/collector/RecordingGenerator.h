// A generator of the test's own: it keeps every sample it is handed, and can be made to work long.
#pragma once

#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "Eventually.h"
#include "generators/MetricGenerator.h"

namespace mendline {

// Real time, whatever clock the chrono clocks show.
inline std::chrono::nanoseconds realTime() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

inline void pauseFor(std::chrono::milliseconds real) {
  const timespec pause = {real.count() / 1000, real.count() % 1000 * 1'000'000};
  nanosleep(&pause, nullptr);
}

class RecordingGenerator : public MetricGenerator {
 public:
  void generate(const PerfSample& sample) override {
    const std::chrono::nanoseconds start = realTime();
    std::function<void()> work;
    {
      const std::lock_guard lock(mutex_);
      ++begun_;
      work = work_;
    }
    if (work) {
      work();
    }
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [this] { return !held_; });
    samples_.push_back(sample);
    calls_.push_back({start, realTime()});
  }

  // What every call does from now on, on the thread that calls.
  void doing(std::function<void()> work) {
    const std::lock_guard lock(mutex_);
    work_ = std::move(work);
  }

  // Every call from now on, and one that is under way, lasts until release.
  void hold() {
    const std::lock_guard lock(mutex_);
    held_ = true;
  }
  void release() {
    const std::lock_guard lock(mutex_);
    held_ = false;
    freed_.notify_all();
  }

  std::size_t begun() const {
    const std::lock_guard lock(mutex_);
    return begun_;
  }
  std::size_t finished() const {
    const std::lock_guard lock(mutex_);
    return samples_.size();
  }
  bool willHaveBegun(std::size_t count,
                     std::chrono::milliseconds patience = std::chrono::seconds(20)) const {
    return rig::eventually([&] { return begun() >= count; }, patience);
  }
  bool willHaveFinished(std::size_t count,
                        std::chrono::milliseconds patience = std::chrono::seconds(20)) const {
    return rig::eventually([&] { return finished() >= count; }, patience);
  }

  std::vector<PerfSample> samples() const {
    const std::lock_guard lock(mutex_);
    return samples_;
  }
  PerfSample lastSample() const {
    const std::lock_guard lock(mutex_);
    return samples_.back();
  }

  struct Call {
    std::chrono::nanoseconds start;
    std::chrono::nanoseconds end;
  };
  // In real time.
  std::vector<Call> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable freed_;
  std::function<void()> work_;
  bool held_ = false;
  std::size_t begun_ = 0;
  std::vector<PerfSample> samples_;
  std::vector<Call> calls_;
};

}  // namespace mendline
