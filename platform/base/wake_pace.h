// Keeps a thread that others feed from being woken for each piece that it is fed with.
#pragma once

#include <chrono>
#include <ctime>

#include "base/clock.h"

namespace base {

// For the loop of one thread. One that is woken again within a moment after it was woken has more
// coming: it rests before it waits again, and what comes meanwhile costs nobody a wake and is dealt
// with together. A thread that is woken now and then never rests, so nothing waits that comes alone.
//
//   for (;;) {
//     if (nothing to do && pace.ShouldRest()) { let go of locks; pace.Rest(); look again }
//     if (nothing to do) { wait; pace.Woken(); }
//   }
class WakePace {
 public:
  // Under the pause in which a person or a registrar notices anything, above the cost of some wakes.
  static constexpr std::chrono::microseconds kMoment{500};
  static constexpr std::chrono::microseconds kRest{100};

  // A wait for work is over.
  void Woken() noexcept {
    const Clock::time_point now = Clock::now();
    often_ = now - woken_at_ < kMoment;
    woken_at_ = now;
  }
  // Whether to rest instead of waiting; asked once for each wait.
  [[nodiscard]] bool ShouldRest() noexcept {
    const bool rest = often_;
    often_ = false;
    return rest;
  }
  // Nothing came of a rest, or something: if it did, the next wait may be put off, too.
  void Rested(bool something_came) noexcept { often_ = something_came; }

  static void Rest() noexcept {
    const timespec span{0, std::chrono::nanoseconds(kRest).count()};
    nanosleep(&span, nullptr);
  }

 private:
  Clock::time_point woken_at_{};
  bool often_ = false;
};

}  // namespace base
