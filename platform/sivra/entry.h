// What is on the wire for one binding: its REGISTER in flight, the one that waits, what is known of
// its authentication and of the address in its Contact.
//
// Thread: the I/O thread, which alone has it (wire.h), but for Silence. Invariants:
//   E1. The CSeq number rises with each request that leaves, and is settled then.
//   E2. At most one REGISTER is in flight and one waits; none waits when none is in flight.
//   E3. An entry with a REGISTER in flight is not freed: the stack holds plain pointers to it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/intrusive_list.h"
#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/authenticator.h"
#include "sivra/identity.h"

namespace sivra {

using SharedIdentity = std::shared_ptr<const Identity>;
using SharedEndpoint = std::shared_ptr<const sipcarrier::Endpoint>;

struct ReleasedTag;

class Entry : public base::ListHook<ReleasedTag> {
 public:
  explicit Entry(SharedIdentity identity) : identity_(std::move(identity)) {}
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  [[nodiscard]] const Identity& identity() const { return *identity_; }
  void set_identity(SharedIdentity identity) { identity_ = std::move(identity); }

  // Takes a REGISTER. true: it is the one in flight now, the caller sees to its departure; false:
  // it waits, and what waited before is gone.
  [[nodiscard]] bool Submit(std::unique_ptr<nsip_message> message);
  // The request in flight is over: the waiting one takes its place, or none does (false).
  [[nodiscard]] bool Next();
  [[nodiscard]] bool in_flight() const { return in_flight_; }

  // The request in flight as it goes out now: next CSeq number, credentials. It is the stack's
  // until its outcome. Null when it cannot be authorised.
  [[nodiscard]] std::unique_ptr<nsip_message> Depart();
  // Puts the address that the registrar can reach into the Contact.
  void SettleContact(nsip_message& request, SharedEndpoint local);
  // Whether this outcome is a challenge to answer: its request is to depart once more then.
  [[nodiscard]] bool TakeChallenge(sipcarrier::Outcome& outcome);
  // What a final response to this request means for it and for later requests.
  void Learn(const nsip_message* request, nsip_message& response);

  // Where the Contact pointed when a REGISTER left last; null when none has.
  [[nodiscard]] const SharedEndpoint& local() const { return local_; }

  // Any thread: from now on nothing is reported, also of what the I/O thread is about to conclude.
  void Silence() { silent_.store(true, std::memory_order_relaxed); }
  [[nodiscard]] bool silent() const { return silent_.load(std::memory_order_relaxed); }
  void set_released() { released_ = true; }
  [[nodiscard]] bool released() const { return released_; }

 private:
  friend class AddressIndex;

  SharedIdentity identity_;
  std::uint32_t cseq_ = 0;       // of the request that left last
  std::uint8_t departures_ = 0;  // of the REGISTER in flight, challenges included
  bool in_flight_ = false;
  bool released_ = false;
  std::atomic<bool> silent_{false};
  std::uint32_t own_headers_ = 0;  // of current_; credentials come behind them
  SharedEndpoint local_;
  Authenticator authenticator_;
  std::unique_ptr<nsip_message> current_;  // in flight; null while the stack has it
  std::unique_ptr<nsip_message> waiting_;
  bool indexed_ = false;
  Entry* next_by_address_ = nullptr;
};

}  // namespace sivra
