#include "Sipcarrier/event_delivery.h"

#include <new>
#include <utility>

namespace sipcarrier {

void EventDelivery::Free(EventList& events) noexcept {
  while (Event* const event = events.PopFront()) delete event;
}

EventDelivery::~EventDelivery() {
  Stop(std::chrono::steady_clock::time_point{});
  Free(collected_);
}

void EventDelivery::Start() {
  thread_ = std::thread([this] { Run(); });
  thread_id_ = thread_.get_id();
}

void EventDelivery::Stop(std::chrono::steady_clock::time_point deadline) {
  if (!thread_.joinable()) return;
  EventList dropped;
  {
    const base::MutexLock lock(mutex_);
    while ((!queue_.empty() || calls_.busy(mutex_)) && changed_.WaitUntil(mutex_, deadline)) {
    }
    ending_ = true;
    handler_ = nullptr;
    dropped.Splice(queue_);
  }
  work_.NotifyAll();
  thread_.join();
  Free(dropped);
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
    dropped.Splice(queue_);
  }
  // Also when Stop took it off: its last call may still be under way.
  calls_.AwaitEnd(mutex_, [handler](const ISipStackEvent* called) { return called == handler; });
  lock.Unlock();
  Free(dropped);
  return registered ? 0 : -1;
}

EventDelivery::Event* EventDelivery::Make(int id, std::unique_ptr<nsip_message> message,
                                          std::string reason, long stack_id) noexcept {
  Event* const event = new (std::nothrow) Event;
  if (event == nullptr) {
    LiveCounters::Add(counters_.lost_no_memory);
    return nullptr;
  }
  event->id = id;
  event->message = std::move(message);
  event->reason = std::move(reason);
  event->stack_id = stack_id;
  return event;
}

void EventDelivery::Collect(int id, std::unique_ptr<nsip_message> message, std::string reason,
                            long stack_id) noexcept {
  Event* const event = Make(id, std::move(message), std::move(reason), stack_id);
  if (event != nullptr) collected_.PushBack(*event);
}

void EventDelivery::Post(int id, std::unique_ptr<nsip_message> message, std::string reason,
                         long stack_id) noexcept {
  EventList events;
  Event* const event = Make(id, std::move(message), std::move(reason), stack_id);
  if (event == nullptr) return;
  events.PushBack(*event);
  HandOver(events);
}

void EventDelivery::HandOver() noexcept {
  if (!collected_.empty()) HandOver(collected_);
}

void EventDelivery::HandOver(EventList& events) noexcept {
  bool wake = false;
  {
    const base::MutexLock lock(mutex_);
    if (handler_ != nullptr) {
      queue_.Splice(events);
      wake = std::exchange(waiting_, false);
    }
  }
  Free(events);  // for nobody
  if (wake) work_.NotifyOne();
}

void EventDelivery::Run() noexcept {
  base::MutexLock lock(mutex_);
  for (;;) {
    while (!ending_ && queue_.empty()) {
      waiting_ = true;
      work_.Wait(mutex_);
    }
    waiting_ = false;
    if (ending_) return;
    const std::unique_ptr<Event> event(queue_.PopFront());
    ISipStackEvent& handler = *handler_;
    calls_.Enter(mutex_, &handler);
    lock.Unlock();
    Deliver(handler, *event);
    event->message.reset();
    lock.Lock();
    calls_.Leave(mutex_);
    if (queue_.empty()) changed_.NotifyAll();
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
