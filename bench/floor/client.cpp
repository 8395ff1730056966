// floor_client: what registering costs at least. One thread and one socket write a REGISTER for
// each user, read the responses and refresh in time: the same bytes on the wire as the product, with
// nothing behind them. It prints one JSON object.

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "floor/batch_socket.h"
#include "floor/digest_md5.h"
#include "floor/sip_text.h"
#include "process_stats.h"
#include "users.h"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kRetransmitAfter = kSecond / 2;

struct Options {
  std::string registrar;
  std::string domain = "example.com";
  std::string local = "127.0.0.1:0";
  std::string users;
  std::size_t count = 0;
  std::size_t window = 0;
  unsigned batch = bench::BatchSocket::kBatch;
  int expires = 3600;
  double refresh_at = 0.5;
  double hold_s = 0;
  double rate = 0;
  double deadline_s = 60;
};

struct Registration {
  std::uint64_t call = 0;  // the second half of its Call-ID; the first is its index
  std::uint64_t tag = 0;
  std::int64_t sent_at = 0;
  std::uint32_t cseq = 0;
  std::uint32_t nonce_count = 0;
  bool waiting = false;
  bool has_nonce = false;
  std::array<char, 32> nonce;
};

class Client {
 public:
  Client(const Options& options, std::vector<bench::User> users)
      : options_(options), users_(std::move(users)) {}
  [[nodiscard]] bool Open(std::string& error);
  // False: the deadline passed.
  [[nodiscard]] bool RegisterAll();
  void Hold();
  [[nodiscard]] nlohmann::json Report() const;

 private:
  void Send(std::size_t index, bool again = false);
  void WriteCredentials(bench::SipWriter& out, std::size_t index);
  void Take(std::string_view text);
  void OnChallenge(std::size_t index, std::string_view challenge);
  unsigned Receive() {
    return socket_.Receive([this](std::string_view text, const sockaddr_in&) { Take(text); });
  }
  void RetransmitLate();

  const Options& options_;
  std::vector<bench::User> users_;
  bench::BatchSocket socket_;
  sockaddr_in to_{};
  std::string uri_;    // the Request-URI
  std::string local_;  // "127.0.0.1:40312"
  bench::DigestMd5 md5_;
  bench::DigestMd5::Hex ha2_{};
  std::uint64_t seed_ = static_cast<std::uint64_t>(bench::Now());
  std::vector<Registration> registrations_;
  std::deque<std::pair<std::int64_t, std::uint32_t>> due_;  // refreshes, in their order
  std::size_t answered_ = 0;
  std::uint64_t retransmitted_ = 0;
  std::uint64_t refreshed_ = 0;
  bool holding_ = false;
  std::map<int, std::size_t> outcomes_;

  double resident_before_ = 0;
  double resident_after_ = 0;
  std::int64_t began_at_ = 0;
  std::int64_t ended_at_ = 0;
  bench::ProcessStats at_begin_;
  bench::ProcessStats at_end_;
  bench::ProcessStats after_hold_;
};

bool Client::Open(std::string& error) {
  if (!socket_.Open(options_.local, error)) return false;
  if (!bench::ReadLoopback(options_.registrar, to_)) {
    error = "\"" + options_.registrar + "\" is no loopback registrar, such as sip:127.0.0.1:5060";
    return false;
  }
  socket_.LimitBatch(options_.batch);
  uri_ = options_.registrar;
  local_ = socket_.Local();
  ha2_ = md5_.Hash({"REGISTER:", uri_});
  return true;
}

void Client::WriteCredentials(bench::SipWriter& out, std::size_t index) {
  using bench::DigestMd5;
  Registration& registration = registrations_[index];
  std::array<char, 16> cnonce;
  std::array<char, 16> count;
  bench::SipWriter(cnonce).Hex(bench::NextRandom(seed_));
  bench::SipWriter(count).Hex(++registration.nonce_count);
  const std::string_view nonce(registration.nonce.data(), registration.nonce.size());
  const std::string_view cnonce_text(cnonce.data(), cnonce.size());
  const std::string_view count_text(count.data() + 8, 8);
  const auto ha1 = md5_.Hash({users_[index].name, ":floor:", users_[index].password});
  const auto response = md5_.Hash({DigestMd5::View(ha1), ":", nonce, ":", count_text, ":",
                                   cnonce_text, ":auth:", DigestMd5::View(ha2_)});
  out << "Authorization: Digest username=\"" << users_[index].name
      << "\", realm=\"floor\", nonce=\"" << nonce << "\", uri=\"" << uri_ << "\", response=\""
      << DigestMd5::View(response) << "\", algorithm=MD5, cnonce=\"" << cnonce_text
      << "\", qop=auth, nc=" << count_text << "\r\n";
}

void Client::Send(std::size_t index, bool again) {
  Registration& registration = registrations_[index];
  if (!again) ++registration.cseq;
  registration.waiting = true;
  registration.sent_at = bench::Now();
  const std::string_view user = users_[index].name;
  bench::SipWriter out(socket_.Room());
  out << "REGISTER " << uri_ << " SIP/2.0\r\nVia: SIP/2.0/UDP " << local_ << ";branch=z9hG4bK";
  out.Hex(bench::NextRandom(seed_)).Hex(bench::NextRandom(seed_));
  out << ";rport\r\nFrom: <sip:" << user << "@" << options_.domain << ">;tag=";
  out.Hex(registration.tag);
  out << "\r\nTo: <sip:" << user << "@" << options_.domain << ">\r\nCall-ID: ";
  out.Hex(index).Hex(registration.call);
  out << "\r\nCSeq: " << std::uint64_t{registration.cseq}
      << " REGISTER\r\nMax-Forwards: 70\r\nContact: <sip:" << user << "@" << local_
      << ";line=" << std::uint64_t{index + 1}
      << ">;expires=" << static_cast<std::uint64_t>(options_.expires)
      << "\r\nExpires: " << static_cast<std::uint64_t>(options_.expires) << "\r\n";
  if (registration.has_nonce) WriteCredentials(out, index);
  out << "Content-Length: 0\r\n\r\n";
  socket_.Commit(out.size(), to_);
}

void Client::OnChallenge(std::size_t index, std::string_view challenge) {
  Registration& registration = registrations_[index];
  const std::string_view nonce = bench::QuotedBehind(challenge, "nonce=\"");
  if (nonce.size() != registration.nonce.size()) return;
  nonce.copy(registration.nonce.data(), nonce.size());
  registration.nonce_count = 0;
  registration.has_nonce = true;
  Send(index);
}

void Client::Take(std::string_view text) {
  bench::SipLines response;
  if (!bench::ReadLines(text, response) || response.call_id.size() < 9 + 32) return;
  const char* const id = response.call_id.data() + 9;
  std::uint64_t index = registrations_.size();
  std::uint64_t call = 0;
  std::from_chars(id, id + 16, index, 16);
  std::from_chars(id + 16, id + 32, call, 16);
  if (index >= registrations_.size()) return;
  Registration& registration = registrations_[index];
  const auto cseq = bench::NumberBehind(response.cseq, "CSeq:", -1);
  if (!registration.waiting || registration.call != call || cseq != registration.cseq) return;
  registration.waiting = false;
  const auto status = static_cast<int>(bench::NumberBehind(response.start, "SIP/2.0 ", 0));
  if (status == 401) return OnChallenge(index, response.challenge);
  if (status == 200) {
    const auto granted = bench::NumberBehind(response.contact, ";expires=", 0);
    if (options_.hold_s > 0) {
      due_.emplace_back(
          bench::Now() + static_cast<std::int64_t>(options_.refresh_at *
                                                   static_cast<double>(granted * kSecond)),
          static_cast<std::uint32_t>(index));
    }
  }
  if (holding_) {
    ++refreshed_;
  } else {
    ++answered_;
    ++outcomes_[status];
  }
}

void Client::RetransmitLate() {
  const std::int64_t now = bench::Now();
  for (std::size_t i = 0; i < registrations_.size(); ++i) {
    if (!registrations_[i].waiting || now - registrations_[i].sent_at < kRetransmitAfter) continue;
    ++retransmitted_;
    Send(i, true);
  }
  socket_.Flush();
}

bool Client::RegisterAll() {
  resident_before_ = bench::ResidentKiB();
  at_begin_ = bench::ReadProcessStats();
  began_at_ = bench::Now();
  const std::size_t count = users_.size();
  const std::size_t window = options_.window == 0 ? count : options_.window;
  registrations_.reserve(count);
  // What the window and the pace allow now.
  const auto room = [&]() -> bool {
    const std::size_t sent = registrations_.size();
    return sent < count && sent - answered_ < window &&
           (options_.rate == 0 ||
            static_cast<double>(sent) <=
                1e-9 * static_cast<double>(bench::Now() - began_at_) * options_.rate);
  };
  const std::int64_t deadline =
      began_at_ + static_cast<std::int64_t>(options_.deadline_s * static_cast<double>(kSecond));
  while (answered_ < count) {
    std::size_t burst = bench::BatchSocket::kBatch;
    while (burst-- > 0 && room()) {
      registrations_.push_back(
          {bench::NextRandom(seed_), bench::NextRandom(seed_), 0, 0, 0, false, false, {}});
      Send(registrations_.size() - 1);
    }
    socket_.Flush();
    if (Receive() == 0) {
      const bool more = registrations_.size() < count && registrations_.size() - answered_ < window;
      if (more) continue;
      if (!socket_.Wait(std::chrono::nanoseconds(kRetransmitAfter))) RetransmitLate();
      if (bench::Now() > deadline) break;
    }
  }
  ended_at_ = bench::Now();
  at_end_ = bench::ReadProcessStats();
  resident_after_ = bench::ResidentKiB();
  return answered_ == count;
}

void Client::Hold() {
  holding_ = true;
  const std::int64_t end =
      bench::Now() + static_cast<std::int64_t>(options_.hold_s * static_cast<double>(kSecond));
  for (std::int64_t now = bench::Now(); now < end; now = bench::Now()) {
    while (!due_.empty() && due_.front().first <= now) {
      Send(due_.front().second);
      due_.pop_front();
    }
    socket_.Flush();
    const std::int64_t next = due_.empty() ? end : std::min(end, due_.front().first);
    const std::int64_t patience = std::min(next - now, kRetransmitAfter);
    const bool silent = !socket_.Wait(std::chrono::nanoseconds(patience));
    if (silent && patience == kRetransmitAfter) RetransmitLate();
    Receive();
  }
  after_hold_ = bench::ReadProcessStats();
}

nlohmann::json Client::Report() const {
  const auto count = static_cast<double>(users_.size());
  const double cpu = at_end_.cpu() - at_begin_.cpu();
  nlohmann::json outcomes = nlohmann::json::object();
  for (const auto& [status, times] : outcomes_) outcomes[std::to_string(status)] = times;
  nlohmann::json report{
      {"users", users_.size()},
      {"answered", answered_},
      {"outcomes", outcomes},
      {"wall_s", 1e-9 * static_cast<double>(ended_at_ - began_at_)},
      {"cpu_user_s", at_end_.user_s - at_begin_.user_s},
      {"cpu_system_s", at_end_.system_s - at_begin_.system_s},
      {"cpu_us_per_registration", 1e6 * cpu / count},
      {"resident_before_kib", resident_before_},
      {"resident_after_kib", resident_after_},
      {"resident_kib_per_registration", (resident_after_ - resident_before_) / count},
      {"switches_voluntary", at_end_.switches_voluntary - at_begin_.switches_voluntary},
      {"switches_forced", at_end_.switches_forced - at_begin_.switches_forced},
      {"retransmitted", retransmitted_},
      {"socket_drops", socket_.Dropped()}};
  if (options_.hold_s > 0) {
    const double held = after_hold_.cpu() - at_end_.cpu();
    report["hold_s"] = options_.hold_s;
    report["refreshes"] = refreshed_;
    report["hold_cpu_s"] = held;
    report["cpu_us_per_refresh"] =
        refreshed_ == 0 ? 0 : 1e6 * held / static_cast<double>(refreshed_);
  }
  return report;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "A bare UDP loop that registers users: the floor that a client is measured against.");
  Options options;
  app.add_option("--registrar", options.registrar, "sip:127.0.0.1:PORT")->required();
  app.add_option("--domain", options.domain, "The domain of the addresses of record")
      ->capture_default_str();
  app.add_option("--local", options.local, "ADDRESS:PORT to send from; port 0: a free one")
      ->capture_default_str();
  app.add_option("--users", options.users, "A file with a line \"user;password\" each");
  app.add_option("--count", options.count, "How many users; 0: all of the file")
      ->check(CLI::Range(0, 100000));
  app.add_option("--window", options.window, "At most so many outstanding; 0: no limit")
      ->check(CLI::Range(0, 100000));
  app.add_option("--batch", options.batch, "At most so many datagrams with one system call")
      ->check(CLI::Range(1U, bench::BatchSocket::kBatch));
  app.add_option("--expires", options.expires, "Seconds to ask for")->check(CLI::Range(1, 86400));
  app.add_option("--refresh-at", options.refresh_at, "Refresh at this share of the grant")
      ->check(CLI::Range(0.01, 1.0));
  app.add_option("--rate", options.rate, "Begin so many registrations a second; 0: no limit")
      ->check(CLI::Range(0.0, 1e6));
  app.add_option("--hold", options.hold_s, "Stay up so many seconds and refresh")
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--deadline", options.deadline_s, "Give up when not all are answered by then")
      ->check(CLI::Range(1.0, 3600.0));
  CLI11_PARSE(app, argc, argv);

  std::vector<bench::User> users;
  std::string error;
  if (!bench::ReadUsers(options.users, options.count, users, error)) {
    std::fprintf(stderr, "floor_client: %s\n", error.c_str());
    return 2;
  }
  Client client(options, std::move(users));
  if (!client.Open(error)) {
    std::fprintf(stderr, "floor_client: %s\n", error.c_str());
    return 3;
  }
  const bool all = client.RegisterAll();
  if (all && options.hold_s > 0) client.Hold();
  std::printf("%s\n", client.Report().dump().c_str());
  return all ? 0 : 1;
}
