// What one thread owns in this library: its event queue, its callbacks and its timers.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "timer_heap.h"
#include "VorelKDCore.h"
#include "wakeup.h"

namespace vorelkd {

// A node of a list threaded through its members. Removing a node takes no search.
template <typename T, T* T::*Prev, T* T::*Next>
struct ListOps {
  static void PushFront(T*& head, T* node) noexcept {
    node->*Prev = nullptr;
    node->*Next = head;
    if (head != nullptr) head->*Prev = node;
    head = node;
  }
  static void Remove(T*& head, T* node) noexcept {
    (node->*Prev != nullptr ? node->*Prev->*Next : head) = node->*Next;
    if (node->*Next != nullptr) node->*Next->*Prev = node->*Prev;
  }
};

// What a KDEvent* of kdCreateEvent really points at.
struct Event : KDEvent {
  std::uint64_t number = 0;  // place in its queue, counted since the thread's start
  Event* prev = nullptr;     // neighbours in the queue
  Event* next = nullptr;
  UserEntry* user = nullptr;
  Event* user_prev = nullptr;  // neighbours among those with the same user pointer
  Event* user_next = nullptr;
};

struct Callback {
  KDint type;
  KDCallbackFunc* func;
};

// Everything on a thread that names one user pointer, so that it can be taken back without looking
// at anything else.
struct UserEntry {
  void* userptr = nullptr;
  std::vector<Callback> callbacks;  // by ascending type
  Event* events = nullptr;
  Timer* timers = nullptr;
  unsigned running = 0;  // callbacks on the stack with an event of this user pointer
};

// Post and Forget are for any thread; all else is for the thread that owns the mailbox. One mutex
// guards the state; it is never held while a callback runs.
//
// Invariants, whenever the mutex is free:
//  1. Every queued event is in the queue and in the list of its entry; numbers ascend along the
//  queue.
//  2. Every timer is in timers_, in heap_ and in the list of its entry. A firing is not an object
//  of its
//     own: a timer that is due stands in the heap until it is delivered, so there is at most one
//     firing of it, and none once the timer is gone.
//  3. An entry is in users_ exactly while it has a callback, an event, a timer or a running
//  callback;
//     the entry of the null pointer is anyone_ and always there.
//  4. After Close there is nothing in the mailbox and nothing comes in.
class Mailbox {
 public:
  Mailbox() = default;
  ~Mailbox() { Close(); }
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  // These give 0 or a KD error code.
  [[nodiscard]] KDint Post(std::unique_ptr<Event> event) noexcept;
  [[nodiscard]] KDint Install(KDCallbackFunc* func, KDint type, void* userptr) noexcept;
  [[nodiscard]] KDint SetTimer(KDust interval, KDint mode, void* userptr,
                               std::uint64_t& id) noexcept;
  [[nodiscard]] KDint CancelTimer(std::uint64_t id) noexcept;
  [[nodiscard]] KDint Forget(void* userptr) noexcept;

  [[nodiscard]] const KDEvent* Wait(KDust timeout) noexcept;
  void Pump() noexcept { Deliver(false); }
  void Close() noexcept;

 private:
  // What a pump takes: events with a lower number, timers due by this moment. Fixed when it begins,
  // so that it ends also when its callbacks post and set without end.
  struct Horizon {
    std::uint64_t number;
    KDust now;
  };

  const KDEvent* Deliver(bool stop_at_unclaimed) noexcept;
  void Sleep(KDust deadline) noexcept;

  // With the mutex held:
  UserEntry* Take(const Horizon& horizon, KDEvent& event) noexcept;
  void TakeFiring(Timer* timer, KDust now, KDEvent& event) noexcept;
  [[nodiscard]] UserEntry* Find(void* userptr) noexcept;
  UserEntry* FindOrAdd(void* userptr);  // throws std::bad_alloc
  void DropIfUnused(UserEntry* user) noexcept;
  [[nodiscard]] KDCallbackFunc* FindCallback(const UserEntry& user, KDint type) const noexcept;
  void RemoveEvent(Event* event) noexcept;  // unlinks and frees
  void RemoveTimer(Timer* timer) noexcept;
  [[nodiscard]] static bool IsDue(const Timer* timer, KDust now) noexcept;

  std::mutex mutex_;
  bool ended_ = false;
  bool sleeping_ = false;
  std::uint64_t next_number_ = 0;
  Event* first_ = nullptr;
  Event* last_ = nullptr;
  std::unordered_map<void*, UserEntry> users_;
  UserEntry anyone_;
  std::unordered_map<std::uint64_t, Timer> timers_;
  TimerHeap heap_;
  KDEvent unclaimed_{};  // what Wait has returned
  Wakeup wakeup_;
};

}  // namespace vorelkd
