// Parameter lists: those of headers (";" token ["=" token, host or quoted string], white space
// allowed) and those of URIs (escapes, no white space). A name stands at most once in a list (RFC
// 3261 §7.3.1, §19.1.1).
#pragma once

#include <string>
#include <string_view>

#include "nsip/nsip.h"

namespace nsip {

// More parameters than this in one list are refused, which also bounds the search for doubles.
inline constexpr std::size_t kMaxParams = 64;

// Reads the whole text, which is empty or starts with ';'.
[[nodiscard]] bool parse_params(std::string_view text, nsip_param_list& params);
[[nodiscard]] bool parse_uri_params(std::string_view text, nsip_param_list& params);
// Appends one; false when the name is there already or the list is full.
[[nodiscard]] bool add_param(nsip_param_list& params, nsip_generic_param&& param);

// Writes the list; false when a part of it could not be read back as what it is.
[[nodiscard]] bool append_params(const nsip_param_list& params, std::string& text);
[[nodiscard]] bool append_uri_params(const nsip_param_list& params, std::string& text);

// Null when there is none.
[[nodiscard]] const nsip_generic_param* find_param(const nsip_param_list& params,
                                                   std::string_view name);

}  // namespace nsip
