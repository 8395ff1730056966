#include "host/options.h"

#include <arpa/inet.h>

#include <cerrno>
#include <charconv>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "nsip/nsip.h"

namespace host {
namespace {

constexpr const char* kPasswordVariable = "TOLVANE_AUTH_PASSWORD";

constexpr const char* kExamples = R"(Examples:
  tolvane demo
      Shows one registration from beginning to end on loopback; needs no network and no settings.
  tolvane register --aor sip:alice@example.com --registrar sip:example.com
      Registers and keeps the binding fresh until Ctrl-C, then gives it back.
  tolvane register --aor sip:alice@example.com --registrar sip:registrar.example.com:5060 \
      --auth-user alice --auth-password-file secret.txt --expires 600 --trace
      The same with digest authentication, showing each message as it goes and comes.
  tolvane register --aor sip:alice@example.com --registrar "sip:[2001:db8::1]" \
      --auto-reregister --reregister-interval 30 --duration 3600 --json
      For one hour, over IPv6; a lost registration is brought back; one JSON object a line.

Exit status: 0 registered and deregistered; 1 the registration failed or was lost;
             2 wrong usage; 3 the plug-in or the network could not be started.
)";

bool HasControl(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return true;
  }
  return false;
}

// Strict UTF-8 (no overlong forms, no surrogates): what is handed over ends up in an XML document.
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
        (length == 4 && (code < 0x10000 || code > 0x10ffff))) {
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
      strcasecmp(transport->value.c_str(), "udp") != 0) {
    return Quoted(text) + " asks for transport " + Quoted(transport->value) +
           "; only udp is supported yet";
  }
  if (!uri.headers.empty()) return Quoted(text) + " has a \"?\" part, which has no place here";
  return std::nullopt;
}

// Between the display name and its URI nothing may be misread: what comes back must be what went
// in.
std::optional<std::string> CheckDisplayName(const std::string& name, const std::string& aor) {
  nsip_from parsed;
  if (HasControl(name) || !IsUtf8(name) || !nsip_from_parse(name + "<" + aor + ">", parsed) ||
      parsed.displayname != name) {
    return Quoted(name) +
           " cannot be used; a display name holds no quotes, angle brackets or control characters "
           "and no "
           "blanks at its ends";
  }
  return std::nullopt;
}

int Complain(const std::string& text) {
  std::fprintf(stderr, "tolvane: %s\nRun \"tolvane register --help\" to see all options.\n",
               text.c_str());
  return kExitUsage;
}

struct RawOptions {
  RegisterOptions checked;
  std::int64_t expires = 3600;
  std::int64_t interval = 0;
  std::int64_t duration = 0;
  std::string password_file;
  std::string local;
};

void AddRegisterOptions(CLI::App& app, RawOptions& raw) {
  RegisterOptions& o = raw.checked;
  app.add_option("--aor", o.aor, "address of record, as in sip:alice@example.com")
      ->required()
      ->type_name("URI");
  app.add_option("--registrar", o.registrar,
                 "the registrar, as in sip:example.com or sip:[::1]:5060")
      ->required()
      ->type_name("URI");
  app.add_option("--expires", raw.expires, "seconds to ask for (default 3600)")->type_name("S");
  app.add_option("--display-name", o.display_name, "the name shown beside the address")
      ->type_name("TEXT");
  app.add_option("--user-agent", o.user_agent, "text of the User-Agent header")->type_name("TEXT");
  app.add_flag("--auto-refresh,!--no-auto-refresh", o.auto_refresh,
               "refresh the binding before it ends (on unless switched off)");
  app.add_flag("--auto-reregister", o.auto_reregister,
               "bring a registration back that got lost; needs --reregister-interval");
  app.add_option("--reregister-interval", raw.interval, "seconds between attempts to bring it back")
      ->type_name("S");
  app.add_option("--auth-user", o.auth_user, "user name for digest authentication")
      ->type_name("USER");
  app.add_option("--auth-password-file", raw.password_file,
                 "file with the password on its one line; instead the environment variable "
                 "TOLVANE_AUTH_PASSWORD can hold it")
      ->type_name("FILE");
  app.add_option("--local", raw.local,
                 "address and port to send from, as in 192.0.2.7:5070 or [::1]:5070; port 0 takes "
                 "a free one")
      ->type_name("ADDR:PORT");
  app.add_option("--duration", raw.duration, "deregister and end after so many seconds")
      ->type_name("S");
  app.add_flag("--trace", o.trace, "show each message as sent and received, secrets masked");
  app.add_flag("--json", o.json, "one JSON object a line instead of words");
}

std::optional<std::string> CheckSeconds(const char* option, std::int64_t value) {
  if (value >= 1 && value <= kMaxSeconds) return std::nullopt;
  return std::string(option) + " must lie between 1 and " + std::to_string(kMaxSeconds) +
         " seconds, not " + std::to_string(value);
}

std::optional<std::string> CheckCredentials(RawOptions& raw) {
  RegisterOptions& o = raw.checked;
  const char* variable = std::getenv(kPasswordVariable);  // NOLINT(concurrency-mt-unsafe)
  const bool has_variable = variable != nullptr;
  if (has_variable) o.auth_password = variable;
  unsetenv(kPasswordVariable);  // NOLINT(concurrency-mt-unsafe): no thread has been started yet
  if (!raw.password_file.empty()) {
    if (auto wrong = ReadPasswordFile(raw.password_file, o.auth_password)) return wrong;
  } else if (has_variable && (o.auth_password.empty() || o.auth_password.size() > kMaxPassword)) {
    return std::string(kPasswordVariable) + " is set but " +
           (o.auth_password.empty() ? "empty" : "too long; at most 1024 bytes are taken");
  }
  const bool has_password = has_variable || !raw.password_file.empty();
  if (o.auth_user.empty() && has_password) {
    return std::string("there is a password (") +
           (raw.password_file.empty() ? kPasswordVariable : "--auth-password-file") +
           ") but no user; add --auth-user";
  }
  if (!o.auth_user.empty() && !has_password) {
    return std::string("--auth-user needs a password: give --auth-password-file or set ") +
           kPasswordVariable;
  }
  if (HasControl(o.auth_user) || !IsUtf8(o.auth_user)) {
    return "--auth-user holds control characters or is not UTF-8";
  }
  if (HasControl(o.auth_password)) {
    return "the password holds control characters, or more than one line";
  }
  return std::nullopt;
}

// From an IPv4 address no IPv6 one can be reached, nor the other way round.
std::optional<std::string> CheckFamilies(const RegisterOptions& o) {
  nsip_uri uri;
  in_addr v4{};
  if (o.local_address.empty() || !nsip_uri_parse(o.registrar, uri)) return std::nullopt;
  const bool local_v6 = o.local_address.find(':') != std::string::npos;
  const bool far_v6 = uri.host.front() == '[';
  const bool far_v4 = inet_pton(AF_INET, uri.host.c_str(), &v4) == 1;
  if ((local_v6 && far_v4) || (!local_v6 && far_v6)) {
    return "--local is an " + std::string(local_v6 ? "IPv6" : "IPv4") +
           " address, but the registrar is at " + uri.host +
           "; give a local address of the same kind, or none";
  }
  return std::nullopt;
}

std::optional<std::string> CheckRegisterOptions(RawOptions& raw) {
  RegisterOptions& o = raw.checked;
  const auto at = [](const char* option, std::optional<std::string> wrong) {
    if (wrong) wrong = std::string(option) + " " + *wrong;
    return wrong;
  };
  if (auto wrong = at("--aor", CheckAor(o.aor))) return wrong;
  if (auto wrong = at("--registrar", CheckRegistrar(o.registrar))) return wrong;
  if (auto wrong = CheckSeconds("--expires", raw.expires)) return wrong;
  o.expires = static_cast<int>(raw.expires);
  if (!o.display_name.empty()) {
    if (auto wrong = at("--display-name", CheckDisplayName(o.display_name, o.aor))) return wrong;
  }
  if (HasControl(o.user_agent) || !IsUtf8(o.user_agent)) {
    return "--user-agent holds control characters or is not UTF-8";
  }
  if (o.auto_reregister && raw.interval == 0) {
    return "--auto-reregister needs --reregister-interval, the seconds between attempts";
  }
  if (!o.auto_reregister && raw.interval != 0) {
    return "--reregister-interval means nothing without --auto-reregister";
  }
  if (o.auto_reregister) {
    if (auto wrong = CheckSeconds("--reregister-interval", raw.interval)) return wrong;
    o.reregister_interval = static_cast<int>(raw.interval);
  }
  if (!raw.local.empty()) {
    if (auto wrong = at("--local", ParseLocal(raw.local, o.local_address, o.local_port)))
      return wrong;
  }
  if (auto wrong = CheckFamilies(o)) return wrong;
  return CheckCredentials(raw);
}

}  // namespace

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

CommandLine ParseCommandLine(int argc, char** argv) {
  CommandLine line;
  RawOptions raw;
  CLI::App app("tolvane keeps SIP addresses of record registered.", "tolvane");
  app.footer(kExamples);
  app.set_version_flag("--version", "tolvane " TOLVANE_VERSION);
  app.require_subcommand(1);
  CLI::App* reg = app.add_subcommand(
      "register", "register at a registrar, keep the binding fresh, deregister at the end");
  AddRegisterOptions(*reg, raw);
  reg->footer(kExamples);
  const CLI::App* demo =
      app.add_subcommand("demo", "show one registration from beginning to end on loopback");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {  // --help, --version
    line.exit_status = app.exit(success) == 0 ? kExitOk : kExitUsage;
    return line;
  } catch (const CLI::ParseError& error) {
    const std::string what =
        argc > 1 && app.get_subcommands().empty() && argv[1][0] != '-'
            ? "there is no command " + Quoted(argv[1]) + "; the commands are register and demo"
            : std::string(error.what());
    std::fprintf(stderr, "tolvane: %s\nRun \"tolvane --help\" to see what can be asked.\n",
                 what.c_str());
    line.exit_status = kExitUsage;
    return line;
  }
  if (demo->parsed()) {
    line.verb = CommandLine::Verb::kDemo;
    return line;
  }
  if (raw.duration != 0 || reg->count("--duration") != 0) {
    if (const auto wrong = CheckSeconds("--duration", raw.duration)) {
      line.exit_status = Complain(*wrong);
      return line;
    }
  }
  if (const auto wrong = CheckRegisterOptions(raw)) {
    line.exit_status = Complain(*wrong);
    return line;
  }
  line.verb = CommandLine::Verb::kRegister;
  line.options = std::move(raw.checked);
  line.options.duration = std::chrono::seconds(raw.duration);
  return line;
}

}  // namespace host
