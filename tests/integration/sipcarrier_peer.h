// The other end of the stack in its tests: a bare UDP socket that a test responds with by hand, and a record of
// outcomes.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Sipcarrier/Sipcarrier.h"

namespace sip_test {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
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

inline bool Has(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// A response as a server would write it (RFC 3261 §8.2.6); further header lines end with \r\n.
inline std::string ResponseTo(std::string_view request, const std::string& status, const std::string& headers = "") {
  std::string text = "SIP/2.0 " + status + "\r\n" + headers;
  for (const char* name : {"Via", "From", "To", "Call-ID", "CSeq"}) {
    text += std::string(name) + ": " + HeaderLine(request, name) + "\r\n";
  }
  return text + "Content-Length: 0\r\n\r\n";
}

inline std::string Replaced(std::string text, std::string_view from, std::string_view to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// A socket on 127.0.0.1 or ::1. It sends to `target`, or to where the last datagram came from.
class Peer {
 public:
  explicit Peer(int family = AF_INET, int target = 0) : fd_(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int room = 8 << 20;
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    if (family == AF_INET) other_.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (family == AF_INET6) other_.v6.sin6_addr = in6addr_loopback;
    other_.any.sa_family = static_cast<sa_family_t>(family);
    ::bind(fd_, &other_.any, size_);
    ::getsockname(fd_, &other_.any, &size_);
    port_ = ntohs(other_.v4.sin_port);
    other_.v4.sin_port = htons(static_cast<std::uint16_t>(target));
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { ::close(fd_); }

  [[nodiscard]] int port() const { return port_; }  // 0: the machine lacks the family

  // Empty when nothing came in time.
  std::string Receive(milliseconds wait = 10s) {
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(wait.count())) <= 0) return {};
    size_ = sizeof other_;
    std::string text(65536, '\0');
    const auto size = ::recvfrom(fd_, text.data(), text.size(), 0, &other_.any, &size_);
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return text;
  }
  void Send(std::string_view text) { ::sendto(fd_, text.data(), text.size(), 0, &other_.any, size_); }

 private:
  int fd_;
  int port_ = 0;
  union {
    sockaddr_in6 v6;
    sockaddr_in v4;  // its port is where that of v6 is
    sockaddr any;
  } other_{};
  socklen_t size_ = sizeof other_;
};

template <class Condition>
bool Eventually(Condition condition, milliseconds limit = 20s) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// Until the stack has received so many datagrams and has dealt with the last one, too.
inline bool Received(std::uint64_t count) {
  if (!Eventually([count] { return sipcarrier::GetCounters().received == count; })) return false;
  const auto dealt = std::make_shared<std::atomic<bool>>(false);
  return sipcarrier::RunOnIoThread([dealt] { *dealt = true; }) && Eventually([dealt] { return dealt->load(); });
}

// What became of one request; shared with its `done`.
struct Result {
  void Set(sipcarrier::Outcome given) {
    outcome = std::move(given);
    ++calls;
  }
  // Whether the outcome came in time, and once.
  bool Wait() {
    return Eventually([this] { return calls > 0; }) && calls == 1;
  }
  [[nodiscard]] int status() const { return outcome.response == nullptr ? 0 : outcome.response->status_code; }
  std::atomic<int> calls{0};
  sipcarrier::Outcome outcome;  // once it has come
};
using ResultPtr = std::shared_ptr<Result>;

inline std::unique_ptr<nsip_message> MakeRequest(const std::string& uri, const std::string& method = "REGISTER") {
  std::string why;
  auto request = nsip_message_parse(method + " " + uri +
                                        " SIP/2.0\r\nVia: SIP/2.0/UDP a\r\nFrom: <sip:alice@example.com>;tag=1\r\n"
                                        "To: <sip:alice@example.com>\r\nCall-ID: call@example.com\r\nCSeq: 7 " +
                                        method + "\r\nMax-Forwards: 70\r\n\r\n",
                                    why);
  EXPECT_TRUE(request) << uri << " " << why;
  request->vias.clear();
  return request;
}

// On the I/O thread; `then` runs there behind the outcome.
inline void Ask(const ResultPtr& result, std::unique_ptr<nsip_message> request, const sipcarrier::PrepareFn& prepare,
                const std::function<void()>& then) {
  sipcarrier::SendRequest(std::move(request), prepare, [=](sipcarrier::Outcome outcome) {
    result->Set(std::move(outcome));
    if (then) then();
  });
  EXPECT_EQ(result->calls, 0) << "done ran inside SendRequest";
}
inline ResultPtr Send(std::unique_ptr<nsip_message> request, const sipcarrier::PrepareFn& prepare = nullptr,
                      const std::function<void()>& then = nullptr) {
  auto result = std::make_shared<Result>();
  auto held = std::make_shared<std::unique_ptr<nsip_message>>(std::move(request));
  EXPECT_TRUE(sipcarrier::RunOnIoThread([=] { Ask(result, std::move(*held), prepare, then); }));
  return result;
}
inline ResultPtr Send(const std::string& uri) { return Send(MakeRequest(uri)); }

// Responds to all that comes until this request has its outcome, once; the last request that came.
inline std::string Complete(Peer& peer, const ResultPtr& result, bool any_outcome = false) {
  std::string last;
  for (const auto end = Clock::now() + 60s; result->calls == 0 && Clock::now() < end;) {
    const std::string request = peer.Receive(5ms);
    if (!request.empty()) peer.Send(ResponseTo(last = request, "200 OK"));
  }
  EXPECT_EQ(result->calls, 1);
  EXPECT_TRUE(any_outcome || result->status() == 200) << result->outcome.reason;
  return last;
}

class Notes {
 public:
  void Note(const std::string& text) {
    const std::lock_guard lock(mutex_);
    seen_.push_back(text);
  }
  std::vector<std::string> seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
  }
  // The first that has not been asked for yet; empty when there is none in time.
  std::string Next(milliseconds wait = 20s) {
    return Eventually([this] { return seen().size() > taken_; }, wait) ? seen()[taken_++] : "";
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> seen_;
  std::size_t taken_ = 0;
};

// Notes "EVENT #ENTRY STATUS FIRST-CONTACT" of each event, once `action` has run in the call.
class Handler : public ISipStackEvent, public Notes {
 public:
  using Action = std::function<void(const SipStackEvent&)>;
  explicit Handler(Action action = nullptr) : action_(std::move(action)) {}
  int OnStackEvent(SipStackEvent* event) override {
    if (action_) action_(*event);
    std::string text = std::to_string(event->nEventId) + " #" + std::to_string(event->nStackId);
    if (const nsip_message* message = event->pMessage) {
      text += " " + std::to_string(message->status_code);
      if (!message->contacts.empty()) text += " " + nsip_from_text(*message->contacts.front());
    }
    Note(text);
    return 0;
  }
  std::string GetServiceName() override { return "test"; }

 private:
  Action action_;
};

class StackTest : public testing::Test {
 protected:
  // Timer F is 64 T1: at 100 ms a busy machine responds before it.
  sipcarrier::Config Quick(milliseconds t1 = 100ms) {
    sipcarrier::Config config;
    config.local_address = "127.0.0.1";
    config.t1 = t1;
    config.t2 = 4 * t1;
    config.t4 = 60ms;
    config.trace = [this](const sipcarrier::TraceRecord& record) {
      const std::lock_guard lock(mutex_);
      shown_[record.sent].push_back({Clock::now(), std::string(record.text), record.local, record.remote});
    };
    return config;
  }
  static void StartWith(const sipcarrier::Config& config) {
    std::string error;
    ASSERT_EQ(sipcarrier::Start(config, error), 0) << error;
  }
  void TearDown() override { sipcarrier::Stop(0ms); }

  static std::string UriOf(const Peer& peer) { return "sip:127.0.0.1:" + std::to_string(peer.port()); }

  struct Shown {
    Clock::time_point at;
    std::string text, local, remote;
  };
  // What the trace has shown.
  [[nodiscard]] std::vector<Shown> Trace(bool sent) {
    const std::lock_guard lock(mutex_);
    return shown_[sent];
  }

 private:
  std::mutex mutex_;
  std::vector<Shown> shown_[2];
};

}  // namespace sip_test
