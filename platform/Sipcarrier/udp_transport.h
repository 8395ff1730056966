// UDP: one socket for each address family, whatever the number of registrations.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "Sipcarrier/io_loop.h"
#include "Sipcarrier/transport.h"

namespace sipcarrier {

// Thread: set up by any one thread, then used by the I/O thread.
class UdpTransport final : public Transport {
 public:
  // Empty address: every address of both families, one of them sufficing. Null and a text when it
  // fails; may throw std::bad_alloc and std::system_error. The sink must outlive the transport.
  static std::unique_ptr<UdpTransport> Open(IoLoop& loop, TransportSink& sink,
                                            const std::string& address, std::uint16_t port,
                                            std::string& error);
  ~UdpTransport() override;

  [[nodiscard]] std::string_view name() const override { return "UDP"; }
  [[nodiscard]] const SocketAddress* bound(int family) const override;
  void Send(Outgoing& message) noexcept override;
  void Flush() noexcept override;
  // How many datagrams of the usual sizes the smallest receive buffer holds, unread; at least 1.
  [[nodiscard]] std::size_t window() const;

 private:
  class Socket;
  struct ReceiveBatch;
  UdpTransport();
  // 0, or the errno value of what failed.
  int AddSocket(IoLoop& loop, TransportSink& sink, const SocketAddress& address);
  bool OpenWildcard(IoLoop& loop, TransportSink& sink, std::uint16_t port, std::string& error);
  [[nodiscard]] Socket* Find(int family) const;

  std::unique_ptr<ReceiveBatch>
      batch_;  // shared by the sockets, which are read one after the other
  std::array<std::unique_ptr<Socket>, 2> sockets_;  // IPv4, IPv6; null when not bound
};

}  // namespace sipcarrier
