// A program that a measurement starts.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace bench {

// Owns the process: it is killed and waited for at the latest with this object, and ends by itself
// when its parent does. Used by one thread.
class Child {
 public:
  // The first argument is the program, looked for on the path when it has no '/'. What it writes to
  // its standard output can be read; its input is empty.
  explicit Child(const std::vector<std::string>& arguments, bool quiet = false);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  // One line of its output, without its end; empty when none came in time.
  [[nodiscard]] std::string ReadLine(std::chrono::milliseconds deadline);
  // Waits for its end; what is not over in time is killed. Its exit status, or -1.
  int Wait(std::chrono::milliseconds deadline);
  void Signal(int number) const;

  // What it has used, once it has been waited for.
  [[nodiscard]] double CpuSeconds() const;
  [[nodiscard]] double MostResidentKiB() const { return static_cast<double>(usage_.ru_maxrss); }
  // Now, while it runs.
  [[nodiscard]] double ResidentKiB() const;

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  bool ended_ = false;
  int status_ = -1;
  std::string read_;
  rusage usage_{};
};

}  // namespace bench
