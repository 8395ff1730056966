// Notifications: who wants which, and the thread that brings them.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/call_gate.h"
#include "base/intrusive_list.h"
#include "base/mutex.h"
#include "base/wake_pace.h"
#include "Brunelib/Brunelib.h"

namespace brunelib {

using Clock = std::chrono::steady_clock;

// A moment that far from now; very long waits are cut, so that the sum does not overflow.
Clock::time_point DeadlineAfter(std::chrono::milliseconds wait);

// Thread-safe. One lock, which is a leaf: nothing but the standard library is called while it is
// held, callbacks and copies of documents least of all. The delivery thread starts with the first
// notification. The queue has no bound: a subscriber that stays in its callback holds up all that
// follow.
class Delivery {
 public:
  int Subscribe(const char* source, int id, XSNotifyCallback* callback);
  int Unsubscribe(const char* source, int id, XSNotifyCallback* callback);
  // Takes back all subscriptions with callbacks in this library. Not on the delivery thread.
  void UnsubscribeLibrary(const void* library);
  int Express(const char* source, int id, CXML* document, void* extra);

  bool Drain(Clock::time_point deadline);
  // Delivers what is queued and ends the thread. What is not delivered by the deadline is dropped;
  // a callback that is still running then lets the thread end when it returns.
  void Stop(Clock::time_point deadline);
  bool OnDeliveryThread();

 private:
  // Subscriptions and notifications are numbered in one row: a subscription gets the notifications
  // that came after it.
  struct Subscription {
    std::uint64_t number;
    std::shared_ptr<const std::string> source;
    int id;
    XSNotifyCallback* callback;
    const void* library;
  };
  struct Notification : base::ListHook<Notification> {
    std::uint64_t number = 0;
    std::shared_ptr<const std::string> source;  // its subscribers' text
    int id = 0;
    std::optional<CXML> document;
    void* extra = nullptr;
  };

  // Remembered apart from its subscription, which may be taken back, by the callback itself too,
  // before the call ends.
  struct Call {
    const Notification* notification = nullptr;
    XSNotifyCallback* callback = nullptr;
    const void* library = nullptr;
  };

  using Queue = base::IntrusiveList<Notification, Notification>;
  static constexpr std::size_t kKept = 256;

  // Of somebody who wants it; null: nobody does.
  [[nodiscard]] const Subscription* FindWanted(const char* source, int id) const
      TOLVANE_REQUIRES(mutex_);
  static void Free(Queue& queue) noexcept;
  void Await() TOLVANE_REQUIRES(mutex_);
  bool DrainLocked(Clock::time_point deadline) TOLVANE_REQUIRES(mutex_);
  void StartThread() TOLVANE_REQUIRES(mutex_);
  void Run();
  // Lets go of the lock for each call.
  void Deliver(Notification& notification) TOLVANE_REQUIRES(mutex_);

  base::Mutex mutex_;
  base::CondVar work_;  // for the delivery thread
  base::CondVar done_;  // a notification is finished, or the thread has ended
  base::CallGate<Call> calls_;
  std::vector<Subscription> subscriptions_ TOLVANE_GUARDED_BY(mutex_);  // by number
  Queue queue_ TOLVANE_GUARDED_BY(mutex_);                              // by number
  // Used ones, so that what one thread allocates another need not free.
  Queue spare_ TOLVANE_GUARDED_BY(mutex_);
  std::size_t spares_ TOLVANE_GUARDED_BY(mutex_) = 0;
  base::WakePace pace_ TOLVANE_GUARDED_BY(mutex_);
  std::uint64_t last_number_ TOLVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t last_queued_ TOLVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t last_delivered_ TOLVANE_GUARDED_BY(mutex_) = 0;
  std::thread thread_ TOLVANE_GUARDED_BY(mutex_);
  bool running_ TOLVANE_GUARDED_BY(mutex_) = false;
  bool waiting_ TOLVANE_GUARDED_BY(mutex_) = false;  // the thread has nothing to do
  bool stop_ TOLVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace brunelib
