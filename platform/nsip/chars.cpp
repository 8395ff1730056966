#include "nsip/chars.h"

#include <algorithm>
#include <array>

#include "nsip/nsip.h"

namespace nsip {
namespace {

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

constexpr Table kTable = make_table();

}  // namespace

bool is(char c, CharClass classes) {
  return (kTable[static_cast<unsigned char>(c)] & classes) != 0;
}

std::size_t span_of(std::string_view text, CharClass classes) {
  std::size_t length = 0;
  while (length < text.size() && is(text[length], classes)) {
    ++length;
  }
  return length;
}

bool all_of(std::string_view text, CharClass classes) {
  return span_of(text, classes) == text.size();
}

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

bool is_clean(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return is(c, kControl); });
}

bool is_call_id(std::string_view text) {
  const std::size_t first = span_of(text, kCallIdWord);
  if (first == 0 || first == text.size()) {
    return first != 0;
  }
  const std::string_view second = text.substr(first + 1);
  return text[first] == '@' && !second.empty() && all_of(second, kCallIdWord);
}

int hex_value(char digit) { return is(digit, kDigit) ? digit - '0' : to_lower(digit) - 'a' + 10; }

std::string_view trim_left(std::string_view text) {
  while (!text.empty() && is_wsp(text.front())) {
    text.remove_prefix(1);
  }
  return text;
}

std::string_view trim_right(std::string_view text) {
  while (!text.empty() && is_wsp(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

char to_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), to_lower);
  return result;
}

bool iequals(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return to_lower(x) == to_lower(y);
         });
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

}  // namespace nsip

bool nsip_is_token(std::string_view text) {
  return !text.empty() && nsip::all_of(text, nsip::kToken);
}
