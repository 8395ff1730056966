// How a thread sleeps for its queue.
#pragma once

#include "VorelKDCore.h"

namespace vorelkd {

// Sleeps until woken or until a moment of the system's clock. Built on descriptors, since no
// condition variable waits on a clock that counts suspended time: after a suspend of hours a timer
// that became due meanwhile must wake its thread at once, not after the rest of its interval.
//
// Sleep is for the owning thread, Wake for any. The descriptors are made at the first Sleep; where
// the process has none left, Sleep polls in short naps instead.
class Wakeup {
 public:
  Wakeup() = default;
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  // To be called before the first announcement of a sleep to other threads.
  void Prepare() noexcept;
  void Sleep(KDust until) noexcept;  // kNever: without limit; may return early
  void Wake() noexcept;              // ends the sleep that is, or the next one

 private:
  int event_fd_ = -1;
  int timer_fd_ = -1;
  KDust armed_ = 0;  // what timer_fd_ is set to
};

}  // namespace vorelkd
