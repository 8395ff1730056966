// One request from outside, from its arrival to the end of timer J: the non-INVITE server
// transaction of RFC 3261 §17.2.2. Provisional answers are not sent, so there is no Proceeding.
#pragma once

#include <string>

#include "base/intrusive_list.h"
#include "Sipcarrier/Sipcarrier.h"
#include "Sipcarrier/timer_queue.h"
#include "Sipcarrier/transport.h"

namespace sipcarrier {

class ServerTransaction;

class ServerTransactionEvents : public SendEvents {
 public:
  // Nobody has answered in time, or timer J. The transaction may be gone afterwards.
  virtual void OnEnd(ServerTransaction& transaction) noexcept = 0;

 protected:
  ~ServerTransactionEvents() = default;
};

struct CompletedTag;

// The record that the server layer works on, its owner; I/O thread. Invariant: until it is answered
// the id is in the layer's table and the transaction in no list; then it is in the list of the
// answered ones.
class ServerTransaction final : public base::ListHook<CompletedTag>, public Outgoing, TimerSink {
 public:
  explicit ServerTransaction(ServerTransactionEvents& events)
      : Outgoing(events), end_timer(*this), events_(events) {}

  ServerTransactionId id = 0;
  bool completed = false;
  std::string key;
  SocketAddress local;
  std::string text;  // until it is answered: what the answer repeats; then the answer
  Timer end_timer;

 private:
  void OnTimer(Timer& /*timer*/) noexcept override { events_.OnEnd(*this); }

  ServerTransactionEvents& events_;
};

}  // namespace sipcarrier
