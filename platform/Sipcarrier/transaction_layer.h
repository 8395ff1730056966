// The client side of the transaction layer: starts client transactions, matches responses to them,
// and tells their outcome. What the transport receives comes here first; requests go on to the
// server side.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/intrusive_list.h"
#include "Sipcarrier/branch_table.h"
#include "Sipcarrier/client_transaction.h"
#include "Sipcarrier/counters.h"
#include "Sipcarrier/local_address.h"
#include "Sipcarrier/server_layer.h"
#include "Sipcarrier/trace.h"

namespace sipcarrier {

// I/O thread only. No path that a message or a timer takes looks at more than its own transaction.
// `done` and `prepare` run with nothing of the layer half changed: they may submit.
class TransactionLayer final : public TransportSink, TransactionEvents, TimerSink {
 public:
  struct Timing {
    std::chrono::milliseconds t1, t2, t4;
  };
  TransactionLayer(const Timing& timing, TimerQueue& timers, LocalAddressFinder& finder,
                   Tracer& tracer, LiveCounters& counters, ServerLayer& server);
  TransactionLayer(const TransactionLayer&) = delete;
  TransactionLayer& operator=(const TransactionLayer&) = delete;
  ~TransactionLayer();

  // Before the first request; both outlive all use. `window`: how many requests may have left without
  // a sign of life from the other side; one that nothing came back for in T1 counts no more. What
  // comes back at once then fits into the socket's buffer, so that no start, however many begin
  // together, loses a response there.
  void Attach(Transport& transport, Resolver& resolver, std::size_t window) {
    transport_ = &transport;
    resolver_ = &resolver;
    window_ = window;
  }

  void Submit(std::unique_ptr<nsip_message> request, PrepareFn prepare, OutcomeFn done) noexcept;
  // Starts some of what was submitted, in order, as far as the window allows; at the end of every
  // turn of the loop.
  void StartFresh() noexcept;
  // There is more that can start at once.
  [[nodiscard]] bool can_start() const {
    return !fresh_.empty() && (in_window_ < window_ || closed_);
  }
  // No outcome is owed.
  [[nodiscard]] bool idle() { return all_.empty(); }
  // Ends everything: what has no answer fails, and so does what is submitted later.
  void FailAll() noexcept;

  void OnReceived(std::string_view text, const SocketAddress& from,
                  const SocketAddress& local) noexcept override;
  void OnUnreachable(const SocketAddress& to, int error) noexcept override;

 private:
  using DestinationList = base::IntrusiveList<ClientTransaction, DestinationTag>;

  void OnSent(Outgoing& message) noexcept override;
  void OnSendFailed(Outgoing& message, int error) noexcept override;
  void OnAddresses(ClientTransaction& transaction, std::span<const SocketAddress> addresses,
                   std::string_view failure) noexcept override;
  void OnRetransmitTimer(ClientTransaction& transaction) noexcept override;
  void OnDeadline(ClientTransaction& transaction) noexcept override;
  void OnTimer(Timer& timer) noexcept override;

  std::unique_ptr<ClientTransaction> Make() noexcept;
  void RefillSpares() noexcept;
  void Begin(ClientTransaction& transaction);
  void TryNext(ClientTransaction& transaction, std::string reason);
  void Send(ClientTransaction& transaction, const SocketAddress& to, const SocketAddress& local);
  bool Write(ClientTransaction& transaction, std::string& reason);
  std::shared_ptr<const Endpoint> EndpointOf(const SocketAddress& local);
  void Detach(ClientTransaction& transaction) noexcept;
  void LeaveWindow(ClientTransaction& transaction) noexcept;
  void LeaveDestination(ClientTransaction& transaction) noexcept;
  void Remove(ClientTransaction& transaction) noexcept;
  void Finish(ClientTransaction& transaction, Outcome outcome) noexcept;
  void Complete(ClientTransaction& transaction, std::unique_ptr<nsip_message> response) noexcept;
  void Fail(ClientTransaction& transaction, Outcome::Kind kind, std::string_view reason) noexcept;
  void FailNoMemory(ClientTransaction& transaction) noexcept;
  void Call(const OutcomeFn& done, Outcome outcome) noexcept;
  void Receive(std::string_view text, const SocketAddress& from, const SocketAddress& local);
  [[nodiscard]] BranchTable::Found Match(const nsip_message& response) const;
  void TryElsewhere(ClientTransaction& transaction, std::string_view problem, int error) noexcept;

  Timing timing_;
  TimerQueue& timers_;
  LocalAddressFinder& finder_;
  Tracer& tracer_;
  LiveCounters& counters_;
  ServerLayer& server_;
  Transport* transport_ = nullptr;
  Resolver* resolver_ = nullptr;

  // Owns its elements; every transaction alive is in it.
  base::IntrusiveList<ClientTransaction, AllTag> all_;
  base::IntrusiveList<ClientTransaction, FreshTag> fresh_;
  BranchTable branches_;
  Timer completed_timer_;  // timer K of those that are completed
  std::unordered_map<SocketAddress, DestinationList, SocketAddress::Hash> by_destination_;
  // The local endpoint that was used last, which as a rule is the only one.
  SocketAddress local_;
  std::shared_ptr<const Endpoint> local_endpoint_;
  std::string via_;  // kept for its capacity
  // So that a request can be refused in its proper form when memory is exhausted.
  std::array<std::unique_ptr<ClientTransaction>, 16> spares_;
  std::size_t window_ = 0;
  std::size_t in_window_ = 0;
  bool closed_ = false;
};

}  // namespace sipcarrier
