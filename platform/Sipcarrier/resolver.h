// Names to addresses, on the I/O thread and without blocking it (c-ares).
#pragma once

#include <ares.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/intrusive_list.h"
#include "Sipcarrier/io_loop.h"
#include "Sipcarrier/socket_address.h"
#include "Sipcarrier/timer_queue.h"

namespace sipcarrier {

// One that waits for a name; it cancels by unlinking itself.
class LookupWaiter : public base::ListHook<LookupWaiter> {
 public:
  // From Resolver::Deliver. Addresses (port 0) in the order in which to try them (RFC 6724), or
  // none and the reason.
  virtual void OnResolved(std::span<const SocketAddress> addresses,
                          std::string_view failure) noexcept = 0;

 protected:
  ~LookupWaiter() = default;
};

// Used on the I/O thread. Waiters for one name share one lookup, and a result is good for its time
// to live within bounds, so that ten thousand registrations at one registrar ask the name server
// once.
class Resolver final : FdEvents, TimerSink {
 public:
  // family: AF_INET, AF_INET6, or AF_UNSPEC for both. May throw std::bad_alloc.
  Resolver(IoLoop& loop, TimerQueue& timers, int family);
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;
  ~Resolver();

  // The answer comes from a later Deliver, or never: the deadline is the waiter's. May throw
  // std::bad_alloc.
  void Lookup(const std::string& host, LookupWaiter& waiter);
  // Called at the end of every turn of the loop.
  void Deliver() noexcept;

 private:
  struct Query;

  static void OnSocketState(void* self, ares_socket_t fd, int readable, int writable);
  static void OnAnswer(void* query, int status, int timeouts, ares_addrinfo* result);
  void OnReadable(int fd) noexcept override;
  void OnWritable(int fd) noexcept override;
  void OnTimer(Timer& timer) noexcept override;
  [[nodiscard]] bool EnsureChannel();
  void CloseChannel() noexcept;
  void Begin(Query& query);
  bool AddLoopback(Query& query) const;
  void Complete(Query& query, int status, const ares_addrinfo* result);
  void ScheduleTimeouts() noexcept;

  IoLoop& loop_;
  TimerQueue& timers_;
  int family_;
  bool library_ready_ = false;
  ares_channel channel_ = nullptr;
  Clock::time_point channel_made_;
  std::size_t in_flight_ = 0;
  Timer timeout_;  // of c-ares' own retries
  std::unordered_map<int, std::unique_ptr<FdWatch>> watches_;
  std::unordered_map<std::string, std::unique_ptr<Query>>
      queries_;                                 // under way, and results that are good
  base::IntrusiveList<Query, Query> finished_;  // not delivered yet
};

}  // namespace sipcarrier
