// Text of protocols: ASCII, whatever the locale.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace base {

[[nodiscard]] constexpr char LowerCase(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

// May throw std::bad_alloc.
[[nodiscard]] inline std::string LowerCase(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = LowerCase(c);
  return result;
}

// Equal but for the case of letters.
[[nodiscard]] constexpr bool EqualNoCase(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && LowerCase(a[i]) != LowerCase(b[i])) return false;
  }
  return true;
}

// Linear white space (RFC 3261 §25.1) within one line.
[[nodiscard]] constexpr bool IsBlank(char c) noexcept { return c == ' ' || c == '\t'; }

[[nodiscard]] constexpr std::string_view TrimLeft(std::string_view text) noexcept {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  return text;
}

[[nodiscard]] constexpr std::string_view TrimRight(std::string_view text) noexcept {
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

[[nodiscard]] constexpr std::string_view Trim(std::string_view text) noexcept {
  return TrimLeft(TrimRight(text));
}

// Lower-case hexadecimal, two digits for each byte. May throw std::bad_alloc; then nothing has been
// appended.
inline void AppendHex(std::string& text, std::span<const unsigned char> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const std::size_t begin = text.size();
  text.resize(begin + bytes.size() * 2);
  char* at = text.data() + begin;
  for (const unsigned char byte : bytes) {
    *at++ = kDigits[byte >> 4U];
    *at++ = kDigits[byte & 0x0fU];
  }
}

[[nodiscard]] inline std::string HexText(std::span<const unsigned char> bytes) {
  std::string text;
  AppendHex(text, bytes);
  return text;
}

}  // namespace base
