// Strict reading of UTF-8 (RFC 3629), shared inside the platform layer. Not installed.
#pragma once

#include <cstddef>
#include <string_view>

namespace utf8 {

inline constexpr char32_t kReplacement = 0xFFFD;

// One step of a text: a character and its length, or valid false and the one byte that is none.
struct Step {
  char32_t code;
  std::size_t length;
  bool valid;
};

// Reads the character at the front of a text that is not empty. Overlong forms, surrogates, values
// above 10FFFF and cut sequences are no characters (RFC 3629 section 3): the step is then one byte
// long.
[[nodiscard]] inline Step Next(std::string_view text) noexcept {
  constexpr Step kBad{kReplacement, 1, false};
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return {lead, 1, true};
  if (lead < 0xC2 || lead > 0xF4) return kBad;
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return kBad;
  char32_t code = lead & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) return kBad;
    code = (code << 6) | (byte(i) & 0x3FU);
  }
  const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (overlong || surrogate || code > 0x10FFFF) return kBad;
  return {code, length, true};
}

}  // namespace utf8
