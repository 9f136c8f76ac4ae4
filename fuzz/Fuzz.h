// What the fuzz programs share: checks, a private host, and the reading rules of the C library and
// of streams, written down once more so that the product can be compared with them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "PrivateHost.h"

namespace mendline::fuzz {

// Ends the program, which makes a finding of the input.
inline void require(bool holds, const char* what) {
  if (!holds) {
    static_cast<void>(std::fprintf(stderr, "INVARIANT BROKEN: %s\n", what));
    std::abort();
  }
}

// For functions that give the rule that was broken, or null.
inline void requireNone(const char* brokenRule) {
  require(brokenRule == nullptr, brokenRule);
}

// The one host of the program, made at the first input.
inline rig::PrivateHost& host() {
  static rig::PrivateHost theHost;
  return theHost;
}

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace mendline::fuzz
