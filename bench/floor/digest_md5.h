// The client's side of digest access authentication with MD5 and qop "auth" (RFC 7616 §3.4).
#pragma once

#include <openssl/evp.h>

#include <array>
#include <initializer_list>
#include <memory>
#include <string_view>

namespace bench {

// Used by one thread.
class DigestMd5 {
 public:
  using Hex = std::array<char, 32>;
  static std::string_view View(const Hex& hex) { return {hex.data(), hex.size()}; }

  [[nodiscard]] Hex Hash(std::initializer_list<std::string_view> parts) {
    std::array<unsigned char, 16> bytes;
    EVP_DigestInit_ex2(context_.get(), md5_.get(), nullptr);
    for (const std::string_view part : parts) {
      EVP_DigestUpdate(context_.get(), part.data(), part.size());
    }
    EVP_DigestFinal_ex(context_.get(), bytes.data(), nullptr);
    Hex hex;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      hex[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
      hex[2 * i + 1] = "0123456789abcdef"[bytes[i] & 15];
    }
    return hex;
  }

 private:
  struct Free {
    void operator()(EVP_MD* md) const { EVP_MD_free(md); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD, Free> md5_{EVP_MD_fetch(nullptr, "MD5", nullptr)};
  std::unique_ptr<EVP_MD_CTX, Free> context_{EVP_MD_CTX_new()};
};

}  // namespace bench
