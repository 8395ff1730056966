// The registrar's thread: what it owns and what it shares.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>

#include "base/mutex.h"
#include "registrar/digest.h"
#include "registrar/location.h"
#include "registrar/loopback_socket.h"
#include "registrar/notifier.h"
#include "registrar/registrar.h"
#include "registrar/response.h"

namespace registrar {

// The socket, the digest and the responses belong to the registrar's thread. The mutex guards what
// callers share with it: bindings, subscriptions, scripts, counters, observers. It is not held
// while an observer is called or a datagram is sent.
struct Registrar::Impl {
  explicit Impl(Options given)
      : options(std::move(given)),
        digest(options),
        location(options),
        notifier(options.reg_event, location) {}

  const Options options;

  LoopbackSocket socket;
  Digest digest;
  ResponseCache responses;
  struct Delayed {
    std::string key;
    int copies = 1;
  };
  std::multimap<Clock::time_point, Delayed> delayed;
  std::string datagram;
  Clock::time_point next_purge{};

  std::atomic<std::chrono::milliseconds> ahead{};  // of the steady clock

  FileDescriptor wake;  // made once, before callers can know of it
  std::thread thread;
  std::atomic<bool> stopping{false};
  std::atomic<std::uint16_t> port{0};

  mutable base::Mutex mutex;
  Location location TOLVANE_GUARDED_BY(mutex);
  Notifier notifier TOLVANE_GUARDED_BY(mutex);
  std::deque<Script> scripts TOLVANE_GUARDED_BY(mutex);
  Counters counters TOLVANE_GUARDED_BY(mutex);
  std::function<void(const nsip_message&)> on_request TOLVANE_GUARDED_BY(mutex);
  std::function<void(const nsip_message&, int)> on_response TOLVANE_GUARDED_BY(mutex);

  // What all deadlines and lifetimes are measured by.
  [[nodiscard]] Clock::time_point Now() const { return Clock::now() + ahead.load(); }
  void Run();
  void HandleAll();
  void MoveOn(Clock::time_point now);
  void SendDue(Clock::time_point now);
  void Purge(Clock::time_point now);
  void Handle(const Peer& from);
  // A REGISTER or a SUBSCRIBE.
  void Serve(const nsip_message& request, const std::string& key, const Peer& from);
  void Reply(const nsip_message& request, const std::string& key, const Peer& from,
             Response response, const Script& script);
  Script TakeScript(const nsip_message& request);
  Response OwnResponse(const nsip_message& request);
  Response Bind(const nsip_message& request);
  int PollTimeout() const;
  // Has the thread do what is due. Any thread.
  void Wake() const;
};

}  // namespace registrar
