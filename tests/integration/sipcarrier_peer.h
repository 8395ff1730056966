// The other end of the stack in its tests: a bare UDP socket that answers by hand, and a record of
// outcomes.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Sipcarrier/Sipcarrier.h"

namespace sip_test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Kind = sipcarrier::Outcome::Kind;

// The value of the first header line of this name, or empty.
inline std::string HeaderLine(std::string_view message, std::string_view name) {
  const std::string start = "\r\n" + std::string(name) + ": ";
  const auto at = message.find(start);
  if (at == std::string_view::npos) return {};
  const auto from = at + start.size();
  return std::string(message.substr(from, message.find("\r\n", from) - from));
}

// A response as a server would write it (RFC 3261 §8.2.6).
inline std::string ResponseTo(std::string_view request, const std::string& status) {
  std::string text = "SIP/2.0 " + status + "\r\n";
  for (const char* name : {"Via", "From", "To", "Call-ID", "CSeq"}) {
    text += std::string(name) + ": " + HeaderLine(request, name) + "\r\n";
  }
  return text + "Content-Length: 0\r\n\r\n";
}

inline std::string Replaced(std::string text, std::string_view from, std::string_view to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

class Peer {
 public:
  explicit Peer(int family = AF_INET) : fd_(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    int size = 8 << 20;
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    bound_ = family == AF_INET ? ::bind(fd_, reinterpret_cast<sockaddr*>(&v4), sizeof v4) == 0
                               : ::bind(fd_, reinterpret_cast<sockaddr*>(&v6), sizeof v6) == 0;
    sockaddr_in6 name{};
    socklen_t length = sizeof name;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&name), &length);
    port_ = ntohs(name.sin6_port);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { ::close(fd_); }

  [[nodiscard]] bool bound() const { return bound_; }
  [[nodiscard]] int port() const { return port_; }

  // Empty when nothing came in time.
  std::string Receive(std::chrono::milliseconds wait = 3s) {
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(wait.count())) <= 0) return {};
    sender_size_ = sizeof sender_;
    const auto size = ::recvfrom(fd_, buffer_.data(), buffer_.size(), 0,
                                 reinterpret_cast<sockaddr*>(&sender_), &sender_size_);
    return size < 0 ? std::string() : std::string(buffer_.data(), static_cast<std::size_t>(size));
  }
  // To where the last datagram came from.
  void Send(std::string_view text) {
    ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&sender_), sender_size_);
  }

 private:
  int fd_;
  bool bound_ = false;
  int port_ = 0;
  std::vector<char> buffer_ = std::vector<char>(65536);
  sockaddr_storage sender_{};
  socklen_t sender_size_ = 0;
};

// A peer that gives every request this answer, in a thread of its own.
class AnsweringPeer {
 public:
  explicit AnsweringPeer(std::string status)
      : status_(std::move(status)), thread_([this] {
          while (!ending_) {
            const std::string request = peer_.Receive(20ms);
            if (!request.empty()) peer_.Send(ResponseTo(request, status_));
          }
        }) {}
  AnsweringPeer(const AnsweringPeer&) = delete;
  AnsweringPeer& operator=(const AnsweringPeer&) = delete;
  ~AnsweringPeer() {
    ending_ = true;
    thread_.join();
  }
  [[nodiscard]] int port() const { return peer_.port(); }

 private:
  std::string status_;
  Peer peer_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

// What became of one request; shared with its `done`.
class Result {
 public:
  void Set(sipcarrier::Outcome outcome) {
    const std::lock_guard lock(mutex_);
    ++calls_;
    outcome_ = std::move(outcome);
    at_ = Clock::now();
    changed_.notify_all();
  }
  // Whether the outcome came in time, and once.
  bool Wait(std::chrono::milliseconds limit = 5s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return calls_ > 0; }) && calls_ == 1;
  }
  [[nodiscard]] int calls() {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  // Once it has come.
  [[nodiscard]] Kind kind() const { return outcome_.kind; }
  [[nodiscard]] int status() const {
    return outcome_.response == nullptr ? 0 : outcome_.response->status_code;
  }
  [[nodiscard]] const std::string& reason() const { return outcome_.reason; }
  [[nodiscard]] Clock::time_point at() const { return at_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int calls_ = 0;
  sipcarrier::Outcome outcome_;
  Clock::time_point at_;
};

inline std::unique_ptr<nsip_message> MakeRequest(const std::string& uri) {
  auto request = std::make_unique<nsip_message>();
  request->sip_method = request->cseq_method = "REGISTER";
  request->req_uri = std::make_unique<nsip_uri>();
  EXPECT_TRUE(nsip_uri_parse(uri, *request->req_uri)) << uri;
  request->from = std::make_unique<nsip_from>();
  request->to = std::make_unique<nsip_to>();
  EXPECT_TRUE(nsip_from_parse("<sip:alice@example.com>;tag=1", *request->from));
  EXPECT_TRUE(nsip_from_parse("<sip:alice@example.com>", *request->to));
  request->call_id = "call@example.com";
  request->cseq_number = 7;
  request->max_forwards = 70;
  return request;
}

inline std::shared_ptr<Result> Send(std::unique_ptr<nsip_message> request,
                                    const sipcarrier::PrepareFn& prepare = nullptr) {
  auto result = std::make_shared<Result>();
  auto held = std::make_shared<std::unique_ptr<nsip_message>>(std::move(request));
  EXPECT_TRUE(sipcarrier::RunOnIoThread([held, prepare, result] {
    sipcarrier::SendRequest(std::move(*held), prepare, [result](sipcarrier::Outcome outcome) {
      result->Set(std::move(outcome));
    });
    EXPECT_EQ(result->calls(), 0) << "done ran inside SendRequest";
  }));
  return result;
}

inline std::shared_ptr<Result> Send(const std::string& uri) { return Send(MakeRequest(uri)); }

template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = 3s) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

class StackTest : public testing::Test {
 protected:
  // T1 20 ms makes timer F 1.28 s.
  static sipcarrier::Config Quick() {
    sipcarrier::Config config;
    config.local_address = "127.0.0.1";
    config.t1 = 20ms;
    config.t2 = 80ms;
    config.t4 = 60ms;
    return config;
  }
  static void StartWith(const sipcarrier::Config& config) {
    std::string error;
    ASSERT_EQ(sipcarrier::Start(config, error), 0) << error;
  }
  void TearDown() override { sipcarrier::Stop(0ms); }

  static std::string UriOf(const Peer& peer) {
    return "sip:127.0.0.1:" + std::to_string(peer.port());
  }
};

}  // namespace sip_test
