// All timers of the stack in one heap on a clock that nobody sets.
#pragma once

#include "base/clock.h"
#include "base/timer_heap.h"

namespace sipcarrier {

using base::Clock;

class Timer;

class TimerSink {
 public:
  // The timer is not set any more; it may be set again, or destroyed.
  virtual void OnTimer(Timer& timer) noexcept = 0;

 protected:
  ~TimerSink() = default;
};

// A one-shot timer, part of the object that it calls. It may be destroyed while it is set, but not
// behind its queue.
class Timer : public base::TimerNode<Clock::time_point> {
 public:
  explicit Timer(TimerSink& sink) : sink_(sink) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer();

 private:
  friend class TimerQueue;
  TimerSink& sink_;
  class TimerQueue* queue_ = nullptr;  // where it was set last
};

// Used by one thread. Nothing here takes memory or fails.
class TimerQueue {
 public:
  // One that is set already is moved.
  void Set(Timer& timer, Clock::time_point due) noexcept {
    timer.queue_ = this;
    heap_.Set(timer, due);
  }
  void Cancel(Timer& timer) noexcept { heap_.Cancel(timer); }

  // time_point::max() when no timer is set.
  [[nodiscard]] Clock::time_point NextDue() const noexcept {
    return heap_.Top() != nullptr ? heap_.Top()->due() : Clock::time_point::max();
  }
  // Fires what is due. Timers that are set meanwhile wait for the next call, even when due.
  void Run(Clock::time_point now) noexcept {
    const auto mark = heap_.Mark();
    while (Timer* timer = heap_.TakeDue(now, mark)) timer->sink_.OnTimer(*timer);
  }

 private:
  base::TimerHeap<Timer, Clock::time_point> heap_;
};

inline Timer::~Timer() {
  if (set()) queue_->Cancel(*this);
}

}  // namespace sipcarrier
