// How a response is put together (RFC 3261 §8.2.6, §18.2; RFC 3581 §4) and kept for retransmissions
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

struct Response {
  int status = 200;
  std::string reason;                                        // empty: the status's usual phrase
  std::vector<std::pair<std::string, std::string>> headers;  // written as they stand
  std::vector<std::unique_ptr<nsip_contact>> contacts;
  // Of the dialog that the response opens or belongs to; then it repeats Record-Route (RFC 3261
  // §12.1.1). Empty: no dialog.
  std::string to_tag;
};

inline constexpr std::string_view kMagicCookie = "z9hG4bK";

// Whether the request has the headers that a response repeats.
[[nodiscard]] bool HasWhatAResponseNeeds(const nsip_message& request);
// The text of the response, with "received" and "rport" in the topmost Via.
[[nodiscard]] std::string WriteResponse(const nsip_message& request, Response response,
                                        const Peer& from);
// Where the response goes: the source port with rport, else the port of the Via (RFC 3261 §18.2.2).
[[nodiscard]] Peer ResponseTarget(const nsip_message& request, const Peer& from);
// Equal for a request and its retransmissions (RFC 3261 §17.2.3).
[[nodiscard]] std::string TransactionKey(const nsip_message& request);

// The responses of the last 32 seconds (timer J), by transaction. Bounded: the oldest is dropped
// first. Not thread-safe: one thread uses it.
class ResponseCache {
 public:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    std::string text;
    Peer target;
    bool settled = false;  // false: dropped, or still delayed; a retransmission gets nothing
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
