// registration_load: registers many users through the bus, as a host does, and tells what that cost
// this process. It prints one JSON object.

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <limits>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "load/bus_host.h"
#include "process_stats.h"
#include "sivra/sivra.h"
#include "users.h"
#include "VorelKDCore/VorelKDCore.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kBurst = 32;  // commands between two looks at the thread's queue

struct Options {
  std::string registrar;
  std::string domain = "example.com";
  std::string local = "127.0.0.1:0";
  std::string users;
  std::size_t count = 0;
  std::size_t window = 0;
  int expires = 3600;
  double hold_s = 0;
  double rate = 0;
  double deadline_s = 60;
  double keep_at_most_s = 3600;
  bool keep = false;
  bool subscribe = false;
  bool deregister = false;
  bool no_credentials = false;
  std::string log_dir;
  int log_level = 3;
};

// A moment of the measurement.
struct Mark {
  std::int64_t at = 0;
  bench::ProcessStats stats;
  double resident_kib = 0;
  sipcarrier::Counters counters;

  static Mark Take() {
    return {bench::Now(), bench::ReadProcessStats(), bench::ResidentKiB(),
            sipcarrier::GetCounters()};
  }
};

double Seconds(std::int64_t from, std::int64_t to) { return 1e-9 * static_cast<double>(to - from); }

// Counts notifications on the bus's thread and wakes the main thread when as many have come as it
// waits for; the mark of the last one is taken where it is heard.
class Tally final : public bench::NoticeSink {
 public:
  Tally() : main_(kdThreadSelf()) {}

  void OnNotice(const bench::Notice& notice) noexcept override {
    switch (notice.id) {
      case bench::kNotifyOutcome: {
        if (notice.result != 0) {
          const std::lock_guard<std::mutex> lock(mutex_);
          ++failures_[notice.error_code];
        }
        Count(outcomes_);
        break;
      }
      case bench::kNotifyDeregistered:
        Count(deregistered_);
        break;
      case bench::kNotifyState:
        if (notice.active) {
          last_active_at_ = bench::Now();
          ++active_;
        } else {
          ++ended_;
        }
        break;
      default:
        ++service_lost_;
        break;
    }
  }

  // Runs the calling thread's loop until so many have come of what is counted, or the deadline.
  enum class Of { kOutcomes, kDeregistrations };
  bool WaitFor(Of of, std::size_t count, std::int64_t deadline) {
    const std::atomic<std::size_t>& counter = of == Of::kOutcomes ? outcomes_ : deregistered_;
    wake_at_ = count;
    while (counter < count && bench::Now() < deadline) {
      kdWaitEvent(std::min<std::int64_t>(deadline - bench::Now(), kSecond));
    }
    wake_at_ = kNever;
    return counter >= count;
  }
  void ExpectLast(std::size_t count) { last_ = count; }

  [[nodiscard]] std::size_t outcomes() const { return outcomes_; }
  [[nodiscard]] std::size_t deregistered() const { return deregistered_; }
  [[nodiscard]] std::size_t failed() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::size_t failed = 0;
    for (const auto& [code, times] : failures_) failed += times;
    return failed;
  }
  [[nodiscard]] std::size_t active() const { return active_; }
  [[nodiscard]] std::size_t ended() const { return ended_; }
  [[nodiscard]] std::size_t service_lost() const { return service_lost_; }
  [[nodiscard]] std::int64_t last_active_at() const { return last_active_at_; }
  // Only when that many have come.
  [[nodiscard]] const Mark& last() const { return last_mark_; }
  [[nodiscard]] json Outcomes() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    json result = json::object();
    std::size_t failed = 0;
    for (const auto& [code, times] : failures_) {
      result[code == 0 ? "none" : std::to_string(code)] = times;
      failed += times;
    }
    if (outcomes_ > failed) result["200"] = outcomes_ - failed;
    return result;
  }

 private:
  void Count(std::atomic<std::size_t>& counter) noexcept {
    const std::size_t now = ++counter;
    if (now == last_) last_mark_ = Mark::Take();
    if (now == wake_at_) {
      KDEvent* const event = kdCreateEvent();
      if (event != nullptr) kdPostThreadEvent(event, main_);
    }
  }

  KDThread* const main_;
  std::atomic<std::size_t> outcomes_{0};
  std::atomic<std::size_t> deregistered_{0};
  std::atomic<std::size_t> active_{0};
  std::atomic<std::size_t> ended_{0};
  std::atomic<std::size_t> service_lost_{0};
  std::atomic<std::int64_t> last_active_at_{0};
  std::atomic<std::size_t> wake_at_{kNever};
  std::atomic<std::size_t> last_{kNever};
  Mark last_mark_;
  mutable std::mutex mutex_;
  std::map<int, std::size_t> failures_;
};

// SIGTERM and SIGINT end the hold. Made before any other thread, so that all of them leave the
// signals to this one.
class SignalWatch {
 public:
  SignalWatch() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGTERM);
    sigaddset(&set_, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    thread_ = std::thread([this, main = kdThreadSelf()] {
      int number = 0;
      sigwait(&set_, &number);
      told_ = true;
      if (KDEvent* const event = kdCreateEvent()) kdPostThreadEvent(event, main);
    });
  }
  ~SignalWatch() {
    pthread_kill(thread_.native_handle(), SIGTERM);
    thread_.join();
  }
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;
  [[nodiscard]] bool told() const { return told_; }

 private:
  sigset_t set_{};
  std::atomic<bool> told_{false};
  std::thread thread_;
};

class Load {
 public:
  Load(const Options& options, std::vector<bench::User> users)
      : options_(options), users_(std::move(users)), bus_(tally_) {}
  [[nodiscard]] bool Start(std::string& error);
  // The exit status.
  int Run();

 private:
  [[nodiscard]] bool RegisterAll();
  void Hold();
  [[nodiscard]] bool DeregisterAll();
  void Report(bool all);

  const Options& options_;
  std::vector<bench::User> users_;
  SignalWatch signals_;
  Tally tally_;
  bench::BusHost bus_;
  std::vector<int> ids_;
  std::map<long, double> threads_at_begin_;
  std::map<long, double> threads_settled_;
  Mark begin_;
  Mark commanded_;  // the last command is back
  Mark last_;       // the last outcome
  Mark settled_;    // nothing of it is left to do
  Mark held_;
  json report_;
};

bool Load::Start(std::string& error) {
  bench::BusSetup setup;
  if (!bench::SplitEndpoint(options_.local, setup.stack.local_address, setup.stack.local_port)) {
    error = "\"" + options_.local + "\" has no port that is a number";
    return false;
  }
  if (!options_.no_credentials) {
    for (const bench::User& user : users_) {
      if (user.password.empty()) continue;
      setup.stack.credentials.push_back(
          {"sip:" + user.name + "@" + options_.domain, {}, user.name, user.password});
    }
  }
  setup.subscriptions = options_.subscribe;
  setup.log_dir = options_.log_dir;
  setup.log_level = options_.log_level;
  return bus_.Start(setup, error);
}

bool Load::RegisterAll() {
  const std::size_t count = users_.size();
  const std::size_t window = options_.window == 0 ? count : options_.window;
  ids_.reserve(count);
  tally_.ExpectLast(count);
  threads_at_begin_ = bench::CpuByThread();
  begin_ = Mark::Take();
  const std::int64_t deadline =
      begin_.at + static_cast<std::int64_t>(options_.deadline_s * static_cast<double>(kSecond));
  std::string aor;
  // What the pace allows now.
  const auto in_pace = [&] {
    return options_.rate == 0 ||
           static_cast<double>(ids_.size()) <= Seconds(begin_.at, bench::Now()) * options_.rate;
  };
  while (ids_.size() < count) {
    if (!in_pace()) {
      kdWaitEvent(kSecond / 1000);
      continue;
    }
    // Half of the window must be free: being woken for each single outcome would be the host's
    // cost, not the component's.
    if (ids_.size() - tally_.outcomes() >= window &&
        !tally_.WaitFor(Tally::Of::kOutcomes, ids_.size() - window / 2, deadline)) {
      return false;
    }
    for (std::size_t i = 0;
         i < kBurst && ids_.size() < count && ids_.size() - tally_.outcomes() < window && in_pace();
         ++i) {
      aor = "sip:" + users_[ids_.size()].name + "@" + options_.domain;
      const int id = bus_.Register(bench::RegisterDocument({.aor = aor,
                                                            .registrar = options_.registrar,
                                                            .expires = options_.expires,
                                                            .subscribe = options_.subscribe}));
      if (id < 0) {
        std::fprintf(stderr, "registration_load: the command for %s was refused\n", aor.c_str());
        return false;
      }
      ids_.push_back(id);
    }
    kdPumpEvents();
  }
  commanded_ = Mark::Take();
  if (!tally_.WaitFor(Tally::Of::kOutcomes, count, deadline)) return false;
  last_ = tally_.last();
  // Timers that the last outcomes have started, and threads that go to sleep.
  kdWaitEvent(kSecond / 20);
  settled_ = Mark::Take();
  threads_settled_ = bench::CpuByThread();
  return true;
}

void Load::Hold() {
  const double time = options_.keep ? options_.keep_at_most_s : options_.hold_s;
  const std::int64_t end =
      bench::Now() + static_cast<std::int64_t>(time * static_cast<double>(kSecond));
  while (!signals_.told() && bench::Now() < end) kdWaitEvent(end - bench::Now());
  held_ = Mark::Take();
}

bool Load::DeregisterAll() {
  const std::size_t count = ids_.size();
  const std::size_t window = options_.window == 0 ? count : options_.window;
  tally_.ExpectLast(count);
  const Mark begin = Mark::Take();
  const std::int64_t deadline =
      begin.at + static_cast<std::int64_t>(options_.deadline_s * static_cast<double>(kSecond));
  for (std::size_t sent = 0; sent < count; ++sent) {
    if (sent - std::min(tally_.deregistered(), sent) >= window &&
        !tally_.WaitFor(Tally::Of::kDeregistrations, sent - window / 2, deadline)) {
      break;
    }
    bus_.Deregister(ids_[sent]);
    if (sent % kBurst == 0) kdPumpEvents();
  }
  const bool all = tally_.WaitFor(Tally::Of::kDeregistrations, count, deadline);
  const Mark end = all ? tally_.last() : Mark::Take();
  report_["deregister"] = {{"deregistered", tally_.deregistered()},
                           {"wall_s", Seconds(begin.at, end.at)},
                           {"cpu_us_per_registration", 1e6 * (end.stats.cpu() - begin.stats.cpu()) /
                                                           static_cast<double>(count)}};
  kdWaitEvent(kSecond / 20);
  report_["deregister"]["entries_left"] = sivra::EntryCount();
  report_["deregister"]["resident_kib"] = bench::ResidentKiB();
  return all;
}

void Load::Report(bool all) {
  const auto count = static_cast<double>(users_.size());
  const Mark& last = all ? last_ : settled_;
  const double cpu = last.stats.cpu() - begin_.stats.cpu();
  report_["users"] = users_.size();
  report_["answered"] = tally_.outcomes();
  report_["outcomes"] = tally_.Outcomes();
  report_["wall_s"] = Seconds(begin_.at, last.at);
  report_["commands_s"] = Seconds(begin_.at, commanded_.at);
  report_["cpu_user_s"] = last.stats.user_s - begin_.stats.user_s;
  report_["cpu_system_s"] = last.stats.system_s - begin_.stats.system_s;
  report_["cpu_us_per_registration"] = 1e6 * cpu / count;
  report_["settled_cpu_us_per_registration"] =
      1e6 * (settled_.stats.cpu() - begin_.stats.cpu()) / count;
  // In the order in which they begin: this program's two, the stack's two, the bus's one.
  static constexpr std::array kThreads{"commands", "signals", "delivery", "io", "bus"};
  std::size_t place = 0;
  json threads = json::object();
  for (const auto& [id, seconds] : threads_settled_) {
    const auto before = threads_at_begin_.find(id);
    const double spent = seconds - (before == threads_at_begin_.end() ? 0 : before->second);
    const std::string name =
        place < kThreads.size() ? kThreads[place] : "other" + std::to_string(place);
    threads[name] = 1e6 * spent / count;
    ++place;
  }
  report_["cpu_us_per_registration_by_thread"] = threads;
  report_["resident_before_kib"] = begin_.resident_kib;
  report_["resident_after_kib"] = settled_.resident_kib;
  report_["resident_kib_per_registration"] = (settled_.resident_kib - begin_.resident_kib) / count;
  report_["switches_voluntary"] = last.stats.switches_voluntary - begin_.stats.switches_voluntary;
  report_["switches_forced"] = last.stats.switches_forced - begin_.stats.switches_forced;
  const sipcarrier::Counters now = sipcarrier::GetCounters();
  report_["retransmitted"] = now.retransmitted;
  report_["timeouts"] = now.timeouts;
  report_["dropped"] = now.dropped_garbage + now.dropped_stray + now.lost_no_memory;
  if (options_.subscribe) {
    report_["active"] = tally_.active();
    report_["ended"] = tally_.ended();
    report_["service_lost"] = tally_.service_lost();
    report_["last_active_s"] = Seconds(begin_.at, tally_.last_active_at());
  }
  if (held_.at == 0) return;
  const auto sent = held_.counters.sent - held_.counters.retransmitted -
                    held_.counters.requests_answered -
                    (settled_.counters.sent - settled_.counters.retransmitted -
                     settled_.counters.requests_answered);
  const double held = held_.stats.cpu() - settled_.stats.cpu();
  report_["hold_s"] = Seconds(settled_.at, held_.at);
  // With subscriptions SUBSCRIBEs are among them, and what a refresh costs cannot be told.
  if (!options_.subscribe) {
    report_["refreshes"] = sent;
    report_["cpu_us_per_refresh"] = sent == 0 ? 0 : 1e6 * held / static_cast<double>(sent);
  }
  report_["hold_cpu_s"] = held;
  report_["hold_retransmitted"] = held_.counters.retransmitted - settled_.counters.retransmitted;
  report_["hold_switches"] = held_.stats.switches_voluntary + held_.stats.switches_forced -
                             settled_.stats.switches_voluntary - settled_.stats.switches_forced;
  report_["resident_held_kib"] = held_.resident_kib;
  report_["resident_held_kib_per_registration"] =
      (held_.resident_kib - begin_.resident_kib) / count;
}

int Load::Run() {
  bool all = RegisterAll();
  if (!all) {
    settled_ = Mark::Take();
    std::fprintf(stderr, "registration_load: only %zu of %zu outcomes came in time\n",
                 tally_.outcomes(), users_.size());
  } else if (options_.keep || options_.hold_s > 0) {
    std::fprintf(stderr, "registration_load: %zu registered\n", users_.size());
    Hold();
  }
  const bool registered = all;
  all = all && tally_.failed() == 0;
  if (options_.deregister) all = DeregisterAll() && all;
  Report(registered);
  std::printf("%s\n", report_.dump().c_str());
  std::fflush(stdout);
  bus_.Stop(5s);
  return all ? 0 : 1;
}

void Describe(CLI::App& app, Options& options) {
  app.add_option("--registrar", options.registrar, "The registrar's URI")->required();
  app.add_option("--domain", options.domain, "The domain of the addresses of record")
      ->capture_default_str();
  app.add_option("--local", options.local, "ADDRESS:PORT to send from; port 0: a free one")
      ->capture_default_str();
  app.add_option("--users", options.users, "A file with a line \"user;password\" each");
  app.add_option("--count", options.count, "How many users; 0: all of the file")
      ->check(CLI::Range(0, 10000));
  app.add_option("--window", options.window, "At most so many outstanding; 0: no limit")
      ->check(CLI::Range(0, 10000));
  app.add_option("--expires", options.expires, "Seconds to ask for")->check(CLI::Range(1, 86400));
  app.add_option("--rate", options.rate, "Begin so many registrations a second; 0: no limit")
      ->check(CLI::Range(0.0, 1e6));
  app.add_option("--hold", options.hold_s, "Stay up so many seconds and refresh")
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--deadline", options.deadline_s, "Give up when not all have outcomes by then")
      ->check(CLI::Range(1.0, 3600.0));
  app.add_flag("--keep", options.keep, "Stay up until SIGTERM");
  app.add_option("--keep-at-most", options.keep_at_most_s, "The end of --keep in any case, seconds")
      ->check(CLI::Range(1.0, 86400.0))
      ->capture_default_str();
  app.add_flag("--subscribe", options.subscribe,
               "Load the subscription service and follow the registrar's view");
  app.add_flag("--deregister", options.deregister, "Deregister all at the end, and wait for it");
  app.add_flag("--no-credentials", options.no_credentials, "Do not give the stack the passwords");
  app.add_option("--log-dir", options.log_dir, "Keep the log, in this directory (from the root)");
  app.add_option("--log-level", options.log_level, "The level of the log")
      ->check(CLI::Range(0, 3))
      ->capture_default_str();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Registers many users through the bus and tells what that costs.");
  Options options;
  Describe(app, options);
  CLI11_PARSE(app, argc, argv);

  std::vector<bench::User> users;
  std::string error;
  if (!bench::ReadUsers(options.users, options.count, users, error)) {
    std::fprintf(stderr, "registration_load: %s\n", error.c_str());
    return 2;
  }
  Load load(options, std::move(users));
  if (!load.Start(error)) {
    std::fprintf(stderr, "registration_load: %s\n", error.c_str());
    return 3;
  }
  return load.Run();
}
