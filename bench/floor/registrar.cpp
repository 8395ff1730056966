// floor_registrar: a registrar over UDP on loopback that costs next to nothing, for measurements of
// its clients. It grants what is asked for and looks at no password. For a soak it can be made
// unreliable. It takes three words in place of a SIP message, each as a datagram: "report" is
// answered with what it prints at its end, "count" with the number of bindings made so far, "reset"
// makes it forget all.

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <queue>
#include <random>
#include <string>
#include <string_view>

#include "floor/batch_socket.h"
#include "floor/registrar_book.h"
#include "floor/sip_text.h"
#include "process_stats.h"

namespace {

using namespace std::chrono_literals;
using bench::Nanoseconds;

constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr std::int64_t kDefaultExpires = 3600;

volatile sig_atomic_t g_stop = 0;

struct Options {
  std::string local = "127.0.0.1:0";
  double seconds = 600;
  bool digest = false;
  std::int64_t max_expires = 86400;
  double refresh_at = 0.5;
  // What makes it unreliable; in percent of the datagrams or requests.
  double loss = 0;
  double unavailable = 0;
  double too_brief = 0;
  std::int64_t min_expires = 0;
  double delay_ms = 0;
  double restart_s = 0;
};

struct Counters {
  std::uint64_t received = 0;
  std::uint64_t garbage = 0;
  std::uint64_t challenged = 0;
  std::uint64_t bound_new = 0;
  std::uint64_t refreshes = 0;
  std::uint64_t removals = 0;
  std::uint64_t repeats = 0;  // of a request that had been answered with 200
  std::uint64_t refused = 0;
  std::uint64_t lost = 0;  // on purpose
  std::uint64_t restarts = 0;
  Nanoseconds first_at = 0;
  Nanoseconds last_new_at = 0;
};

class Registrar {
 public:
  explicit Registrar(const Options& options) : options_(options), book_(options.refresh_at) {}

  [[nodiscard]] bool Open(std::string& error) { return socket_.Open(options_.local, error); }
  [[nodiscard]] std::string Local() const { return socket_.Local(); }
  void Run();
  [[nodiscard]] nlohmann::json Report();

 private:
  struct Delayed {
    Nanoseconds due;
    sockaddr_in to;
    std::string text;
    bool operator<(const Delayed& other) const { return due > other.due; }
  };

  void Take(std::string_view text, const sockaddr_in& from);
  void Respond(const bench::SipLines& request, const sockaddr_in& from);
  [[nodiscard]] std::string_view Decide(const bench::SipLines& request, std::int64_t requested);
  void Reply(std::size_t size, const sockaddr_in& to);
  void Forget(bool counters);
  void Tick();
  [[nodiscard]] bool Chance(double percent) {
    return percent > 0 && std::uniform_real_distribution<>(0, 100)(random_) < percent;
  }

  const Options& options_;
  bench::BatchSocket socket_;
  bench::RegistrarBook book_;
  Counters counters_;
  std::priority_queue<Delayed> delayed_;
  std::minstd_rand random_{1};
  std::uint64_t nonce_seed_ = 1;
  std::uint64_t nonce_epoch_ = 1;  // of all nonces since the last restart
  Nanoseconds now_ = bench::Now();
  Nanoseconds restart_at_ = 0;
  Nanoseconds sweep_at_ = 0;
};

void Registrar::Run() {
  const Nanoseconds end =
      bench::Now() + static_cast<Nanoseconds>(options_.seconds * static_cast<double>(kSecond));
  while (g_stop == 0) {
    Nanoseconds wait = kSecond / 4;
    if (!delayed_.empty()) wait = std::min(wait, delayed_.top().due - bench::Now());
    (void)socket_.Wait(std::chrono::nanoseconds(wait));
    now_ = bench::Now();
    // A full batch is answered at once: an idle client is what would make a registrar costly.
    unsigned count = bench::BatchSocket::kBatch;
    for (int turn = 0; turn < 16 && count == bench::BatchSocket::kBatch; ++turn) {
      count = socket_.Receive(
          [this](std::string_view text, const sockaddr_in& from) { Take(text, from); });
      socket_.Flush();
    }
    Tick();
    if (now_ > end) break;
  }
}

void Registrar::Tick() {
  while (!delayed_.empty() && delayed_.top().due <= now_) {
    bench::SipWriter out(socket_.Room());
    out << delayed_.top().text;
    socket_.Commit(out.size(), delayed_.top().to);
    delayed_.pop();
  }
  socket_.Flush();
  if (now_ >= sweep_at_) {
    book_.Sweep(now_);
    sweep_at_ = now_ + kSecond;
  }
  if (options_.restart_s <= 0) return;
  if (restart_at_ != 0 && now_ >= restart_at_) {
    ++counters_.restarts;
    Forget(false);
  }
  if (now_ >= restart_at_) {
    restart_at_ =
        now_ + static_cast<Nanoseconds>(options_.restart_s * static_cast<double>(kSecond));
  }
}

void Registrar::Forget(bool counters) {
  book_.Clear(counters);
  ++nonce_epoch_;
  if (counters) counters_ = {};
}

void Registrar::Take(std::string_view text, const sockaddr_in& from) {
  bench::SipWriter out(socket_.Room());
  if (text == "report" || text == "reset") {
    if (text == "reset") Forget(true);
    out << Report().dump();
    return socket_.Commit(out.size(), from);
  }
  if (text == "count") {
    out << counters_.bound_new;
    return socket_.Commit(out.size(), from);
  }
  ++counters_.received;
  bench::SipLines request;
  if (!text.starts_with("REGISTER ") || !bench::ReadLines(text, request)) {
    ++counters_.garbage;
  } else if (Chance(options_.loss)) {
    ++counters_.lost;
  } else {
    Respond(request, from);
  }
}

// The status line, and what headers belong to that status.
std::string_view Registrar::Decide(const bench::SipLines& request, std::int64_t requested) {
  if (Chance(options_.unavailable)) {
    ++counters_.refused;
    return Chance(50) ? "SIP/2.0 503 Service Unavailable\r\n"
                      : "SIP/2.0 500 Server Internal Error\r\n";
  }
  if (requested > 0 && requested < options_.min_expires && Chance(options_.too_brief)) {
    ++counters_.refused;
    return "SIP/2.0 423 Interval Too Brief\r\n";
  }
  if (!options_.digest) return "SIP/2.0 200 OK\r\n";
  // The first half of a nonce is the number of restarts that it has seen.
  const std::string_view nonce = bench::QuotedBehind(request.credentials, "nonce=\"");
  std::array<char, 16> epoch;
  bench::SipWriter(epoch).Hex(nonce_epoch_);
  if (nonce.starts_with(std::string_view(epoch.data(), epoch.size()))) return "SIP/2.0 200 OK\r\n";
  ++counters_.challenged;
  return "SIP/2.0 401 Unauthorized\r\n";
}

void Registrar::Respond(const bench::SipLines& request, const sockaddr_in& from) {
  if (counters_.first_at == 0) counters_.first_at = bench::Now();
  std::int64_t requested = bench::NumberBehind(request.contact, ";expires=", -1);
  if (requested < 0) requested = bench::NumberBehind(request.expires, "Expires:", kDefaultExpires);
  requested = std::min(requested, options_.max_expires);
  const std::string_view status = Decide(request, requested);

  bench::SipWriter out(socket_.Room());
  out << status;
  // RFC 3581 §4: who asks with an empty rport is told where the request came from.
  const auto rport = request.via.find(";rport");
  if (rport != std::string_view::npos && request.via.find(";rport=") == std::string_view::npos) {
    const std::uint32_t host = ntohl(from.sin_addr.s_addr);
    out << request.via.substr(0, rport + 6) << "=" << std::uint64_t{ntohs(from.sin_port)}
        << ";received=" << std::uint64_t{host >> 24} << "." << std::uint64_t{(host >> 16) & 255}
        << "." << std::uint64_t{(host >> 8) & 255} << "." << std::uint64_t{host & 255}
        << request.via.substr(rport + 6);
  } else {
    out << request.via;
  }
  out << "\r\n"
      << request.from << "\r\n"
      << request.to << ";tag=f100r\r\n"
      << request.call_id << "\r\n"
      << request.cseq << "\r\n";
  switch (status[8]) {
    case '2':
      if (requested > 0) {
        out << "Contact: <" << bench::UriOf(request.contact)
            << ">;expires=" << static_cast<std::uint64_t>(requested) << "\r\n";
      }
      break;
    case '4':
      if (status[9] == '2') {
        out << "Min-Expires: " << static_cast<std::uint64_t>(options_.min_expires) << "\r\n";
      } else {
        const bool stale = !request.credentials.empty();
        out << "WWW-Authenticate: Digest realm=\"floor\", nonce=\"";
        out.Hex(nonce_epoch_).Hex(bench::NextRandom(nonce_seed_));
        out << "\", qop=\"auth\", algorithm=MD5" << (stale ? ", stale=true\r\n" : "\r\n");
      }
      break;
    default:
      break;
  }
  out << "Content-Length: 0\r\n\r\n";
  if (status[8] == '2') {
    switch (
        book_.Register(bench::UriOf(request.contact), request.call_id,
                       static_cast<std::uint32_t>(bench::NumberBehind(request.cseq, "CSeq:", 0)),
                       requested, now_)) {
      case bench::RegistrarBook::Kind::kNew:
        ++counters_.bound_new;
        counters_.last_new_at = bench::Now();
        break;
      case bench::RegistrarBook::Kind::kRefresh:
        ++counters_.refreshes;
        break;
      case bench::RegistrarBook::Kind::kRepeat:
        ++counters_.repeats;
        break;
      case bench::RegistrarBook::Kind::kRemoval:
        ++counters_.removals;
        break;
    }
  }
  Reply(out.size(), from);
}

void Registrar::Reply(std::size_t size, const sockaddr_in& to) {
  if (Chance(options_.loss)) {
    ++counters_.lost;
  } else if (options_.delay_ms > 0) {
    // Evenly spread up to twice the delay, so that responses overtake one another.
    const double delay = std::uniform_real_distribution<>(0, 2e6 * options_.delay_ms)(random_);
    delayed_.push(
        {now_ + static_cast<Nanoseconds>(delay), to, std::string(socket_.Room().data(), size)});
  } else {
    socket_.Commit(size, to);
  }
}

nlohmann::json Registrar::Report() {
  book_.Sweep(now_);
  const bench::Punctuality late = book_.Lateness(now_);
  const auto seconds = [](Nanoseconds time) { return 1e-9 * static_cast<double>(time); };
  const bench::ProcessStats stats = bench::ReadProcessStats();
  return {{"received", counters_.received},
          {"garbage", counters_.garbage},
          {"challenged", counters_.challenged},
          {"new", counters_.bound_new},
          {"refreshes", counters_.refreshes},
          {"removals", counters_.removals},
          {"repeats", counters_.repeats},
          {"refused", counters_.refused},
          {"lost_on_purpose", counters_.lost},
          {"restarts", counters_.restarts},
          {"bound", book_.bound()},
          {"lapsed", book_.lapsed()},
          {"cseq_not_above", book_.cseq_not_above()},
          {"span_s", seconds(std::max<Nanoseconds>(counters_.last_new_at - counters_.first_at, 0))},
          {"max_gap_s", seconds(late.max_gap)},
          {"max_late_s", seconds(late.max_late)},
          {"late_over_1s", late.late_over_1s},
          {"socket_drops", socket_.Dropped()},
          {"cpu_s", stats.cpu()}};
}

void Describe(CLI::App& app, Options& options) {
  app.add_option("--local", options.local, "Where to listen: 127.0.0.1:PORT; 0: a free port")
      ->capture_default_str();
  app.add_option("--seconds", options.seconds, "Ends after this time")
      ->check(CLI::Range(0.1, 90000.0))
      ->capture_default_str();
  app.add_flag(
      "--digest", options.digest,
      "Challenge (MD5, qop auth) what carries no nonce of ours; the hash is not looked at");
  app.add_option("--max-expires", options.max_expires, "Grant no more than this, in seconds")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  app.add_option("--refresh-at", options.refresh_at,
                 "The share of the grant at which refreshes are due; lateness counts from there")
      ->check(CLI::Range(0.01, 1.0))
      ->capture_default_str();
  const auto percent = [&app](const char* name, double& value, const char* what) {
    app.add_option(name, value, what)->check(CLI::Range(0.0, 100.0));
  };
  percent("--loss", options.loss, "Lose so many percent of the datagrams, in each direction");
  percent("--unavailable", options.unavailable, "Refuse so many percent with 503 or 500");
  percent("--too-brief", options.too_brief,
          "Refuse so many percent of those that ask for less than --min-expires with 423");
  app.add_option("--min-expires", options.min_expires, "The Min-Expires of a 423, in seconds")
      ->check(CLI::Range(0, 86400));
  app.add_option("--delay", options.delay_ms, "Respond so many milliseconds late, on average")
      ->check(CLI::Range(0.0, 60000.0));
  app.add_option("--restart", options.restart_s, "Forget bindings and nonces every so many seconds")
      ->check(CLI::Range(0.0, 86400.0));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("A registrar that costs next to nothing, on loopback, for measurements.");
  Options options;
  Describe(app, options);
  CLI11_PARSE(app, argc, argv);

  struct sigaction action {};
  action.sa_handler = [](int) { g_stop = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  Registrar registrar(options);
  std::string error;
  if (!registrar.Open(error)) {
    std::fprintf(stderr, "floor_registrar: %s\n", error.c_str());
    return 3;
  }
  std::printf("%s\n", nlohmann::json{{"listening", registrar.Local()}}.dump().c_str());
  std::fflush(stdout);
  registrar.Run();
  std::printf("%s\n", registrar.Report().dump().c_str());
  return 0;
}
