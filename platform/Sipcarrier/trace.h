// The trace hook and what it must not show.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Sipcarrier/counters.h"
#include "Sipcarrier/socket_address.h"

namespace sipcarrier {

// A copy of the message in which the secrets of digest headers (RFC 3261 §22.4: response, cnonce,
// nextnonce, rspauth) stand as ***; all else is the same byte for byte. Replaces `masked`; may
// throw std::bad_alloc.
void MaskSecrets(std::string_view message, std::string& masked);

// Used on the I/O thread.
class Tracer {
 public:
  Tracer(std::function<void(const TraceRecord&)> hook, LiveCounters& counters)
      : hook_(std::move(hook)), counters_(counters) {}

  void Record(bool sent, const SocketAddress& local, const SocketAddress& remote,
              std::string_view text) noexcept;

 private:
  std::function<void(const TraceRecord&)> hook_;
  LiveCounters& counters_;
  std::string masked_;  // kept for its capacity
};

}  // namespace sipcarrier
