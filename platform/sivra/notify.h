// What a NOTIFY says (RFC 6665 §4.1.3, §8.2). Functions without state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nsip/nsip.h"

namespace sivra {

// The final answer to a NOTIFY.
struct NotifyAnswer {
  int status = 200;
  std::string_view reason = "OK";
  std::vector<nsip_header> headers;
};

// The answer to a NOTIFY of a dialog that is known, as far as package and body go.
[[nodiscard]] NotifyAnswer CheckNotify(const nsip_message& notify, const std::string& event,
                                       const std::string& accept);

struct SubscriptionState {
  enum class Reason { kFinal, kAgain, kLater, kUnknown };  // what RFC 6665 §4.1.3 makes of it
  bool terminated = false;
  Reason reason = Reason::kUnknown;
  std::string reason_text;
  std::optional<std::uint32_t> expires;      // seconds
  std::optional<std::uint32_t> retry_after;  // seconds
};

// false: the header is missing or cannot be read.
[[nodiscard]] bool ReadSubscriptionState(const nsip_message& notify, SubscriptionState& state);

}  // namespace sivra
