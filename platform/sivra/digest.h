// Digest arithmetic (RFC 7616 §3.4, RFC 2617 §3.2.2): functions without state, for any thread.
// Nothing is thrown but std::bad_alloc.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace sivra {

enum class Hash : std::uint8_t { kMd5, kSha256, kSha512Trunc256 };  // weakest first

struct DigestAlgorithm {
  Hash hash = Hash::kMd5;
  bool session = false;  // the "-sess" form
};

// The `algorithm` parameter (RFC 8760 §2.2), case does not matter. false: one that we do not have.
[[nodiscard]] bool ParseDigestAlgorithm(std::string_view token, DigestAlgorithm& algorithm);
[[nodiscard]] std::string_view DigestAlgorithmName(DigestAlgorithm algorithm);

// Fixed in size, since each registration keeps one.
struct HashValue {
  std::array<unsigned char, 32> bytes{};
  std::uint8_t size = 0;

  [[nodiscard]] std::string Hex() const;
};

// The hash of the parts with a colon between them, which is the form of everything that digest
// hashes. false when the crypto library refuses the function (MD5 under a strict policy).
[[nodiscard]] bool HashJoined(Hash hash, std::initializer_list<std::string_view> parts,
                              HashValue& value);

// H(A1) (RFC 7616 §3.4.2). Nonce and cnonce count in the "-sess" form only: those of the first
// request that answers a challenge.
[[nodiscard]] bool ComputeHa1(DigestAlgorithm algorithm, std::string_view user,
                              std::string_view realm, std::string_view password,
                              std::string_view nonce, std::string_view cnonce, HashValue& ha1);

struct DigestInput {
  std::string_view method;
  std::string_view uri;
  std::string_view nonce;
  std::string_view nc;      // eight hex digits; empty without qop
  std::string_view cnonce;  // not looked at without qop
  bool qop_auth = false;    // false: the form of RFC 2617 §3.2.2.1 without qop
};

// The `response` parameter in hex (RFC 7616 §3.4.1).
[[nodiscard]] bool ComputeResponse(Hash hash, const HashValue& ha1, const DigestInput& input,
                                   std::string& response);

}  // namespace sivra
