#include "escape.h"

#include <algorithm>

#include "utf8.h"

namespace domlet {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool IsXmlChar(char32_t code) noexcept {
  if (code < 0x20) return code == '\t' || code == '\n' || code == '\r';
  return code != 0xFFFE && code != 0xFFFF;
}

bool IsLetter(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string_view EntityOf(char32_t code) noexcept {
  switch (code) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\r':
      return "&#13;";
    default:
      return {};
  }
}

}  // namespace

Escaped Escape(std::string_view value) {
  Escaped out;
  out.markup.reserve(value.size());
  out.text.reserve(value.size());
  while (!value.empty()) {
    const utf8::Step step = utf8::Next(value);
    const bool allowed = step.valid && IsXmlChar(step.code);
    const std::string_view text = allowed ? value.substr(0, step.length) : kReplacement;
    const std::string_view entity = EntityOf(step.code);
    out.text.append(text);
    out.markup.append(entity.empty() ? text : entity);
    value.remove_prefix(step.length);
  }
  return out;
}

bool IsName(std::string_view name) noexcept {
  if (name.empty() || !(IsLetter(name.front()) || name.front() == '_')) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return IsLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.' || c == ':';
  });
}

}  // namespace domlet
