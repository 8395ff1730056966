#include "sivra/digest.h"

#include <openssl/evp.h>

#include <memory>

#include "base/text.h"

namespace sivra {
namespace {

struct NamedAlgorithm {
  std::string_view name;
  DigestAlgorithm algorithm;
};

constexpr std::array<NamedAlgorithm, 6> kAlgorithms{{
    {"MD5", {Hash::kMd5, false}},
    {"MD5-sess", {Hash::kMd5, true}},
    {"SHA-256", {Hash::kSha256, false}},
    {"SHA-256-sess", {Hash::kSha256, true}},
    {"SHA-512-256", {Hash::kSha512Trunc256, false}},
    {"SHA-512-256-sess", {Hash::kSha512Trunc256, true}},
}};

// Looked up once: the library searches its providers each time it is asked by EVP_md5(). Kept for
// ever; null when a policy forbids the function.
const EVP_MD* Function(Hash hash) {
  static const std::array<const EVP_MD*, 3> functions{
      EVP_MD_fetch(nullptr, "MD5", nullptr), EVP_MD_fetch(nullptr, "SHA2-256", nullptr),
      EVP_MD_fetch(nullptr, "SHA2-512/256", nullptr)};
  return functions[static_cast<std::size_t>(hash)];
}

using Context = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// One for each thread, since making one costs as much as hashing with it.
EVP_MD_CTX* ThreadContext() {
  thread_local const Context context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  return context.get();
}

}  // namespace

bool ParseDigestAlgorithm(std::string_view token, DigestAlgorithm& algorithm) {
  for (const NamedAlgorithm& known : kAlgorithms) {
    if (base::EqualNoCase(known.name, token)) {
      algorithm = known.algorithm;
      return true;
    }
  }
  return false;
}

std::string_view DigestAlgorithmName(DigestAlgorithm algorithm) {
  for (const NamedAlgorithm& known : kAlgorithms) {
    if (known.algorithm.hash == algorithm.hash && known.algorithm.session == algorithm.session) {
      return known.name;
    }
  }
  return {};
}

std::string HashValue::Hex() const { return base::HexText(std::span(bytes).first(size)); }

bool HashJoined(Hash hash, std::initializer_list<std::string_view> parts, HashValue& value) {
  EVP_MD_CTX* const context = ThreadContext();
  const EVP_MD* const function = Function(hash);
  if (context == nullptr || function == nullptr ||
      EVP_MD_get_size(function) > static_cast<int>(value.bytes.size()) ||
      EVP_DigestInit_ex(context, function, nullptr) != 1) {
    return false;
  }
  // Fed piece by piece: a joined text would leave a password in freed memory.
  bool first = true;
  for (const std::string_view part : parts) {
    if ((!first && EVP_DigestUpdate(context, ":", 1) != 1) ||
        EVP_DigestUpdate(context, part.data(), part.size()) != 1) {
      return false;
    }
    first = false;
  }
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context, value.bytes.data(), &size) != 1) {
    return false;
  }
  value.size = static_cast<std::uint8_t>(size);
  return true;
}

bool ComputeHa1(DigestAlgorithm algorithm, std::string_view user, std::string_view realm,
                std::string_view password, std::string_view nonce, std::string_view cnonce,
                HashValue& ha1) {
  const bool hashed = HashJoined(algorithm.hash, {user, realm, password}, ha1);
  // Wipes what the hash function keeps of its last block: a piece of the password.
  EVP_MD_CTX_reset(ThreadContext());
  if (!hashed) {
    return false;
  }
  // The inner hash counts as its hex text (H() of RFC 7616 §3.4.2), not as raw bytes.
  return !algorithm.session || HashJoined(algorithm.hash, {ha1.Hex(), nonce, cnonce}, ha1);
}

bool ComputeResponse(Hash hash, const HashValue& ha1, const DigestInput& input,
                     std::string& response) {
  HashValue ha2;
  HashValue result;
  if (!HashJoined(hash, {input.method, input.uri}, ha2)) {
    return false;
  }
  const bool hashed =
      input.qop_auth
          ? HashJoined(hash, {ha1.Hex(), input.nonce, input.nc, input.cnonce, "auth", ha2.Hex()},
                       result)
          : HashJoined(hash, {ha1.Hex(), input.nonce, ha2.Hex()}, result);
  if (hashed) {
    response = result.Hex();
  }
  return hashed;
}

}  // namespace sivra
