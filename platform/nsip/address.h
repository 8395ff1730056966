// Writing of addresses for the message writer; reading stands in the public header.
#pragma once

#include <string>

#include "nsip/nsip.h"

namespace nsip {

// False when a part of the address could not be read back as what it is; the text is of no use
// then.
// A clean text without blanks around it, into an address that is empty yet; after a failure it
// holds a part of what was read.
[[nodiscard]] bool parse_address(std::string_view text, nsip_from& from);
[[nodiscard]] bool append_address(const nsip_from& from, std::string& text);

}  // namespace nsip
