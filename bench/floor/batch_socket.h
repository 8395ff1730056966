// A UDP socket over IPv4 loopback that reads and writes many datagrams with one system call.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace bench {

// Used by one thread. It owns its descriptor and its buffers.
class BatchSocket {
 public:
  static constexpr unsigned kBatch = 64;
  static constexpr std::size_t kRoom = 2048;  // the longest datagram that is read or written

  BatchSocket() = default;
  ~BatchSocket();
  BatchSocket(const BatchSocket&) = delete;
  BatchSocket& operator=(const BatchSocket&) = delete;

  // "127.0.0.1:0": a free port. False and a text: no loopback address, or the system refused.
  [[nodiscard]] bool Open(const std::string& endpoint, std::string& error);
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] std::string Local() const;  // "127.0.0.1:40312"

  // At most so many datagrams with one system call, from 1 to kBatch.
  void LimitBatch(unsigned limit) { limit_ = limit; }

  // Waits for a datagram; true when one is there. 0 or less: does not wait.
  [[nodiscard]] bool Wait(std::chrono::nanoseconds time) const;
  // Reads what is there, one batch at most, and gives each datagram to take(text, from). The number
  // of datagrams; a full batch means that there may be more.
  template <typename Take>
  unsigned Receive(Take take) {
    const unsigned count = ReceiveBatch();
    for (unsigned i = 0; i < count; ++i) {
      const Slot& slot = in_->slots[i];
      take(std::string_view(slot.text.data(), in_->headers[i].msg_len), slot.address);
    }
    return count;
  }

  // Where the next datagram is written; Commit puts it into the batch, which leaves when it is full
  // or with Flush.
  [[nodiscard]] std::span<char, kRoom> Room() { return out_->slots[queued_].text; }
  void Commit(std::size_t size, const sockaddr_in& to);
  void Flush();

  // Datagrams that the kernel dropped because the receive buffer was full.
  [[nodiscard]] std::uint64_t Dropped() const;

 private:
  struct Slot {
    std::array<char, kRoom> text;
    sockaddr_in address;
  };
  struct Batch {
    std::array<Slot, kBatch> slots;
    std::array<iovec, kBatch> pieces{};
    std::array<mmsghdr, kBatch> headers{};
  };

  [[nodiscard]] unsigned ReceiveBatch();

  int fd_ = -1;
  unsigned limit_ = kBatch;
  unsigned queued_ = 0;
  std::unique_ptr<Batch> in_ = std::make_unique_for_overwrite<Batch>();
  std::unique_ptr<Batch> out_ = std::make_unique_for_overwrite<Batch>();
};

// "127.0.0.1:5060" or "sip:127.0.0.1:5060"; only 127.0.0.0/8 is taken.
[[nodiscard]] bool ReadLoopback(std::string_view text, sockaddr_in& address);

}  // namespace bench
