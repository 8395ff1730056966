// tolvane-registrar: the loopback registrar as a program.
#include <signal.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "registrar/registrar.h"

namespace {

constexpr int kOk = 0;
constexpr int kUsage = 2;
constexpr int kCannotStart = 3;

constexpr char kPasswordVariable[] = "TOLVANE_REGISTRAR_PASSWORD";
constexpr char kWhat[] =
    "A SIP registrar over UDP for demonstrations and tests. It is a test double: it listens on "
    "loopback only,\n"
    "keeps its bindings in memory, serves any domain, and is not made to serve a network.";

struct Arguments {
  registrar::Options options;
  std::vector<std::string> users;
  std::string password_file;
  std::string qop = "auth";
  double duration = 0;
  bool verbose = false;
};

// False and a text when there is no password to be had.
bool ReadPassword(const std::string& file, std::string& password, std::string& error) {
  if (!file.empty()) {
    std::ifstream in(file);
    if (!std::getline(in, password)) {
      error = "no password can be read from " + file + ": its first line is the password";
      return false;
    }
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return true;
  }
  const char* value = std::getenv(kPasswordVariable);
  if (value == nullptr) {
    error =
        std::string("--user needs a password: give --password-file, or set ") + kPasswordVariable;
    return false;
  }
  password = value;
  return true;
}

// What came from the wire must not steer the terminal.
std::string Printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  }
  return text;
}

void PrintRequest(const nsip_message& request, int status) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, 16> time{};
  std::strftime(time.data(), time.size(), "%H:%M:%S", &local);

  std::string wish = "no Contact";
  if (request.contact_star) {
    wish = "Contact *";
  } else if (!request.contacts.empty() && request.contacts.front()) {
    wish = nsip_from_text(*request.contacts.front());
  }
  nsip_header* expires = nullptr;
  if (nsip_message_header_get_byname(&request, "Expires", 0, &expires) >= 0) {
    wish += ", Expires " + expires->hvalue;
  }
  std::printf("%s.%03d REGISTER %s, CSeq %u, %s -> %s\n", time.data(), static_cast<int>(ms),
              Printable(nsip_uri_text(*request.to->url)).c_str(), request.cseq_number,
              Printable(wish).c_str(), status == 0 ? "no answer" : std::to_string(status).c_str());
  std::fflush(stdout);
}

void Describe(CLI::App& app, Arguments& arguments) {
  registrar::Options& options = arguments.options;
  app.add_option("--address", options.address, "Loopback address to listen on")
      ->capture_default_str();
  app.add_option("--port", options.port, "UDP port; 0: a free one")->default_val(5060);
  app.add_option("--min-expires", options.min_expires,
                 "Answer 423 to shorter wishes, in seconds; 0: never")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_option("--max-expires", options.max_expires, "Cut longer wishes, in seconds")
      ->check(CLI::Range(1, 2147483647))
      ->capture_default_str();
  app.add_option("--default-expires", options.default_expires,
                 "Grant to a request that names no time, in seconds")
      ->check(CLI::Range(1, 2147483647))
      ->capture_default_str();
  app.add_option("--user", arguments.users,
                 "Ask for digest and let this user in (repeatable; all share one password)")
      ->take_all();
  app.add_option(
      "--password-file", arguments.password_file,
      std::string("File whose first line is the password; without it, the environment variable ") +
          kPasswordVariable);
  app.add_option("--realm", options.realm, "Realm of the challenges")->capture_default_str();
  app.add_option(
         "--algorithm", options.algorithms,
         "Digest algorithm, in the order of preference (repeatable): MD5, SHA-256, SHA-512-256 "
         "and their -sess forms; default SHA-256, then MD5")
      ->check(CLI::IsMember(
          {"MD5", "MD5-sess", "SHA-256", "SHA-256-sess", "SHA-512-256", "SHA-512-256-sess"},
          CLI::ignore_case))
      ->take_all();
  app.add_option("--qop", arguments.qop,
                 "Quality of protection: auth, or none for the form of RFC 2069")
      ->check(CLI::IsMember({"auth", "none"}))
      ->capture_default_str();
  app.add_option("--nonce-uses", options.nonce_uses,
                 "Requests that a nonce is good for before it is stale; 0: any number")
      ->check(CLI::Range(0, 2147483647))
      ->capture_default_str();
  app.add_flag("--proxy-challenge", options.challenge_with_407,
               "Challenge with 407 instead of 401");
  app.add_option("--p-associated-uri", options.p_associated_uri,
                 "P-Associated-URI of each 200, such as \"<sip:alice@example.com>\" (repeatable)")
      ->take_all();
  app.add_option("--duration", arguments.duration,
                 "End after so many seconds; 0: at SIGINT or SIGTERM")
      ->check(CLI::Range(0.0, 1e8))
      ->capture_default_str();
  app.add_flag("--verbose", arguments.verbose, "Print a line for each request");
  app.footer("Exit status: 0 ended as asked, 2 wrong usage, 3 cannot listen.");
}

// Waits for SIGINT, SIGTERM or the end of the duration. The signals are blocked in all threads.
void WaitForEnd(const sigset_t& signals, double duration) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(duration);
  for (;;) {
    std::chrono::nanoseconds left = std::chrono::hours(1);
    if (duration > 0) {
      left = std::chrono::duration_cast<std::chrono::nanoseconds>(end -
                                                                  std::chrono::steady_clock::now());
      if (left.count() <= 0) return;
    }
    const timespec wait{static_cast<std::time_t>(left.count() / 1000000000),
                        static_cast<long>(left.count() % 1000000000)};
    if (sigtimedwait(&signals, nullptr, &wait) > 0) return;
  }
}

int Run(int argc, char** argv) {
  Arguments arguments;
  CLI::App app(kWhat, "tolvane-registrar");
  Describe(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kOk : kUsage;
  }
  registrar::Options& options = arguments.options;
  std::string error;
  if (arguments.qop == "none") options.qop.clear();
  if (options.max_expires < options.min_expires) {
    std::cerr
        << "tolvane-registrar: --max-expires is below --min-expires: no wish could be granted\n";
    return kUsage;
  }
  if (!arguments.users.empty()) {
    std::string password;
    if (!ReadPassword(arguments.password_file, password, error)) {
      std::cerr << "tolvane-registrar: " << error << "\n";
      return kUsage;
    }
    for (const std::string& user : arguments.users) options.users[user] = password;
  } else if (!arguments.password_file.empty()) {
    std::cerr << "tolvane-registrar: --password-file without --user: name the users to let in\n";
    return kUsage;
  }

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  registrar::Registrar registrar(options);
  if (arguments.verbose) registrar.OnAnswer(PrintRequest);
  if (!registrar.Start(error)) {
    std::cerr << "tolvane-registrar: " << error << "\n";
    return kCannotStart;
  }
  std::cout << "tolvane-registrar, a test double on loopback, not a server for a network\n"
            << "listening on " << registrar.uri() << std::endl;
  WaitForEnd(signals, arguments.duration);
  registrar.Stop();
  const registrar::Counters counters = registrar.GetCounters();
  std::cout << "ended: " << counters.requests << " requests, " << counters.retransmissions
            << " retransmissions, " << counters.garbage << " unreadable datagrams" << std::endl;
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tolvane-registrar: %s\n", failure.what());
    return kCannotStart;
  }
}
