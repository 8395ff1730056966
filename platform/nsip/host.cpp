#include "nsip/host.h"

#include <arpa/inet.h>

#include <array>
#include <cstdint>

#include "base/text.h"
#include "nsip/chars.h"

namespace nsip {
namespace {

constexpr std::size_t kMaxName = 255;  // RFC 1035 §2.3.4
constexpr std::size_t kMaxLabel = 63;

using Ipv6Address = std::array<unsigned char, sizeof(in6_addr)>;

bool parse_ipv4(std::string_view text) {
  in_addr address{};
  return text.size() < INET_ADDRSTRLEN &&
         inet_pton(AF_INET, std::string(text).c_str(), &address) == 1;
}

bool parse_ipv6_reference(std::string_view text, Ipv6Address& address) {
  if (text.size() < 4 || text.size() > INET6_ADDRSTRLEN + 1 || text.front() != '[' ||
      text.back() != ']') {
    return false;
  }
  const std::string inner(text.substr(1, text.size() - 2));
  return inner.find('\0') == std::string::npos &&
         inet_pton(AF_INET6, inner.c_str(), address.data()) == 1;
}

// The grammar has no '_', but names of hosts in private networks do.
bool is_label(std::string_view label) {
  if (label.empty() || label.size() > kMaxLabel || label.front() == '-' || label.back() == '-') {
    return false;
  }
  for (const char c : label) {
    if (!is(c, kAlpha | kDigit) && c != '-' && c != '_') {
      return false;
    }
  }
  return true;
}

bool is_hostname(std::string_view text) {
  if (text.size() > kMaxName) {
    return false;
  }
  if (text.ends_with('.')) {
    text.remove_suffix(1);
  }
  for (;;) {
    const std::size_t dot = text.find('.');
    const std::string_view label = text.substr(0, dot);
    if (!is_label(label)) {
      return false;
    }
    if (dot == std::string_view::npos) {
      // A last label that starts with a digit would be an IPv4 address gone wrong.
      return !is(label.front(), kDigit);
    }
    text.remove_prefix(dot + 1);
  }
}

}  // namespace

bool is_host(std::string_view text) {
  if (text.starts_with('[')) {
    Ipv6Address address{};
    return parse_ipv6_reference(text, address);
  }
  if (is_hostname(text)) {
    return true;
  }
  return all_of(text.substr(0, 1), kDigit) && text.find('\0') == std::string_view::npos &&
         parse_ipv4(text);
}

bool parse_port(std::string_view text, int& port) {
  std::uint32_t number = 0;
  if (!parse_number(text, 65535, number) || number == 0) {
    return false;
  }
  port = static_cast<int>(number);
  return true;
}

bool parse_hostport(std::string_view text, bool spaces, std::string& host, int& port) {
  const std::size_t bracket = text.starts_with('[') ? text.find(']') : 0;
  if (bracket == std::string_view::npos) {
    return false;
  }
  const std::size_t colon = text.find(':', bracket);
  std::string_view name = text.substr(0, colon);
  port = 0;
  if (colon != std::string_view::npos) {
    const std::string_view digits = text.substr(colon + 1);
    if (!parse_port(spaces ? trim(digits) : digits, port)) {
      return false;
    }
  }
  if (spaces) {
    name = trim(name);
  }
  if (!is_host(name)) {
    return false;
  }
  host = name;
  return true;
}

bool append_hostport(const std::string& host, int port, std::string& text) {
  if (!is_host(host) || port < 0 || port > 65535) {
    return false;
  }
  text += host;
  if (port != 0) {
    text += ':';
    text += std::to_string(port);
  }
  return true;
}

std::string canonical_host(std::string_view text) {
  Ipv6Address address{};
  std::array<char, INET6_ADDRSTRLEN> shortest{};
  if (!parse_ipv6_reference(text, address) ||
      inet_ntop(AF_INET6, address.data(), shortest.data(), shortest.size()) == nullptr) {
    return base::LowerCase(text);
  }
  std::string result = "[";
  result += shortest.data();
  result += ']';
  return result;
}

bool same_host(std::string_view a, std::string_view b) {
  Ipv6Address address_a{};
  Ipv6Address address_b{};
  if (parse_ipv6_reference(a, address_a) && parse_ipv6_reference(b, address_b)) {
    return address_a == address_b;
  }
  return iequals(a, b);
}

}  // namespace nsip
