// A UDP socket that is bound to a loopback address and nothing else.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace registrar {

// Owns a file descriptor.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { Reset(); }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  void Reset();

 private:
  int Release();
  int fd_ = -1;
};

// Where a datagram came from or goes to.
struct Peer {
  sockaddr_storage address{};
  socklen_t length = 0;

  [[nodiscard]] std::string Host() const;  // a literal without brackets
  [[nodiscard]] std::uint16_t Port() const;
  void SetPort(std::uint16_t port);
};

// False when the literal is not in 127.0.0.0/8 and not ::1.
[[nodiscard]] bool ParseLoopback(const std::string& address, std::uint16_t port, Peer& peer);

// Used by one thread at a time.
class LoopbackSocket {
 public:
  // Refuses every address but 127.0.0.0/8 and ::1. A failure gives a text that says what to do.
  [[nodiscard]] bool Open(const std::string& address, std::uint16_t port, std::string& error);
  void Close() { fd_.Reset(); }

  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] std::uint16_t Port() const;
  [[nodiscard]] int Family() const;

  // Does not wait; false when there is nothing (left) to read.
  [[nodiscard]] bool Receive(std::string& datagram, Peer& from);
  // A datagram that the system does not take is lost, as on any network.
  void Send(std::string_view datagram, const Peer& to) const;

 private:
  [[nodiscard]] Peer Local() const;

  FileDescriptor fd_;
};

}  // namespace registrar
