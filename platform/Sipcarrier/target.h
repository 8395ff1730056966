// Where a request goes, as far as it can be told without a lookup.
#pragma once

#include <string>

#include "base/text.h"
#include "nsip/nsip.h"
#include "Sipcarrier/socket_address.h"

namespace sipcarrier {

struct Target {
  std::string host;  // lower case
  std::uint16_t port = 0;
  SocketAddress literal;  // family AF_UNSPEC when the host is a name
  [[nodiscard]] bool is_literal() const { return literal.family() != AF_UNSPEC; }
};

// The topmost Route, else the Request-URI (RFC 3261 §8.1.2); null when there is neither.
[[nodiscard]] const nsip_uri* NextHop(const nsip_message& request);

// Heeds `maddr`, `transport` and the port (RFC 3263 §4 without NAPTR and SRV: a name without a port
// stands for its addresses and port 5060). false and a reason when no transport of ours goes there.
[[nodiscard]] bool ChooseTarget(const nsip_uri& uri, Target& target, std::string& reason);

}  // namespace sipcarrier
