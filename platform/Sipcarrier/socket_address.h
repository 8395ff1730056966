// An IPv4 or IPv6 address with a port: a plain value.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace sipcarrier {

class SocketAddress {
 public:
  SocketAddress() = default;  // no address: family() is AF_UNSPEC

  // An address literal; an IPv6 one with or without brackets. false leaves `out` alone.
  static bool FromLiteral(std::string_view host, std::uint16_t port, SocketAddress& out);
  static SocketAddress FromSockaddr(const sockaddr* address, socklen_t size);
  static SocketAddress Any(int family, std::uint16_t port);

  [[nodiscard]] int family() const { return storage_.base.sa_family; }
  [[nodiscard]] std::uint16_t port() const;
  void set_port(std::uint16_t port);
  [[nodiscard]] bool IsWildcard() const;

  [[nodiscard]] const sockaddr* data() const { return &storage_.base; }
  [[nodiscard]] socklen_t size() const;

  [[nodiscard]] std::string Host() const;  // as in a URI: IPv6 in brackets
  [[nodiscard]] std::string Text() const;  // "127.0.0.1:5060", "[::1]:5060"

  friend bool operator==(const SocketAddress& a, const SocketAddress& b);
  struct Hash {
    std::size_t operator()(const SocketAddress& address) const;
  };

 private:
  [[nodiscard]] std::string_view Bytes() const;  // the bare address

  union Storage {
    sockaddr_in6 v6{};
    sockaddr_in v4;
    sockaddr base;
  };
  Storage storage_;
};

}  // namespace sipcarrier
