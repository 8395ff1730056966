// All timers of the stack in one heap on a clock that nobody sets: setting and cancelling cost
// O(log n).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace sipcarrier {

// Goes on while the machine sleeps, as what a registrar or notifier has granted does.
struct Clock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<Clock>;
  static constexpr bool is_steady = true;
  [[nodiscard]] static time_point now() noexcept;
};

class Timer;

class TimerSink {
 public:
  // The timer is not set any more; it may be set again, or destroyed.
  virtual void OnTimer(Timer& timer) noexcept = 0;

 protected:
  ~TimerSink() = default;
};

// A one-shot timer, part of the object that it calls.
class Timer {
 public:
  explicit Timer(TimerSink& sink) : sink_(sink) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer();

  [[nodiscard]] bool set() const { return index_ != kUnset; }

 private:
  friend class TimerQueue;
  static constexpr std::size_t kUnset = static_cast<std::size_t>(-1);

  TimerSink& sink_;
  class TimerQueue* queue_ = nullptr;
  Clock::time_point due_;
  std::uint64_t order_ = 0;  // timers of one instant fire in the order in which they were set
  std::size_t index_ = kUnset;
};

// Used by one thread.
// Invariants: 1. heap_ is a binary heap by (due_, order_). 2. heap_[i]->index_ == i. 3. heap_ has
// room for every attached timer, so that Set cannot fail.
class TimerQueue {
 public:
  // Makes room for the timer; may throw std::bad_alloc. A timer that is destroyed detaches itself.
  void Attach(Timer& timer);
  void Detach(Timer& timer) noexcept;

  // The timer must be attached. One that is set already is moved.
  void Set(Timer& timer, Clock::time_point due) noexcept;
  void Cancel(Timer& timer) noexcept;

  // time_point::max() when no timer is set.
  [[nodiscard]] Clock::time_point NextDue() const noexcept;
  // Fires what is due. Timers that are set meanwhile wait for the next call, even when due.
  void Run(Clock::time_point now) noexcept;

 private:
  static bool Before(const Timer& a, const Timer& b);
  void Place(Timer& timer, std::size_t index) noexcept;
  void SiftUp(std::size_t index) noexcept;
  void SiftDown(std::size_t index) noexcept;

  std::vector<Timer*> heap_;
  std::size_t attached_ = 0;
  std::uint64_t next_order_ = 0;
};

}  // namespace sipcarrier
