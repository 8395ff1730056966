#include "registrar/digest.h"

#include <openssl/crypto.h>

#include <charconv>
#include <new>
#include <utility>
#include <vector>

#include "base/random.h"
#include "base/text.h"

namespace registrar {
namespace {

// As many as registrations that one process may hold, several times over. The oldest goes first:
// its user gets a challenge with stale=true and a new one.
constexpr std::size_t kMaxNonces = 65536;
constexpr char kOpaque[] = "5f1e";

struct Known {
  const char* name;
  const char* openssl_name;
  bool session;
};
constexpr Known kKnown[] = {
    {"MD5", "MD5", false},
    {"MD5-sess", "MD5", true},
    {"SHA-256", "SHA256", false},
    {"SHA-256-sess", "SHA256", true},
    {"SHA-512-256", "SHA512-256", false},
    {"SHA-512-256-sess", "SHA512-256", true},
};

// RFC 7616 §3.4: nc is eight hexadecimal digits.
bool ParseCount(std::string_view text, std::uint32_t& count) {
  if (text.size() != 8) return false;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), count, 16);
  return code == std::errc{} && end == text.data() + text.size();
}

}  // namespace

struct Digest::Credentials {
  std::string user;
  std::string nonce;
  std::string uri;
  std::string response;
  std::string qop;
  std::string cnonce;
  std::string count_text;
  std::uint32_t count = 0;
  std::string method;
  const Algorithm* algorithm = nullptr;
};

std::string RandomHex(std::size_t bytes) {
  std::vector<unsigned char> raw(bytes);
  if (!base::FillRandom(raw)) throw std::bad_alloc();
  return base::HexText(raw);
}

Digest::Digest(const Options& options) : options_(options) {}

bool Digest::Init(std::string& error) {
  algorithms_.clear();
  for (const char c : options_.realm) {
    if (c == '"' || c == '\\' || static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
      error = "the realm must hold no quotes, backslashes or control characters";
      return false;
    }
  }
  for (const std::string& name : options_.algorithms) {
    const Known* known = nullptr;
    for (const Known& candidate : kKnown) {
      if (base::EqualNoCase(candidate.name, name)) known = &candidate;
    }
    if (known == nullptr) {
      error = "unknown digest algorithm \"" + name +
              "\": choose among MD5, SHA-256, SHA-512-256 and their -sess forms";
      return false;
    }
    Algorithm algorithm;
    algorithm.name = known->name;
    algorithm.session = known->session;
    algorithm.hash.reset(EVP_MD_fetch(nullptr, known->openssl_name, nullptr), EVP_MD_free);
    if (!algorithm.hash) {
      error = "this machine's OpenSSL does not offer " + name;
      return false;
    }
    algorithms_.push_back(std::move(algorithm));
  }
  if (enabled() && algorithms_.empty()) {
    error = "digest needs at least one algorithm";
    return false;
  }
  for (const std::string& qop : options_.qop) {
    if (qop != "auth") {
      error = "unknown quality of protection \"" + qop + "\": only \"auth\" is offered";
      return false;
    }
  }
  for (const Algorithm& algorithm : algorithms_) {
    if (enabled() && options_.qop.empty() && algorithm.session) {
      error = algorithm.name + " needs qop \"auth\": without it there is no cnonce";
      return false;
    }
  }
  return true;
}

const Digest::Algorithm* Digest::Find(std::string_view name) const {
  for (const Algorithm& algorithm : algorithms_) {
    if (base::EqualNoCase(algorithm.name, name)) return &algorithm;
  }
  return nullptr;
}

std::string Digest::Hash(const Algorithm& algorithm,
                         std::initializer_list<std::string_view> parts) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  bool good = context && EVP_DigestInit_ex(context.get(), algorithm.hash.get(), nullptr) == 1;
  bool first = true;
  for (const std::string_view part : parts) {
    if (!first) good = good && EVP_DigestUpdate(context.get(), ":", 1) == 1;
    good = good && EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1;
    first = false;
  }
  good = good && EVP_DigestFinal_ex(context.get(), bytes, &size) == 1;
  if (!good) throw std::bad_alloc();
  return base::HexText({bytes, size});
}

// The credentials for our realm, when they are complete and answer one of our challenges.
bool Digest::Read(const nsip_message& request, Credentials& credentials) const {
  const char* name = options_.challenge_with_407 ? "Proxy-Authorization" : "Authorization";
  nsip_header* header = nullptr;
  for (int pos = nsip_message_header_get_byname(&request, name, 0, &header); pos >= 0;
       pos = nsip_message_header_get_byname(&request, name, pos + 1, &header)) {
    std::string scheme;
    nsip_param_list params;
    if (!nsip_auth_params_parse(header->hvalue, scheme, params)) continue;
    const auto value = [&params](const char* key) {
      const nsip_generic_param* param = nullptr;
      return nsip_generic_param_get_byname(params, key, &param) == 0 ? param->value : std::string();
    };
    if (!base::EqualNoCase(scheme, "Digest") || value("realm") != options_.realm) continue;

    credentials.user = value("username");
    credentials.nonce = value("nonce");
    credentials.uri = value("uri");
    credentials.response = value("response");
    credentials.qop = value("qop");
    credentials.cnonce = value("cnonce");
    credentials.count_text = value("nc");
    credentials.method = request.sip_method;
    const std::string algorithm = value("algorithm");
    credentials.algorithm = Find(algorithm.empty() ? "MD5" : algorithm);
    if (credentials.algorithm == nullptr || value("opaque") != kOpaque) return false;
    if (options_.qop.empty()) {
      if (!credentials.qop.empty()) return false;
    } else if (credentials.qop != "auth" || credentials.cnonce.empty() ||
               !ParseCount(credentials.count_text, credentials.count)) {
      return false;
    }
    nsip_uri uri;
    return request.req_uri && nsip_uri_parse(credentials.uri, uri) &&
           nsip_uri_equal(uri, *request.req_uri);
  }
  return false;
}

bool Digest::IsRight(const Credentials& credentials, const Nonce* nonce) const {
  const auto user = options_.users.find(credentials.user);
  if (user == options_.users.end()) return false;
  const Algorithm& algorithm = *credentials.algorithm;
  std::string a1 = Hash(algorithm, {credentials.user, options_.realm, user->second});
  if (algorithm.session) {
    const bool running = nonce != nullptr && nonce->uses > 0;
    const std::string& cnonce = running ? nonce->session_cnonce : credentials.cnonce;
    a1 = Hash(algorithm, {a1, credentials.nonce, cnonce});
  }
  const std::string a2 = Hash(algorithm, {credentials.method, credentials.uri});
  const std::string expected = credentials.qop.empty()
                                   ? Hash(algorithm, {a1, credentials.nonce, a2})
                                   : Hash(algorithm, {a1, credentials.nonce, credentials.count_text,
                                                      credentials.cnonce, credentials.qop, a2});
  return expected.size() == credentials.response.size() &&
         CRYPTO_memcmp(expected.data(), credentials.response.data(), expected.size()) == 0;
}

Digest::Verdict Digest::Check(const nsip_message& request) {
  Credentials credentials;
  if (!Read(request, credentials)) return Verdict::kRefused;
  const auto found = nonces_.find(credentials.nonce);
  Nonce* nonce = found == nonces_.end() ? nullptr : &found->second;
  if (!IsRight(credentials, nonce)) return Verdict::kRefused;
  if (nonce == nullptr) return Verdict::kStale;
  if (options_.nonce_uses > 0 && nonce->uses >= options_.nonce_uses) return Verdict::kStale;
  if (!credentials.qop.empty()) {
    // A count that does not rise is a replay; a client that cannot count must fail visibly.
    if (credentials.count <= nonce->last_count) return Verdict::kRefused;
    nonce->last_count = credentials.count;
  }
  if (nonce->uses == 0) nonce->session_cnonce = credentials.cnonce;
  ++nonce->uses;
  return Verdict::kAccepted;
}

const char* Digest::challenge_header() const {
  return options_.challenge_with_407 ? "Proxy-Authenticate" : "WWW-Authenticate";
}

std::vector<std::string> Digest::Challenges(bool stale) {
  const std::string nonce = RandomHex(16);
  if (order_.size() >= kMaxNonces) {
    nonces_.erase(order_.front());
    order_.pop_front();
  }
  order_.push_back(nonce);
  nonces_.emplace(nonce, Nonce{});

  std::vector<std::string> challenges;
  for (const Algorithm& algorithm : algorithms_) {
    std::string text = "Digest realm=\"" + options_.realm + "\", nonce=\"" + nonce +
                       "\", opaque=\"" + kOpaque + "\", algorithm=" + algorithm.name;
    if (!options_.qop.empty()) text += ", qop=\"auth\"";
    if (stale) text += ", stale=true";
    challenges.push_back(std::move(text));
  }
  return challenges;
}

}  // namespace registrar
