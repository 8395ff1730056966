// tolvane-registrar: the loopback registrar as a program.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
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
#include <string_view>
#include <utility>
#include <vector>

#include "registrar/loopback_socket.h"
#include "registrar/orders.h"
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
  bool orders = false;
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

void PrintRequest(const nsip_message& request, int status) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, 16> time{};
  std::strftime(time.data(), time.size(), "%H:%M:%S", &local);

  std::string asked = "no Contact";
  if (request.contact_star) {
    asked = "Contact *";
  } else if (!request.contacts.empty() && request.contacts.front()) {
    asked = nsip_from_text(*request.contacts.front());
  }
  nsip_header* expires = nullptr;
  if (nsip_message_header_get_byname(&request, "Expires", 0, &expires) >= 0) {
    asked += ", Expires " + expires->hvalue;
  }
  std::printf("%s.%03d %s %s, CSeq %u, %s -> %s\n", time.data(), static_cast<int>(ms),
              request.sip_method.c_str(),
              registrar::Printable(nsip_uri_text(*request.to->url)).c_str(), request.cseq_number,
              registrar::Printable(asked).c_str(),
              status == 0 ? "no response" : std::to_string(status).c_str());
  std::fflush(stdout);
}

// The first of the words is the default.
template <class Value>
void DescribeManner(CLI::App& app, const char* name, Value& value, const char* what,
                    const std::vector<std::pair<std::string, Value>>& words) {
  std::vector<std::string> names;
  names.reserve(words.size());
  for (const auto& [word, meaning] : words) names.push_back(word);
  app.add_option_function<std::string>(
         name,
         [&value, words](const std::string& given) {
           for (const auto& [word, meaning] : words) {
             if (word == given) value = meaning;
           }
         },
         what)
      ->check(CLI::IsMember(names))
      ->default_str(names.front());
}

void DescribeRegEvent(CLI::App& app, registrar::RegEventOptions& options) {
  using namespace registrar;
  app.add_option("--subscribe-min-expires", options.min_expires,
                 "Respond 423 to subscriptions shorter than this, in seconds; 0: never")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_option("--subscribe-max-expires", options.max_expires,
                 "Cut longer subscriptions, in seconds")
      ->check(CLI::Range(1, 2147483647))
      ->capture_default_str();
  app.add_option("--subscribe-default-expires", options.default_expires,
                 "Grant to a SUBSCRIBE that names no time, in seconds")
      ->check(CLI::Range(1, 2147483647))
      ->capture_default_str();
  app.add_flag("--pending", options.pending, "Subscriptions wait for the order \"approve\"");
  DescribeManner(app, "--versions", options.versions,
                 "How documents are numbered: proper, one (from 1), aor (one count for the address "
                 "of record), zero (always), gaps (2, 5, 8), twice (each number)",
                 {{"proper", Versions::kProper},
                  {"one", Versions::kOne},
                  {"aor", Versions::kAor},
                  {"zero", Versions::kZero},
                  {"gaps", Versions::kGaps},
                  {"twice", Versions::kTwice}});
  DescribeManner(app, "--contact-ids", options.contact_ids,
                 "Contact ids: stable, fresh (in each document), swapped (passed around)",
                 {{"stable", ContactIds::kStable},
                  {"fresh", ContactIds::kFresh},
                  {"swapped", ContactIds::kSwapped}});
  DescribeManner(app, "--documents", options.documents, "What tells a change: full, partial",
                 {{"full", Documents::kFull}, {"partial", Documents::kPartial}});
  DescribeManner(app, "--gone", options.gone,
                 "A contact that is gone is listed once more, or missing from full documents",
                 {{"listed", Gone::kListed}, {"missing", Gone::kMissing}});
  app.add_option_function<int>(
         "--t1", [&options](int ms) { options.t1 = std::chrono::milliseconds(ms); },
         "First wait before a NOTIFY is sent again, in ms; it is given up after 64 times of it")
      ->check(CLI::Range(1, 10000))
      ->default_str("500");
}

void Describe(CLI::App& app, Arguments& arguments) {
  registrar::Options& options = arguments.options;
  app.add_option("--address", options.address, "Loopback address to listen on")
      ->capture_default_str();
  app.add_option("--port", options.port, "UDP port; 0: a free one")->default_val(5060);
  app.add_option("--min-expires", options.min_expires,
                 "Respond 423 to a shorter expiry, in seconds; 0: never")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_option("--max-expires", options.max_expires, "Cut a longer expiry, in seconds")
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
  DescribeRegEvent(app, options.reg_event);
  app.add_flag("--orders", arguments.orders,
               "Take orders on the standard input, a line each; \"help\" lists them");
  app.add_option("--duration", arguments.duration,
                 "End after so many seconds; 0: at SIGINT or SIGTERM")
      ->check(CLI::Range(0.0, 1e8))
      ->capture_default_str();
  app.add_flag("--verbose", arguments.verbose, "Print a line for each request");
  app.footer("Exit status: 0 ended as asked, 2 wrong usage, 3 cannot listen.");
}

// Takes orders until SIGINT, SIGTERM or the end of the duration; the end of the orders ends
// nothing. The signals are blocked in all threads.
void Serve(registrar::Registrar& registrar, const registrar::FileDescriptor& signals,
           const Arguments& arguments) {
  registrar::LineReader orders(
      [&](std::string_view line) { std::cout << RunOrder(registrar, line) << std::flush; },
      [] { std::cout << "error: the order is too long" << std::endl; });
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(arguments.duration);
  pollfd fds[2] = {{signals.get(), POLLIN, 0}, {arguments.orders ? STDIN_FILENO : -1, POLLIN, 0}};
  for (;;) {
    std::chrono::milliseconds left = std::chrono::hours(1);
    if (arguments.duration > 0) {
      const auto real =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (real.count() <= 0) return;
      left = std::min(left, real);
    }
    if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) return;
    if (fds[0].revents != 0) return;
    if (fds[1].revents == 0) continue;
    std::array<char, 4096> bytes{};
    const ssize_t size = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (size > 0) {
      orders.Feed({bytes.data(), static_cast<std::size_t>(size)});
    } else if (size == 0 || (errno != EINTR && errno != EAGAIN)) {
      orders.End();
      fds[1].fd = -1;
    }
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
  if (options.max_expires < options.min_expires ||
      options.reg_event.max_expires < options.reg_event.min_expires) {
    std::cerr << "tolvane-registrar: --max-expires (or --subscribe-max-expires) is below its "
                 "minimum: nothing could be granted\n";
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
  const registrar::FileDescriptor signal_fd(signalfd(-1, &signals, SFD_CLOEXEC));
  if (!signal_fd.valid()) {
    std::cerr << "tolvane-registrar: no descriptor for signals\n";
    return kCannotStart;
  }
  if (arguments.verbose) registrar.OnResponse(PrintRequest);
  if (!registrar.Start(error)) {
    std::cerr << "tolvane-registrar: " << error << "\n";
    return kCannotStart;
  }
  std::cout << "tolvane-registrar, a test double on loopback, not a server for a network\n"
            << "listening on " << registrar.uri() << std::endl;
  Serve(registrar, signal_fd, arguments);
  registrar.Stop();
  const registrar::Counters counters = registrar.GetCounters();
  const registrar::RegEventCounters reg_event = registrar.GetRegEventCounters();
  std::cout << "ended: " << counters.requests << " requests, " << counters.retransmissions
            << " retransmissions, " << counters.garbage << " unreadable datagrams, "
            << reg_event.subscribes << " subscribes, " << reg_event.notifies << " notifies"
            << std::endl;
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
