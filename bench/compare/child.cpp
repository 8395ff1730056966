#include "compare/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <thread>

namespace bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

}  // namespace

Child::Child(const std::vector<std::string>& arguments, bool quiet) {
  std::array<int, 2> output{};
  if (pipe2(output.data(), O_CLOEXEC) != 0) return;
  std::vector<char*> words;
  for (const std::string& argument : arguments) words.push_back(const_cast<char*>(argument.data()));
  words.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO);
    dup2(quiet ? nothing : output[1], STDOUT_FILENO);
    if (quiet) dup2(nothing, STDERR_FILENO);
    execvp(words[0], words.data());
    _exit(127);
  }
  close(output[1]);
  output_ = output[0];
}

Child::~Child() {
  if (pid_ > 0 && !ended_) Wait(0ms);
  if (output_ >= 0) close(output_);
}

std::string Child::ReadLine(std::chrono::milliseconds deadline) {
  const auto end = Clock::now() + deadline;
  for (;;) {
    const auto newline = read_.find('\n');
    if (newline != std::string::npos) {
      const std::string line = read_.substr(0, newline);
      read_.erase(0, newline + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd wait{output_, POLLIN, 0};
    std::array<char, 4096> buffer;
    if (left <= 0ms || poll(&wait, 1, static_cast<int>(left.count())) <= 0) return {};
    const ssize_t size = read(output_, buffer.data(), buffer.size());
    if (size <= 0) return {};
    read_.append(buffer.data(), static_cast<std::size_t>(size));
  }
}

int Child::Wait(std::chrono::milliseconds deadline) {
  if (pid_ <= 0 || ended_) return status_;
  const auto end = Clock::now() + deadline;
  int status = 0;
  while (wait4(pid_, &status, WNOHANG, &usage_) == 0) {
    if (Clock::now() >= end) {
      kill(pid_, SIGKILL);
      wait4(pid_, &status, 0, &usage_);
      break;
    }
    std::this_thread::sleep_for(2ms);
  }
  ended_ = true;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return status_;
}

void Child::Signal(int number) const {
  if (pid_ > 0 && !ended_) kill(pid_, number);
}

double Child::CpuSeconds() const {
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage_.ru_utime) + seconds(usage_.ru_stime);
}

double Child::ResidentKiB() const {
  const std::string path = "/proc/" + std::to_string(pid_) + "/statm";
  long total = 0;
  long resident = 0;
  if (std::FILE* const file = std::fopen(path.c_str(), "r")) {
    if (std::fscanf(file, "%ld %ld", &total, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

}  // namespace bench
