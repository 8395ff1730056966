// A small SIP registrar for demonstrations and tests, over UDP on loopback. It is a test double:
// bindings live in memory, nothing is persistent, and it makes no claim to serve a network.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nsip/nsip.h"
#include "registrar/reg_event.h"

namespace registrar {

struct Options {
  std::string address =
      "127.0.0.1";             // a loopback literal: 127.0.0.0/8 or ::1; anything else is refused
  std::uint16_t port = 0;      // 0: a free one
  int min_expires = 0;         // a shorter wish above 0 is answered 423 with Min-Expires; 0: never
  int max_expires = 7200;      // longer wishes are cut
  int default_expires = 3600;  // when the request names none
  // Digest: user to password. Empty: no digest.
  std::map<std::string, std::string> users;
  std::string realm = "tolvane.example";
  std::vector<std::string> algorithms{"SHA-256",
                                      "MD5"};  // in the order of the challenges; "-sess" forms too
  std::vector<std::string> qop{"auth"};        // empty: the form of RFC 2069
  int nonce_uses = 0;  // a nonce is stale after so many requests (0: never); answered stale=true
  bool challenge_with_407 = false;
  std::vector<std::string> p_associated_uri;  // sent in each 200 to a REGISTER
  RegEventOptions reg_event;
};

// A scripted answer, for the next request of the method that matches. Consumed in order, one for
// each request that is not a retransmission of an answered one.
struct Script {
  std::string aor;    // empty: any
  bool drop = false;  // as if it had never come: no binding, no answer, retransmissions included
  std::chrono::milliseconds delay{0};  // the answer waits so long
  int status = 0;  // 0: the registrar's own answer; else this one, and nothing changes
  std::string reason;
  std::vector<std::pair<std::string, std::string>> headers;  // added to the answer, in order
  int copies = 1;                                            // how many times the answer is sent
  int repeat = 1;  // for how many requests this script stands; -1: for ever
  // Or "SUBSCRIBE": its NOTIFY does not wait for a delayed answer.
  std::string method = "REGISTER";
};

struct Binding {
  std::string aor;
  std::string contact;
  std::string call_id;
  std::uint32_t cseq = 0;
  int expires = 0;                                 // granted, seconds
  int left = 0;                                    // seconds
  ContactEvent event = ContactEvent::kRegistered;  // the last
};

struct Counters {
  std::uint64_t requests = 0;  // REGISTER requests without retransmissions
  std::uint64_t retransmissions = 0;
  std::uint64_t garbage = 0;
};

// Thread-safe, but Start and Stop come from one thread. Start runs a thread of its own; Stop and
// the destructor end it. A Start after a Stop listens on the same port again and still knows the
// bindings and the subscriptions: an outage.
class Registrar {
 public:
  explicit Registrar(Options options);
  ~Registrar();
  Registrar(const Registrar&) = delete;
  Registrar& operator=(const Registrar&) = delete;

  [[nodiscard]] bool Start(std::string& error);
  void Stop();
  [[nodiscard]] std::uint16_t port() const;
  [[nodiscard]] std::string uri() const;  // "sip:127.0.0.1:5060", "sip:[::1]:5060"

  void Add(Script script);
  [[nodiscard]] std::vector<Binding> Bindings(std::string_view aor = {}) const;  // those in force
  // Drops the bindings of an address of record, and tells no subscriber.
  bool Remove(std::string_view aor);
  [[nodiscard]] Counters GetCounters() const;
  // For tests: the registrar's clock goes forward by this at once, and what is over by then ends.
  void Advance(std::chrono::milliseconds time);

  // --- the event package "reg" ---
  // Changes the bindings, then notifies. False and a text when there is nothing to change.
  [[nodiscard]] bool Apply(const Order& order, std::string& error);
  // These tell how many subscriptions they found.
  std::size_t Notify(const NotifyOrder& order);
  // With a last NOTIFY. An empty reason: none is given. A negative retry_after: none.
  std::size_t EndSubscriptions(std::string_view aor, const std::string& reason,
                               int retry_after = -1);
  std::size_t ForgetSubscriptions(std::string_view aor);  // without a word; empty: all
  std::size_t Approve(std::string_view aor);              // the pending ones become active
  [[nodiscard]] std::vector<SubscriptionView> Subscriptions(std::string_view aor = {}) const;
  [[nodiscard]] RegEventCounters GetRegEventCounters() const;

  // Called on the registrar's thread for each REGISTER and SUBSCRIBE that is no retransmission,
  // before it is answered.
  void OnRequest(std::function<void(const nsip_message&)> observer);
  // Called on the registrar's thread when the answer to such a request is settled; status 0: there
  // is none.
  void OnAnswer(std::function<void(const nsip_message& request, int status)> observer);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace registrar
