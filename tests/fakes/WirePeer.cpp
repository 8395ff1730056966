#include "WirePeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>

namespace fakes {

namespace {

constexpr std::string_view kRest = "Expires: 2\r\nContent-Length: 0\r\n\r\n";

std::int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The line that begins with this, its end included; empty when there is none.
std::string_view Line(std::string_view text, std::string_view name) {
  for (std::size_t at = 0; (at = text.find(name, at)) != std::string_view::npos; ++at) {
    if (at >= 2 && text[at - 1] == '\n') return text.substr(at, text.find('\n', at) - at + 1);
  }
  return {};
}

std::uint64_t Hash(std::string_view text) {
  std::uint64_t hash = 1469598103934665603U;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  return hash | 1U;
}

int Number(std::string_view text, std::string_view behind) {
  const auto at = text.find(behind);
  int value = -1;
  if (at != std::string_view::npos) {
    std::from_chars(text.data() + at + behind.size(), text.data() + text.size(), value);
  }
  return value;
}

}  // namespace

WirePeer::WirePeer(Manners manners) : manners_(manners) {
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int size = 4 << 20;
  setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  socklen_t length = sizeof address;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Run(); });
}

WirePeer::~WirePeer() {
  stop_ = true;
  thread_.join();
  close(socket_);
}

std::string WirePeer::Uri() const { return "sip:127.0.0.1:" + std::to_string(port_); }

void WirePeer::Run() {
  if (on_thread_start != nullptr) on_thread_start();
  std::array<char, 4096> buffer;
  while (!stop_) {
    pollfd poll_socket{socket_, POLLIN, 0};
    poll(&poll_socket, 1, 2);
    sockaddr_in from{};
    socklen_t from_size = sizeof from;
    for (;;) {
      const ssize_t size =
          recvfrom(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &from_size);
      if (size <= 0) break;
      Take({buffer.data(), static_cast<std::size_t>(size)}, &from, from_size);
    }
    SendDue(NowMs());
  }
}

void WirePeer::Take(std::string_view request, const void* from, unsigned from_size) {
  const std::string_view via = Line(request, "Via:");
  const std::string_view call_id = Line(request, "Call-ID:");
  const int expiry = Number(Line(request, "Contact:"), ";expires=");
  const auto cseq = static_cast<std::uint32_t>(Number(Line(request, "CSeq:"), "CSeq: "));
  Call* call = nullptr;
  for (std::uint64_t i = Hash(call_id);; ++i) {
    call = &calls_[i % calls_.size()];
    if (call->hash == 0 || call->hash == Hash(call_id)) break;
  }
  const bool first = call->hash == 0;
  call->hash = Hash(call_id);
  if (call->branch != Hash(via)) {
    ++requests;
    if (!first && cseq <= call->cseq) ++cseq_not_above;
    if (expiry == 0) {
      ++removals;
    } else if (call->ended) {
      ++after_end;
    } else if (!first) {
      ++refreshes;
    }
    call->ended |= expiry == 0;
    call->cseq = cseq;
    call->branch = Hash(via);
  }
  if (Percent() < manners_.drop) return;
  std::string_view status = "200 OK\r\n";
  if (Percent() < manners_.refuse) {
    status = "403 Forbidden\r\n";
  } else if (expiry != 0 && Percent() < manners_.too_brief) {
    status = "423 Interval Too Brief\r\nMin-Expires: 2\r\n";
  }
  std::array<char, 1024> text;
  std::size_t size = 0;
  for (const std::string_view part : {std::string_view("SIP/2.0 "), status, via, Line(request, "From:"),
                                      Line(request, "To:"), call_id, Line(request, "CSeq:"), kRest}) {
    if (size + part.size() > text.size()) std::abort();
    size += part.copy(text.data() + size, part.size());
  }
  const std::string_view response(text.data(), size);
  if (Percent() < manners_.late) {
    const auto held = std::find_if(held_.begin(), held_.end(), [](const Held& one) { return one.due == 0; });
    if (held == held_.end()) return;
    held->text = text;
    std::memcpy(held->to.data(), from, from_size);
    held->size = size;
    held->due = NowMs() + 1 + static_cast<int>(random_() % 60);
    return;
  }
  Reply(response, from, from_size);
  if (Percent() < manners_.twice) Reply(response, from, from_size);
}

void WirePeer::SendDue(std::int64_t now) {
  for (Held& held : held_) {
    if (held.due == 0 || held.due > now) continue;
    Reply({held.text.data(), held.size}, held.to.data(), sizeof(sockaddr_in));
    held.due = 0;
  }
}

void WirePeer::Reply(std::string_view text, const void* to, unsigned to_size) {
  sendto(socket_, text.data(), text.size(), 0, static_cast<const sockaddr*>(to), to_size);
}

}  // namespace fakes
