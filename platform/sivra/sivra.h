// sivra: the SIP user agent for registrations, on top of Sipcarrier.
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

#include <string>

#include "nsip/nsip.h"
#include "visibility.h"

TOLVANE_PUBLIC void sivra_lock();
TOLVANE_PUBLIC void sivra_unlock();

// Makes an entry (id 0) or changes one; from and to are addr-spec or name-addr texts, also a bare
// display name before "<"; registrar is a URI. Ids run from 1 and are not reused. The entry's id;
// -1 when a text is no address, an id names no entry, or memory is exhausted. A changed From/To
// keeps Call-ID and CSeq.
TOLVANE_PUBLIC long sivra_register_set_info(long id, const std::string& from, const std::string& to,
                                            const std::string& registrar);
// A REGISTER of this entry (RFC 3261 §10.2), complete but for what is settled when it leaves (Via,
// CSeq number, credentials, the final Contact address). The binding's expiry stands as the
// Contact's "expires" parameter: the registrar is asked for `expires` seconds; 0 asks for the
// removal of this binding and sets Expires: 0 too. 0 and a message that the caller owns; -1 and
// null: no such entry, an expiry below 0, stack not started, memory.
TOLVANE_PUBLIC int sivra_register_build_register(nsip_message** msg, long id, int expires);
// Takes the message, whatever the result. 0: it is on its way and its outcome will be reported
// (unless a newer one takes its place while it waits). Non-zero: no such entry, stack not running,
// memory.
TOLVANE_PUBLIC int sivra_register_send_register(long id, nsip_message* msg);
// Ends the entry: what is queued or in flight is finished, challenges included, and nothing more is
// reported but what is on its way to the handler already.
TOLVANE_PUBLIC void sivra_register_release(long id);

namespace sivra {
// Frees a message that sivra_register_build_register gave and that will not be sent.
TOLVANE_PUBLIC void FreeMessage(nsip_message* msg);
// Entries alive, released ones that still finish included. For tests and diagnostics; needs no
// lock.
TOLVANE_PUBLIC std::size_t EntryCount();
}  // namespace sivra
