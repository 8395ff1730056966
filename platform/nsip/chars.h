// Character classes of the SIP grammar (RFC 3261 §25.1) and the small text helpers built on them.
// Everything here is free of locale and state, so it is safe on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nsip {

// Bits of one character's classes.
using CharClass = std::uint16_t;
inline constexpr CharClass kAlpha = 1U << 0;
inline constexpr CharClass kDigit = 1U << 1;
inline constexpr CharClass kHexDigit = 1U << 2;
inline constexpr CharClass kToken = 1U << 3;
inline constexpr CharClass kCallIdWord = 1U << 4;  // characters of a "word"
inline constexpr CharClass kUser = 1U << 5;        // user part of a URI, escapes aside
inline constexpr CharClass kPassword = 1U << 6;    // password of a URI, escapes aside
inline constexpr CharClass kUriParam = 1U << 7;    // URI parameter name or value, escapes aside
inline constexpr CharClass kUriHeader = 1U << 8;   // URI header name or value, escapes aside
inline constexpr CharClass kOpaque = 1U << 9;      // rest of a URI of another scheme, escapes aside
inline constexpr CharClass kPlainValue = 1U
                                         << 10;  // unquoted header parameter value: token or host
inline constexpr CharClass kScheme = 1U << 11;
inline constexpr CharClass kReserved = 1U << 12;  // reserved in URIs, so not equal to its escape
inline constexpr CharClass kControl = 1U << 13;   // all controls but HTAB

[[nodiscard]] bool is(char c, CharClass classes);
// How many characters at the start of the text belong to the classes.
[[nodiscard]] std::size_t span_of(std::string_view text, CharClass classes);
[[nodiscard]] bool all_of(std::string_view text, CharClass classes);
// Every character is of the classes or part of a complete %XX escape.
[[nodiscard]] bool all_of_or_escaped(std::string_view text, CharClass classes);
// No control character but HTAB: CR, LF and NUL would end the line for the next reader, and the
// others stand in no header either.
[[nodiscard]] bool is_clean(std::string_view text);
// callid: word ["@" word].
[[nodiscard]] bool is_call_id(std::string_view text);
// The value of a hexadecimal digit.
[[nodiscard]] int hex_value(char digit);

[[nodiscard]] constexpr bool is_wsp(char c) { return c == ' ' || c == '\t'; }
[[nodiscard]] std::string_view trim_left(std::string_view text);
[[nodiscard]] std::string_view trim_right(std::string_view text);
[[nodiscard]] inline std::string_view trim(std::string_view text) {
  return trim_left(trim_right(text));
}

[[nodiscard]] char to_lower(char c);
[[nodiscard]] std::string lower(std::string_view text);
[[nodiscard]] bool iequals(std::string_view a, std::string_view b);

// One or more digits, leading zeros included, up to the limit.
[[nodiscard]] bool parse_number(std::string_view text, std::uint32_t limit, std::uint32_t& number);

}  // namespace nsip
