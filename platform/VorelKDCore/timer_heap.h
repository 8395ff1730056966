// The timers of one thread in the order in which they become due.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "VorelKDCore.h"

namespace vorelkd {

struct UserEntry;

// Lives in its mailbox's table; linked into the list of its user pointer.
struct Timer {
  std::uint64_t id = 0;
  KDust due = 0;
  KDust interval = 0;
  KDint mode = 0;
  UserEntry* user = nullptr;
  Timer* user_prev = nullptr;
  Timer* user_next = nullptr;
  std::size_t slot = 0;  // where it stands in the heap
};

// A binary heap that knows where each timer stands, so that any of them leaves in logarithmic time.
// Equal times keep the order in which the timers were set. Not thread-safe; owns nothing.
class TimerHeap {
 public:
  [[nodiscard]] Timer* Top() const noexcept { return heap_.empty() ? nullptr : heap_.front(); }

  // Makes room for one more; the only call that throws (std::bad_alloc).
  void Reserve() {
    if (heap_.size() == heap_.capacity()) heap_.reserve(heap_.empty() ? 8 : heap_.size() * 2);
  }
  void Push(Timer* timer) noexcept {  // after Reserve
    heap_.push_back(timer);
    Up(heap_.size() - 1, timer);
  }
  void Remove(const Timer* timer) noexcept {
    const std::size_t slot = timer->slot;
    Timer* last = heap_.back();
    heap_.pop_back();
    if (last != timer) Settle(slot, last);
  }
  void Moved(Timer* timer) noexcept { Settle(timer->slot, timer); }  // its due time has changed
  void Clear() noexcept { std::vector<Timer*>().swap(heap_); }

 private:
  [[nodiscard]] static bool Before(const Timer* a, const Timer* b) noexcept {
    return a->due != b->due ? a->due < b->due : a->id < b->id;
  }
  void Place(std::size_t slot, Timer* timer) noexcept {
    heap_[slot] = timer;
    timer->slot = slot;
  }
  void Up(std::size_t slot, Timer* timer) noexcept {
    while (slot > 0) {
      const std::size_t parent = (slot - 1) / 2;
      if (!Before(timer, heap_[parent])) break;
      Place(slot, heap_[parent]);
      slot = parent;
    }
    Place(slot, timer);
  }
  void Settle(std::size_t slot, Timer* timer) noexcept {
    for (std::size_t child = slot * 2 + 1; child < heap_.size(); child = slot * 2 + 1) {
      if (child + 1 < heap_.size() && Before(heap_[child + 1], heap_[child])) ++child;
      if (!Before(heap_[child], timer)) break;
      Place(slot, heap_[child]);
      slot = child;
    }
    Up(slot, timer);
  }

  std::vector<Timer*> heap_;
};

}  // namespace vorelkd
