// The documents of one subscription to the event package "reg" (RFC 3680), brought into the order
// that its reader relies on, whatever the registrar's own manner is. Document in, document out: no
// network, no clock, no thread.
//
// The reader begins with the document of version "0", follows from then on the contact that came
// last in it, by its id, refuses versions that are not newer, and acts on a document only if no
// version is missing. So, for what is handed on:
//  1. Versions are "0", "1", "2" ..., one up each time, also across the dialogs of a subscription.
//  2. The client's own contact, recognised by its URI, has one id from first to last: the
//     registrar's own when it was first seen. So has the registration that holds it. What else
//     claims one of these ids gets another one, always the same.
//  3. It stands last among the contacts of its registration; in version "0" last of all, and
//     contacts of others that have ended are left out there.
//  4. Nothing is handed on before it has been seen, nor after its end until it is active again.
//  5. Its end is told once, as state "terminated", with the event that the document gives, or
//     "expired": also when a full document no longer names it, or its registration has ended.
//  6. Its event "shortened" is spelt "shorted".
// All else stays as it came, byte for byte, but for the prefix of <ri:reginfo>: it is taken off.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace subscription {

// One for each subscription that was asked for; it outlives the dialogs. Not thread-safe. Throws
// nothing but std::bad_alloc, and then it is as it was before the call.
class ReginfoSequence {
 public:
  enum class Verdict {
    kHandedOn,    // `document` is the reader's
    kRepeated,    // the same bytes as the document handed on last
    kHeldBack,    // rule 4
    kUnreadable,  // `reason` tells why
  };
  struct Result {
    Verdict verdict = Verdict::kUnreadable;
    // The registrar is to be asked for a full document: this one was unreadable, or it is a partial
    // one where a full one is due, at the begin of a dialog or behind an unreadable one (such a one
    // may be handed on nevertheless: what it says of the own contact holds).
    bool full_wanted = false;
    std::string document;
    std::string reason;  // for the log, whenever a full document is wanted
  };

  // The address of record that is subscribed to.
  explicit ReginfoSequence(std::string aor) : aor_(std::move(aor)) {}

  // One body, in the order of the NOTIFY's CSeq. `new_dialog`: the first one of its dialog.
  // `own_contacts`: the Contact URIs that the client has registered for the address of record now;
  // when there is none, the own contact is the one that it was. A body longer than any message is
  // unreadable.
  [[nodiscard]] Result Process(std::string_view body, bool new_dialog,
                               std::span<const std::string> own_contacts);

  // The subscription has been given up: from now on nothing but the own contact's end is handed on.
  // The last document of a subscription may say "active" of a binding that is about to go, and who
  // waits for its end would take that for news.
  void Close() noexcept { closing_ = true; }

 private:
  struct State {
    std::uint64_t version = 0;  // of the next document that is handed on
    bool full_due = true;
    bool alive = false;      // the reader knows the own contact as active
    std::string last_body;   // of the last document that was handed on, as it came
    std::string contact_id;  // rule 2; both empty before version 0
    std::string registration_id;
    // As the registrar wrote them last:
    std::string own_aor;
    std::string own_uri;
    std::string own_id;
  };
  class Step;

  const std::string aor_;
  bool closing_ = false;
  State state_;
};

}  // namespace subscription
