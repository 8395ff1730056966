// Notifications: who wants which, and the thread that brings them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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
    std::string source;
    int id;
    XSNotifyCallback* callback;
    const void* library;
  };
  struct Notification {
    std::uint64_t number = 0;
    std::string source;
    int id = 0;
    std::optional<CXML> document;
    void* extra = nullptr;
  };

  [[nodiscard]] bool IsWanted(const char* source, int id) const;
  bool DrainLocked(std::unique_lock<std::mutex>& lock, Clock::time_point deadline);
  void AwaitEndOfCall(std::unique_lock<std::mutex>& lock);
  void StartThread();
  void Run();
  void Deliver(Notification& notification, std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable work_;  // for the delivery thread
  std::condition_variable done_;  // a call or a notification is finished, or the thread has ended
  std::vector<Subscription> subscriptions_;  // by number
  std::list<Notification> queue_;            // by number
  std::uint64_t last_number_ = 0;
  std::uint64_t last_queued_ = 0;
  std::uint64_t last_delivered_ = 0;
  // The call that is under way. It is remembered apart from its subscription, which may be taken
  // back, by the callback itself too, before the call ends.
  struct Call {
    std::uint64_t number = 0;  // of the call; 0: none
    const Notification* notification = nullptr;
    XSNotifyCallback* callback = nullptr;
    const void* library = nullptr;
  };
  Call call_;
  std::thread thread_;
  bool running_ = false;
  bool stop_ = false;
};

}  // namespace brunelib
