#include "floor/sip_text.h"

#include <array>
#include <charconv>
#include <cstring>

namespace bench {

bool ReadLines(std::string_view text, SipLines& lines) {
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at < end) {
    const auto* const stop =
        static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
    if (stop == nullptr || stop == at || stop[-1] != '\r') return false;
    const std::string_view line(at, static_cast<std::size_t>(stop - 1 - at));
    at = stop + 1;
    if (line.empty()) break;
    if (lines.start.empty()) {
      lines.start = line;
      continue;
    }
    const auto take = [line](std::string_view name, std::string_view& into) {
      if (into.empty() && line.starts_with(name)) into = line;
    };
    switch (line.front()) {
      case 'V':
        take("Via:", lines.via);
        break;
      case 'F':
        take("From:", lines.from);
        break;
      case 'T':
        take("To:", lines.to);
        break;
      case 'C':
        take("Call-ID:", lines.call_id);
        take("CSeq:", lines.cseq);
        take("Contact:", lines.contact);
        break;
      case 'E':
        take("Expires:", lines.expires);
        break;
      case 'A':
        take("Authorization:", lines.credentials);
        break;
      case 'W':
        take("WWW-Authenticate:", lines.challenge);
        break;
      default:
        break;
    }
  }
  return !lines.via.empty() && !lines.from.empty() && !lines.to.empty() && !lines.call_id.empty() &&
         !lines.cseq.empty();
}

std::int64_t NumberBehind(std::string_view line, std::string_view text, std::int64_t otherwise) {
  auto at = line.find(text);
  if (at == std::string_view::npos) return otherwise;
  at += text.size();
  while (at < line.size() && line[at] == ' ') ++at;
  std::int64_t value = otherwise;
  std::from_chars(line.data() + at, line.data() + line.size(), value);
  return value;
}

std::string_view QuotedBehind(std::string_view line, std::string_view name) {
  std::size_t at = 0;
  // "cnonce" is not "nonce".
  while ((at = line.find(name, at)) != std::string_view::npos && at > 0 && line[at - 1] != ' ' &&
         line[at - 1] != ',') {
    ++at;
  }
  if (at == std::string_view::npos) return {};
  const std::string_view rest = line.substr(at + name.size());
  return rest.substr(0, rest.find('"'));
}

std::string_view UriOf(std::string_view line) {
  const auto at = line.find('<');
  if (at == std::string_view::npos) return {};
  const std::string_view rest = line.substr(at + 1);
  return rest.substr(0, rest.find('>'));
}

SipWriter& SipWriter::operator<<(std::uint64_t number) {
  std::array<char, 24> digits;
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  return *this << std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

SipWriter& SipWriter::Hex(std::uint64_t number) {
  std::array<char, 16> digits;
  for (std::size_t i = 16; i-- > 0; number >>= 4) digits[i] = "0123456789abcdef"[number & 15];
  return *this << std::string_view(digits.data(), digits.size());
}

std::uint64_t NextRandom(std::uint64_t& seed) {
  seed += 0x9E3779B97F4A7C15U;
  std::uint64_t mixed = seed;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
  return mixed ^ (mixed >> 31);
}

}  // namespace bench
