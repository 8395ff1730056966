// sivra: the SIP user agent for registrations and for subscriptions, on top of Sipcarrier.
//
// Every sivra_register_ call stands between sivra_lock and sivra_unlock (not recursive) and may
// come from any thread. Nothing is thrown. Outcomes come later as stack events (Sipcarrier.h) on
// the delivery thread, with no lock of the library held.
//
// Entries. An entry stands for one binding: one Call-ID for its life, a CSeq that only rises, one
// Contact. At most one REGISTER of an entry is in flight (RFC 3261 §10.2); one more waits for its
// turn, and a newer one takes the place of the one that waits. Only a REGISTER that was in flight
// reports an outcome.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "nsip/nsip.h"
#include "visibility.h"

namespace sivra {
// What callers promise each other about set, build and send. The I/O thread never takes it.
TOLVANE_PUBLIC extern base::Mutex library_lock;
}  // namespace sivra

TOLVANE_PUBLIC void sivra_lock() TOLVANE_ACQUIRE(sivra::library_lock);
TOLVANE_PUBLIC void sivra_unlock() TOLVANE_RELEASE(sivra::library_lock);

// Makes an entry (id 0) or changes one; from and to are addr-spec or name-addr texts, also a bare
// display name before "<"; registrar is a URI. Ids run from 1 and are not reused. The entry's id;
// -1 when a text is no address, an id names no entry, or memory is exhausted. A changed From/To
// keeps Call-ID and CSeq.
TOLVANE_PUBLIC long sivra_register_set_info(long id, const std::string& from, const std::string& to,
                                            const std::string& registrar)
    TOLVANE_REQUIRES(sivra::library_lock);
// A REGISTER of this entry (RFC 3261 §10.2), complete but for what is settled when it leaves (Via,
// CSeq number, credentials, the final Contact address). The binding's expiry stands as the
// Contact's "expires" parameter: the registrar is asked for `expires` seconds; 0 asks for the
// removal of this binding and sets Expires: 0 too. 0 and a message that the caller owns; -1 and
// null: no such entry, an expiry below 0, stack not started, memory.
TOLVANE_PUBLIC int sivra_register_build_register(nsip_message** msg, long id, int expires)
    TOLVANE_REQUIRES(sivra::library_lock);
// Takes the message, whatever the result. 0: it is on its way and its outcome will be reported
// (unless a newer one takes its place while it waits). Non-zero: no such entry, stack not running,
// memory.
TOLVANE_PUBLIC int sivra_register_send_register(long id, nsip_message* msg)
    TOLVANE_REQUIRES(sivra::library_lock);
// Ends the entry: what is queued or in flight is finished, challenges included, and nothing more is
// reported but what is on its way to the handler already.
TOLVANE_PUBLIC void sivra_register_release(long id) TOLVANE_REQUIRES(sivra::library_lock);

namespace sivra {

// The Contact URIs (texts, with the address that was settled when the last REGISTER left) of the
// entries whose From is this address of record (nsip_aor_key), in the order of their ids. I/O
// thread.
[[nodiscard]] TOLVANE_PUBLIC std::vector<std::string> RegisteredContacts(
    const std::string& address_of_record);

// --- subscriptions (RFC 6665), any event package -------------------------------------------------
//
// A subscription is a wish that lives until Unsubscribe or until it has ended for good: behind it
// stands a SUBSCRIBE dialog, which is refreshed before it runs out and made anew when it was lost,
// with pauses that grow. Lost: 481, 408, no answer, no NOTIFY within 64 * T1 of a SUBSCRIBE, a
// grant that ran out because its refresh was refused (RFC 6665 §4.1.2.2), a NOTIFY "terminated"
// that is not final. At the end of every Unsubscribe and of every end that the notifier meant OnEnd
// comes once, as the listener's last call. What ends for good:
//   NOTIFY "terminated" with "rejected", "noresource" or "invariant" (RFC 6665 §4.1.3);
//   any 3xx-6xx to the SUBSCRIBE that was to make a dialog, but for 408, 480, 481, 486, 487, 491,
//   500, 502-504, 600 and whatever comes with Retry-After: those are asked again (after that time,
//   at most an hour). 401, 407 and 423 are answered first;
//   Stop of the stack, without a word to the notifiers: OnEnd comes before Stop returns.

struct SubscriptionInfo {
  std::string from;  // addr-spec or name-addr; names the credentials too
  // The same; its URI is the Request-URI. While `from` is registered by an entry, the SUBSCRIBE
  // goes to that entry's registrar, with a Route where the URI does not lead there by itself.
  std::string to;
  std::string event;    // "reg": a token
  std::string accept;   // "application/reginfo+xml"; other bodies are answered 415
  int expires = 3600;   // seconds to ask for; above 0
  bool refresh = true;  // false: it runs out, which is its end
};

// Called on the stack's I/O thread, with no lock held: to be left soon. Must not throw. It may call
// the functions below.
class TOLVANE_PUBLIC SubscriptionListener {
 public:
  virtual ~SubscriptionListener();
  // The body of a NOTIFY, in the order of the notifier's CSeq within a dialog; for one that another
  // has overtaken (RFC 3261 §12.2.2) the full state is asked for. `new_dialog`: the first body of a
  // dialog, which with RFC 3680 is a full document and starts a numbering anew.
  virtual void OnNotify(long id, const std::string& body, bool new_dialog) = 0;
  // `status`: the final SIP status when a SUBSCRIBE was refused, otherwise 0.
  virtual void OnEnd(long id, int status, const std::string& reason) = 0;
};

// Starts a subscription; the network follows. Its id, from 1, never used twice; -1: a text is no
// address, event no token, expires below 1, stack not started, memory. Any thread.
[[nodiscard]] TOLVANE_PUBLIC long Subscribe(const SubscriptionInfo& info,
                                            std::shared_ptr<SubscriptionListener> listener);
// Ends it: SUBSCRIBE with Expires 0, its final NOTIFY (waited for, but not for ever), OnEnd. Bodies
// that come on the way are still told. False: no such subscription, or memory.
TOLVANE_PUBLIC bool Unsubscribe(long id);
// Asks the notifier for its full state by a SUBSCRIBE in the dialog (RFC 6665 §4.1.2.2), at most
// once in a while. False: no such subscription, or memory.
TOLVANE_PUBLIC bool RefreshSubscription(long id);
// Ends all that this listener has, without another word to it: it waits for a call under way. For a
// plug-in that is about to be unloaded; not on the I/O thread. What is owed to the notifiers is
// still sent.
TOLVANE_PUBLIC void ForgetListener(const SubscriptionListener* listener);
// Subscriptions alive, those that still say goodbye included.
[[nodiscard]] TOLVANE_PUBLIC std::size_t SubscriptionCount();

// Frees a message that sivra_register_build_register gave and that will not be sent.
TOLVANE_PUBLIC void FreeMessage(nsip_message* msg);
// Entries alive, released ones that still finish included. For tests and diagnostics; any thread.
TOLVANE_PUBLIC std::size_t EntryCount();
}  // namespace sivra
