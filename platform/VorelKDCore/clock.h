// The time source behind timers and waits.
#pragma once

#include <limits>

#include "VorelKDCore.h"

namespace vorelkd {

inline constexpr KDust kNever = std::numeric_limits<KDust>::max();

// The system's clock, also while it is replaced: time limits of waits are the caller's real time.
[[nodiscard]] KDust SystemNow() noexcept;
[[nodiscard]] bool ClockIsReplaced() noexcept;

// A sum that stops at kNever. span is not negative.
[[nodiscard]] constexpr KDust AddSpan(KDust time, KDust span) noexcept {
  return time > 0 && span > kNever - time ? kNever : time + span;
}

}  // namespace vorelkd
