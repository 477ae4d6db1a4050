#pragma once
// Time as the system sees it. Both clocks are read through a Runtime (Dispatch.h): timers use the
// monotonic one, event time stamps and the circuit breaker the wall one. Nothing outside
// src/platform reads std::chrono clocks directly, so tests can drive time.

#include <chrono>

namespace tarnwick {

using Duration = std::chrono::nanoseconds;
// Seconds as a double, the unit in which the system states its timeouts.
using Seconds = std::chrono::duration<double>;
using MonotonicTime = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::system_clock::time_point;

inline Duration toDuration(Seconds seconds) {
  return std::chrono::duration_cast<Duration>(seconds);
}

}  // namespace tarnwick
