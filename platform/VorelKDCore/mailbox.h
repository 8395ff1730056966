// What one thread owns in this library: its event queue, its callbacks and its timers.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "base/intrusive_list.h"
#include "base/mutex.h"
#include "base/timer_heap.h"
#include "base/wake_pace.h"
#include "VorelKDCore.h"
#include "wakeup.h"

namespace vorelkd {

struct UserEntry;
struct OfUser;   // the list of those with the same user pointer
struct InQueue;  // the queue of a mailbox

// What a KDEvent* of kdCreateEvent really points at.
struct Event : KDEvent, base::ListHook<InQueue>, base::ListHook<OfUser> {
  std::uint64_t number = 0;  // place in its queue, counted since the thread's start
  UserEntry* user = nullptr;
};

// Lives in its mailbox's table.
struct Timer : base::TimerNode<KDust>, base::ListHook<OfUser> {
  std::uint64_t id = 0;
  KDust interval = 0;
  KDint mode = 0;
  UserEntry* user = nullptr;
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
  base::IntrusiveList<Event, OfUser> events;
  base::IntrusiveList<Timer, OfUser> timers;
  unsigned running = 0;  // callbacks on the stack with an event of this user pointer
};

// Post and Forget are for any thread; all else is for the thread that owns the mailbox. One mutex
// guards the state; it is never held while a callback runs.
//
// Invariants, whenever the mutex is free:
//  1. Every queued event is in the queue and in the list of its entry; numbers ascend along the
//  queue.
//  2. Every timer is in timers_, in heap_ and in the list of its entry. A firing is not an object of
//     its own: a timer that is due stands in the heap until it is delivered, so there is at most
//     one firing of it, and none once the timer is gone.
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

  UserEntry* Take(const Horizon& horizon, KDEvent& event) noexcept TOLVANE_REQUIRES(mutex_);
  void TakeFiring(Timer* timer, KDust now, KDEvent& event) noexcept TOLVANE_REQUIRES(mutex_);
  [[nodiscard]] UserEntry* Find(void* userptr) noexcept TOLVANE_REQUIRES(mutex_);
  UserEntry* FindOrAdd(void* userptr) TOLVANE_REQUIRES(mutex_);  // throws std::bad_alloc
  void DropIfUnused(UserEntry* user) noexcept TOLVANE_REQUIRES(mutex_);
  [[nodiscard]] KDCallbackFunc* FindCallback(const UserEntry& user, KDint type) const noexcept
      TOLVANE_REQUIRES(mutex_);
  void RemoveTimer(Timer* timer) noexcept TOLVANE_REQUIRES(mutex_);
  [[nodiscard]] static bool IsDue(const Timer* timer, KDust now) noexcept;

  base::Mutex mutex_;
  bool ended_ TOLVANE_GUARDED_BY(mutex_) = false;
  bool sleeping_ TOLVANE_GUARDED_BY(mutex_) = false;
  std::uint64_t next_number_ TOLVANE_GUARDED_BY(mutex_) = 0;
  // Entries stand before what is linked into them, so that they go last.
  std::unordered_map<void*, UserEntry> users_ TOLVANE_GUARDED_BY(mutex_);
  UserEntry anyone_ TOLVANE_GUARDED_BY(mutex_);
  base::IntrusiveList<Event, InQueue> queue_ TOLVANE_GUARDED_BY(mutex_);  // owns its elements
  std::unordered_map<std::uint64_t, Timer> timers_ TOLVANE_GUARDED_BY(mutex_);
  base::TimerHeap<Timer, KDust> heap_ TOLVANE_GUARDED_BY(mutex_);
  // The owning thread's.
  KDEvent unclaimed_{};  // what Wait has returned
  Wakeup wakeup_;
  base::WakePace pace_;  // the owning thread's        // and Wake is for any thread
};

}  // namespace vorelkd
