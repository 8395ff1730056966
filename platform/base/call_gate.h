// Lets one who takes a callee out of a table wait until the call to it that is under way is over.
#pragma once

#include <cstdint>
#include <thread>
#include <utility>

#include "base/mutex.h"

namespace base {

// Belongs to a table of callees with a mutex, which each call here names and the caller holds. One
// thread at a time makes calls to what the table names:
//
//   { lock; look it up; gate.Enter(mutex, who); }   the call, without the lock
//   { lock; gate.Leave(mutex); }                    after the last share of the callee is given up
//
// Who takes a callee out calls AwaitEnd afterwards, without having let go of the lock in between.
// Who is small and copied; it must be good until Leave.
template <class Who>
class CallGate {
 public:
  CallGate() = default;
  CallGate(const CallGate&) = delete;
  CallGate& operator=(const CallGate&) = delete;

  void Enter([[maybe_unused]] Mutex& mutex, Who who) TOLVANE_REQUIRES(mutex) {
    ++number_;
    open_ = true;
    thread_ = std::this_thread::get_id();
    who_ = std::move(who);
  }
  void Leave([[maybe_unused]] Mutex& mutex) TOLVANE_REQUIRES(mutex) {
    open_ = false;
    over_.NotifyAll();
  }

  // A call is under way.
  [[nodiscard]] bool busy([[maybe_unused]] Mutex& mutex) const TOLVANE_REQUIRES(mutex) {
    return open_;
  }

  // Waits, without the lock, until the call under way is over, if it is to one that `is` says yes
  // to. Later calls are not waited for, nor is the call from which the waiter itself comes. There
  // is no deadline: before the end of the call the callee must not be freed.
  template <class Is>
  void AwaitEnd(Mutex& mutex, Is is) TOLVANE_REQUIRES(mutex) {
    if (!open_ || thread_ == std::this_thread::get_id() || !is(std::as_const(who_))) return;
    const std::uint64_t number = number_;
    while (open_ && number_ == number) over_.Wait(mutex);
  }

 private:
  CondVar over_;
  std::uint64_t number_ = 0;  // of the call under way, or of the last one
  bool open_ = false;
  std::thread::id thread_;  // of the call under way
  Who who_{};
};

}  // namespace base
