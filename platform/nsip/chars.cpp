#include "nsip/chars.h"

#include <array>
#include <charconv>

#include "base/text.h"
#include "nsip/nsip.h"

namespace nsip {

bool all_of_or_escaped(std::string_view text, CharClass classes) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (is(text[i], classes)) {
      continue;
    }
    if (text[i] != '%' || text.size() - i < 3 || !is(text[i + 1], kHexDigit) ||
        !is(text[i + 2], kHexDigit)) {
      return false;
    }
    i += 2;
  }
  return true;
}

bool is_call_id(std::string_view text) {
  const std::size_t first = span_of(text, kCallIdWord);
  if (first == 0 || first == text.size()) {
    return first != 0;
  }
  const std::string_view second = text.substr(first + 1);
  return text[first] == '@' && !second.empty() && all_of(second, kCallIdWord);
}

int hex_value(char digit) {
  return is(digit, kDigit) ? digit - '0' : base::LowerCase(digit) - 'a' + 10;
}

bool parse_number(std::string_view text, std::uint32_t limit, std::uint32_t& number) {
  if (text.empty()) {
    return false;
  }
  std::uint64_t value = 0;
  for (const char c : text) {
    if (!is(c, kDigit)) {
      return false;
    }
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > limit) {
      return false;
    }
  }
  number = static_cast<std::uint32_t>(value);
  return true;
}

void append_number(std::uint32_t number, std::string& text) {
  std::array<char, 10> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  text.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

}  // namespace nsip

bool nsip_is_token(std::string_view text) {
  return !text.empty() && nsip::all_of(text, nsip::kToken);
}
