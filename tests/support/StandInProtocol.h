// How the rig and the program `stand-in` talk: packets "verb\npayload" one way, one packet back
// that starts with kDone or kRefused.
#pragma once

#include <cstddef>

namespace mendline::rig::standin {

inline constexpr int kChannel = 3;
inline constexpr int kScratchFile = 4;
inline constexpr char kDone = '+';
inline constexpr char kRefused = '-';
// Room for the process ids of some thirty thousand idle children.
inline constexpr std::size_t kLongestPacket = 128 * 1024;

}  // namespace mendline::rig::standin
