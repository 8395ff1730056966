// The stack as a whole: its parts, its two threads, its start and its end.
#pragma once

#include <atomic>
#include <optional>
#include <thread>

#include "base/intrusive_list.h"
#include "Sipcarrier/credentials.h"
#include "Sipcarrier/event_delivery.h"
#include "Sipcarrier/io_loop.h"
#include "Sipcarrier/transaction_layer.h"
#include "Sipcarrier/udp_transport.h"

namespace sipcarrier {

struct IoTimerTag;

// What stands behind the public timer; the list and the queue of the stack that it was set on last
// know it until that stack ends.
struct IoTimer::Impl final : base::ListHook<IoTimerTag>, TimerSink {
  explicit Impl(IoTimerSink& sink_in) : timer(*this), sink(sink_in) {}
  void OnTimer(Timer& /*timer*/) noexcept override { sink.OnIoTimer(); }

  Timer timer;
  IoTimerSink& sink;
};

// From one Start to the next Stop. Open and Stop: one thread at a time. Submit, and what server()
// gives but for its handlers: the I/O thread. The rest: any thread, as long as it holds a
// reference.
class Stack final : LoopClient, TimerSink {
 public:
  explicit Stack(const Config& config);  // may throw
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;
  ~Stack();

  // false and a text. May throw std::bad_alloc, std::system_error; then the stack is only fit to be
  // destroyed.
  [[nodiscard]] bool Open(const Config& config, std::string& error);
  void Stop(std::chrono::milliseconds deadline);

  [[nodiscard]] bool Post(std::function<void()> task) { return loop_.Post(std::move(task)); }
  void Submit(std::unique_ptr<nsip_message> request, PrepareFn prepare, OutcomeFn done) {
    transactions_.Submit(std::move(request), std::move(prepare), std::move(done));
  }
  // Any thread.
  void Ring(IoInbox& inbox) noexcept;
  // The I/O thread, and whoever has the stack alone once that has ended.
  void LookIntoInboxes() noexcept;
  // The I/O thread. false: stopping.
  [[nodiscard]] bool SetIoTimer(IoTimer::Impl& timer, std::chrono::milliseconds delay) noexcept;
  void CancelIoTimer(IoTimer::Impl& timer) noexcept { timers_.Cancel(timer.timer); }
  [[nodiscard]] std::chrono::milliseconds t1() const { return t1_; }
  [[nodiscard]] ServerLayer& server() { return server_; }
  [[nodiscard]] bool GuessLocalEndpoint(const nsip_uri& target, Endpoint& local);
  [[nodiscard]] const std::vector<SocketAddress>& bound() const { return bound_; }
  [[nodiscard]] const CredentialStore& credentials() const { return credentials_; }
  [[nodiscard]] LiveCounters& counters() { return counters_; }
  [[nodiscard]] EventDelivery& delivery() { return delivery_; }
  // The stack whose I/O thread the caller is on, or null.
  [[nodiscard]] static Stack* OfThisThread();

 private:
  void OnAlarm() noexcept override;
  void OnInbox() noexcept override { LookIntoInboxes(); }
  [[nodiscard]] bool HasInbox() const noexcept { return rung_.load() != nullptr; }
  bool OnTurnEnd() noexcept override;
  void OnTaskFailed() noexcept override { LiveCounters::Add(counters_.lost_no_memory); }
  void OnTimer(Timer& timer) noexcept override;
  void StartThreads();
  void EndIoTimers() noexcept;

  const std::chrono::milliseconds t1_;
  // In the order in which they need each other.
  LiveCounters counters_;
  CredentialStore credentials_;
  LocalAddressFinder finder_;
  Tracer tracer_;
  EventDelivery delivery_;
  IoLoop loop_;
  TimerQueue timers_;
  ServerLayer server_;
  TransactionLayer transactions_;
  std::unique_ptr<UdpTransport> udp_;
  std::optional<Resolver> resolver_;
  std::vector<SocketAddress> bound_;  // immutable once open
  Timer stop_timer_;
  base::IntrusiveList<IoTimer::Impl, IoTimerTag> io_timers_;  // were set once
  bool io_timers_closed_ = false;
  std::thread io_thread_;
  std::atomic<IoInbox*> rung_{nullptr};  // the newest first

  Clock::time_point stop_deadline_;  // written before stopping_
  std::atomic<bool> stopping_{false};
};

}  // namespace sipcarrier
