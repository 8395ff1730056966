#include "host/inbox.h"

#include <new>
#include <utility>

namespace host {
namespace {

constexpr KDint32 kWakeUp = KD_EVENT_USER + 1;
// A trace that is not read must not fill the memory of the machine.
constexpr std::size_t kMaxItems = 100'000;

}  // namespace

Inbox::Inbox() : thread_(kdThreadSelf()) {}

void Inbox::Push(std::variant<NotificationItem, TraceItem, SignalItem> what) noexcept {
  {
    const base::MutexLock lock(mutex_);
    if (items_.size() >= kMaxItems && std::holds_alternative<TraceItem>(what)) {
      ++lost_;
      return;
    }
    try {
      items_.push_back({std::chrono::system_clock::now(), std::move(what)});
    } catch (const std::bad_alloc&) {
      ++lost_;
      return;
    }
  }
  // One event for each item: an event without a callback is what ends kdWaitEvent.
  if (KDEvent* const event = kdCreateEvent()) {
    event->type = kWakeUp;
    event->userptr = this;
    kdPostThreadEvent(event, thread_);
  }
}

bool Inbox::Pop(InboxItem& item) {
  const base::MutexLock lock(mutex_);
  if (items_.empty()) return false;
  item = std::move(items_.front());
  items_.pop_front();
  return true;
}

std::uint64_t Inbox::lost() const {
  const base::MutexLock lock(mutex_);
  return lost_;
}

}  // namespace host
