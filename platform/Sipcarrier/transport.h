// What transactions see of a transport. UDP is the first; TCP and TLS stand behind the same
// interface.
#pragma once

#include <string_view>
#include <vector>

#include "base/intrusive_list.h"
#include "Sipcarrier/socket_address.h"

namespace sipcarrier {

struct Outgoing;

// What becomes of a message. Called on the I/O thread, never from inside Transport::Send.
class SendEvents {
 public:
  virtual void OnSent(Outgoing& message) noexcept = 0;
  // The system refused the message; an errno value.
  virtual void OnSendFailed(Outgoing& message, int error) noexcept = 0;

 protected:
  ~SendEvents() = default;
};

// A message on its way out; part of its sender, which keeps the text alive while it is queued. One
// that is destroyed or unlinked is not sent.
struct Outgoing : base::ListHook<Outgoing> {
  explicit Outgoing(SendEvents& of) : sender(of) {}
  SendEvents& sender;
  SocketAddress to;
  std::string_view text;
};

// Called on the I/O thread, never from inside Transport::Send.
class TransportSink {
 public:
  // `local` and the text are valid during the call.
  virtual void OnReceived(std::string_view text, const SocketAddress& from,
                          const SocketAddress& local) noexcept = 0;
  // The network reported that what went there does not arrive (RFC 3261 §18.4).
  virtual void OnUnreachable(const SocketAddress& to, int error) noexcept = 0;

 protected:
  ~TransportSink() = default;
};

// Used on the I/O thread.
class Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  [[nodiscard]] virtual std::string_view name() const = 0;  // as in Via: "UDP"
  // What is bound for this address family, or null when it is not served.
  [[nodiscard]] virtual const SocketAddress* bound(int family) const = 0;
  // Queues the message. Its family must be served; it must not be queued already.
  virtual void Send(Outgoing& message) noexcept = 0;
  // Sends what is queued, in batches; called at the end of every turn of the loop.
  virtual void Flush() noexcept = 0;
};

}  // namespace sipcarrier
