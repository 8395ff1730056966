#include "host/option_checks.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "base/text.h"
#include "nsip/nsip.h"

namespace host {
namespace {

constexpr const char* kLogFile = "Tolvane.log";
// The component takes paths of 260 bytes, the terminating zero included.
constexpr std::size_t kMaxLogPath = 259;

std::optional<std::string> CheckSipUri(const std::string& text, nsip_uri& uri) {
  if (HasControl(text) || !IsUtf8(text)) {
    return Quoted(text) + " holds control characters or is not UTF-8";
  }
  if (text.rfind("sips:", 0) == 0) {
    return Quoted(text) + " asks for TLS, which is not supported yet; use a \"sip:\" URI";
  }
  // Exactly this spelling: the component puts "sip:" in front of everything that does not hold it.
  if (text.rfind("sip:", 0) != 0) {
    std::string hint = " is no SIP URI; write it with the scheme \"sip:\"";
    if (!text.empty() && text.find(':') == std::string::npos)
      hint += ", as in \"sip:" + text + "\"";
    return Quoted(text) + hint;
  }
  if (text.find_first_of(" <>\"") != std::string::npos || !nsip_uri_parse(text, uri) ||
      uri.host.empty()) {
    return Quoted(text) +
           " cannot be read as a SIP URI; it should look like \"sip:alice@example.com\" or "
           "\"sip:[2001:db8::1]:5060\"";
  }
  const nsip_generic_param* transport = nullptr;
  if (nsip_generic_param_get_byname(uri.params, "transport", &transport) == 0 &&
      !base::EqualNoCase(transport->value, "udp")) {
    return Quoted(text) + " asks for transport " + Quoted(transport->value) +
           "; only udp is supported yet";
  }
  if (!uri.headers.empty()) return Quoted(text) + " has a \"?\" part, which has no place here";
  return std::nullopt;
}

}  // namespace

bool HasControl(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return true;
  }
  return false;
}

bool IsUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = lead < 0x80    ? 1
                               : lead < 0xc2  ? 0
                               : lead < 0xe0  ? 2
                               : lead < 0xf0  ? 3
                               : lead <= 0xf4 ? 4
                                              : 0;
    if (length == 0 || i + length > text.size()) return false;
    std::uint32_t code = length == 1 ? lead : lead & (0xffU >> (length + 1));
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xc0U) != 0x80) return false;
      code = code << 6U | (next & 0x3fU);
    }
    if ((length == 3 && code < 0x800) || (code >= 0xd800 && code <= 0xdfff) ||
        (length == 4 && (code < 0x10000 || code > 0x10ffff)) || code == 0xfffe || code == 0xffff) {
      return false;
    }
    i += length;
  }
  return true;
}

std::string Quoted(const std::string& text) {
  std::string shown;
  for (const char c : text.substr(0, 200)) {
    shown += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  }
  return "\"" + shown + "\"";
}

// The display name and its URI are parsed together: the result must be the name that was given.
std::optional<std::string> CheckDisplayName(const std::string& name, const std::string& aor) {
  nsip_from parsed;
  if (HasControl(name) || !IsUtf8(name) || !nsip_from_parse(name + "<" + aor + ">", parsed) ||
      parsed.displayname != name) {
    return Quoted(name) +
           " cannot be used; a display name holds no quotes, angle brackets or control characters "
           "and no blanks at its ends";
  }
  return std::nullopt;
}

std::optional<std::string> CheckRange(const char* option, std::int64_t value, std::int64_t least,
                                      std::int64_t most, const char* unit) {
  if (value >= least && value <= most) return std::nullopt;
  return std::string(option) + " must lie between " + std::to_string(least) + " and " +
         std::to_string(most) + unit + ", not " + std::to_string(value);
}

std::optional<std::string> CheckAor(const std::string& text) {
  nsip_uri uri;
  if (auto wrong = CheckSipUri(text, uri)) return wrong;
  if (!uri.password.empty()) {
    return Quoted(text.substr(0, text.find(':', 4))) +
           "... holds a password; give it with --auth-password-file instead";
  }
  return std::nullopt;
}

std::optional<std::string> CheckRegistrar(const std::string& text) {
  nsip_uri uri;
  if (auto wrong = CheckSipUri(text, uri)) return wrong;
  // RFC 3261 §10.2: the Request-URI of a REGISTER has no user part.
  if (!uri.user.empty() || text.find('@') != std::string::npos) {
    return Quoted(text) +
           " has a user part; a registrar is named by its host alone, as in \"sip:" + uri.host +
           "\"";
  }
  return std::nullopt;
}

std::optional<std::string> ParseLocal(const std::string& text, std::string& address,
                                      std::uint16_t& port) {
  const std::string form =
      "; write ADDR:PORT, as in \"192.0.2.7:5070\" or, for IPv6, \"[::1]:5070\"";
  std::string host;
  std::string_view rest;
  bool v6 = false;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string::npos) return Quoted(text) + " lacks the \"]\"" + form;
    host = text.substr(1, close - 1);
    rest = std::string_view(text).substr(close + 1);
    v6 = true;
  } else {
    const std::size_t colon = text.rfind(':');
    if (colon != std::string::npos && text.find(':') != colon) {
      return Quoted(text) + " looks like an IPv6 address without brackets" + form;
    }
    host = text.substr(0, colon);
    if (colon != std::string::npos) rest = std::string_view(text).substr(colon);
  }
  std::uint16_t number = 0;
  if (rest.empty()) return Quoted(text) + " has no port" + form;
  const std::string_view digits = rest.substr(1);
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (rest.front() != ':' || error != std::errc() || end != digits.data() + digits.size()) {
    return Quoted(text) + " has no port between 0 and 65535 behind the address" + form;
  }
  unsigned char buffer[sizeof(in6_addr)] = {};
  if (inet_pton(v6 ? AF_INET6 : AF_INET, host.c_str(), buffer) != 1) {
    return Quoted(host) + " is no address" + form + " (a name is not enough)";
  }
  address = host;
  port = number;
  return std::nullopt;
}

std::optional<std::string> CheckFamilies(const std::string& local_address,
                                         const std::string& registrar) {
  nsip_uri uri;
  in_addr v4{};
  if (local_address.empty() || !nsip_uri_parse(registrar, uri)) return std::nullopt;
  const bool local_v6 = local_address.find(':') != std::string::npos;
  const bool far_v6 = uri.host.front() == '[';
  const bool far_v4 = inet_pton(AF_INET, uri.host.c_str(), &v4) == 1;
  if ((local_v6 && far_v4) || (!local_v6 && far_v6)) {
    return "--local is an " + std::string(local_v6 ? "IPv6" : "IPv4") +
           " address, but the registrar is at " + uri.host +
           "; give a local address of the same kind, or none";
  }
  return std::nullopt;
}

std::optional<std::string> ReadPasswordFile(const std::string& path, std::string& password) {
  const auto wrong = [&path](const std::string& what) {
    return "--auth-password-file " + Quoted(path) + ": " + what;
  };
  std::ifstream file(path, std::ios::binary);
  if (!file)
    return wrong(std::string("cannot be opened: ") + std::generic_category().message(errno));
  std::string text(kMaxPassword + 3, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (file.bad() || (file.fail() && !file.eof())) return wrong("cannot be read; is it a file?");
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.ends_with('\n')) text.pop_back();
  if (text.ends_with('\r')) text.pop_back();
  if (text.empty()) return wrong("is empty; it should hold the password on one line");
  if (text.size() > kMaxPassword) return wrong("is too long; at most 1024 bytes are taken");
  if (HasControl(text)) return wrong("holds more than one line, or control characters");
  password = std::move(text);
  return std::nullopt;
}

std::optional<std::string> ResolveDirectory(const std::string& text, std::string& absolute) {
  if (text.empty()) return "is empty; name a directory, or \".\" for the current one";
  std::error_code error;
  const std::string path = std::filesystem::absolute(text, error).string();
  if (error) return Quoted(text) + ": the current directory is unknown: " + error.message();
  if (HasControl(path) || !IsUtf8(path)) {
    return Quoted(path) + " holds control characters or is not UTF-8";
  }
  absolute = path;
  return std::nullopt;
}

std::optional<std::string> PrepareLogDirectory(const std::string& absolute, int files) {
  if (absolute.find('\\') != std::string::npos) {
    return Quoted(absolute) +
           " holds a backslash, which the log takes for a \"/\"; name another directory";
  }
  const std::string live = absolute + (absolute.ends_with('/') ? "" : "/") + kLogFile;
  const std::size_t longest = live.size() + std::to_string(files).size() + 1;
  if (longest > kMaxLogPath) {
    return Quoted(absolute) + " is too long: with the name of the log's last copy it comes to " +
           std::to_string(longest) + " bytes, and at most " + std::to_string(kMaxLogPath) +
           " are taken";
  }
  std::error_code error;
  std::filesystem::create_directories(absolute, error);
  if (error) return Quoted(absolute) + " cannot be made: " + error.message();
  const int file = open(live.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (file < 0) {
    return Quoted(live) + " cannot be written: " + std::generic_category().message(errno) +
           "; name a directory in which you may write";
  }
  close(file);
  return std::nullopt;
}

}  // namespace host
