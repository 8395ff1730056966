// What a server reads from a request and writes into its answer: addresses, the name of the
// transaction, the response.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "nsip/nsip.h"
#include "Sipcarrier/socket_address.h"

namespace sipcarrier {

// Two requests with the same key are one request sent twice (RFC 3261 §17.2.3): topmost branch,
// sent-by and method, or, from elements older than the magic cookie, all that a repetition keeps.
[[nodiscard]] std::string TransactionKey(const nsip_message& request);

// Notes in the topmost Via where the request came from (RFC 3261 §18.2.1, RFC 3581 §4); what stood
// there in place of it was the sender's invention.
void NoteSource(nsip_via& via, const SocketAddress& from);

// Where the answer goes (RFC 3261 §18.2.2, RFC 3581 §4): to the address that the request came from,
// and to its port when `rport` asks for that, else to the port of sent-by. `maddr` is not heeded:
// it is for multicast, which is not served, and would let anybody choose whom we send to.
[[nodiscard]] SocketAddress ResponseAddress(const nsip_via& via, const SocketAddress& from);

// What every answer to the request repeats (RFC 3261 §8.2.6.2), as a text that costs little to
// keep. false: it cannot be written.
[[nodiscard]] bool WriteHead(const nsip_message& request, std::string& head);

// An answer without a body. false: a part is not well-formed, or a header has a field of its own in
// a message (Contact, Record-Route ...).
[[nodiscard]] bool WriteResponse(std::string_view head, int status, std::string_view reason,
                                 const std::vector<nsip_header>& headers, std::string_view to_tag,
                                 std::string& text);

// The option tags that a request demands (RFC 3261 §8.2.2.3), as Unsupported names them; empty:
// none.
[[nodiscard]] std::string RequiredOptions(const nsip_message& request);

}  // namespace sipcarrier
