// What this process has used so far.
#pragma once

#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace bench {

// Nanoseconds on the monotonic clock.
[[nodiscard]] inline std::int64_t Now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

struct ProcessStats {
  double user_s = 0;
  double system_s = 0;
  long switches_voluntary = 0;
  long switches_forced = 0;
  [[nodiscard]] double cpu() const { return user_s + system_s; }
};

[[nodiscard]] inline ProcessStats ReadProcessStats() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return {seconds(usage.ru_utime), seconds(usage.ru_stime), usage.ru_nvcsw, usage.ru_nivcsw};
}

[[nodiscard]] inline double ResidentKiB() {
  long total = 0;
  long resident = 0;
  if (std::FILE* const file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%ld %ld", &total, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

// Seconds of CPU by thread, in the order in which the threads began.
[[nodiscard]] inline std::map<long, double> CpuByThread() {
  std::map<long, double> seconds;
  DIR* const threads = opendir("/proc/self/task");
  if (threads == nullptr) return seconds;
  while (const dirent* const entry = readdir(threads)) {
    const long id = std::atol(entry->d_name);
    const std::string path = std::string("/proc/self/task/") + entry->d_name + "/schedstat";
    std::FILE* const file = id > 0 ? std::fopen(path.c_str(), "r") : nullptr;
    if (file == nullptr) continue;
    unsigned long long ns = 0;
    if (std::fscanf(file, "%llu", &ns) == 1) seconds[id] = 1e-9 * static_cast<double>(ns);
    std::fclose(file);
  }
  closedir(threads);
  return seconds;
}

}  // namespace bench
