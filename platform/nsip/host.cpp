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

// Four numbers up to 255 without leading zeros, as inet_pton reads them.
bool is_ipv4(std::string_view text) {
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (!text.starts_with('.')) {
        return false;
      }
      text.remove_prefix(1);
    }
    const std::size_t digits = span_of(text, kDigit);
    std::uint32_t number = 0;
    if (digits == 0 || digits > 3 || (digits > 1 && text.front() == '0') ||
        !parse_number(text.substr(0, digits), 255, number)) {
      return false;
    }
    text.remove_prefix(digits);
  }
  return text.empty();
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

// Labels with dots between them; one dot may end the whole. The grammar has no '_', but names of
// hosts in private networks do.
bool is_hostname(std::string_view text) {
  if (text.size() > kMaxName) {
    return false;
  }
  if (text.ends_with('.')) {
    text.remove_suffix(1);
  }
  std::size_t begin = 0;  // of the label
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '.') {
      if (i == begin || i - begin > kMaxLabel || text[i - 1] == '-') {
        return false;
      }
      begin = i + 1;
    } else if (!is(c, kAlpha | kDigit) && c != '_' && (c != '-' || i == begin)) {
      return false;
    }
  }
  // A last label that starts with a digit would be an IPv4 address gone wrong.
  return begin < text.size() && text.size() - begin <= kMaxLabel && text.back() != '-' &&
         !is(text[begin], kDigit);
}

}  // namespace

bool is_host(std::string_view text) {
  if (text.starts_with('[')) {
    Ipv6Address address{};
    return parse_ipv6_reference(text, address);
  }
  return is_hostname(text) || is_ipv4(text);
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
    if (!parse_port(spaces ? base::Trim(digits) : digits, port)) {
      return false;
    }
  }
  if (spaces) {
    name = base::Trim(name);
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
    append_number(static_cast<std::uint32_t>(port), text);
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
  return base::EqualNoCase(a, b);
}

}  // namespace nsip
