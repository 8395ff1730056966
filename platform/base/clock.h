// The one clock of timers and deadlines.
#pragma once

#include <chrono>
#include <ctime>

namespace base {

// Nobody sets it, and it goes on while the machine sleeps, as what a registrar or notifier has
// granted does. Counts from the machine's start.
struct Clock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<Clock>;
  static constexpr bool is_steady = true;

  [[nodiscard]] static time_point now() noexcept {
    timespec now{};
    // Cannot fail: the clock exists on every kernel since 2.6.39.
    clock_gettime(CLOCK_BOOTTIME, &now);
    return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
  }
};

}  // namespace base
