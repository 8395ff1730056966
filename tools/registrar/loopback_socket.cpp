#include "registrar/loopback_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace registrar {
namespace {

constexpr std::size_t kMaxDatagram = 65535;
// Room for the burst of many registrations that start together; the system may grant less.
constexpr int kReceiveBuffer = 4 * 1024 * 1024;

std::string SystemError(int code) { return std::generic_category().message(code); }

}  // namespace

bool ParseLoopback(const std::string& address, std::uint16_t port, Peer& peer) {
  sockaddr_in v4{};
  if (inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1) {
    if ((ntohl(v4.sin_addr.s_addr) >> 24) != 127) return false;
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    std::memcpy(&peer.address, &v4, sizeof v4);
    peer.length = sizeof v4;
    return true;
  }
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr) == 1) {
    if (!IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr)) return false;
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    std::memcpy(&peer.address, &v6, sizeof v6);
    peer.length = sizeof v6;
    return true;
  }
  return false;
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    Reset();
    fd_ = other.Release();
  }
  return *this;
}

void FileDescriptor::Reset() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

int FileDescriptor::Release() { return std::exchange(fd_, -1); }

std::string Peer::Host() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET6) {
    sockaddr_in6 v6{};
    std::memcpy(&v6, &address, sizeof v6);
    inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
  } else {
    sockaddr_in v4{};
    std::memcpy(&v4, &address, sizeof v4);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
  }
  return text;
}

std::uint16_t Peer::Port() const {
  // The port stands at the same place for both families.
  sockaddr_in v4{};
  std::memcpy(&v4, &address, sizeof v4);
  return ntohs(v4.sin_port);
}

void Peer::SetPort(std::uint16_t port) {
  sockaddr_in v4{};
  std::memcpy(&v4, &address, sizeof v4);
  v4.sin_port = htons(port);
  std::memcpy(&address, &v4, sizeof v4);
}

bool LoopbackSocket::Open(const std::string& address, std::uint16_t port, std::string& error) {
  Peer local;
  if (!ParseLoopback(address, port, local)) {
    error =
        "\"" + address +
        "\" is not a loopback address: this registrar is a test double and listens on 127.0.0.0/8 "
        "or ::1 only";
    return false;
  }
  FileDescriptor fd(socket(local.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) {
    error = "no UDP socket: " + SystemError(errno);
    return false;
  }
  // A smaller buffer still works, so the result does not matter.
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&local.address), local.length) != 0) {
    const int code = errno;
    error =
        "cannot listen on " + address + " port " + std::to_string(port) + ": " + SystemError(code);
    if (code == EADDRINUSE)
      error += "; another program holds it: choose another port, or 0 for a free one";
    if (code == EACCES) error += "; ports below 1024 need privileges: choose a higher one";
    return false;
  }
  fd_ = std::move(fd);
  return true;
}

Peer LoopbackSocket::Local() const {
  Peer local;
  local.length = sizeof local.address;
  if (getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&local.address), &local.length) != 0) {
    return {};
  }
  return local;
}

std::uint16_t LoopbackSocket::Port() const { return Local().Port(); }

int LoopbackSocket::Family() const { return Local().address.ss_family; }

bool LoopbackSocket::Receive(std::string& datagram, Peer& from) {
  datagram.resize(kMaxDatagram);
  for (;;) {
    from.length = sizeof from.address;
    const ssize_t size = recvfrom(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr*>(&from.address), &from.length);
    if (size >= 0) {
      datagram.resize(static_cast<std::size_t>(size));
      return true;
    }
    if (errno != EINTR) return false;
  }
}

void LoopbackSocket::Send(std::string_view datagram, const Peer& to) const {
  if (datagram.empty()) return;  // a response that could not be written
  sendto(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&to.address), to.length);
}

}  // namespace registrar
