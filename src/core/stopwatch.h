// Elapsed wall time of the phases a run reports, on the monotonic clock.
#pragma once

#include <chrono>

namespace kv {

using Clock = std::chrono::steady_clock;

// Seconds from `start` to now.
inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace kv
