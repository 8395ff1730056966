// The registrar's side of digest access authentication (RFC 3261 §22, RFC 7616, RFC 8760). It is
// written apart from the client's side on purpose, so that each of the two checks the other.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "nsip/nsip.h"
#include "registrar/registrar.h"

namespace registrar {

// Not thread-safe: one thread uses it. The options must outlive it.
class Digest {
 public:
  explicit Digest(const Options& options);

  // False and a text when an algorithm or a qop is asked for that is not supported.
  [[nodiscard]] bool Init(std::string& error);
  [[nodiscard]] bool enabled() const { return !options_.users.empty(); }

  enum class Verdict {
    kAccepted,
    kStale,    // the password is right, the nonce is unknown or used up
    kRefused,  // no credentials for this realm, or wrong ones
  };
  [[nodiscard]] Verdict Check(const nsip_message& request);

  [[nodiscard]] int status() const { return options_.challenge_with_407 ? 407 : 401; }
  [[nodiscard]] const char* challenge_header() const;
  // The values of the challenge headers, strongest first as configured, with one fresh nonce for
  // all.
  [[nodiscard]] std::vector<std::string> Challenges(bool stale);

 private:
  struct Algorithm {
    std::string name;
    std::shared_ptr<EVP_MD> hash;
    bool session = false;
  };
  struct Nonce {
    std::uint32_t last_count = 0;
    int uses = 0;
    // RFC 7616 §3.4.2: the session key of the "-sess" forms is made once, from the cnonce of the
    // first request under this nonce.
    std::string session_cnonce;
  };
  struct Credentials;

  [[nodiscard]] const Algorithm* Find(std::string_view name) const;
  [[nodiscard]] bool Read(const nsip_message& request, Credentials& credentials) const;
  [[nodiscard]] bool IsRight(const Credentials& credentials, const Nonce* nonce) const;
  static std::string Hash(const Algorithm& algorithm,
                          std::initializer_list<std::string_view> parts);

  const Options& options_;
  std::vector<Algorithm> algorithms_;
  std::unordered_map<std::string, Nonce> nonces_;
  std::deque<std::string> order_;  // of the nonces, oldest first
};

// Random lower-case hexadecimal text.
[[nodiscard]] std::string RandomHex(std::size_t bytes);

}  // namespace registrar
