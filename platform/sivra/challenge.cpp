#include "sivra/challenge.h"

#include <algorithm>

#include "base/text.h"

namespace sivra {
namespace {

bool IsTokenChar(char c) { return nsip_is_token(std::string_view(&c, 1)); }

// Whether a scheme word stands here, rather than one more parameter: a word that no "=" follows.
bool StartsChallenge(std::string_view text) {
  std::size_t pos = 0;
  while (pos < text.size() && IsTokenChar(text[pos])) {
    ++pos;
  }
  if (pos == 0) {
    return false;
  }
  while (pos < text.size() && base::IsBlank(text[pos])) {
    ++pos;
  }
  return pos == text.size() || text[pos] != '=';
}

const std::string* Find(const nsip_param_list& params, const char* name) {
  const nsip_generic_param* param = nullptr;
  return nsip_generic_param_get_byname(params, name, &param) == 0 ? &param->value : nullptr;
}

bool Copy(const std::string* value, std::string& text) {
  if (value == nullptr || value->size() > kMaxChallengeText) {
    return false;
  }
  text = *value;
  return true;
}

bool IsTrue(const std::string* value) {
  return value != nullptr && base::EqualNoCase(*value, "true");
}

bool OffersAuth(std::string_view qop_options) {
  while (!qop_options.empty()) {
    const std::size_t comma = std::min(qop_options.find(','), qop_options.size());
    if (base::EqualNoCase(base::Trim(qop_options.substr(0, comma)), "auth")) {
      return true;
    }
    qop_options.remove_prefix(std::min(comma + 1, qop_options.size()));
  }
  return false;
}

// false: not one that we can meet. `domain` has no meaning in SIP (RFC 3261 §22.4), and `charset`
// can only be the UTF-8 that the configuration is in.
bool ReadChallenge(std::string_view text, bool proxy, Challenge& challenge) {
  std::string scheme;
  nsip_param_list params;
  if (!nsip_auth_params_parse(text, scheme, params) || !base::EqualNoCase(scheme, "Digest")) {
    return false;
  }
  challenge.proxy = proxy;
  if (!Copy(Find(params, "realm"), challenge.realm) ||
      !Copy(Find(params, "nonce"), challenge.nonce) || challenge.nonce.empty()) {
    return false;
  }
  if (const std::string* const opaque = Find(params, "opaque"); opaque != nullptr) {
    challenge.opaque_given = true;
    if (!Copy(opaque, challenge.opaque)) {
      return false;
    }
  }
  if (const std::string* const algorithm = Find(params, "algorithm"); algorithm != nullptr) {
    challenge.algorithm_given = true;
    if (!ParseDigestAlgorithm(*algorithm, challenge.algorithm)) {
      return false;
    }
  }
  if (const std::string* const qop = Find(params, "qop"); qop != nullptr) {
    challenge.qop_auth = true;
    if (!OffersAuth(*qop)) {
      return false;
    }
  }
  challenge.stale = IsTrue(Find(params, "stale"));
  challenge.userhash = IsTrue(Find(params, "userhash"));
  return true;
}

void ReadHeaders(const nsip_message& response, bool proxy, std::vector<Challenge>& best) {
  const char* const name = proxy ? "Proxy-Authenticate" : "WWW-Authenticate";
  std::size_t seen = 0;
  nsip_header* header = nullptr;
  for (int pos = nsip_message_header_get_byname(&response, name, 0, &header); pos >= 0;
       pos = nsip_message_header_get_byname(&response, name, pos + 1, &header)) {
    for (const std::string_view piece : SplitChallenges(header->hvalue)) {
      if (++seen > kMaxChallenges) {
        return;
      }
      Challenge challenge;
      if (!ReadChallenge(piece, proxy, challenge)) {
        continue;
      }
      const auto rival =
          std::find_if(best.begin(), best.end(), [&challenge](const Challenge& other) {
            return other.proxy == challenge.proxy && other.realm == challenge.realm;
          });
      if (rival == best.end()) {
        best.push_back(std::move(challenge));
      } else if (rival->algorithm.hash < challenge.algorithm.hash) {
        *rival = std::move(challenge);
      }
    }
  }
}

}  // namespace

std::vector<std::string_view> SplitChallenges(std::string_view value) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  bool quoted = false;
  const auto add = [&pieces, &value, &start](std::size_t end) {
    std::string_view piece = value.substr(start, end - start);
    while (!piece.empty() && (base::IsBlank(piece.back()) || piece.back() == ',')) {
      piece.remove_suffix(1);
    }
    while (!piece.empty() && (base::IsBlank(piece.front()) || piece.front() == ',')) {
      piece.remove_prefix(1);
    }
    if (!piece.empty()) {
      pieces.push_back(piece);
    }
  };
  for (std::size_t pos = 0; pos < value.size(); ++pos) {
    if (quoted && value[pos] == '\\') {
      ++pos;
    } else if (value[pos] == '"') {
      quoted = !quoted;
    } else if (!quoted && value[pos] == ',') {
      const std::size_t next = value.find_first_not_of(" \t", pos + 1);
      if (next != std::string_view::npos && StartsChallenge(value.substr(next))) {
        add(pos);
        start = next;
      }
    }
  }
  add(value.size());
  return pieces;
}

std::vector<Challenge> ReadChallenges(const nsip_message& response) {
  std::vector<Challenge> best;
  ReadHeaders(response, false, best);
  ReadHeaders(response, true, best);
  return best;
}

std::string ReadNextNonce(const nsip_message& response, bool proxy) {
  nsip_header* header = nullptr;
  const char* const name = proxy ? "Proxy-Authentication-Info" : "Authentication-Info";
  std::string scheme;
  nsip_param_list params;
  std::string nonce;
  // The header has the parameters without a scheme word in front.
  if (nsip_message_header_get_byname(&response, name, 0, &header) >= 0 &&
      nsip_auth_params_parse("Digest " + header->hvalue, scheme, params) &&
      !Copy(Find(params, "nextnonce"), nonce)) {
    nonce.clear();
  }
  return nonce;
}

}  // namespace sivra
