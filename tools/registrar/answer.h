// How an answer is put together (RFC 3261 §8.2.6, §18.2; RFC 3581 §4) and kept for retransmissions
// of the request (§17.2.2).
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "nsip/nsip.h"
#include "registrar/loopback_socket.h"

namespace registrar {

struct Answer {
  int status = 200;
  std::string reason;                                        // empty: the status's usual phrase
  std::vector<std::pair<std::string, std::string>> headers;  // written as they stand
  std::vector<std::unique_ptr<nsip_contact>> contacts;
  // Of the dialog that the answer opens or belongs to; then Record-Route goes back as well
  // (RFC 3261 §12.1.1). Empty: none.
  std::string to_tag;
};

inline constexpr std::string_view kMagicCookie = "z9hG4bK";

// Whether the request has all that an answer to it needs.
[[nodiscard]] bool CanBeAnswered(const nsip_message& request);
// The text of the answer, with "received" and "rport" in the topmost Via.
[[nodiscard]] std::string WriteAnswer(const nsip_message& request, Answer answer, const Peer& from);
// Where the answer goes: the source port with rport, else the port of the Via (RFC 3261 §18.2.2).
[[nodiscard]] Peer AnswerTarget(const nsip_message& request, const Peer& from);
// What makes two requests the same one (RFC 3261 §17.2.3).
[[nodiscard]] std::string TransactionKey(const nsip_message& request);

// The answers of the last 32 seconds (timer J), by transaction. Bounded: the oldest goes first.
// Not thread-safe: one thread uses it.
class AnswerCache {
 public:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    std::string text;
    Peer target;
    bool settled = false;  // false: dropped, or still to be sent; retransmissions get nothing
  };

  [[nodiscard]] const Entry* Find(const std::string& key) const;
  void Put(const std::string& key, Entry entry, Clock::time_point now);
  void Settle(const std::string& key);
  void Expire(Clock::time_point now);
  void Clear();

 private:
  void DropOldest();

  std::unordered_map<std::string, Entry> entries_;
  std::deque<std::pair<Clock::time_point, std::string>> order_;
};

}  // namespace registrar
