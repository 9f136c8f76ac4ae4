#include "collector/PerfCollector.h"

#include <atomic>
#include <chrono>
#include <utility>

#include "logging/InternalLogger.h"

namespace mendline {
namespace {

constinit const LogTag kTag("PerfCollector");

constexpr std::chrono::nanoseconds kTickWait = std::chrono::seconds(30);

}  // namespace

std::shared_ptr<PerfCollector> PerfCollector::getInstance() {
  static const std::shared_ptr<PerfCollector> instance(new PerfCollector);
  return instance;
}

PerfCollector::~PerfCollector() {
  if (started) {
    stop();
  }
  for (std::shared_ptr<MetricGenerator>& generator : generators) {
    generator.reset();
  }
}

bool PerfCollector::registerGenerator(std::shared_ptr<MetricGenerator> generator) {
  const std::lock_guard control(controlMutex);
  if (started) {
    LogWarn(&kTag, "Collector has started, failed to register new generator");
    return false;
  }
  generators.push_back(std::move(generator));
  return true;
}

bool PerfCollector::start() {
  const std::lock_guard control(controlMutex);
  if (started) {
    return true;
  }
  if (isStopRequested()) {
    return false;
  }
  collectionThread = std::thread(&PerfCollector::collectionLoop, this);
  started = true;
  LogInfo(&kTag, "Created collection thread");
  return true;
}

void PerfCollector::stop() {
  const std::lock_guard control(controlMutex);
  {
    const std::lock_guard wait(waitMutex);
    setStopRequested(true);
  }
  wakeup.notify_all();
  if (collectionThread.joinable()) {
    collectionThread.join();
  }
  setStopRequested(false);
  started = false;
}

bool PerfCollector::isStopRequested() {
  return std::atomic_ref(stopRequested).load(std::memory_order_relaxed);
}

void PerfCollector::setStopRequested(bool requested) {
  std::atomic_ref(stopRequested).store(requested, std::memory_order_relaxed);
}

void PerfCollector::waitForNextTick() {
  std::unique_lock wait(waitMutex);
  const auto deadline = std::chrono::steady_clock::now() + kTickWait;
  while (!isStopRequested()) {
    // The sleep ends by the system clock, the wait by the steady clock: when the system clock
    // jumped ahead, the time that is left is slept again.
    const auto remaining = deadline - std::chrono::steady_clock::now();
    const auto wakeTime = std::chrono::system_clock::now() + remaining;
    static_cast<void>(wakeup.wait_until(wait, wakeTime));
    if (std::chrono::system_clock::now() >= wakeTime &&
        std::chrono::steady_clock::now() >= deadline) {
      return;
    }
  }
}

}  // namespace mendline
