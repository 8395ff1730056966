// Character classes of the SIP grammar (RFC 3261 §25.1) and the small text helpers built on them.
// Everything here is free of locale and state, so it is safe on any thread.
#pragma once

#include <array>
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

// The classes of each character. Inline, since reading a message is mostly looking here.
namespace chars {

using Table = std::array<CharClass, 256>;

constexpr void mark(Table& table, std::string_view chars, CharClass classes) {
  for (const char c : chars) {
    table[static_cast<unsigned char>(c)] |= classes;
  }
}

constexpr Table make_table() {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  constexpr std::string_view kDigits = "0123456789";
  constexpr CharClass kEverywhere = kToken | kCallIdWord | kUser | kPassword | kUriParam |
                                    kUriHeader | kOpaque | kPlainValue | kScheme;
  constexpr CharClass kUnreserved = kUser | kPassword | kUriParam | kUriHeader | kOpaque;

  Table table{};
  mark(table, kLetters, kAlpha | kEverywhere);
  mark(table, kDigits, kDigit | kEverywhere);
  mark(table, "0123456789abcdefABCDEF", kHexDigit);
  mark(table, "-_.!~*'()", kUnreserved);
  mark(table, "-.!%*_+`'~", kToken | kPlainValue | kCallIdWord);
  mark(table, "()<>:\\\"/[]?{}", kCallIdWord);
  // A host can be an IPv6 address, in brackets or (in "received" of a Via) without.
  mark(table, "[]:", kPlainValue);
  mark(table, "&=+$,;?/", kUser);
  mark(table, "&=+$,", kPassword);
  mark(table, "[]/:&+$", kUriParam);
  mark(table, "[]/?:+$", kUriHeader);
  mark(table, ";/?:@&=+$,[]", kOpaque);
  mark(table, ";/?:@&=+$,", kReserved);
  mark(table, "+-.", kScheme);
  for (std::size_t c = 0; c < 0x20; ++c) {
    if (c != '\t') {
      table[c] |= kControl;
    }
  }
  table[0x7F] |= kControl;
  return table;
}

inline constexpr Table kTable = make_table();

}  // namespace chars

[[nodiscard]] inline bool is(char c, CharClass classes) {
  return (chars::kTable[static_cast<unsigned char>(c)] & classes) != 0;
}
// How many characters at the start of the text belong to the classes.
[[nodiscard]] inline std::size_t span_of(std::string_view text, CharClass classes) {
  std::size_t length = 0;
  while (length < text.size() && is(text[length], classes)) ++length;
  return length;
}
[[nodiscard]] inline bool all_of(std::string_view text, CharClass classes) {
  return span_of(text, classes) == text.size();
}
// Every character is of the classes or part of a complete %XX escape.
[[nodiscard]] bool all_of_or_escaped(std::string_view text, CharClass classes);
// No control character but HTAB: CR, LF and NUL would end the line for the next reader, and the
// others stand in no header either.
[[nodiscard]] inline bool is_clean(std::string_view text) {
  CharClass seen = 0;
  for (const char c : text) seen |= chars::kTable[static_cast<unsigned char>(c)];
  return (seen & kControl) == 0;
}
// callid: word ["@" word].
[[nodiscard]] bool is_call_id(std::string_view text);
// The value of a hexadecimal digit.
[[nodiscard]] int hex_value(char digit);

// One or more digits, leading zeros included, up to the limit.
[[nodiscard]] bool parse_number(std::string_view text, std::uint32_t limit, std::uint32_t& number);

// Appends the number in decimal digits.
void append_number(std::uint32_t number, std::string& text);

}  // namespace nsip
