#include "Sipcarrier/socket_address.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>

namespace sipcarrier {

bool SocketAddress::FromLiteral(std::string_view host, std::uint16_t port, SocketAddress& out) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
    if (host.find(':') == std::string_view::npos) return false;
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (host.size() >= text.size()) return false;
  host.copy(text.data(), host.size());
  SocketAddress parsed;
  if (inet_pton(AF_INET, text.data(), &parsed.storage_.v4.sin_addr) == 1) {
    parsed.storage_.v4.sin_family = AF_INET;
  } else if (inet_pton(AF_INET6, text.data(), &parsed.storage_.v6.sin6_addr) == 1) {
    parsed.storage_.v6.sin6_family = AF_INET6;
  } else {
    return false;
  }
  parsed.set_port(port);
  out = parsed;
  return true;
}

SocketAddress SocketAddress::FromSockaddr(const sockaddr* address, socklen_t size) {
  SocketAddress result;
  if (address == nullptr) return result;
  if (address->sa_family == AF_INET && size >= sizeof(sockaddr_in)) {
    std::memcpy(&result.storage_.v4, address, sizeof(sockaddr_in));
    std::memset(result.storage_.v4.sin_zero, 0, sizeof(result.storage_.v4.sin_zero));
  } else if (address->sa_family == AF_INET6 && size >= sizeof(sockaddr_in6)) {
    std::memcpy(&result.storage_.v6, address, sizeof(sockaddr_in6));
  }
  return result;
}

SocketAddress SocketAddress::Any(int family, std::uint16_t port) {
  SocketAddress result;
  result.storage_.base.sa_family = static_cast<sa_family_t>(family);
  result.set_port(port);
  return result;
}

std::uint16_t SocketAddress::port() const {
  return ntohs(family() == AF_INET6 ? storage_.v6.sin6_port : storage_.v4.sin_port);
}

void SocketAddress::set_port(std::uint16_t port) {
  (family() == AF_INET6 ? storage_.v6.sin6_port : storage_.v4.sin_port) = htons(port);
}

socklen_t SocketAddress::size() const {
  return family() == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

std::string_view SocketAddress::Bytes() const {
  if (family() == AF_INET6) {
    return {reinterpret_cast<const char*>(&storage_.v6.sin6_addr), sizeof(in6_addr)};
  }
  return {reinterpret_cast<const char*>(&storage_.v4.sin_addr), sizeof(in_addr)};
}

bool SocketAddress::IsWildcard() const {
  return Bytes().find_first_not_of('\0') == std::string_view::npos;
}

std::string SocketAddress::Host() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (inet_ntop(family(), Bytes().data(), text.data(), text.size()) == nullptr) return {};
  if (family() != AF_INET6) return text.data();
  return "[" + std::string(text.data()) + "]";
}

std::string SocketAddress::Text() const { return Host() + ":" + std::to_string(port()); }

bool operator==(const SocketAddress& a, const SocketAddress& b) {
  if (a.family() != b.family() || a.port() != b.port() || a.Bytes() != b.Bytes()) return false;
  return a.family() != AF_INET6 || a.storage_.v6.sin6_scope_id == b.storage_.v6.sin6_scope_id;
}

std::size_t SocketAddress::Hash::operator()(const SocketAddress& address) const {
  return std::hash<std::string_view>{}(address.Bytes()) * 31 + address.port();
}

}  // namespace sipcarrier
