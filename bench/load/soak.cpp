// registration_soak: registrations come and go for a while at a registrar that loses, delays,
// refuses and forgets. At the end nothing may be left: no registration without an outcome, no id
// that cannot be had again, no entry in the stack, no binding at the registrar. Its exit status
// says whether that was so.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "compare/clients.h"
#include "load/bus_host.h"
#include "process_stats.h"
#include "sivra/sivra.h"
#include "VorelKDCore/VorelKDCore.h"

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::size_t kAllIds = 10000;
constexpr int kShortestExpires = 4;
constexpr int kLongestExpires = 20;

struct Options {
  double seconds = 60;
  double sample_s = 60;
  std::size_t registrations = 1000;
  unsigned seed = 1;
  int t1_ms = 100;
  bool digest = false;
  double loss = 3;
  double delay_ms = 20;
  double unavailable = 2;
  double too_brief = 30;
  double restart_s = 45;
};

// Notifications on their way to the main thread.
class Inbox final : public bench::NoticeSink {
 public:
  Inbox() : main_(kdThreadSelf()) {}
  void OnNotice(const bench::Notice& notice) noexcept override {
    const std::lock_guard<std::mutex> lock(mutex_);
    notices_.push_back(notice);
    if (notices_.size() > 1) return;
    if (KDEvent* const event = kdCreateEvent()) kdPostThreadEvent(event, main_);
  }
  [[nodiscard]] std::vector<bench::Notice> Take() {
    std::vector<bench::Notice> taken;
    const std::lock_guard<std::mutex> lock(mutex_);
    taken.swap(notices_);
    return taken;
  }

 private:
  KDThread* const main_;
  std::mutex mutex_;
  std::vector<bench::Notice> notices_;
};

// One address of record over time. Held: registered. Lost: the binding is gone, and the component
// may bring it back. Leaving: the deregistration has not been told yet.
enum class State { kIdle, kRegistering, kHeld, kLost, kLeaving };

struct Slot {
  State state = State::kIdle;
  int id = -1;
  bool reregister = false;
  bool again = false;      // registering, with a command for a registration that existed
  std::uint32_t step = 0;  // what is planned for an earlier step no longer counts
};

struct Counts {
  std::uint64_t registered = 0;
  std::uint64_t failed = 0;
  std::uint64_t lost = 0;
  std::uint64_t deregistered = 0;
  std::uint64_t unsent = 0;   // ended without a message
  std::uint64_t again = 0;    // register commands for a registration that exists
  std::uint64_t untold = 0;   // of those: refused without a notification
  std::uint64_t stuck = 0;    // no outcome in time
  std::uint64_t strange = 0;  // a notification that does not belong to the state
};

class Soak {
 public:
  Soak(const Options& options, const bench::RegistrarProcess& registrar)
      : options_(options),
        registrar_(registrar),
        random_(options.seed),
        slots_(options.registrations),
        slot_of_id_(kAllIds + 1, kNoSlot),
        bus_(inbox_) {}

  [[nodiscard]] bool Start(std::string& error);
  void Run();
  // Whether all that ran has ended.
  [[nodiscard]] bool End();
  // Whether all ids can be had.
  [[nodiscard]] bool TakeAllIds(const std::string& registrar);
  void Stop() { bus_.Stop(5s); }

 private:
  static constexpr std::size_t kNoSlot = static_cast<std::size_t>(-1);
  struct Plan {
    std::int64_t at;
    std::size_t slot;
    std::uint32_t step;
    bool operator<(const Plan& other) const { return at > other.at; }
  };

  [[nodiscard]] double Between(double low, double high) {
    return std::uniform_real_distribution<>(low, high)(random_);
  }
  [[nodiscard]] bool Chance(double percent) { return Between(0, 100) < percent; }
  void Enter(std::size_t slot, State state, double seconds);
  void Turn(std::int64_t until);
  void Handle(const bench::Notice& notice);
  void Act(std::size_t slot);
  void Begin(std::size_t slot);
  void Leave(std::size_t slot);
  void Forget(std::size_t slot);
  void Sample(std::int64_t began);
  [[nodiscard]] std::size_t Busy() const;
  // Each request can be given up by timer F, and up to four follow one another.
  [[nodiscard]] double Patience() const { return 4 * 64 * 1e-3 * options_.t1_ms + 5; }

  const Options& options_;
  const bench::RegistrarProcess& registrar_;
  std::mt19937 random_;
  Inbox inbox_;
  std::vector<Slot> slots_;
  std::vector<std::size_t> slot_of_id_;
  std::priority_queue<Plan> plans_;
  Counts counts_;
  bool ending_ = false;
  bench::BusHost bus_;
};

bool Soak::Start(std::string& error) {
  bench::BusSetup setup;
  setup.stack.local_address = "127.0.0.1";
  setup.stack.t1 = std::chrono::milliseconds(options_.t1_ms);
  setup.stack.t2 = 8 * setup.stack.t1;
  setup.stack.t4 = 10 * setup.stack.t1;
  setup.stack.credentials.push_back({{}, {}, "soak", "secret"});
  return bus_.Start(setup, error);
}

void Soak::Enter(std::size_t slot, State state, double seconds) {
  slots_[slot].state = state;
  plans_.push({bench::Now() + static_cast<std::int64_t>(seconds * static_cast<double>(kSecond)),
               slot, ++slots_[slot].step});
}

void Soak::Forget(std::size_t slot) {
  const auto id = static_cast<std::size_t>(std::max(slots_[slot].id, 0));
  if (slot_of_id_[id] == slot) slot_of_id_[id] = kNoSlot;
  slots_[slot].id = -1;
  Enter(slot, State::kIdle, Between(0, 3));
}

void Soak::Begin(std::size_t slot) {
  const std::string aor = "sip:soak" + std::to_string(slot) + "@example.com";
  slots_[slot].reregister = Chance(50);
  const int id = bus_.Register(bench::RegisterDocument(
      {.aor = aor,
       .registrar = "sip:" + registrar_.endpoint(),
       .expires = static_cast<int>(Between(kShortestExpires, kLongestExpires)),
       .reregister = slots_[slot].reregister}));
  if (id < 1) {
    ++counts_.failed;
    return Forget(slot);
  }
  std::size_t& owner = slot_of_id_[static_cast<std::size_t>(id)];
  if (owner != kNoSlot) {
    // Ids come round again within seconds here. Whose registration was refused untold does not have
    // its id any more.
    const Slot& former = slots_[owner];
    const bool may_be_gone =
        (former.state == State::kRegistering && former.again) || former.state == State::kLost;
    ++(may_be_gone ? counts_.untold : counts_.strange);
    Forget(owner);
  }
  owner = slot;
  slots_[slot].id = id;
  slots_[slot].again = false;
  Enter(slot, State::kRegistering, Patience());
}

void Soak::Leave(std::size_t slot) {
  if (!ending_ && Chance(20)) {
    bus_.Deregister(slots_[slot].id, true);
    ++counts_.unsent;
    Forget(slot);
  } else if (bus_.Deregister(slots_[slot].id) == 0) {
    Enter(slot, State::kLeaving, Patience());
  } else {
    // It was not registered any more; the command has ended it.
    Forget(slot);
  }
}

// What was planned for this slot is due.
void Soak::Act(std::size_t slot) {
  switch (slots_[slot].state) {
    case State::kIdle:
      if (!ending_) Begin(slot);
      break;
    case State::kRegistering:
      // The refusal of a command for a registration that existed is not always told, but then the
      // component has forgotten it.
      if (slots_[slot].again && bus_.Deregister(slots_[slot].id, true) == -1) {
        ++counts_.untold;
        return Forget(slot);
      }
      [[fallthrough]];
    case State::kLeaving:
      std::fprintf(stderr, "registration_soak: registration %d %s without an outcome for %.0f s\n",
                   slots_[slot].id,
                   slots_[slot].state == State::kLeaving ? "is being deregistered"
                   : slots_[slot].again                  ? "is registered again"
                                                         : "is registered",
                   Patience());
      ++counts_.stuck;
      bus_.Deregister(slots_[slot].id, true);
      Forget(slot);
      break;
    case State::kHeld:
    case State::kLost:
      if (ending_ || !Chance(20)) return Leave(slot);
      ++counts_.again;
      if (bus_.Register("<reg><id>" + std::to_string(slots_[slot].id) + "</id></reg>") < 1) {
        return Forget(slot);
      }
      slots_[slot].again = true;
      Enter(slot, State::kRegistering, Patience());
      break;
  }
}

void Soak::Handle(const bench::Notice& notice) {
  const auto id = static_cast<std::size_t>(notice.registration);
  const std::size_t slot =
      notice.registration > 0 && id < slot_of_id_.size() ? slot_of_id_[id] : kNoSlot;
  if (slot == kNoSlot) return;  // the last words of one that has been forgotten
  const State state = slots_[slot].state;
  switch (notice.id) {
    case bench::kNotifyOutcome:
      if (notice.result != 0) {
        ++counts_.failed;
        Forget(slot);
      } else {
        ++counts_.registered;
        if (state != State::kLeaving) Enter(slot, State::kHeld, Between(0.2, 15));
      }
      break;
    case bench::kNotifyDeregistered:
      if (state != State::kLeaving) ++counts_.strange;
      ++counts_.deregistered;
      Forget(slot);
      break;
    case bench::kNotifyState:
      if (notice.active || state == State::kLeaving) break;
      ++counts_.lost;
      // Unless it shall come back the component has forgotten it.
      if (slots_[slot].reregister) {
        Enter(slot, State::kLost, Between(0.2, 6));
      } else {
        Forget(slot);
      }
      break;
    default:
      break;
  }
}

// Waits, handles what has come and does what is due.
void Soak::Turn(std::int64_t until) {
  const std::int64_t next = plans_.empty() ? until : std::min(until, plans_.top().at);
  kdWaitEvent(std::max<std::int64_t>(next - bench::Now(), 0));
  for (const bench::Notice& notice : inbox_.Take()) Handle(notice);
  while (!plans_.empty() && plans_.top().at <= bench::Now()) {
    const Plan plan = plans_.top();
    plans_.pop();
    if (slots_[plan.slot].step == plan.step) Act(plan.slot);
  }
}

std::size_t Soak::Busy() const {
  return static_cast<std::size_t>(std::count_if(
      slots_.begin(), slots_.end(), [](const Slot& slot) { return slot.state != State::kIdle; }));
}

void Soak::Sample(std::int64_t began) {
  const sipcarrier::Counters counters = sipcarrier::GetCounters();
  std::printf(
      "%7.0f s  %8.0f KiB resident  %5zu alive  %5zu entries  %8llu registered  %6llu "
      "failed  %6llu lost  %8llu deregistered  %6llu sent again  %5llu timeouts\n",
      1e-9 * static_cast<double>(bench::Now() - began), bench::ResidentKiB(), Busy(),
      sivra::EntryCount(), static_cast<unsigned long long>(counts_.registered),
      static_cast<unsigned long long>(counts_.failed),
      static_cast<unsigned long long>(counts_.lost),
      static_cast<unsigned long long>(counts_.deregistered),
      static_cast<unsigned long long>(counters.retransmitted),
      static_cast<unsigned long long>(counters.timeouts));
  std::fflush(stdout);
}

void Soak::Run() {
  const std::int64_t began = bench::Now();
  const auto end = began + static_cast<std::int64_t>(options_.seconds * double{kSecond});
  const auto every = static_cast<std::int64_t>(options_.sample_s * double{kSecond});
  std::int64_t sample_at = began;
  for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
    Enter(slot, State::kIdle, Between(0, 3));
  }
  while (bench::Now() < end) {
    if (bench::Now() >= sample_at) {
      Sample(began);
      sample_at += every;
    }
    Turn(std::min(end, sample_at));
  }
  Sample(began);
}

bool Soak::End() {
  const std::int64_t began = bench::Now();
  ending_ = true;
  for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
    if (slots_[slot].state != State::kIdle && slots_[slot].state != State::kLeaving) Leave(slot);
  }
  const auto until = [this](double seconds, const auto& done) {
    const auto end = bench::Now() + static_cast<std::int64_t>(seconds * double{kSecond});
    while (!done() && bench::Now() < end) Turn(std::min(end, bench::Now() + kSecond / 10));
    return done();
  };
  bool good = true;
  const auto check = [&good](bool holds, const std::string& what) {
    std::printf("%-4s %s\n", holds ? "yes" : "NO", what.c_str());
    good = good && holds;
  };
  check(until(Patience() + 1, [this] { return Busy() == 0; }) && counts_.stuck == 0,
        "each registration had its outcome and its end; stuck: " + std::to_string(counts_.stuck));
  check(counts_.strange == 0,
        "no deregistration was told that nobody had asked for, and no id was given twice");
  const bool clear = until(Patience(), [] {
    return sivra::EntryCount() == 0 && sipcarrier::GetCounters().transactions == 0;
  });
  check(clear, "the stack has neither entries nor transactions left: " +
                   std::to_string(sivra::EntryCount()) + " and " +
                   std::to_string(sipcarrier::GetCounters().transactions));
  nlohmann::json report;
  const bool empty = until(kLongestExpires + 5, [&] {
    report = registrar_.Report();
    return report.is_object() && report.value("bound", 1) == 0;
  });
  check(empty, "the registrar's table is empty, once what was left without a message has run out");
  check(report.is_object() && report.value("cseq_not_above", 1) == 0,
        "the CSeq of a registration never fell");
  check(counts_.registered > 0 && counts_.deregistered > 0, "registrations did come and go");
  std::printf(
      "commands for living registrations: %llu, refused untold %llu; ended without a "
      "message: %llu\n",
      static_cast<unsigned long long>(counts_.again),
      static_cast<unsigned long long>(counts_.untold),
      static_cast<unsigned long long>(counts_.unsent));
  std::printf("the registrar: %s\n", report.dump().c_str());
  Sample(began);
  return good;
}

bool Soak::TakeAllIds(const std::string& registrar) {
  const std::int64_t began = bench::Now();
  std::vector<int> ids;
  std::size_t outcomes = 0;
  std::size_t ended = 0;
  const auto turn = [&] {
    kdWaitEvent(kSecond / 100);
    for (const bench::Notice& notice : inbox_.Take()) {
      if (notice.id == bench::kNotifyOutcome && notice.result == 0) ++outcomes;
      if (notice.id == bench::kNotifyDeregistered) ++ended;
    }
  };
  const auto until = [&turn](const auto& done) {
    const auto end = bench::Now() + 60 * kSecond;
    while (!done() && bench::Now() < end) turn();
    return done();
  };
  for (std::size_t i = 0; i < kAllIds; ++i) {
    const std::string aor = "sip:id" + std::to_string(i) + "@example.com";
    const int id = bus_.Register(
        bench::RegisterDocument({.aor = aor, .registrar = "sip:" + registrar, .expires = 600}));
    if (id > 0) ids.push_back(id);
    if (i % 32 == 0) kdPumpEvents();
  }
  bool good = ids.size() == kAllIds && until([&] { return outcomes == kAllIds; });
  for (const int id : ids) bus_.Deregister(id);
  good = until([&] { return ended == ids.size() && sivra::EntryCount() == 0; }) && good;
  std::printf("%-4s all %zu ids were given again, registered and ended: %zu, %zu, %zu\n",
              good ? "yes" : "NO", kAllIds, ids.size(), outcomes, ended);
  Sample(began);
  return good;
}

void Describe(CLI::App& app, Options& options) {
  const auto percent = CLI::Range(0.0, 100.0);
  app.add_option("--seconds", options.seconds, "How long registrations come and go")
      ->check(CLI::Range(1.0, 90000.0))
      ->capture_default_str();
  app.add_option("--sample", options.sample_s, "Print memory and counts every so many seconds")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  app.add_option("--registrations", options.registrations, "How many addresses of record")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--seed", options.seed, "Of what is drawn by lot")->capture_default_str();
  app.add_option("--t1", options.t1_ms, "T1 of the stack, in milliseconds")
      ->check(CLI::Range(10, 500))
      ->capture_default_str();
  app.add_flag("--digest", options.digest, "The registrar wants digest authentication");
  app.add_option("--loss", options.loss, "Percent of the datagrams lost, in each direction")
      ->check(percent)
      ->capture_default_str();
  app.add_option("--delay", options.delay_ms,
                 "Milliseconds by which responses are late, on average")
      ->check(CLI::Range(0.0, 5000.0))
      ->capture_default_str();
  app.add_option("--unavailable", options.unavailable, "Percent answered with 503 or 500")
      ->check(percent)
      ->capture_default_str();
  app.add_option("--too-brief", options.too_brief, "Percent of short ones answered with 423")
      ->check(percent)
      ->capture_default_str();
  app.add_option("--restart", options.restart_s, "The registrar forgets all every so many seconds")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Registrations come and go at a bad registrar; at the end nothing may be left.");
  Options options;
  Describe(app, options);
  CLI11_PARSE(app, argc, argv);

  const auto programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string life = std::to_string(options.seconds + 600);
  std::vector<std::string> manners{"--seconds",     life,
                                   "--loss",        std::to_string(options.loss),
                                   "--delay",       std::to_string(options.delay_ms),
                                   "--unavailable", std::to_string(options.unavailable),
                                   "--too-brief",   std::to_string(options.too_brief),
                                   "--min-expires", std::to_string(kShortestExpires + 4),
                                   "--restart",     std::to_string(options.restart_s)};
  if (options.digest) manners.emplace_back("--digest");
  const bench::RegistrarProcess registrar(programs, manners);
  const bench::RegistrarProcess plain(programs, {"--seconds", life});
  if (!registrar.running() || !plain.running()) {
    std::fprintf(stderr, "registration_soak: the registrar did not start\n");
    return 3;
  }
  Soak soak(options, registrar);
  std::string error;
  if (!soak.Start(error)) {
    std::fprintf(stderr, "registration_soak: %s\n", error.c_str());
    return 3;
  }
  soak.Run();
  bool good = soak.End();
  good = soak.TakeAllIds(plain.endpoint()) && good;
  soak.Stop();
  std::printf("%s\n", good ? "Nothing was left." : "Something was left.");
  return good ? 0 : 1;
}
