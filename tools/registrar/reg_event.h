// What the registrar's notifier of the event package "reg" (RFC 6665, RFC 3680) can be told to do:
// its options and the orders, which are functions of Registrar.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace registrar {

// How documents number themselves. Proper is RFC 3680 §5.1; the others are met in the field.
enum class Versions {
  kProper,  // for each subscription from 0, up by one
  kOne,     // for each subscription from 1, up by one
  kAor,     // one count from 0 for the address of record, whoever gets the documents
  kZero,    // always 0
  kGaps,    // for each subscription 2, 5, 8 ...
  kTwice,   // for each subscription 0, 0, 1, 1 ...
};
enum class ContactIds {
  kStable,   // as long as the binding lives
  kFresh,    // new in each document
  kSwapped,  // the contacts of a document pass their ids around, one place further each time
};
enum class Documents {
  kFull,
  kPartial,  // changes only; the first of a subscription and that of a refresh are full
};
enum class Gone {
  kListed,   // once, as terminated
  kMissing,  // the next full document no longer contains it
};

struct RegEventOptions {
  Versions versions = Versions::kProper;
  ContactIds contact_ids = ContactIds::kStable;
  Documents documents = Documents::kFull;
  Gone gone = Gone::kListed;
  int min_expires = 0;         // the response to a shorter expiry above 0 is 423; 0: never
  int max_expires = 7200;      // a longer expiry is cut
  int default_expires = 3761;  // RFC 3680 §4.4
  bool pending = false;        // new subscriptions wait for Approve
  // Timer E of a NOTIFY begins with t1 and grows up to 8 * t1; timer F is 64 * t1.
  std::chrono::milliseconds t1{500};
};

// RFC 3680 §5.1.
enum class ContactEvent {
  kRegistered,
  kCreated,
  kRefreshed,
  kShortened,
  kExpired,
  kDeactivated,
  kProbation,
  kUnregistered,
  kRejected,
};
[[nodiscard]] const char* Word(ContactEvent event);
// Whether the event ends the binding.
[[nodiscard]] constexpr bool Terminates(ContactEvent event) {
  return event >= ContactEvent::kExpired;
}

// What the registrar's operator does to bindings; the subscribers are notified.
struct Order {
  ContactEvent event = ContactEvent::kDeactivated;
  std::string aor;
  std::string contact;  // empty: all bindings of the address of record
  // kShortened: what is left from now on. kCreated, kRegistered, kRefreshed: what is granted, by
  // default max_expires. kProbation: retry-after, by default none. Others: not used.
  std::optional<int> seconds;
};

// A NOTIFY by order, to every subscription of the address of record, behind those that wait.
struct NotifyOrder {
  std::string aor;
  std::optional<std::string> body;  // unset: the full document; empty: no body, no Content-Type
  std::string content_type = "application/reginfo+xml";
  std::string event;                  // of the Event header; empty: what was subscribed to
  std::string subscription_state;     // empty: the true one
  std::optional<std::uint32_t> cseq;  // instead of the next one, which is not used up
  int copies = 1;                     // of the datagram, at once; at most 16
  // With a Call-ID and tags of no dialog, and a CSeq of 1; the 481 that it gets ends nothing.
  bool foreign = false;
};

enum class SubscriptionState { kActive, kPending, kTerminated };
[[nodiscard]] const char* Word(SubscriptionState state);

struct SubscriptionView {
  std::string aor;
  std::string call_id;
  std::string target;  // the subscriber's Contact
  // kTerminated: its last NOTIFY is under way.
  SubscriptionState state = SubscriptionState::kActive;
  int left = 0;  // seconds
  std::uint32_t refreshes = 0;
  std::uint64_t notifies = 0;  // sent, without retransmissions
  std::size_t waiting = 0;     // NOTIFYs without a response, or not yet sent
  int last_status = 0;         // of the last response to a NOTIFY; 0: none yet
};

struct RegEventCounters {
  std::uint64_t subscribes = 0;  // SUBSCRIBE requests without retransmissions
  std::uint64_t notifies = 0;    // without retransmissions
  std::uint64_t retransmissions = 0;
  std::map<int, std::uint64_t> responses;  // final statuses; 408: no response in time
};

}  // namespace registrar
