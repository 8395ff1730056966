// The clients that are compared, each run as a process of its own against a registrar that costs
// next to nothing.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "compare/child.h"

namespace bench {

// floor_registrar in a process of its own.
class RegistrarProcess {
 public:
  RegistrarProcess(const std::filesystem::path& programs, const std::vector<std::string>& options);
  ~RegistrarProcess();
  [[nodiscard]] bool running() const { return !endpoint_.empty(); }
  [[nodiscard]] const std::string& endpoint() const { return endpoint_; }  // "127.0.0.1:40312"
  [[nodiscard]] nlohmann::json Report() const;
  void Reset() const;
  // Bindings made since the last reset.
  [[nodiscard]] std::size_t Count() const;

 private:
  [[nodiscard]] std::string Ask(const std::string& word) const;

  Child child_;
  std::string endpoint_;
};

// What one run of one client gave.
struct Run {
  bool complete = false;  // all users got a 200
  double cpu_us = 0;      // user and system, a registration
  double wall_ms = 0;     // until the last was answered
  double kib = 0;         // resident, a registration
  double retransmitted = 0;
  double refresh_us = 0;  // CPU of a refresh, when there was a hold
  double refreshes = 0;
  double max_late_s = 0;
  std::map<std::string, double> threads;  // CPU of a registration by thread, of ours
};

struct Scene {
  std::filesystem::path programs;   // where our programs lie
  std::filesystem::path scenarios;  // sipp's
  std::filesystem::path scratch;    // a directory for files of this run
  std::size_t users = 0;
  bool digest = false;
  std::size_t window = 0;
  // For refreshes.
  double hold_s = 0;
  double rate = 0;
  int expires = 3600;
};

enum class Client { kFloor, kFloorSingle, kOurs, kOursLog0, kOursLog2, kSippDropped, kSippKept };
[[nodiscard]] const char* NameOf(Client client);

// Writes the files of accounts that the clients read.
void WriteAccounts(const Scene& scene);
[[nodiscard]] Run RunClient(Client client, const Scene& scene, const RegistrarProcess& registrar);
// What sipp costs before its first call: CPU seconds and resident KiB of a run with one call.
struct SippStart {
  double cpu_s = 0;
  double kib = 0;
};
[[nodiscard]] SippStart RunSippStart(bool kept, const Scene& scene,
                                     const RegistrarProcess& registrar);

}  // namespace bench
