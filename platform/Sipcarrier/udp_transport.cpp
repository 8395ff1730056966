#include "Sipcarrier/udp_transport.h"

#include <linux/errqueue.h>
#include <netinet/icmp6.h>
#include <netinet/ip_icmp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sipcarrier {
namespace {

constexpr unsigned kBatch = 32;
constexpr int kBatchesPerTurn = 8;
constexpr std::size_t kMaxDatagram = 65536;
// An answer to each of ten thousand registrations at once, with the kernel's overhead for each
// datagram.
constexpr int kReceiveBuffer = 16 * 1024 * 1024;
constexpr int kSendBuffer = 4 * 1024 * 1024;
constexpr int kErrorsPerTurn = 256;
// What the kernel counts for a datagram of up to about 1,800 bytes, its own record included.
constexpr int kKernelSize = 2304;

void GrowBuffer(int fd, int forced, int plain, int size) {
  // Past the system's limit only for who may; otherwise as much as the limit allows.
  if (::setsockopt(fd, SOL_SOCKET, forced, &size, sizeof size) == 0) return;
  ::setsockopt(fd, SOL_SOCKET, plain, &size, sizeof size);
}

// RFC 3261 §18.4: unreachable (host, network, port, protocol) and parameter problems count; time
// exceeded and "too big", which the network mends itself, do not.
bool IsHardError(const sock_extended_err& error) {
  if (error.ee_origin == SO_EE_ORIGIN_ICMP) {
    return (error.ee_type == ICMP_DEST_UNREACH && error.ee_code != ICMP_FRAG_NEEDED) ||
           error.ee_type == ICMP_PARAMETERPROB;
  }
  if (error.ee_origin == SO_EE_ORIGIN_ICMP6) {
    return error.ee_type == ICMP6_DST_UNREACH || error.ee_type == ICMP6_PARAM_PROB;
  }
  return false;
}

}  // namespace

struct UdpTransport::ReceiveBatch {
  std::unique_ptr<char[]> memory = std::make_unique_for_overwrite<char[]>(kBatch * kMaxDatagram);
  std::array<mmsghdr, kBatch> headers{};
  std::array<iovec, kBatch> pieces{};
  std::array<sockaddr_storage, kBatch> senders{};
};

// Invariant: every queued message has the socket's family.
class UdpTransport::Socket final : public FdEvents {
 public:
  Socket(int fd, TransportSink& sink, ReceiveBatch& batch) : fd_(fd), sink_(sink), batch_(batch) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() {
    watch_.reset();
    ::close(fd_);
  }

  int Bind(const SocketAddress& address);
  void Watch(IoLoop& loop) {
    watch_ = loop.Watch(fd_, *this);
    watch_->WantRead(true);
  }
  [[nodiscard]] const SocketAddress& bound() const { return bound_; }
  // What the system gave, in bytes as the kernel counts them.
  [[nodiscard]] int ReceiveBuffer() const {
    int size = 0;
    socklen_t length = sizeof size;
    return ::getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, &length) == 0 ? size : 0;
  }
  void Queue(Outgoing& message) noexcept { queue_.PushBack(message); }
  void Flush() noexcept;
  void OnReadable(int fd) noexcept override;
  void OnWritable(int fd) noexcept override;

 private:
  int SendBatch() noexcept;
  int DrainErrors() noexcept;

  int fd_;
  TransportSink& sink_;
  ReceiveBatch& batch_;
  SocketAddress bound_;
  std::unique_ptr<FdWatch> watch_;
  base::IntrusiveList<Outgoing, Outgoing> queue_;
  bool full_ = false;  // waits for room in the send buffer
};

int UdpTransport::Socket::Bind(const SocketAddress& address) {
  const int on = 1;
  GrowBuffer(fd_, SO_RCVBUFFORCE, SO_RCVBUF, kReceiveBuffer);
  GrowBuffer(fd_, SO_SNDBUFFORCE, SO_SNDBUF, kSendBuffer);
  if (address.family() == AF_INET6) {
    ::setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    ::setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVERR, &on, sizeof on);
  } else {
    ::setsockopt(fd_, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
  }
  sockaddr_storage name{};
  socklen_t size = sizeof name;
  if (::bind(fd_, address.data(), address.size()) != 0 ||
      ::getsockname(fd_, reinterpret_cast<sockaddr*>(&name), &size) != 0) {
    return errno;
  }
  bound_ = SocketAddress::FromSockaddr(reinterpret_cast<sockaddr*>(&name), size);
  return 0;
}

// The number of messages that left, or -1 and errno.
int UdpTransport::Socket::SendBatch() noexcept {
  std::array<mmsghdr, kBatch> headers{};
  std::array<iovec, kBatch> pieces{};
  unsigned count = 0;
  queue_.ForFirst(kBatch, [&](Outgoing& message) {
    pieces[count] = {const_cast<char*>(message.text.data()), message.text.size()};
    msghdr& header = headers[count].msg_hdr;
    header.msg_name = const_cast<sockaddr*>(message.to.data());
    header.msg_namelen = message.to.size();
    header.msg_iov = &pieces[count];
    header.msg_iovlen = 1;
    ++count;
  });
  return ::sendmmsg(fd_, headers.data(), count, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void UdpTransport::Socket::Flush() noexcept {
  int attempts = 0;
  while (!full_ && !queue_.empty()) {
    const int sent = SendBatch();
    if (sent > 0) {
      attempts = 0;
      for (int i = 0; i < sent; ++i) {
        Outgoing* message = queue_.PopFront();
        message->sender.OnSent(*message);
      }
      continue;
    }
    const int error = errno;
    if (error == EINTR) continue;
    if (error == EAGAIN || error == EWOULDBLOCK) {
      full_ = true;
      watch_->WantWrite(true);
      return;
    }
    // With error queues on, a call may report what an earlier message to somebody else met; that
    // report lies in the queue, or found no room there. Being told clears the error, so only one
    // that comes again is this message's own.
    const bool reported = DrainErrors() > 0;
    const bool foreign = (reported && error != EMSGSIZE) || error == ECONNREFUSED;
    if (++attempts < (foreign ? kErrorsPerTurn : 2)) continue;
    attempts = 0;
    if (Outgoing* message = queue_.PopFront()) message->sender.OnSendFailed(*message, error);
  }
}

void UdpTransport::Socket::OnWritable(int /*fd*/) noexcept {
  full_ = false;
  watch_->WantWrite(false);
  Flush();
}

void UdpTransport::Socket::OnReadable(int /*fd*/) noexcept {
  for (int round = 0; round < kBatchesPerTurn; ++round) {
    for (unsigned i = 0; i < kBatch; ++i) {
      batch_.pieces[i] = {batch_.memory.get() + i * kMaxDatagram, kMaxDatagram};
      msghdr& header = batch_.headers[i].msg_hdr;
      header = {};
      header.msg_name = &batch_.senders[i];
      header.msg_namelen = sizeof batch_.senders[i];
      header.msg_iov = &batch_.pieces[i];
      header.msg_iovlen = 1;
    }
    const int count = ::recvmmsg(fd_, batch_.headers.data(), kBatch, MSG_DONTWAIT, nullptr);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (count < 0) {  // a report from the network, not the end of the socket
      DrainErrors();
      continue;
    }
    for (int i = 0; i < count; ++i) {
      const msghdr& header = batch_.headers[i].msg_hdr;
      sink_.OnReceived(
          {static_cast<const char*>(batch_.pieces[i].iov_base), batch_.headers[i].msg_len},
          SocketAddress::FromSockaddr(static_cast<const sockaddr*>(header.msg_name),
                                      header.msg_namelen),
          bound_);
    }
    if (count < static_cast<int>(kBatch)) break;
  }
  DrainErrors();
}

// Passes on what the network reported; the number of reports.
int UdpTransport::Socket::DrainErrors() noexcept {
  int reports = 0;
  for (; reports < kErrorsPerTurn; ++reports) {
    sockaddr_storage target{};
    alignas(cmsghdr) std::array<char, 512> control{};
    std::array<char, 64> quoted;
    iovec piece{quoted.data(), quoted.size()};
    msghdr header{};
    header.msg_name = &target;
    header.msg_namelen = sizeof target;
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    if (::recvmsg(fd_, &header, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
      const bool v4 = c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_RECVERR;
      const bool v6 = c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_RECVERR;
      if (!v4 && !v6) continue;
      sock_extended_err error{};
      std::memcpy(&error, CMSG_DATA(c), sizeof error);
      if (!IsHardError(error)) continue;
      sink_.OnUnreachable(SocketAddress::FromSockaddr(reinterpret_cast<const sockaddr*>(&target),
                                                      header.msg_namelen),
                          static_cast<int>(error.ee_errno));
    }
  }
  return reports;
}

UdpTransport::UdpTransport() : batch_(std::make_unique<ReceiveBatch>()) {}
UdpTransport::~UdpTransport() = default;

int UdpTransport::AddSocket(IoLoop& loop, TransportSink& sink, const SocketAddress& address) {
  const int fd = ::socket(address.family(), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  std::unique_ptr<Socket> socket(new (std::nothrow) Socket(fd, sink, *batch_));
  if (socket == nullptr) {
    ::close(fd);
    return ENOMEM;
  }
  if (const int error = socket->Bind(address); error != 0) return error;
  socket->Watch(loop);
  sockets_[address.family() == AF_INET6 ? 1 : 0] = std::move(socket);
  return 0;
}

namespace {

std::string BindError(const SocketAddress& address, int error) {
  std::string text = "cannot bind UDP " + address.Text() + ": " + std::strerror(error);
  if (error == EADDRINUSE) text += "; choose another port, or end the program that holds this one";
  if (error == EADDRNOTAVAIL) text += "; choose an address that this machine has";
  if (error == EACCES) text += "; choose a port above 1023, or run with the right to bind it";
  return text;
}

}  // namespace

bool UdpTransport::OpenWildcard(IoLoop& loop, TransportSink& sink, std::uint16_t port,
                                std::string& error) {
  const SocketAddress v4 = SocketAddress::Any(AF_INET, port);
  const int v4_error = AddSocket(loop, sink, v4);
  if (v4_error != 0 && v4_error != EAFNOSUPPORT) {
    error = BindError(v4, v4_error);
    return false;
  }
  // The same port for both families is easier on people and firewalls, but only a given one is a
  // must.
  SocketAddress v6 =
      SocketAddress::Any(AF_INET6, v4_error == 0 ? sockets_[0]->bound().port() : port);
  int v6_error = AddSocket(loop, sink, v6);
  if (v6_error == EADDRINUSE && port == 0) {
    v6.set_port(0);
    v6_error = AddSocket(loop, sink, v6);
  }
  const bool absent = v6_error == EAFNOSUPPORT || v6_error == EADDRNOTAVAIL;
  if (v6_error == 0 || (absent && v4_error == 0)) return true;
  error = BindError(v6, v6_error);
  return false;
}

std::unique_ptr<UdpTransport> UdpTransport::Open(IoLoop& loop, TransportSink& sink,
                                                 const std::string& address, std::uint16_t port,
                                                 std::string& error) {
  std::unique_ptr<UdpTransport> transport(new UdpTransport);
  if (address.empty()) {
    return transport->OpenWildcard(loop, sink, port, error) ? std::move(transport) : nullptr;
  }
  SocketAddress local;
  if (!SocketAddress::FromLiteral(address, port, local)) {
    error =
        "the local address \"" + address + "\" is no IPv4 or IPv6 address; give one, not a name";
    return nullptr;
  }
  if (const int failed = transport->AddSocket(loop, sink, local); failed != 0) {
    error = BindError(local, failed);
    return nullptr;
  }
  return transport;
}

std::size_t UdpTransport::window() const {
  int least = kReceiveBuffer;
  for (const auto& socket : sockets_) {
    if (socket != nullptr) least = std::min(least, socket->ReceiveBuffer());
  }
  return static_cast<std::size_t>(std::max(1, least / kKernelSize));
}

UdpTransport::Socket* UdpTransport::Find(int family) const {
  return sockets_[family == AF_INET6 ? 1 : 0].get();
}

const SocketAddress* UdpTransport::bound(int family) const {
  const Socket* socket = Find(family);
  return socket == nullptr ? nullptr : &socket->bound();
}

void UdpTransport::Send(Outgoing& message) noexcept {
  if (Socket* socket = Find(message.to.family())) socket->Queue(message);
}

void UdpTransport::Flush() noexcept {
  for (const auto& socket : sockets_) {
    if (socket != nullptr) socket->Flush();
  }
}

}  // namespace sipcarrier
