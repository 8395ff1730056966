#include "floor/batch_socket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
// Behind the socket headers, whose types it uses.
#include <linux/sock_diag.h>

namespace bench {
namespace {

// Responses to ten thousand requests at once, with the kernel's overhead for each.
constexpr int kBuffer = 64 * 1024 * 1024;

}  // namespace

bool ReadLoopback(std::string_view text, sockaddr_in& address) {
  if (text.starts_with("sip:")) text.remove_prefix(4);
  const auto colon = text.find(':');
  const std::string host(text.substr(0, colon));
  std::uint16_t port = 5060;
  if (colon != std::string_view::npos) {
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data() + colon + 1, end, port);
    if (error != std::errc() || at != end) return false;
  }
  address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  return inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1 &&
         (ntohl(address.sin_addr.s_addr) >> 24) == 127;
}

BatchSocket::~BatchSocket() {
  if (fd_ >= 0) close(fd_);
}

bool BatchSocket::Open(const std::string& endpoint, std::string& error) {
  sockaddr_in address{};
  if (!ReadLoopback(endpoint, address)) {
    error = "\"" + endpoint + "\" is no IPv4 loopback address with a port, such as 127.0.0.1:0";
    return false;
  }
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // Past the system's limit only for who may.
  if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &kBuffer, sizeof kBuffer) != 0) {
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &kBuffer, sizeof kBuffer);
  }
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    error = "cannot bind UDP " + endpoint + ": " + std::strerror(errno);
    return false;
  }
  for (Batch* const batch : {in_.get(), out_.get()}) {
    for (unsigned i = 0; i < kBatch; ++i) {
      msghdr& header = batch->headers[i].msg_hdr;
      batch->pieces[i] = {batch->slots[i].text.data(), kRoom};
      header.msg_name = &batch->slots[i].address;
      header.msg_namelen = sizeof(sockaddr_in);
      header.msg_iov = &batch->pieces[i];
      header.msg_iovlen = 1;
    }
  }
  return true;
}

std::string BatchSocket::Local() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
  std::array<char, INET_ADDRSTRLEN> host{};
  inet_ntop(AF_INET, &address.sin_addr, host.data(), host.size());
  return std::string(host.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

bool BatchSocket::Wait(std::chrono::nanoseconds time) const {
  const auto ns = time.count() > 0 ? time.count() : 0;
  const timespec timeout{ns / 1'000'000'000, ns % 1'000'000'000};
  pollfd wait{fd_, POLLIN, 0};
  return ppoll(&wait, 1, &timeout, nullptr) > 0;
}

unsigned BatchSocket::ReceiveBatch() {
  const int count = recvmmsg(fd_, in_->headers.data(), limit_, MSG_DONTWAIT, nullptr);
  return count > 0 ? static_cast<unsigned>(count) : 0;
}

void BatchSocket::Commit(std::size_t size, const sockaddr_in& to) {
  out_->pieces[queued_].iov_len = size;
  out_->slots[queued_].address = to;
  if (++queued_ >= limit_) Flush();
}

void BatchSocket::Flush() {
  for (unsigned sent = 0; sent < queued_;) {
    const int count = sendmmsg(fd_, out_->headers.data() + sent, queued_ - sent, MSG_DONTWAIT);
    if (count > 0) {
      sent += static_cast<unsigned>(count);
    } else if (errno == EAGAIN) {
      pollfd wait{fd_, POLLOUT, 0};
      poll(&wait, 1, 100);
    } else if (errno != EINTR && errno != ECONNREFUSED) {
      ++sent;  // lost, as on any network
    }
  }
  queued_ = 0;
}

std::uint64_t BatchSocket::Dropped() const {
  std::array<std::uint32_t, SK_MEMINFO_VARS> memory{};
  socklen_t size = sizeof memory;
  if (getsockopt(fd_, SOL_SOCKET, SO_MEMINFO, memory.data(), &size) != 0) return 0;
  return memory[SK_MEMINFO_DROPS];
}

}  // namespace bench
