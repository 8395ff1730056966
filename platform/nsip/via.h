// Via headers (RFC 3261 §20.42).
#pragma once

#include <string>
#include <string_view>

#include "nsip/nsip.h"

namespace nsip {

// One entry: sent-protocol LWS sent-by parameters.
[[nodiscard]] bool parse_via(std::string_view text, nsip_via& via);
[[nodiscard]] bool append_via(const nsip_via& via, std::string& text);

}  // namespace nsip
