#include "Locks.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace {

using Clock = std::chrono::steady_clock;

struct Held {
  const void* lock = nullptr;
  Clock::time_point since;
};

// Locks are taken inside one another, but not deeply.
std::array<Held, 8> held;
Clock::duration longest{};

int taken(const void* lock, int status) {
  if (status == 0) {
    const auto place = std::find_if(held.begin(), held.end(),
                                    [](const Held& entry) { return entry.lock == nullptr; });
    if (place == held.end()) {
      std::abort();
    }
    *place = {.lock = lock, .since = Clock::now()};
  }
  return status;
}

void freed(const void* lock) {
  const auto place = std::find_if(held.begin(), held.end(),
                                  [lock](const Held& entry) { return entry.lock == lock; });
  if (place != held.end()) {
    longest = std::max(longest, Clock::now() - place->since);
    place->lock = nullptr;
  }
}

}  // namespace

// The linker leads every call of NAME to __wrap_NAME, and __real_NAME to NAME.
extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* lock);
int __real_pthread_mutex_unlock(pthread_mutex_t* lock);
int __real_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t* lock);

int __wrap_pthread_mutex_lock(pthread_mutex_t* lock) {
  return taken(lock, __real_pthread_mutex_lock(lock));
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* lock) {
  freed(lock);
  return __real_pthread_mutex_unlock(lock);
}

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
  return taken(lock, __real_pthread_rwlock_rdlock(lock));
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
  return taken(lock, __real_pthread_rwlock_wrlock(lock));
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock) {
  freed(lock);
  return __real_pthread_rwlock_unlock(lock);
}
}

namespace mendline::bench {

void forgetLocks() {
  longest = {};
}

std::chrono::nanoseconds longestLock() {
  return longest;
}

}  // namespace mendline::bench
