// What a registration knows about its authentication (RFC 3261 §22): for each realm the last nonce
// and what is needed to go on with it, so that the next request can be authorised in advance.
//
// Thread safety: none; the library lock guards it with the entry that it belongs to.
// Invariants:
//   A1. nc never repeats for one nonce (RFC 7616 §3.4); it is spent when a request is authorised.
//   A2. Every session stands in the request that was authorised last, so a challenge for a
//   session's realm is
//       the refusal of that session's credentials.
//   A3. No password is kept, only H(A1).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/challenge.h"
#include "sivra/digest.h"

namespace sivra {

class Authenticator {
 public:
  using Lookup = std::function<bool(std::string_view realm, sipcarrier::Credential& found)>;

  // A new REGISTER begins: the sessions stay, challenges are counted from zero.
  void Start();

  // Puts the credentials of all sessions into the request, whose method and Request-URI are final.
  // false: the crypto library failed or a name cannot stand in a header; the request must not leave
  // then.
  [[nodiscard]] bool Authorize(nsip_message& request);

  // Takes the challenges of a 401 or 407. true: there is something new to answer with, send again.
  // false: the answer is final; the sessions that it refused are forgotten, so that the next
  // REGISTER starts afresh. A refusal is final when it repeats our nonce without stale=true, and
  // when credentials that answered a challenge of this same REGISTER were refused - but for one
  // stale=true, for a nonce may run out in between.
  [[nodiscard]] bool Answer(const nsip_message& response, const Lookup& lookup);

  // Takes the nonce for the next request out of a 2xx (RFC 7616 §3.5).
  void LearnNextNonce(const nsip_message& response);

 private:
  struct Session {
    bool proxy = false;
    bool algorithm_given = false;
    bool opaque_given = false;
    bool qop_auth = false;
    bool userhash = false;
    bool answered = false;        // a challenge of this REGISTER
    bool answered_stale = false;  // the second one, which only stale=true gets
    DigestAlgorithm algorithm;
    std::uint32_t nc = 0;  // requests authorised with this nonce
    HashValue ha1;
    std::string realm;
    std::string nonce;
    std::string opaque;
    std::string user;    // as it stands in the header: hashed with userhash (RFC 7616 §3.4.4)
    std::string cnonce;  // "-sess" only: the one in ha1
  };

  [[nodiscard]] Session* Find(bool proxy, std::string_view realm);
  [[nodiscard]] static bool Refuses(const Challenge& challenge, const Session& session);
  [[nodiscard]] static bool Open(const Challenge& challenge, const Lookup& lookup,
                                 Session& session);
  [[nodiscard]] static bool Credentials(Session& session, std::string_view method,
                                        std::string_view uri, std::string& value);
  void Forget(const std::vector<Challenge>& challenges);

  std::vector<Session> sessions_;
};

}  // namespace sivra
