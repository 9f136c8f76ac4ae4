// Waiting for what another thread or process is about to do.
#pragma once

#include <chrono>
#include <functional>

namespace mendline::rig {

// Asks the condition again and again, in real time, until it holds or patience runs out; says
// whether it held.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds patience = std::chrono::seconds(5));

}  // namespace mendline::rig
