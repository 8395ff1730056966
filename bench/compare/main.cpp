// load_compare: what a registration and a refresh cost, beside a bare loop and beside sipp, in one
// interleaved run, as medians and as ratios to the bare loop.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "compare/clients.h"

namespace {

using bench::Client;
using bench::Run;

struct Options {
  std::vector<std::size_t> users{100, 1000, 10000};
  std::vector<std::size_t> refresh_users{1000, 10000};
  int rounds = 5;
  std::size_t window = 0;
  std::string digest = "both";
  bool no_sipp = false;
  bool logs = false;
  bool burst = false;
  int expires = 8;
  double hold_s = 20;
  std::string scenarios = "bench/sipp";
};

// A directory that goes with this object.
class Scratch {
 public:
  Scratch() {
    std::string name = (std::filesystem::temp_directory_path() / "tolvane-bench-XXXXXX").string();
    if (mkdtemp(name.data()) != nullptr) path_ = name;
  }
  ~Scratch() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The runs of one client under the same conditions.
struct Series {
  std::vector<Run> runs;
  [[nodiscard]] double Of(double Run::*figure) const {
    std::vector<double> values;
    for (const Run& run : runs) values.push_back(run.*figure);
    return Median(values);
  }
  [[nodiscard]] double Most(double Run::*figure) const {
    double most = 0;
    for (const Run& run : runs) most = std::max(most, run.*figure);
    return most;
  }
  [[nodiscard]] bool complete() const {
    return std::all_of(runs.begin(), runs.end(), [](const Run& run) { return run.complete; });
  }
};
using Table = std::map<Client, Series>;

void Goal(const char* what, double value, const char* unit, double goal) {
  std::printf("  %-4s %-58s %8.2f%s, at most %.2f%s\n", value <= goal ? "yes" : "NO", what, value,
              unit, goal, unit);
}

bench::Scene MakeScene(const Options& options, const Scratch& scratch, std::size_t users,
                       bool digest) {
  bench::Scene scene;
  scene.programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  scene.scenarios = options.scenarios;
  scene.scratch = scratch.path();
  scene.users = users;
  scene.digest = digest;
  scene.window = options.window;
  return scene;
}

std::vector<std::string> RegistrarOptions(bool digest) {
  std::vector<std::string> words{"--seconds", "7200"};
  if (digest) words.emplace_back("--digest");
  return words;
}

// Each round begins with another client, so that none always runs behind the same one.
void Interleave(const std::vector<Client>& clients, int rounds, const bench::Scene& scene,
                const bench::RegistrarProcess& registrar, Table& table) {
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < clients.size(); ++i) {
      const Client client = clients[(i + static_cast<std::size_t>(round)) % clients.size()];
      Run run = bench::RunClient(client, scene, registrar);
      if (client == Client::kSippDropped || client == Client::kSippKept) {
        const bench::SippStart start =
            bench::RunSippStart(client == Client::kSippKept, scene, registrar);
        run.cpu_us -= 1e6 * start.cpu_s / static_cast<double>(scene.users);
        run.kib -= start.kib / static_cast<double>(scene.users);
      }
      table[client].runs.push_back(run);
    }
  }
}

bool PrintLoad(const bench::Scene& scene, int rounds, const Table& table) {
  const Series& floor = table.at(Client::kFloor);
  const double floor_cpu = floor.Of(&Run::cpu_us);
  std::printf("\n%zu users, %s, medians of %d rounds\n", scene.users,
              scene.digest ? "digest" : "no digest", rounds);
  std::printf("  %-28s %10s %8s %16s %10s %9s %8s\n", "", "CPU us/reg", "x floor", "x floor, range",
              "wall ms", "KiB/reg", "repeats");
  bool complete = true;
  for (const auto& [client, series] : table) {
    double low = 1e9;
    double high = 0;
    for (std::size_t i = 0; i < series.runs.size(); ++i) {
      const double ratio = series.runs[i].cpu_us / floor.runs[i].cpu_us;
      low = std::min(low, ratio);
      high = std::max(high, ratio);
    }
    std::printf("  %-28s %10.2f %8.2f %8.2f-%7.2f %10.1f %9.2f %8.0f%s\n", bench::NameOf(client),
                series.Of(&Run::cpu_us), series.Of(&Run::cpu_us) / floor_cpu, low, high,
                series.Of(&Run::wall_ms), series.Of(&Run::kib), series.Most(&Run::retransmitted),
                series.complete() ? "" : "   NOT ALL WERE ANSWERED");
    complete = complete && series.complete();
  }
  std::printf("  tolvane by thread, CPU us/reg:");
  for (const char* const thread : {"commands", "io", "delivery", "bus"}) {
    std::vector<double> values;
    for (const Run& run : table.at(Client::kOurs).runs) {
      if (run.threads.contains(thread)) values.push_back(run.threads.at(thread));
    }
    std::printf("  %s %.1f", thread, Median(values));
  }
  std::printf("\n");
  return complete;
}

void PrintLoadGoals(const bench::Scene& scene, const Table& table, double cpu_at_1000) {
  const Series& floor = table.at(Client::kFloor);
  const Series& ours = table.at(Client::kOurs);
  const double cpu = ours.Of(&Run::cpu_us);
  Goal("CPU of a registration, of the floor's (2.5 aimed at)", cpu / floor.Of(&Run::cpu_us), " x",
       3.3);
  if (scene.users == 10000) {  // with fewer, what the process needs once is the larger part
    Goal("resident memory of a registration", ours.Of(&Run::kib), " KiB", scene.digest ? 3 : 2.5);
  }
  Goal("messages sent again", ours.Most(&Run::retransmitted), "", 0);
  if (const auto sipp = table.find(Client::kSippDropped); sipp != table.end()) {
    if (scene.digest) {
      Goal("CPU of a registration with digest, of sipp's", cpu / sipp->second.Of(&Run::cpu_us),
           " x", 1);
    }
    Goal("time until all are answered, of the sipp that keeps nothing",
         ours.Of(&Run::wall_ms) / sipp->second.Of(&Run::wall_ms), " x", 2);
  }
  if (scene.users == 10000 && cpu_at_1000 > 0) {
    Goal("CPU of a registration at 10000 users, of that at 1000", cpu / cpu_at_1000, " x", 1.2);
  }
}

std::vector<bool> DigestManners(const Options& options) {
  if (options.digest == "no") return {false};
  if (options.digest == "yes") return {true};
  return {false, true};
}

int CompareLoad(const Options& options) {
  const Scratch scratch;
  std::vector<Client> clients{Client::kFloor, Client::kFloorSingle, Client::kOurs};
  if (!options.no_sipp) {
    clients.insert(clients.end(), {Client::kSippDropped, Client::kSippKept});
  }
  if (options.logs) clients.insert(clients.end(), {Client::kOursLog0, Client::kOursLog2});
  bool complete = true;
  for (const bool digest : DigestManners(options)) {
    const bench::RegistrarProcess registrar(
        std::filesystem::read_symlink("/proc/self/exe").parent_path(), RegistrarOptions(digest));
    if (!registrar.running()) {
      std::fprintf(stderr, "load_compare: the registrar did not start\n");
      return 3;
    }
    double cpu_at_1000 = 0;
    for (const std::size_t users : options.users) {
      const bench::Scene scene = MakeScene(options, scratch, users, digest);
      bench::WriteAccounts(scene);
      Table table;
      Interleave(clients, options.rounds, scene, registrar, table);
      complete = PrintLoad(scene, options.rounds, table) && complete;
      PrintLoadGoals(scene, table, cpu_at_1000);
      if (users == 1000) cpu_at_1000 = table.at(Client::kOurs).Of(&Run::cpu_us);
      std::fflush(stdout);
    }
  }
  return complete ? 0 : 1;
}

int CompareRefresh(const Options& options) {
  const Scratch scratch;
  bool complete = true;
  for (const bool digest : DigestManners(options)) {
    const bench::RegistrarProcess registrar(
        std::filesystem::read_symlink("/proc/self/exe").parent_path(), RegistrarOptions(digest));
    if (!registrar.running()) {
      std::fprintf(stderr, "load_compare: the registrar did not start\n");
      return 3;
    }
    for (const std::size_t users : options.refresh_users) {
      bench::Scene scene = MakeScene(options, scratch, users, digest);
      scene.expires = options.expires;
      scene.hold_s = options.hold_s;
      // Registrations that begin evenly spread are refreshed evenly spread.
      if (!options.burst) scene.rate = 2.0 * static_cast<double>(users) / options.expires;
      bench::WriteAccounts(scene);
      Table table;
      Interleave({Client::kFloor, Client::kOurs}, options.rounds, scene, registrar, table);
      std::printf("\n%zu users, %s, %d s granted, held for %.0f s, %s, medians of %d rounds\n",
                  users, digest ? "digest" : "no digest", options.expires, options.hold_s,
                  options.burst ? "all at once" : "evenly spread", options.rounds);
      std::printf("  %-28s %14s %8s %10s %12s %8s\n", "", "CPU us/refresh", "x floor", "refreshes",
                  "most late s", "repeats");
      const double floor = table[Client::kFloor].Of(&Run::refresh_us);
      for (const auto& [client, series] : table) {
        std::printf("  %-28s %14.2f %8.2f %10.0f %12.3f %8.0f%s\n", bench::NameOf(client),
                    series.Of(&Run::refresh_us), series.Of(&Run::refresh_us) / floor,
                    series.Of(&Run::refreshes), series.Most(&Run::max_late_s),
                    series.Most(&Run::retransmitted),
                    series.complete() ? "" : "   NOT ALL WERE ANSWERED");
        complete = complete && series.complete();
      }
      const Series& ours = table[Client::kOurs];
      Goal("CPU of a refresh, of the floor's", ours.Of(&Run::refresh_us) / floor, " x", 3);
      Goal("lateness of a refresh", ours.Most(&Run::max_late_s), " s", 1);
      std::fflush(stdout);
    }
  }
  return complete ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("What a registration costs, beside a bare loop and beside sipp.");
  app.require_subcommand(1);
  Options options;
  CLI::App* const load = app.add_subcommand("load", "register many users, then end");
  CLI::App* const refresh = app.add_subcommand("refresh", "keep them registered for a while");
  const auto users = CLI::Range(1, 10000);
  load->add_option("--users", options.users, "How many users, 100,1000,10000")
      ->delimiter(',')
      ->check(users);
  load->add_flag("--no-sipp", options.no_sipp, "Leave sipp out");
  load->add_flag("--logs", options.logs,
                 "Measure ours with its log open, too: level 2 writes all living ids with each "
                 "event, so use few users");
  load->add_option("--window", options.window,
                   "At most so many registrations of ours and the floor's outstanding; 0: no limit")
      ->check(CLI::Range(0, 10000));
  refresh->add_option("--users", options.refresh_users, "How many users, 1000,10000")
      ->delimiter(',')
      ->check(users);
  refresh->add_option("--expires", options.expires, "What the registrar grants, in seconds")
      ->check(CLI::Range(2, 3600))
      ->capture_default_str();
  refresh->add_option("--hold", options.hold_s, "How long the registrations are held, in seconds")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  refresh->add_flag("--burst", options.burst, "Register and refresh all at once");
  for (CLI::App* const command : {load, refresh}) {
    command->add_option("--rounds", options.rounds, "How many rounds")
        ->check(CLI::Range(1, 50))
        ->capture_default_str();
    command->add_option("--digest", options.digest, "yes, no, both")
        ->check(CLI::IsMember({"yes", "no", "both"}))
        ->capture_default_str();
    command->add_option("--scenarios", options.scenarios, "Where sipp's scenarios lie")
        ->capture_default_str();
  }
  CLI11_PARSE(app, argc, argv);
  return load->parsed() ? CompareLoad(options) : CompareRefresh(options);
}
