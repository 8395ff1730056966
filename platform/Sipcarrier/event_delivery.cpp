#include "Sipcarrier/event_delivery.h"

#include <new>
#include <utility>

namespace sipcarrier {

struct EventDelivery::Event {
  int id = 0;
  std::unique_ptr<nsip_message> message;
  std::string reason;
  long stack_id = 0;
  Event* next = nullptr;
};

EventDelivery::EventList::~EventList() {
  while (Pop() != nullptr) {
  }
}

void EventDelivery::EventList::Push(Event* event) {
  (first == nullptr ? first : last->next) = event;
  last = event;
}

std::unique_ptr<EventDelivery::Event> EventDelivery::EventList::Pop() {
  if (first == nullptr) return nullptr;
  return std::unique_ptr<Event>(std::exchange(first, first->next));
}

void EventDelivery::EventList::Swap(EventList& other) {
  std::swap(first, other.first);
  std::swap(last, other.last);
}

EventDelivery::~EventDelivery() { Stop(std::chrono::steady_clock::time_point{}); }

void EventDelivery::Start() {
  thread_ = std::thread([this] { Run(); });
  thread_id_ = thread_.get_id();
}

void EventDelivery::Stop(std::chrono::steady_clock::time_point deadline) {
  if (!thread_.joinable()) return;
  EventList dropped;
  {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline,
                        [this] { return queue_.first == nullptr && current_ == nullptr; });
    ending_ = true;
    handler_ = nullptr;
    queue_.Swap(dropped);
  }
  changed_.notify_all();
  thread_.join();
}

int EventDelivery::Register(ISipStackEvent* handler) {
  const std::lock_guard lock(mutex_);
  if (handler == nullptr || handler_ != nullptr || ending_) return -1;
  handler_ = handler;
  return 0;
}

int EventDelivery::DeRegister(ISipStackEvent* handler) {
  EventList dropped;
  std::unique_lock lock(mutex_);
  if (handler == nullptr) return -1;
  const bool registered = handler_ == handler;
  if (registered) {
    handler_ = nullptr;
    queue_.Swap(dropped);
  }
  // Also when Stop took it off: its last call may still be under way.
  if (!OnThisThread()) {
    changed_.wait(lock, [&] { return current_ != handler; });
  }
  lock.unlock();  // before the dropped events are freed
  return registered ? 0 : -1;
}

void EventDelivery::Post(int id, std::unique_ptr<nsip_message> message, std::string reason,
                         long stack_id) noexcept {
  std::unique_ptr<Event> event(new (std::nothrow) Event);
  if (event == nullptr) {
    LiveCounters::Add(counters_.lost_no_memory);
    return;
  }
  event->id = id;
  event->message = std::move(message);
  event->reason = std::move(reason);
  event->stack_id = stack_id;
  {
    const std::lock_guard lock(mutex_);
    if (handler_ == nullptr) return;
    queue_.Push(event.release());
  }
  changed_.notify_all();
}

void EventDelivery::Run() noexcept {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ending_ || queue_.first != nullptr; });
    if (ending_) return;
    std::unique_ptr<Event> event = queue_.Pop();
    ISipStackEvent& handler = *handler_;
    current_ = &handler;
    lock.unlock();
    Deliver(handler, *event);
    event.reset();
    lock.lock();
    current_ = nullptr;
    changed_.notify_all();
  }
}

void EventDelivery::Deliver(ISipStackEvent& handler, Event& event) noexcept {
  SipStackEvent record{};
  record.nEventId = event.id;
  record.pMessage = event.message.get();
  record.szReason = event.id == SIP_EVENT_REGISTER_RESPONSE ? nullptr : event.reason.c_str();
  record.nStackId = event.stack_id;
  try {
    handler.OnStackEvent(&record);
  } catch (...) {
    LiveCounters::Add(counters_.lost_no_memory);
  }
}

}  // namespace sipcarrier
