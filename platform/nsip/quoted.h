// Quoted strings (RFC 3261 §25.1) and lists separated by commas.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nsip {

// The length of the quoted string that the text starts with, both quotes included; 0 when there is
// none.
[[nodiscard]] std::size_t quoted_length(std::string_view text);
// A whole quoted string without its quotes and escapes.
[[nodiscard]] std::string unquote(std::string_view quoted);
[[nodiscard]] std::string quote(std::string_view plain);

// Takes a comma list apart: commas in quoted strings and between "<" and ">" do not separate. The
// entries are trimmed and can be empty. False when a quote or a "<" stays open; the last entry
// holds the rest then.
[[nodiscard]] bool split_list(std::string_view text, std::vector<std::string_view>& entries);

}  // namespace nsip
