// The delivery thread: hands stack events to the one handler, one at a time and in order.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "base/call_gate.h"
#include "base/intrusive_list.h"
#include "base/mutex.h"
#include "Sipcarrier/counters.h"

namespace sipcarrier {

// Any thread, but for Collect and HandOver. mutex_ is a leaf: not held while the handler runs, nor
// while events are freed. Invariant: the queue holds events only while a handler is registered.
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
  // The I/O thread: the same, but it goes over with the next HandOver. So a turn of the loop costs
  // one hand-over, however many responses it brought in.
  void Collect(int id, std::unique_ptr<nsip_message> message, std::string reason,
               long stack_id) noexcept;
  void HandOver() noexcept;
  [[nodiscard]] bool OnThisThread() const { return thread_id_ == std::this_thread::get_id(); }

 private:
  struct Event : base::ListHook<Event> {
    int id = 0;
    std::unique_ptr<nsip_message> message;
    std::string reason;
    long stack_id = 0;
  };
  using EventList = base::IntrusiveList<Event, Event>;
  static void Free(EventList& events) noexcept;
  [[nodiscard]] Event* Make(int id, std::unique_ptr<nsip_message> message, std::string reason,
                            long stack_id) noexcept;
  void HandOver(EventList& events) noexcept;
  void Run() noexcept;
  void Deliver(ISipStackEvent& handler, Event& event) noexcept;

  LiveCounters& counters_;
  std::thread thread_;
  std::thread::id thread_id_;  // immutable once started
  EventList collected_;        // the I/O thread's

  base::Mutex mutex_;
  base::CondVar work_;                           // for the thread
  base::CondVar changed_;                        // for those who wait for it
  base::CallGate<const ISipStackEvent*> calls_;  // to the handler
  EventList queue_ TOLVANE_GUARDED_BY(mutex_);
  ISipStackEvent* handler_ TOLVANE_GUARDED_BY(mutex_) = nullptr;
  bool waiting_ TOLVANE_GUARDED_BY(mutex_) = false;  // the thread has nothing to do
  bool ending_ TOLVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace sipcarrier
