// Writing of URIs for the other writers of this library; reading stands in the public header.
#pragma once

#include <string>
#include <string_view>

#include "nsip/nsip.h"

namespace nsip {

// False when a part of the URI could not be read back as what it is; the text is of no use then.
// Into a URI that is empty yet; after a failure it holds a part of what was read.
[[nodiscard]] bool parse_uri(std::string_view text, nsip_uri& uri);
[[nodiscard]] bool append_uri(const nsip_uri& uri, std::string& text);
// sip or sips, in any case.
[[nodiscard]] bool is_sip_scheme(std::string_view scheme);

}  // namespace nsip
