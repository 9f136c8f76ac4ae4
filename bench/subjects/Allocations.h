// The memory that a program has from `operator new`, counted as the allocator hands it out, with
// what it rounds up. Replaces the operators of the whole program.
#pragma once

#include <cstddef>

namespace mendline::bench {

// Forgets the high-water mark and starts a new one at what is in use now; returns that.
std::size_t startHighWaterMark();

// The most that was in use at once since then.
std::size_t highWaterMark();

}  // namespace mendline::bench
