// The server side of the transaction layer: takes requests, lets their handlers answer, and answers
// itself what nobody handles.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/intrusive_list.h"
#include "Sipcarrier/counters.h"
#include "Sipcarrier/local_address.h"
#include "Sipcarrier/request_handlers.h"
#include "Sipcarrier/server_transaction.h"
#include "Sipcarrier/trace.h"

namespace sipcarrier {

// I/O thread, but for handlers(). Nothing in a request is trusted. What a flood can hold is
// bounded: kMaxTransactions, each of at most kMaxKept bytes and what its handler adds. When all
// places are taken the answered transaction that is longest answered goes (a copy of its request
// would count as new); when none is answered the new request is dropped.
class ServerLayer final : ServerTransactionEvents {
 public:
  static constexpr std::size_t kMaxTransactions = 4096;
  // The Via headers of a long chain of proxies and the identifiers of a call take a part of it.
  static constexpr std::size_t kMaxKept = 4096;

  ServerLayer(std::chrono::milliseconds t1, TimerQueue& timers, LocalAddressFinder& finder,
              Tracer& tracer, LiveCounters& counters)
      : t1_(t1), timers_(timers), finder_(finder), tracer_(tracer), counters_(counters) {}
  ServerLayer(const ServerLayer&) = delete;
  ServerLayer& operator=(const ServerLayer&) = delete;
  ~ServerLayer() { Close(); }

  // Before the first request; it outlives all use.
  void Attach(Transport& transport) { transport_ = &transport; }
  [[nodiscard]] RequestHandlers& handlers() { return handlers_; }

  // A request that came as this text. What is thrown, by a handler too, has cost this request and
  // nothing else: its next copy counts as new.
  void Receive(std::unique_ptr<nsip_message> request, std::string_view text,
               const SocketAddress& from, const SocketAddress& local);
  bool Respond(ServerTransactionId id, int status, std::string_view reason,
               const std::vector<nsip_header>& headers, std::string_view to_tag) noexcept;
  // Ends all transactions without a word and takes the handlers away.
  void Close() noexcept;

 private:
  void OnSent(Outgoing& message) noexcept override;
  void OnSendFailed(Outgoing& message, int error) noexcept override;
  void OnEnd(ServerTransaction& transaction) noexcept override { Remove(transaction); }

  void Repeat(ServerTransaction& transaction) noexcept;
  ServerTransaction* Begin(nsip_message& request, std::string key, const SocketAddress& from,
                           const SocketAddress& local);
  void Serve(std::unique_ptr<nsip_message> request, ServerTransactionId id,
             const SocketAddress& local);
  [[nodiscard]] bool MakeRoom() noexcept;
  void Remove(ServerTransaction& transaction) noexcept;

  std::chrono::milliseconds t1_;
  TimerQueue& timers_;
  LocalAddressFinder& finder_;
  Tracer& tracer_;
  LiveCounters& counters_;
  Transport* transport_ = nullptr;
  RequestHandlers handlers_;

  // Owns the transactions; the keys live in them.
  std::unordered_map<std::string_view, std::unique_ptr<ServerTransaction>> by_key_;
  std::unordered_map<ServerTransactionId, ServerTransaction*> unanswered_;
  base::IntrusiveList<ServerTransaction, CompletedTag> completed_;  // in the order of their answers
};

}  // namespace sipcarrier
