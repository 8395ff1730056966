#include "host/options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "host/option_checks.h"

namespace host {
namespace {

constexpr const char* kPasswordVariable = "TOLVANE_AUTH_PASSWORD";

constexpr const char* kExamples = R"(Examples:
  tolvane demo
      Shows one registration from beginning to end on loopback; needs no network and no settings.
  tolvane register --aor sip:alice@example.com --registrar sip:example.com
      Registers and keeps the binding fresh until Ctrl-C, then removes it.
  tolvane register --aor sip:alice@example.com --registrar sip:registrar.example.com:5060 \
      --auth-user alice --auth-password-file secret.txt --expires 600 --trace
      The same with digest authentication, showing each message as it goes and comes.
  tolvane register --aor sip:alice@example.com --registrar "sip:[2001:db8::1]" \
      --auto-reregister --reregister-interval 30 --duration 3600 --json
      For one hour, over IPv6; a lost registration is made again; one JSON object a line.
  tolvane register --aor sip:alice@example.com --registrar sip:example.com --subscribe
      Reports at once when the registrar ends the binding, and ends then.
  tolvane check-config --work-dir /etc/tolvane
      Shows the templates in /etc/tolvane/TOLVANE.xml, or what is wrong with them and where.
  tolvane register --aor sip:alice@example.com --registrar sip:example.com \
      --work-dir /etc/tolvane --log-dir /var/log/tolvane --log-level 1
      With these templates, which SIGHUP reads again, and warnings and errors in a log.

Exit status: 0 registered and deregistered; 1 the registration failed or was lost;
             2 wrong usage, or faults in the templates;
             3 the plug-in, its log or the network could not be started.
             Of check-config: 0 no faults; 1 faults; 2 wrong usage.
)";

int Complain(const std::string& text, const char* verb) {
  std::fprintf(stderr, "tolvane: %s\nRun \"tolvane %s --help\" to see all options.\n", text.c_str(),
               verb);
  return kExitUsage;
}

struct RawOptions {
  RegisterOptions checked;
  std::int64_t expires = 3600;
  std::int64_t interval = 0;
  std::int64_t duration = 0;
  std::int64_t t1 = 500;
  std::string password_file;
  std::string local;
  std::string work_dir;
  std::string log_dir;
  std::optional<std::int64_t> log_level;
  std::optional<std::int64_t> log_max_size;
  std::optional<std::int64_t> log_files;
};

void AddWorkDir(CLI::App& app, RawOptions& raw) {
  app.add_option("--work-dir", raw.work_dir,
                 "directory with TOLVANE.xml, the templates for headers of REGISTER requests")
      ->type_name("DIR");
}

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
  app.add_flag("--subscribe", o.subscribe,
               "follow the registrar's own view of the binding (event package \"reg\"): report it "
               "when the registrar ends or changes it");
  app.add_flag("--auto-reregister", o.auto_reregister,
               "make a registration again that got lost, or that the registrar ended (unless it "
               "rejects it); needs --reregister-interval");
  app.add_option("--reregister-interval", raw.interval, "seconds between attempts to make it again")
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
  app.add_option("--t1", raw.t1,
                 "SIP timer T1 in milliseconds, 10 to 4000 (default 500): a request is sent again "
                 "after T1 and given up after 64 times T1 (RFC 3261 17.1.1.1); for tests, and for "
                 "very fast or slow networks")
      ->type_name("MS");
  app.add_option("--duration", raw.duration, "deregister and end after so many seconds")
      ->type_name("S");
  AddWorkDir(app, raw);
  app.add_option("--log-dir", raw.log_dir,
                 "directory for the log, Tolvane.log; without it there is none")
      ->type_name("DIR");
  app.add_option("--log-level", raw.log_level,
                 "0 errors, 1 warnings too, 2 the course of events too, 3 everything (default 3)")
      ->type_name("0..3");
  app.add_option("--log-max-size", raw.log_max_size,
                 "size at which the log is copied away and begun again (default 5)")
      ->type_name("MIB");
  app.add_option("--log-files", raw.log_files,
                 "how many such copies are kept beside the log (default 2)")
      ->type_name("N");
  app.add_flag("--trace", o.trace, "show each message as sent and received, secrets masked");
  app.add_flag("--json", o.json, "one JSON object a line instead of words");
}

std::optional<std::string> CheckSeconds(const char* option, std::int64_t value) {
  return CheckRange(option, value, 1, kMaxSeconds, " seconds");
}

// Puts the option's name in front of what is wrong with its value.
std::optional<std::string> At(const char* option, std::optional<std::string> wrong) {
  if (wrong) wrong = std::string(option) + " " + *wrong;
  return wrong;
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

std::optional<std::string> CheckLog(const RawOptions& raw, bool has_dir, LogOptions& log) {
  struct Row {
    const char* option;
    const std::optional<std::int64_t>& given;
    int least;
    int most;
    const char* unit;
    std::optional<int>& taken;
  };
  const Row rows[] = {{"--log-level", raw.log_level, 0, 3, "", log.level},
                      {"--log-max-size", raw.log_max_size, 1, 2047, " MiB", log.max_size},
                      {"--log-files", raw.log_files, 1, 100, "", log.files}};
  for (const Row& row : rows) {
    if (!row.given) continue;
    if (!has_dir) return std::string(row.option) + " means nothing without --log-dir";
    if (auto wrong = CheckRange(row.option, *row.given, row.least, row.most, row.unit)) {
      return wrong;
    }
    row.taken = static_cast<int>(*row.given);
  }
  if (!has_dir) return std::nullopt;
  if (auto wrong = At("--log-dir", ResolveDirectory(raw.log_dir, log.directory))) return wrong;
  return At("--log-dir", PrepareLogDirectory(log.directory, log.files.value_or(kDefaultLogFiles)));
}

std::optional<std::string> CheckRegisterOptions(const CLI::App& app, RawOptions& raw) {
  RegisterOptions& o = raw.checked;
  if (auto wrong = At("--aor", CheckAor(o.aor))) return wrong;
  if (auto wrong = At("--registrar", CheckRegistrar(o.registrar))) return wrong;
  if (auto wrong = CheckSeconds("--expires", raw.expires)) return wrong;
  o.expires = static_cast<int>(raw.expires);
  if (!o.display_name.empty()) {
    if (auto wrong = At("--display-name", CheckDisplayName(o.display_name, o.aor))) return wrong;
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
    if (auto wrong = At("--local", ParseLocal(raw.local, o.local_address, o.local_port)))
      return wrong;
  }
  if (auto wrong = CheckFamilies(o.local_address, o.registrar)) return wrong;
  if (auto wrong = CheckRange("--t1", raw.t1, kLeastT1.count(), kMostT1.count(), " milliseconds")) {
    return wrong;
  }
  o.t1 = std::chrono::milliseconds(raw.t1);
  if (app.count("--duration") != 0) {
    if (auto wrong = CheckSeconds("--duration", raw.duration)) return wrong;
    o.duration = std::chrono::seconds(raw.duration);
  }
  if (auto wrong = CheckCredentials(raw)) return wrong;
  if (app.count("--work-dir") != 0) {
    if (auto wrong = At("--work-dir", ResolveDirectory(raw.work_dir, o.work_dir))) return wrong;
  }
  // Last, as it leaves a directory and a file behind.
  return CheckLog(raw, app.count("--log-dir") != 0, o.log);
}

}  // namespace

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
  CLI::App* check = app.add_subcommand(
      "check-config", "read the templates of a directory as register would, and show them");
  AddWorkDir(*check, raw);
  check->get_option("--work-dir")->required();
  const CLI::App* demo =
      app.add_subcommand("demo", "show one registration from beginning to end on loopback");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {  // --help, --version
    line.exit_status = app.exit(success) == 0 ? kExitOk : kExitUsage;
    return line;
  } catch (const CLI::ParseError& error) {
    const std::string what = argc > 1 && app.get_subcommands().empty() && argv[1][0] != '-'
                                 ? "there is no command " + Quoted(argv[1]) +
                                       "; the commands are register, check-config and demo"
                                 : std::string(error.what());
    std::fprintf(stderr, "tolvane: %s\nRun \"tolvane --help\" to see the commands.\n",
                 what.c_str());
    line.exit_status = kExitUsage;
    return line;
  }
  if (demo->parsed()) {
    line.verb = CommandLine::Verb::kDemo;
    return line;
  }
  const bool registers = reg->parsed();
  const std::optional<std::string> wrong =
      registers ? CheckRegisterOptions(*reg, raw)
                : At("--work-dir", ResolveDirectory(raw.work_dir, raw.checked.work_dir));
  if (wrong) {
    line.exit_status = Complain(*wrong, registers ? "register" : "check-config");
    return line;
  }
  line.verb = registers ? CommandLine::Verb::kRegister : CommandLine::Verb::kCheckConfig;
  line.options = std::move(raw.checked);
  return line;
}

}  // namespace host
