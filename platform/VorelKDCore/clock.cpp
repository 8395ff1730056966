#include "clock.h"

#include <atomic>

#include "base/clock.h"

namespace vorelkd {
namespace {

std::atomic<const Clock*> g_clock{nullptr};

}  // namespace

KDust SystemNow() noexcept { return base::Clock::now().time_since_epoch().count(); }

bool ClockIsReplaced() noexcept { return g_clock.load(std::memory_order_acquire) != nullptr; }

void SetClock(const Clock* clock) { g_clock.store(clock, std::memory_order_release); }

KDust Now() noexcept {
  const Clock* clock = g_clock.load(std::memory_order_acquire);
  return clock != nullptr ? clock->Now() : SystemNow();
}

}  // namespace vorelkd
