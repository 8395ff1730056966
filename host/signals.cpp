#include "host/signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace host {

SignalWatch::SignalWatch(Inbox& inbox) : inbox_(inbox) {}

SignalWatch::~SignalWatch() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    while (write(stop_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread_.join();
  }
  if (signals_ >= 0) close(signals_);
  if (stop_ >= 0) close(stop_);
}

bool SignalWatch::Start(std::string& error) {
  const auto fail = [&error](const char* what, int code) {
    error = std::string("signals cannot be watched: ") + what + ": " +
            std::generic_category().message(code);
    return false;
  };
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  if (const int code = pthread_sigmask(SIG_BLOCK, &set, nullptr); code != 0) {
    return fail("mask", code);
  }
  signals_ = signalfd(-1, &set, SFD_CLOEXEC);
  if (signals_ < 0) return fail("signalfd", errno);
  stop_ = eventfd(0, EFD_CLOEXEC);
  if (stop_ < 0) return fail("eventfd", errno);
  try {
    thread_ = std::thread(&SignalWatch::Watch, this);
  } catch (const std::system_error& failure) {
    return fail("thread", failure.code().value());
  }
  return true;
}

void SignalWatch::Watch() {
  pollfd fds[2] = {{signals_, POLLIN, 0}, {stop_, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    signalfd_siginfo info = {};
    if (read(signals_, &info, sizeof info) == sizeof info) {
      inbox_.Push(SignalItem{static_cast<int>(info.ssi_signo)});
    }
  }
}

}  // namespace host
