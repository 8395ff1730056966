#include "clock.h"

#include <atomic>
#include <ctime>

namespace vorelkd {
namespace {

std::atomic<const Clock*> g_clock{nullptr};

}  // namespace

KDust SystemNow() noexcept {
  timespec now{};
  // Cannot fail: the clock exists on every kernel since 2.6.39. It goes on while the machine
  // sleeps, as the lifetime of a binding at a registrar does.
  clock_gettime(CLOCK_BOOTTIME, &now);
  return KDust{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

bool ClockIsReplaced() noexcept { return g_clock.load(std::memory_order_acquire) != nullptr; }

void SetClock(const Clock* clock) { g_clock.store(clock, std::memory_order_release); }

KDust Now() noexcept {
  const Clock* clock = g_clock.load(std::memory_order_acquire);
  return clock != nullptr ? clock->Now() : SystemNow();
}

}  // namespace vorelkd
