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
  std::vector<std::string> p_associated_uri;  // sent in each 200
};

// A scripted answer, for the next REGISTER that matches. Consumed in order, one for each request
// that is not a retransmission of an answered one.
struct Script {
  std::string aor;    // empty: any
  bool drop = false;  // as if it had never come: no binding, no answer, retransmissions included
  std::chrono::milliseconds delay{0};  // the answer waits so long
  int status = 0;  // 0: the registrar's own answer; else this one, and no binding changes
  std::string reason;
  std::vector<std::pair<std::string, std::string>> headers;  // added to the answer, in order
  int copies = 1;                                            // how many times the answer is sent
  int repeat = 1;  // for how many requests this script stands; -1: for ever
};

struct Binding {
  std::string aor;
  std::string contact;
  std::string call_id;
  std::uint32_t cseq = 0;
  int expires = 0;  // granted, seconds
};

struct Counters {
  std::uint64_t requests = 0;  // REGISTER requests without retransmissions
  std::uint64_t retransmissions = 0;
  std::uint64_t garbage = 0;
};

// Thread-safe, but Start and Stop come from one thread. Start runs a thread of its own; Stop and
// the destructor end it. A Start after a Stop listens on the same port again and still knows the
// bindings: an outage.
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
  bool Remove(std::string_view aor);  // drops the bindings of an address of record
  [[nodiscard]] Counters GetCounters() const;
  // Called on the registrar's thread for each REGISTER that is no retransmission, before it is
  // answered.
  void OnRequest(std::function<void(const nsip_message&)> observer);
  // Called on the registrar's thread when the answer to such a REGISTER is settled; status 0: there
  // is none.
  void OnAnswer(std::function<void(const nsip_message& request, int status)> observer);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace registrar
