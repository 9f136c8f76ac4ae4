#include "Allocations.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> inUse{0};
std::atomic<std::size_t> highest{0};

void* allocate(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  const std::size_t now = inUse += malloc_usable_size(memory);
  highest = std::max(highest.load(), now);
  return memory;
}

void release(void* memory) {
  inUse -= malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

// The forms that take an alignment are left alone: what they hand out goes to them again.
void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete[](void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}

namespace mendline::bench {

std::size_t startHighWaterMark() {
  highest = inUse.load();
  return highest;
}

std::size_t highWaterMark() {
  return highest;
}

}  // namespace mendline::bench
