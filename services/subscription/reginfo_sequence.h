// The documents of one subscription to the event package "reg" (RFC 3680), brought into the order
// that their reader relies on, whatever the registrar's own manner is. Document in, document out:
// no network, no clock, no thread.
//
// The reader begins with the document of version "0". From then on it follows, by its id, the
// contact that came last in it; it refuses versions that are not newer, and acts on a document only
// if no version is missing. So, for what is handed on:
//  1. Versions are "0", "1", "2" ..., one up each time, also across the dialogs of a subscription.
//     The registrar's own numbers are not looked at: some write "0" always, and change the content.
//     Only the same bytes as the document handed on last are a repetition.
//  2. The client's own contact has one id from first to last: the registrar's own when it was first
//     seen. So has the registration that holds it. An element of others with one of these ids, with
//     or without tildes behind it, gets one tilde more. That takes no table, gives the same id
//     always, and no two ids become one.
//  3. It stands last among the contacts of its registration. In version "0" it stands last of all,
//     and contacts of others that have ended are left out there.
//  4. Nothing is handed on before it has been seen, nor between its end and its return. A version
//     "0" without it would have the reader follow somebody else's contact, and a document behind
//     its end would report the end again. The price: a binding that is removed before the first
//     document is written is not missed until its next refresh, which makes it again. Notifiers lag
//     behind their location table, so a document without the contact is no proof that it is gone.
//  5. Its end is reported once, as state "terminated", also when a full document no longer names it
//     or its registration has ended. The event is the document's if it is one of RFC 3680's five,
//     else "expired": with any other word the reader would stop the refresh and say nothing.
//  6. Its event "shortened" is spelt "shorted".
// All else stays as it came, byte for byte: Expat finds the ranges and values are replaced in
// place. Only the prefix of <ri:reginfo> is taken off RFC 3680's own element names, since the
// reader knows names only.
//
// How the own contact is found. Its URI is equal by RFC 3261 §19.1.4; of several the one with the
// same parameters is taken, since §19.1.4 passes over a "line" that only one side has. The one
// exception is a URI that is equal but for port 5060 and transport=udp. A <uri> with a name-addr is
// read; a contact without <uri> is the one that its id names. A former contact of the client counts
// while it lives, and its end is not reported.
//
// Which registration is followed. That of the subscribed address of record, else the last one that
// holds the contact: with implicit registration sets the contact stands in several, and one that
// ends must not end ours. Another one is taken only when a full document does not name the followed
// one and has the contact active elsewhere. In version "0" the followed registration is moved to
// the end if contacts come behind it.
//
// A partial document where a full one is due is handed on as far as the rules allow, and a full one
// is asked for: what it says of the own contact holds, and some registrars never send a full one. A
// document is unreadable if CXML refuses it (another encoding, a document type, NUL), if it is
// longer than a SIP message, or if the own contact or registration lacks a mandatory attribute.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace subscription {

// One for each subscription that the client asked for; it outlives the dialogs. Not thread-safe.
// Throws nothing but std::bad_alloc, and then it is as it was before the call.
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
    // The registrar is to be asked for a full document: this one was unreadable, or it is partial
    // where a full one is due, at the begin of a dialog or behind an unreadable one.
    bool full_wanted = false;
    std::string document;
    std::string reason;  // for the log, whenever a full document is wanted
  };

  // The address of record that is subscribed to.
  explicit ReginfoSequence(std::string aor) : aor_(std::move(aor)) {}

  // One body, in the order of the NOTIFY's CSeq. `new_dialog`: the first one of its dialog.
  // `own_contacts`: the Contact URIs that the client has registered for the address of record now;
  // when there is none, the own contact stays the one that it was.
  [[nodiscard]] Result Process(std::string_view body, bool new_dialog,
                               std::span<const std::string> own_contacts);

  // The client has ended the subscription: from now on only the own contact's end is handed on. The
  // last document may say "active" of a binding that is about to be removed, and the reader would
  // take that for the end of the registration, ahead of the response to its deregistration.
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
