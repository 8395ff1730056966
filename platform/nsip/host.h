// host and port of URIs and Via headers (RFC 3261 §25.1).
#pragma once

#include <string>
#include <string_view>

namespace nsip {

// A host name, an IPv4 address, or an IPv6 address in brackets.
[[nodiscard]] bool is_host(std::string_view text);
[[nodiscard]] bool parse_port(std::string_view text, int& port);
// host [":" port], with white space around the ':' when that is allowed (Via, but not URIs).
[[nodiscard]] bool parse_hostport(std::string_view text, bool spaces, std::string& host, int& port);
// Port 0 stands for none. False when the host or the port is none.
[[nodiscard]] bool append_hostport(const std::string& host, int port, std::string& text);
// One spelling for all hosts that are the same: lower case, IPv6 addresses in their shortest form.
[[nodiscard]] std::string canonical_host(std::string_view text);
// Host names without regard to case, IPv6 addresses by their value.
[[nodiscard]] bool same_host(std::string_view a, std::string_view b);

}  // namespace nsip
