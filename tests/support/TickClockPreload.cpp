// The preload library behind TickClock.h. Standing alone in any process, it depends on nothing but
// the C++ runtime, and it locks by spinning: a thread sanitizer must not see it.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

std::int64_t read(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return now.tv_sec * kNanoseconds + now.tv_nsec;
}

timespec toTimespec(std::int64_t nanoseconds) {
  if (nanoseconds < 0) {
    return {0, 0};
  }
  return {nanoseconds / kNanoseconds, nanoseconds % kNanoseconds};
}

using TimedWait = int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
using ClockWait = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
using Gettimeofday = int (*)(timeval*, void*);

const void* baseOf(const void* address) {
  Dl_info found = {};
  return dladdr(address, &found) != 0 ? found.dli_fbase : nullptr;
}

// A plain look-up may yield the first, long superseded version of a symbol. A sanitizer's
// interceptor has no version, and must not be bypassed.
void* nextVersioned(const char* name, const char* version) {
  void* plain = dlsym(RTLD_NEXT, name);
  void* versioned = dlvsym(RTLD_NEXT, name, version);
  return versioned != nullptr && baseOf(plain) == baseOf(versioned) ? versioned : plain;
}

// One wait in progress, so that a step of the clock can end it.
struct Waiter {
  pthread_cond_t* condition;
  Waiter* next;
};

class Clock {
 public:
  static Clock& instance() {
    static Clock clock;
    return clock;
  }

  std::int64_t steady() const { return steadyBase_ + scaledAge(); }
  std::int64_t system() const { return systemBase_ + scaledAge() + jumped_.load(); }

  int wait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    const std::int64_t due = deadline->tv_sec * kNanoseconds + deadline->tv_nsec;
    Waiter self = {condition, nullptr};
    const unsigned before = enlist(&self);
    const timespec real = toTimespec(read(CLOCK_REALTIME) + realFor(due - system()));
    const int result = timedWait_(condition, mutex, &real);
    const bool stepped = discharge(&self) != before;
    return stepped && result == 0 && system() >= due ? ETIMEDOUT : result;
  }

  int waitSteady(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    const std::int64_t due = deadline->tv_sec * kNanoseconds + deadline->tv_nsec;
    const timespec real = toTimespec(read(CLOCK_MONOTONIC) + realFor(due - steady()));
    return clockWait_(condition, mutex, CLOCK_MONOTONIC, &real);
  }

  int waitUnchanged(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    return timedWait_(condition, mutex, deadline);
  }

  int waitUnchanged(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                    const timespec* deadline) {
    return clockWait_(condition, mutex, clock, deadline);
  }

  void jump(long seconds) {
    jumped_ += seconds * kNanoseconds;
    lock();
    ++jumps_;
    for (Waiter* waiter = waiters_; waiter != nullptr; waiter = waiter->next) {
      pthread_cond_broadcast(waiter->condition);
    }
    unlock();
  }

  int timeOfDay(timeval* now, void* zone, const void* caller) {
    if (failing_.load() && serves(caller)) {
      errno = EFAULT;
      return -1;
    }
    return gettimeofday_(now, zone);
  }

  void failGettimeofday(bool failing) { failing_ = failing; }

  // Whether the caller's waits are the ones to make quick.
  bool serves(const void* caller) const {
    if (caller == nullptr) {
      return false;
    }
    Dl_info found = {};
    if (dladdr(caller, &found) == 0) {
      return false;
    }
    if (found.dli_fbase == program_) {
      return true;
    }
    const char* slash = std::strrchr(found.dli_fname, '/');
    const char* name = slash == nullptr ? found.dli_fname : slash + 1;
    return std::strncmp(name, "libmendline", std::strlen("libmendline")) == 0;
  }

 private:
  Clock() {
    const char* speed = std::getenv("MENDLINE_CLOCK_SPEED");
    const long wanted = speed == nullptr ? 1 : std::strtol(speed, nullptr, 10);
    speed_ = wanted < 1 ? 1 : wanted;
    const char* gettimeofdayMode = std::getenv("MENDLINE_CLOCK_GETTIMEOFDAY");
    failing_ = gettimeofdayMode != nullptr && std::strcmp(gettimeofdayMode, "fail") == 0;
    timedWait_ =
        reinterpret_cast<TimedWait>(nextVersioned("pthread_cond_timedwait", "GLIBC_2.3.2"));
    clockWait_ = reinterpret_cast<ClockWait>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
    gettimeofday_ = reinterpret_cast<Gettimeofday>(dlsym(RTLD_NEXT, "gettimeofday"));
    // The kernel hands every program the address of its program headers, which lie in its image.
    program_ = baseOf(reinterpret_cast<const void*>(getauxval(AT_PHDR)));
    steadyBase_ = read(CLOCK_MONOTONIC);
    systemBase_ = read(CLOCK_REALTIME);
  }

  std::int64_t scaledAge() const { return (read(CLOCK_MONOTONIC) - steadyBase_) * speed_; }

  // Rounded up: a wait must not end before its deadline.
  std::int64_t realFor(std::int64_t scaled) const {
    return scaled <= 0 ? 0 : (scaled + speed_ - 1) / speed_;
  }

  void lock() {
    while (busy_.test_and_set(std::memory_order_acquire)) {
    }
  }
  void unlock() { busy_.clear(std::memory_order_release); }

  unsigned enlist(Waiter* waiter) {
    lock();
    waiter->next = waiters_;
    waiters_ = waiter;
    const unsigned jumps = jumps_;
    unlock();
    return jumps;
  }

  unsigned discharge(const Waiter* waiter) {
    lock();
    for (Waiter** link = &waiters_; *link != nullptr; link = &(*link)->next) {
      if (*link == waiter) {
        *link = waiter->next;
        break;
      }
    }
    const unsigned jumps = jumps_;
    unlock();
    return jumps;
  }

  std::int64_t speed_ = 1;
  std::int64_t steadyBase_ = 0;
  std::int64_t systemBase_ = 0;
  std::atomic<std::int64_t> jumped_ = 0;
  std::atomic<bool> failing_ = false;
  TimedWait timedWait_ = nullptr;
  ClockWait clockWait_ = nullptr;
  Gettimeofday gettimeofday_ = nullptr;
  const void* program_ = nullptr;
  std::atomic_flag busy_;
  Waiter* waiters_ = nullptr;
  unsigned jumps_ = 0;
};

// Time starts to run quickly when the process starts, not when somebody first asks for it.
__attribute__((constructor)) void startClock() {
  Clock::instance();
}

}  // namespace

#define EXPORTED __attribute__((visibility("default")))

namespace std::chrono {
inline namespace _V2 {

EXPORTED steady_clock::time_point steady_clock::now() noexcept {
  return time_point(duration(Clock::instance().steady()));
}

EXPORTED system_clock::time_point system_clock::now() noexcept {
  return time_point(duration(Clock::instance().system()));
}

}  // namespace _V2
}  // namespace std::chrono

extern "C" {

EXPORTED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                    const timespec* deadline) {
  Clock& clock = Clock::instance();
  return clock.serves(__builtin_return_address(0))
             ? clock.wait(condition, mutex, deadline)
             : clock.waitUnchanged(condition, mutex, deadline);
}

EXPORTED int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                    clockid_t clockId, const timespec* deadline) {
  Clock& clock = Clock::instance();
  if (!clock.serves(__builtin_return_address(0))) {
    return clock.waitUnchanged(condition, mutex, clockId, deadline);
  }
  return clockId == CLOCK_MONOTONIC ? clock.waitSteady(condition, mutex, deadline)
                                    : clock.wait(condition, mutex, deadline);
}

EXPORTED int gettimeofday(timeval* now, void* zone) noexcept {
  return Clock::instance().timeOfDay(now, zone, __builtin_return_address(0));
}

EXPORTED void tickClockJumpSystem(long seconds) {
  Clock::instance().jump(seconds);
}

EXPORTED void tickClockFailGettimeofday(bool failing) {
  Clock::instance().failGettimeofday(failing);
}
}
