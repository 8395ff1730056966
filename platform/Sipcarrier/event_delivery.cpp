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
    const base::MutexLock lock(mutex_);
    while ((queue_.first != nullptr || calls_.busy(mutex_)) &&
           changed_.WaitUntil(mutex_, deadline)) {
    }
    ending_ = true;
    handler_ = nullptr;
    queue_.Swap(dropped);
  }
  changed_.NotifyAll();
  thread_.join();
}

int EventDelivery::Register(ISipStackEvent* handler) {
  const base::MutexLock lock(mutex_);
  if (handler == nullptr || handler_ != nullptr || ending_) return -1;
  handler_ = handler;
  return 0;
}

int EventDelivery::DeRegister(ISipStackEvent* handler) {
  EventList dropped;
  base::MutexLock lock(mutex_);
  if (handler == nullptr) return -1;
  const bool registered = handler_ == handler;
  if (registered) {
    handler_ = nullptr;
    queue_.Swap(dropped);
  }
  // Also when Stop took it off: its last call may still be under way.
  calls_.AwaitEnd(mutex_, [handler](const ISipStackEvent* called) { return called == handler; });
  lock.Unlock();  // before the dropped events are freed
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
    const base::MutexLock lock(mutex_);
    if (handler_ == nullptr) return;
    queue_.Push(event.release());
  }
  changed_.NotifyAll();
}

void EventDelivery::Run() noexcept {
  base::MutexLock lock(mutex_);
  for (;;) {
    while (!ending_ && queue_.first == nullptr) changed_.Wait(mutex_);
    if (ending_) return;
    std::unique_ptr<Event> event = queue_.Pop();
    ISipStackEvent& handler = *handler_;
    calls_.Enter(mutex_, &handler);
    lock.Unlock();
    Deliver(handler, *event);
    event.reset();
    lock.Lock();
    calls_.Leave(mutex_);
    changed_.NotifyAll();
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
