// One request on its way: from SendRequest through the lookup of its destination to the outcome of
// the non-INVITE client transaction of RFC 3261 §17.1.2.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/intrusive_list.h"
#include "Sipcarrier/branch_table.h"
#include "Sipcarrier/resolver.h"
#include "Sipcarrier/Sipcarrier.h"
#include "Sipcarrier/timer_queue.h"
#include "Sipcarrier/transport.h"

namespace sipcarrier {

class ClientTransaction;

// What happens to a transaction on its own. The transaction may be gone afterwards.
class TransactionEvents : public SendEvents {
 public:
  virtual void OnAddresses(ClientTransaction& transaction, std::span<const SocketAddress> addresses,
                           std::string_view failure) noexcept = 0;
  virtual void OnRetransmitTimer(ClientTransaction& transaction) noexcept = 0;
  virtual void OnDeadline(ClientTransaction& transaction) noexcept = 0;

 protected:
  ~TransactionEvents() = default;
};

struct AllTag;
struct FreshTag;
struct DestinationTag;

// The record that the transaction layer works on. Making one takes no memory but its own, so that a
// few can be kept in reserve. Owned by the layer; I/O thread. It ends with its outcome: what lasts
// until timer K is a mark in the branch table. Invariants:
//   1. `done` is set until it has been taken to be called.
//   2. In states kTrying and kProceeding the transaction is in the branch table and in its
//      destination's list.
class ClientTransaction final : public base::ListHook<AllTag>,
                                public base::ListHook<FreshTag>,
                                public base::ListHook<DestinationTag>,
                                public LookupWaiter,
                                public Outgoing,
                                TimerSink {
 public:
  enum class State { kFresh, kResolving, kTrying, kProceeding };

  explicit ClientTransaction(TransactionEvents& events)
      : Outgoing(events), retransmit_timer(*this), deadline_timer(*this), events_(events) {}

  State state = State::kFresh;
  bool in_window = false;  // the layer counts it
  std::uint16_t port = 0;
  unsigned sends = 0;
  std::unique_ptr<nsip_message> request;
  PrepareFn prepare;
  OutcomeFn done;

  // Of a name's addresses, those that are still to be tried.
  std::vector<SocketAddress> candidates;
  std::size_t next_candidate = 0;
  std::string host;  // of a name, for reasons

  std::uint32_t place = BranchTable::kNowhere;
  SocketAddress local;
  std::shared_ptr<const Endpoint> sent_by;
  Transport* transport = nullptr;
  std::string text;  // serialised, for retransmission

  Timer retransmit_timer;  // timer E
  Timer deadline_timer;    // the lookup's deadline, then timer F
  std::chrono::milliseconds interval{0};

 private:
  void OnResolved(std::span<const SocketAddress> addresses,
                  std::string_view failure) noexcept override {
    events_.OnAddresses(*this, addresses, failure);
  }
  void OnTimer(Timer& timer) noexcept override {
    &timer == &retransmit_timer ? events_.OnRetransmitTimer(*this) : events_.OnDeadline(*this);
  }

  TransactionEvents& events_;
};

}  // namespace sipcarrier
