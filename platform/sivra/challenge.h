// Digest challenges as a 401 or 407 carries them (RFC 3261 §20.44, §20.27, RFC 7616 §3.3).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "nsip/nsip.h"
#include "sivra/digest.h"

namespace sivra {

struct Challenge {
  bool proxy = false;  // from Proxy-Authenticate
  bool algorithm_given = false;
  bool opaque_given = false;
  bool qop_auth = false;  // false: the challenge has no qop at all
  bool stale = false;
  bool userhash = false;
  DigestAlgorithm algorithm;
  std::string realm;  // these three without quotes and escapes
  std::string nonce;
  std::string opaque;
};

// What a hostile answer can make us keep or look at.
inline constexpr std::size_t kMaxChallenges = 16;
inline constexpr std::size_t kMaxChallengeText = 1024;  // realm, nonce, opaque, each

// One header value may hold several challenges (RFC 8760 §2.3 advises against it, RFC 7235 §4.1
// allows it): the pieces of the text, each one a scheme with its parameters.
[[nodiscard]] std::vector<std::string_view> SplitChallenges(std::string_view value);

// The digest challenges of an answer that can be met, at most one for each realm of each header:
// the one with the strongest hash, and of equals the first, which is the server's preference (RFC
// 8760 §2.4).
[[nodiscard]] std::vector<Challenge> ReadChallenges(const nsip_message& response);

// `nextnonce` of an Authentication-Info or Proxy-Authentication-Info header (RFC 7616 §3.5); empty:
// none.
[[nodiscard]] std::string ReadNextNonce(const nsip_message& response, bool proxy);

}  // namespace sivra
