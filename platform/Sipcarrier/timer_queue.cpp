#include "Sipcarrier/timer_queue.h"

#include <algorithm>
#include <ctime>

namespace sipcarrier {

Clock::time_point Clock::now() noexcept {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

Timer::~Timer() {
  if (queue_ != nullptr) queue_->Detach(*this);
}

void TimerQueue::Attach(Timer& timer) {
  if (timer.queue_ == this) return;
  if (heap_.capacity() <= attached_) {
    heap_.reserve(std::max<std::size_t>(64, heap_.capacity() * 2));
  }
  ++attached_;
  timer.queue_ = this;
}

void TimerQueue::Detach(Timer& timer) noexcept {
  if (timer.queue_ != this) return;
  Cancel(timer);
  timer.queue_ = nullptr;
  --attached_;
}

void TimerQueue::Set(Timer& timer, Clock::time_point due) noexcept {
  Cancel(timer);
  timer.due_ = due;
  timer.order_ = next_order_++;
  heap_.push_back(&timer);
  timer.index_ = heap_.size() - 1;
  SiftUp(timer.index_);
}

void TimerQueue::Cancel(Timer& timer) noexcept {
  if (!timer.set()) return;
  const std::size_t index = timer.index_;
  timer.index_ = Timer::kUnset;
  Timer* last = heap_.back();
  heap_.pop_back();
  if (last == &timer) return;
  Place(*last, index);
  SiftUp(index);
  SiftDown(last->index_);
}

Clock::time_point TimerQueue::NextDue() const noexcept {
  return heap_.empty() ? Clock::time_point::max() : heap_.front()->due_;
}

void TimerQueue::Run(Clock::time_point now) noexcept {
  const std::uint64_t limit = next_order_;
  while (!heap_.empty() && heap_.front()->due_ <= now && heap_.front()->order_ < limit) {
    Timer& timer = *heap_.front();
    Cancel(timer);
    timer.sink_.OnTimer(timer);
  }
}

bool TimerQueue::Before(const Timer& a, const Timer& b) {
  return a.due_ != b.due_ ? a.due_ < b.due_ : a.order_ < b.order_;
}

void TimerQueue::Place(Timer& timer, std::size_t index) noexcept {
  heap_[index] = &timer;
  timer.index_ = index;
}

void TimerQueue::SiftUp(std::size_t index) noexcept {
  Timer& timer = *heap_[index];
  while (index > 0) {
    const std::size_t parent = (index - 1) / 2;
    if (!Before(timer, *heap_[parent])) break;
    Place(*heap_[parent], index);
    index = parent;
  }
  Place(timer, index);
}

void TimerQueue::SiftDown(std::size_t index) noexcept {
  Timer& timer = *heap_[index];
  for (;;) {
    std::size_t child = 2 * index + 1;
    if (child >= heap_.size()) break;
    if (child + 1 < heap_.size() && Before(*heap_[child + 1], *heap_[child])) ++child;
    if (!Before(*heap_[child], timer)) break;
    Place(*heap_[child], index);
    index = child;
  }
  Place(timer, index);
}

}  // namespace sipcarrier
