// One request on its way: from SendRequest through the lookup of its destination and the non-INVITE
// client transaction of RFC 3261 §17.1.2 to the end of timer K.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/intrusive_list.h"
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
// few can be kept in reserve. Owned by the layer; I/O thread. Invariants: 1. `done` is set until it
// has been taken to be called. 2. With state kTrying to kCompleted the branch is in the layer's
// table; in kTrying and kProceeding the transaction is in its destination's list.
class ClientTransaction final : public base::ListHook<AllTag>,
                                public base::ListHook<FreshTag>,
                                public base::ListHook<DestinationTag>,
                                public LookupWaiter,
                                public Outgoing,
                                TimerSink {
 public:
  enum class State { kFresh, kResolving, kTrying, kProceeding, kCompleted };

  explicit ClientTransaction(TransactionEvents& events)
      : Outgoing(events), retransmit_timer(*this), deadline_timer(*this), events_(events) {}

  State state = State::kFresh;
  bool finished = false;  // `done` has been taken
  bool has_via = false;   // request->vias begins with ours
  unsigned sends = 0;
  std::unique_ptr<nsip_message> request;  // until the last address is being tried
  PrepareFn prepare;
  OutcomeFn done;

  std::vector<SocketAddress> candidates;
  std::size_t next_candidate = 0;
  std::uint16_t port = 0;
  std::string host;  // for reasons

  std::string branch;
  std::string method;
  std::string sent_by_host;
  std::uint16_t sent_by_port = 0;
  SocketAddress local;
  Transport* transport = nullptr;
  std::string text;  // serialised, for retransmission

  Timer retransmit_timer;  // timer E
  Timer deadline_timer;    // the lookup's deadline, then timer F, then timer K
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
