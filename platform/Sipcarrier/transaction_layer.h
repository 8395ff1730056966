// The client side of the transaction layer: starts client transactions, matches responses to them,
// and tells their outcome. What the transport receives comes here first; requests go on to the
// server side.
#pragma once

#include <array>
#include <string_view>
#include <unordered_map>

#include "base/intrusive_list.h"
#include "Sipcarrier/client_transaction.h"
#include "Sipcarrier/counters.h"
#include "Sipcarrier/local_address.h"
#include "Sipcarrier/server_layer.h"
#include "Sipcarrier/trace.h"

namespace sipcarrier {

// I/O thread only. No path that a message or a timer takes looks at more than its own transaction.
// `done` and `prepare` run with nothing of the layer half changed: they may submit.
class TransactionLayer final : public TransportSink, TransactionEvents {
 public:
  struct Timing {
    std::chrono::milliseconds t1, t2, t4;
  };
  TransactionLayer(const Timing& timing, TimerQueue& timers, LocalAddressFinder& finder,
                   Tracer& tracer, LiveCounters& counters, ServerLayer& server);
  TransactionLayer(const TransactionLayer&) = delete;
  TransactionLayer& operator=(const TransactionLayer&) = delete;
  ~TransactionLayer();

  // Before the first request; both outlive all use.
  void Attach(Transport& transport, Resolver& resolver) {
    transport_ = &transport;
    resolver_ = &resolver;
  }

  void Submit(std::unique_ptr<nsip_message> request, PrepareFn prepare, OutcomeFn done) noexcept;
  // Starts what was submitted before this call; at the end of every turn of the loop.
  void StartFresh() noexcept;
  [[nodiscard]] bool has_fresh() const { return !fresh_.empty(); }
  // No outcome is owed.
  [[nodiscard]] bool idle() const { return owed_ == 0; }
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

  std::unique_ptr<ClientTransaction> Make() noexcept;
  void RefillSpares() noexcept;
  void Begin(ClientTransaction& transaction);
  void TryNext(ClientTransaction& transaction, std::string reason);
  void Send(ClientTransaction& transaction, const SocketAddress& to, const SocketAddress& local);
  bool Write(ClientTransaction& transaction, std::string& reason);
  void Detach(ClientTransaction& transaction) noexcept;
  void LeaveDestination(ClientTransaction& transaction) noexcept;
  void Remove(ClientTransaction& transaction) noexcept;
  void Finish(ClientTransaction& transaction, Outcome outcome) noexcept;
  void Fail(ClientTransaction& transaction, Outcome::Kind kind, std::string_view reason) noexcept;
  void FailNoMemory(ClientTransaction& transaction) noexcept;
  void Call(const OutcomeFn& done, Outcome outcome) noexcept;
  void Receive(std::string_view text, const SocketAddress& from, const SocketAddress& local);
  [[nodiscard]] ClientTransaction* Match(const nsip_message& response) const;
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
  std::unordered_map<std::string_view, ClientTransaction*>
      by_branch_;  // keys live in the transactions
  std::unordered_map<SocketAddress, DestinationList, SocketAddress::Hash> by_destination_;
  // So that a request can be refused in its proper form when memory is exhausted.
  std::array<std::unique_ptr<ClientTransaction>, 16> spares_;
  std::size_t owed_ = 0;
  bool closed_ = false;
};

}  // namespace sipcarrier
