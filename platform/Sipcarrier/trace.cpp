#include "Sipcarrier/trace.h"

#include <algorithm>
#include <array>

#include "base/text.h"
#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

constexpr std::string_view kMask = "***";
constexpr std::string_view kBlank = " \t\r\n";

enum class HeaderKind { kPlain, kInfo, kCredentials };

HeaderKind KindOf(std::string_view name) {
  const auto end = name.find_last_not_of(" \t");
  name = name.substr(0, end == std::string_view::npos ? 0 : end + 1);
  if (base::EqualNoCase(name, "Authorization") || base::EqualNoCase(name, "Proxy-Authorization")) {
    return HeaderKind::kCredentials;
  }
  if (base::EqualNoCase(name, "Authentication-Info") ||
      base::EqualNoCase(name, "Proxy-Authentication-Info")) {
    return HeaderKind::kInfo;
  }
  return HeaderKind::kPlain;
}

bool IsSecret(std::string_view name) {
  static constexpr std::array<std::string_view, 4> kSecrets{"response", "cnonce", "nextnonce",
                                                            "rspauth"};
  return std::any_of(kSecrets.begin(), kSecrets.end(),
                     [&](std::string_view secret) { return base::EqualNoCase(name, secret); });
}

// Where the quoted string that begins at `at` ends; at the end of the value when it is not closed.
std::size_t QuotedEnd(std::string_view value, std::size_t at) {
  for (++at; at < value.size(); ++at) {
    if (value[at] == '\\') {
      ++at;
    } else if (value[at] == '"') {
      return at + 1;
    }
  }
  return value.size();
}

std::size_t SkipBlank(std::string_view value, std::size_t at) {
  return std::min(value.find_first_not_of(kBlank, at), value.size());
}

// A list of name=value with quoted strings and tokens.
void MaskParams(std::string_view value, std::string& out) {
  std::size_t at = 0;
  while (at < value.size()) {
    const std::size_t name_end = std::min(value.find_first_of(" \t\r\n,=\"", at), value.size());
    const std::string_view name = value.substr(at, name_end - at);
    const std::size_t equals = SkipBlank(value, name_end);
    const bool secret = equals < value.size() && value[equals] == '=' && IsSecret(name);
    std::size_t next = name_end;
    if (secret) {
      const std::size_t start = SkipBlank(value, equals + 1);
      out.append(value, at, start - at);
      const bool quoted = start < value.size() && value[start] == '"';
      next = quoted ? QuotedEnd(value, start)
                    : std::min(value.find_first_of(" \t\r\n,", start), value.size());
      if (quoted) out.push_back('"');
      if (next > start) out.append(kMask);
      if (quoted) out.push_back('"');
    } else {
      if (next < value.size()) next = value[next] == '"' ? QuotedEnd(value, next) : next + 1;
      out.append(value, at, next - at);
    }
    at = next;
  }
}

// Credentials of a scheme other than Digest are secret as a whole (Basic, Bearer).
void MaskCredentials(std::string_view value, std::string& out) {
  const std::size_t scheme = SkipBlank(value, 0);
  const std::size_t scheme_end = std::min(value.find_first_of(kBlank, scheme), value.size());
  out.append(value, 0, scheme_end);
  const std::string_view rest = value.substr(scheme_end);
  if (base::EqualNoCase(value.substr(scheme, scheme_end - scheme), "Digest")) {
    MaskParams(rest, out);
    return;
  }
  const std::size_t first = SkipBlank(rest, 0);
  const std::size_t last = rest.find_last_not_of(kBlank);
  out.append(rest, 0, first);
  if (first < rest.size()) {
    out.append(kMask);
    out.append(rest.substr(last + 1));
  }
}

// The end of the header line that begins at `at`, folded lines (RFC 3261 §7.3.1) and line end
// included.
std::size_t HeaderEnd(std::string_view text, std::size_t at) {
  for (;;) {
    at = text.find('\n', at);
    if (at == std::string_view::npos) return text.size();
    ++at;
    if (at >= text.size() || (text[at] != ' ' && text[at] != '\t')) return at;
  }
}

}  // namespace

void MaskSecrets(std::string_view message, std::string& masked) {
  masked.clear();
  masked.reserve(message.size() + 16);
  std::size_t at = 0;
  while (at < message.size() && message[at] != '\r' && message[at] != '\n') {
    const std::size_t end = HeaderEnd(message, at);
    const std::string_view line = message.substr(at, end - at);
    const std::size_t colon = line.find(':');
    const HeaderKind kind =
        colon == std::string_view::npos ? HeaderKind::kPlain : KindOf(line.substr(0, colon));
    if (kind == HeaderKind::kPlain) {
      masked.append(line);
    } else {
      masked.append(line, 0, colon + 1);
      const std::string_view value = line.substr(colon + 1);
      kind == HeaderKind::kInfo ? MaskParams(value, masked) : MaskCredentials(value, masked);
    }
    at = end;
  }
  masked.append(message.substr(at));
}

void Tracer::Record(bool sent, const SocketAddress& local, const SocketAddress& remote,
                    std::string_view text) noexcept {
  if (!hook_) return;
  try {
    MaskSecrets(text, masked_);
    TraceRecord record;
    record.sent = sent;
    record.local = local.Text();
    record.remote = remote.Text();
    record.text = masked_;
    hook_(record);
  } catch (...) {
    LiveCounters::Add(counters_.lost_no_memory);
  }
}

}  // namespace sipcarrier
