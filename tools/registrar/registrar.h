// A small SIP registrar for demonstrations and tests, over UDP on loopback. It is a test double:
// bindings live in memory, nothing is persistent, and it makes no claim to serve a network.
//
// It behaves as registrars in the field do. Their ways of numbering reginfo documents, of naming
// contacts and of reporting contacts that are gone are options of its notifier. What an operator
// does to a binding is an order, given through this API or as a line on the program's standard
// input. An order first changes the location table; then subscribers are notified of what the table
// says, so a document never contradicts the table.
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
  // A loopback literal: 127.0.0.0/8 or ::1. Anything else is refused.
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;      // 0: a free one
  int min_expires = 0;         // the response to a shorter expiry above 0 is 423; 0: never
  int max_expires = 7200;      // a longer expiry is cut
  int default_expires = 3600;  // when the request names none
  // Digest: user to password. Empty: no digest.
  std::map<std::string, std::string> users;
  std::string realm = "tolvane.example";
  // In the order of the challenges; the "-sess" forms are known, too.
  std::vector<std::string> algorithms{"SHA-256", "MD5"};
  std::vector<std::string> qop{"auth"};  // empty: the form of RFC 2069
  // After so many requests a nonce gets a challenge with stale=true; 0: never.
  int nonce_uses = 0;
  bool challenge_with_407 = false;
  std::vector<std::string> p_associated_uri;  // sent in each 200 to a REGISTER
  RegEventOptions reg_event;
};

// A scripted response, for the next request of the method that matches. Scripts are used in their
// order, one for each request; a retransmission uses none.
struct Script {
  std::string aor;  // empty: any
  // The request and its retransmissions count as lost: no binding, no response.
  bool drop = false;
  std::chrono::milliseconds delay{0};  // before the response is sent
  int status = 0;  // 0: the registrar's own response; else this one, and no binding changes
  std::string reason;
  std::vector<std::pair<std::string, std::string>> headers;  // added to the response, in order
  int copies = 1;                                            // how many times the response is sent
  int repeat = 1;                                            // for so many requests; -1: for ever
  // Or "SUBSCRIBE": its NOTIFY does not wait for a delayed response.
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
  // Removes the bindings of an address of record without a notification.
  bool Remove(std::string_view aor);
  [[nodiscard]] Counters GetCounters() const;
  // For tests: puts the registrar's clock forward, so that what expires by then expires now.
  void Advance(std::chrono::milliseconds time);

  // --- the event package "reg" ---
  // Changes the bindings, then notifies. False and a text when there is nothing to change.
  [[nodiscard]] bool Apply(const Order& order, std::string& error);
  // Each of these gives the number of subscriptions that it found.
  std::size_t Notify(const NotifyOrder& order);
  // Ends them with a last NOTIFY. An empty reason and a negative retry_after are left out.
  std::size_t EndSubscriptions(std::string_view aor, const std::string& reason,
                               int retry_after = -1);
  std::size_t ForgetSubscriptions(std::string_view aor);  // without a NOTIFY; empty: all
  std::size_t Approve(std::string_view aor);              // the pending ones become active
  [[nodiscard]] std::vector<SubscriptionView> Subscriptions(std::string_view aor = {}) const;
  [[nodiscard]] RegEventCounters GetRegEventCounters() const;

  // Called on the registrar's thread for each REGISTER and SUBSCRIBE that is no retransmission,
  // before the response is made.
  void OnRequest(std::function<void(const nsip_message&)> observer);
  // Called on the registrar's thread when the response to such a request is known; status 0: there
  // is none.
  void OnResponse(std::function<void(const nsip_message& request, int status)> observer);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace registrar
