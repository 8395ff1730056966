#include "wakeup.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>

#include "clock.h"

namespace vorelkd {
namespace {

constexpr KDust kSecond = 1'000'000'000;
constexpr KDust kNap =
    10'000'000;  // without descriptors a post is seen after this time at the latest

timespec ToTimespec(KDust time) noexcept {
  timespec result{};
  result.tv_sec = time / kSecond;
  result.tv_nsec = time % kSecond;
  return result;
}

}  // namespace

Wakeup::~Wakeup() {
  if (event_fd_ >= 0) close(event_fd_);
  if (timer_fd_ >= 0) close(timer_fd_);
}

void Wakeup::Prepare() noexcept {
  if (event_fd_ < 0) event_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (timer_fd_ < 0) timer_fd_ = timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK);
}

void Wakeup::Sleep(KDust until) noexcept {
  if (event_fd_ < 0 || timer_fd_ < 0) {
    const timespec nap = ToTimespec(std::clamp<KDust>(until - SystemNow(), 0, kNap));
    nanosleep(&nap, nullptr);
    return;
  }
  if (until != armed_) {
    itimerspec spec{};  // all zero switches the timer off
    if (until != kNever) spec.it_value = ToTimespec(std::max<KDust>(until, 1));
    if (timerfd_settime(timer_fd_, TFD_TIMER_ABSTIME, &spec, nullptr) == 0) armed_ = until;
  }
  std::array<pollfd, 2> fds{{{event_fd_, POLLIN, 0}, {timer_fd_, POLLIN, 0}}};
  // A signal ends the sleep early, which the caller's loop bears.
  if (poll(fds.data(), fds.size(), -1) > 0 && (fds[0].revents & POLLIN) != 0) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(event_fd_, &count, sizeof count);
  }
}

void Wakeup::Wake() noexcept {
  if (event_fd_ < 0) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t put = write(event_fd_, &one, sizeof one);
}

}  // namespace vorelkd
