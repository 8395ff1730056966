// The delivery thread: hands stack events to the one handler, one at a time and in order.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "base/call_gate.h"
#include "base/mutex.h"
#include "Sipcarrier/counters.h"

namespace sipcarrier {

// Any thread. mutex_ is a leaf: not held while the handler runs, nor while events are freed.
// Invariant: the queue holds events only while a handler is registered.
class EventDelivery {
 public:
  explicit EventDelivery(LiveCounters& counters) : counters_(counters) {}
  EventDelivery(const EventDelivery&) = delete;
  EventDelivery& operator=(const EventDelivery&) = delete;
  ~EventDelivery();

  void Start();  // may throw std::system_error
  // Delivers what is queued up to the deadline, then ends the thread.
  void Stop(std::chrono::steady_clock::time_point deadline);

  int Register(ISipStackEvent* handler);
  int DeRegister(ISipStackEvent* handler);
  void Post(int id, std::unique_ptr<nsip_message> message, std::string reason,
            long stack_id) noexcept;
  [[nodiscard]] bool OnThisThread() const { return thread_id_ == std::this_thread::get_id(); }

 private:
  struct Event;
  struct EventList {
    Event* first = nullptr;
    Event* last = nullptr;
    EventList() = default;
    EventList(const EventList&) = delete;
    EventList& operator=(const EventList&) = delete;
    ~EventList();
    void Push(Event* event);
    std::unique_ptr<Event> Pop();
    void Swap(EventList& other);
  };
  void Run() noexcept;
  void Deliver(ISipStackEvent& handler, Event& event) noexcept;

  LiveCounters& counters_;
  std::thread thread_;
  std::thread::id thread_id_;  // immutable once started

  base::Mutex mutex_;
  base::CondVar changed_;
  base::CallGate<const ISipStackEvent*> calls_;  // to the handler
  EventList queue_ TOLVANE_GUARDED_BY(mutex_);
  ISipStackEvent* handler_ TOLVANE_GUARDED_BY(mutex_) = nullptr;
  bool ending_ TOLVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace sipcarrier
