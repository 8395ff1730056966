#include "compare/clients.h"

#include <signal.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "floor/batch_socket.h"
#include "users.h"

namespace bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr auto kRunDeadline = 90s;
// The fastest at which sipp loses nothing to its receive buffer, which the system limits.
constexpr int kSippRate = 100000;
constexpr int kSippCalls = 1000;
constexpr int kSippKeptRate = 50000;
constexpr auto kSippGrace = 20ms;  // for the last responses, once the registrar has sent them

json ParseLine(const std::string& line) { return json::parse(line, nullptr, false); }

double Number(const json& object, const char* name) {
  return object.is_object() ? object.value(name, 0.0) : 0.0;
}

Run RunOwn(const std::vector<std::string>& words, const Scene& scene,
           const RegistrarProcess& registrar) {
  Child child(words);
  const auto time = std::chrono::milliseconds(static_cast<long>(1e3 * scene.hold_s)) + kRunDeadline;
  const json report = ParseLine(child.ReadLine(time));
  Run run;
  run.complete =
      child.Wait(10s) == 0 && report.is_object() &&
      report.value("outcomes", json::object()).value("200", std::size_t{0}) == scene.users;
  const json seen = registrar.Report();
  run.cpu_us = Number(report, "settled_cpu_us_per_registration");
  if (run.cpu_us == 0) run.cpu_us = Number(report, "cpu_us_per_registration");
  run.wall_ms = 1e3 * Number(report, "wall_s");
  run.kib = Number(report, "resident_kib_per_registration");
  run.retransmitted = Number(report, "retransmitted");
  run.refresh_us = Number(report, "cpu_us_per_refresh");
  run.refreshes = Number(report, "refreshes");
  run.max_late_s = Number(seen, "max_late_s");
  if (run.complete && report.contains("cpu_us_per_registration_by_thread")) {
    run.threads = report["cpu_us_per_registration_by_thread"].get<std::map<std::string, double>>();
  }
  return run;
}

std::vector<std::string> SippWords(bool kept, std::size_t calls, const Scene& scene,
                                   const RegistrarProcess& registrar) {
  const std::string scenario =
      std::string("register") + (scene.digest ? "_digest" : "") + (kept ? "_kept" : "") + ".xml";
  return {"sipp",     registrar.endpoint(),
          "-sf",      (scene.scratch / scenario).string(),
          "-inf",     (scene.scratch / "users.csv").string(),
          "-i",       "127.0.0.1",
          "-m",       std::to_string(calls),
          "-l",       std::to_string(kept ? calls : kSippCalls),
          "-r",       std::to_string(kept ? kSippKeptRate : kSippRate),
          "-nostdin", "-buff_size",
          "4000000"};
}

struct SippEnd {
  bool complete = false;
  double cpu_s = 0;
  double kib = 0;
};

SippEnd RunSipp(bool kept, std::size_t calls, const Scene& scene,
                const RegistrarProcess& registrar) {
  SippEnd end;
  Child child(SippWords(kept, calls, scene, registrar), true);
  if (kept) {
    // It never ends by itself.
    const auto deadline = Clock::now() + kRunDeadline;
    while (registrar.Count() < calls && Clock::now() < deadline) std::this_thread::sleep_for(5ms);
    std::this_thread::sleep_for(kSippGrace);
    end.complete = registrar.Count() >= calls;
    end.kib = child.ResidentKiB();
    child.Wait(0ms);
  } else {
    end.complete = child.Wait(kRunDeadline) == 0;
    end.kib = child.MostResidentKiB();
  }
  end.cpu_s = child.CpuSeconds();
  return end;
}

}  // namespace

RegistrarProcess::RegistrarProcess(const std::filesystem::path& programs,
                                   const std::vector<std::string>& options)
    : child_([&] {
        std::vector<std::string> words{(programs / "floor_registrar").string()};
        words.insert(words.end(), options.begin(), options.end());
        return words;
      }()) {
  const json line = ParseLine(child_.ReadLine(5s));
  if (line.is_object()) endpoint_ = line.value("listening", "");
}

RegistrarProcess::~RegistrarProcess() {
  child_.Signal(SIGTERM);
  child_.Wait(2s);
}

std::string RegistrarProcess::Ask(const std::string& word) const {
  BatchSocket socket;
  std::string text;
  sockaddr_in to{};
  if (!socket.Open("127.0.0.1:0", text) || !ReadLoopback(endpoint_, to)) return {};
  text.clear();
  for (int attempt = 0; attempt < 5 && text.empty(); ++attempt) {
    socket.Commit(word.copy(socket.Room().data(), word.size()), to);
    socket.Flush();
    if (!socket.Wait(1s)) continue;
    socket.Receive([&text](std::string_view reply, const sockaddr_in&) { text = reply; });
  }
  return text;
}

json RegistrarProcess::Report() const { return ParseLine(Ask("report")); }
void RegistrarProcess::Reset() const { (void)Ask("reset"); }

std::size_t RegistrarProcess::Count() const {
  const std::string text = Ask("count");
  std::size_t count = 0;
  std::from_chars(text.data(), text.data() + text.size(), count);
  return count;
}

const char* NameOf(Client client) {
  switch (client) {
    case Client::kFloor:
      return "floor";
    case Client::kFloorSingle:
      return "floor, one call a datagram";
    case Client::kOurs:
      return "tolvane";
    case Client::kOursLog0:
      return "tolvane, log at level 0";
    case Client::kOursLog2:
      return "tolvane, log at level 2";
    case Client::kSippDropped:
      return "sipp, state dropped";
    case Client::kSippKept:
      return "sipp, calls kept";
  }
  return "";
}

void WriteAccounts(const Scene& scene) {
  std::vector<User> users;
  std::string error;
  if (!ReadUsers({}, scene.users, users, error)) return;
  std::ofstream plain(scene.scratch / "users");
  std::ofstream sipp(scene.scratch / "users.csv");
  sipp << "SEQUENTIAL\n";
  for (const User& user : users) {
    plain << user.name << ";" << user.password << "\n";
    sipp << user.name << ";[authentication username=" << user.name << " password=" << user.password
         << "]\n";
  }
  for (const char* const name : {"register", "register_digest"}) {
    std::ifstream in(scene.scenarios / (std::string(name) + ".xml"));
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    std::ofstream(scene.scratch / (std::string(name) + ".xml")) << text;
    const auto end = text.rfind("</scenario>");
    std::ofstream(scene.scratch / (std::string(name) + "_kept.xml"))
        << text.substr(0, end) << "<pause milliseconds=\"3600000\"/>\n</scenario>\n";
  }
}

Run RunClient(Client client, const Scene& scene, const RegistrarProcess& registrar) {
  registrar.Reset();
  if (client == Client::kSippDropped || client == Client::kSippKept) {
    const SippEnd end = RunSipp(client == Client::kSippKept, scene.users, scene, registrar);
    const json seen = registrar.Report();
    const auto users = static_cast<double>(scene.users);
    Run run;
    run.complete = end.complete && Number(seen, "new") == users;
    run.cpu_us = 1e6 * end.cpu_s / users;  // the caller takes the start off
    run.wall_ms = 1e3 * Number(seen, "span_s");
    run.kib = end.kib / users;
    run.retransmitted = Number(seen, "repeats");
    return run;
  }
  const bool ours = client != Client::kFloor && client != Client::kFloorSingle;
  std::vector<std::string> words{
      (scene.programs / (ours ? "registration_load" : "floor_client")).string(),
      "--registrar",
      "sip:" + registrar.endpoint(),
      "--users",
      (scene.scratch / "users").string(),
      "--window",
      std::to_string(scene.window),
      "--expires",
      std::to_string(scene.expires),
      "--hold",
      std::to_string(scene.hold_s),
      "--rate",
      std::to_string(scene.rate)};
  if (client == Client::kOursLog0 || client == Client::kOursLog2) {
    words.insert(words.end(), {"--log-dir", (scene.scratch / "log").string(), "--log-level",
                               client == Client::kOursLog0 ? "0" : "2"});
  }
  if (client == Client::kFloorSingle) words.insert(words.end(), {"--batch", "1"});
  return RunOwn(words, scene, registrar);
}

SippStart RunSippStart(bool kept, const Scene& scene, const RegistrarProcess& registrar) {
  registrar.Reset();
  const SippEnd end = RunSipp(kept, 1, scene, registrar);
  return {end.cpu_s, end.kib};
}

}  // namespace bench
