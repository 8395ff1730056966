#include "sivra/authenticator.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <utility>

#include "base/random.h"
#include "base/text.h"

namespace sivra {
namespace {

// A registrar and the proxies on the way to it; a path with more realms than this is no path but an
// attack.
constexpr std::size_t kMaxSessions = 4;

// A quoted-string (RFC 3261 §25.1); false for a text that cannot stand in one.
bool AppendQuoted(std::string& value, std::string_view name, std::string_view text) {
  value.append(name).append("=\"");
  for (const char c : text) {
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f) {
      return false;
    }
    if (c == '"' || c == '\\') {
      value += '\\';
    }
    value += c;
  }
  value += '"';
  return true;
}

bool RandomHex(std::string& text) {
  std::array<unsigned char, 16> bytes{};
  if (!base::FillRandom(bytes)) {
    return false;
  }
  text = base::HexText(bytes);
  return true;
}

// The password is wiped when the answer is computed, whatever way is taken out.
struct WipedCredential : sipcarrier::Credential {
  WipedCredential() = default;
  ~WipedCredential() { OPENSSL_cleanse(password.data(), password.size()); }
  WipedCredential(const WipedCredential&) = delete;
  WipedCredential& operator=(const WipedCredential&) = delete;
};

}  // namespace

void Authenticator::Start() {
  for (Session& session : sessions_) {
    session.answered = false;
    session.answered_stale = false;
  }
}

bool Authenticator::Authorize(nsip_message& request) {
  if (sessions_.empty()) {
    return true;
  }
  const std::string uri = nsip_uri_text(*request.req_uri);
  for (Session& session : sessions_) {
    auto header = std::make_unique<nsip_header>();
    header->hname = session.proxy ? "Proxy-Authorization" : "Authorization";
    if (!Credentials(session, request.sip_method, uri, header->hvalue)) {
      // Kept, they would silence the entry: without a request no challenge comes that replaces
      // them.
      sessions_.clear();
      return false;
    }
    // One header line for each realm; they are not joined with commas (RFC 3261 §7.3.1).
    request.headers.items.push_back(std::move(header));
  }
  return true;
}

bool Authenticator::Credentials(Session& session, std::string_view method, std::string_view uri,
                                std::string& value) {
  // RFC 2617 §3.2.2 bars cnonce where there is no qop, but the "-sess" hash cannot be checked
  // without it.
  std::string cnonce = session.cnonce;
  if (session.qop_auth && cnonce.empty() && !RandomHex(cnonce)) {
    return false;
  }
  ++session.nc;
  std::array<char, 9> nc{};
  std::snprintf(nc.data(), nc.size(), "%08x", session.nc);
  const DigestInput input{method, uri, session.nonce, nc.data(), cnonce, session.qop_auth};
  std::string response;
  if (!ComputeResponse(session.algorithm.hash, session.ha1, input, response)) {
    return false;
  }
  value.reserve(384);
  value = "Digest ";
  if (!AppendQuoted(value, "username", session.user) ||
      !AppendQuoted(value, ", realm", session.realm) ||
      !AppendQuoted(value, ", nonce", session.nonce) || !AppendQuoted(value, ", uri", uri) ||
      !AppendQuoted(value, ", response", response)) {
    return false;
  }
  if (session.algorithm_given) {
    value.append(", algorithm=").append(DigestAlgorithmName(session.algorithm));
  }
  if (!cnonce.empty() && !AppendQuoted(value, ", cnonce", cnonce)) {
    return false;
  }
  if (session.opaque_given && !AppendQuoted(value, ", opaque", session.opaque)) {
    return false;
  }
  if (session.qop_auth) {
    value.append(", qop=auth, nc=").append(nc.data());
  }
  if (session.userhash) {
    value.append(", userhash=true");
  }
  return true;
}

bool Authenticator::Answer(const nsip_message& response, const Lookup& lookup) {
  const std::vector<Challenge> challenges = ReadChallenges(response);
  std::vector<Session> opened;
  for (const Challenge& challenge : challenges) {
    const Session* const known = Find(challenge.proxy, challenge.realm);
    if (known != nullptr && Refuses(challenge, *known)) {
      Forget(challenges);
      return false;
    }
    Session session;
    session.answered = true;
    session.answered_stale = known != nullptr && known->answered;
    if (known != nullptr && known->nonce == challenge.nonce) {
      session.nc = known->nc;
    }
    if (Open(challenge, lookup, session)) {
      opened.push_back(std::move(session));
    }
  }
  Forget(challenges);
  // A 401 comes from the registrar (or is what a proxy put together from several), so what it does
  // not ask for is of no use; a 407 comes from one proxy of several, and the others still want
  // theirs (RFC 3261 §22.3).
  if (std::any_of(opened.begin(), opened.end(), [](const Session& s) { return !s.proxy; })) {
    std::erase_if(sessions_, [](const Session& session) { return !session.proxy; });
  }
  const bool anything = !opened.empty();
  for (Session& session : opened) {
    sessions_.push_back(std::move(session));
  }
  if (sessions_.size() > kMaxSessions) {
    sessions_.erase(sessions_.begin(), sessions_.end() - kMaxSessions);
  }
  return anything;
}

void Authenticator::LearnNextNonce(const nsip_message& response) {
  for (const bool proxy : {false, true}) {
    const auto same = [proxy](const Session& session) { return session.proxy == proxy; };
    // The header does not name a realm, so with two it cannot be told whose nonce it is.
    if (std::count_if(sessions_.begin(), sessions_.end(), same) != 1) {
      continue;
    }
    std::string nonce = ReadNextNonce(response, proxy);
    Session& session = *std::find_if(sessions_.begin(), sessions_.end(), same);
    if (!nonce.empty() && nonce != session.nonce) {
      // H(A1) of a "-sess" form stays as it is until the next challenge (RFC 7616 §3.4.2).
      session.nonce = std::move(nonce);
      session.nc = 0;
    }
  }
}

Authenticator::Session* Authenticator::Find(bool proxy, std::string_view realm) {
  const auto found =
      std::find_if(sessions_.begin(), sessions_.end(), [proxy, realm](const Session& session) {
        return session.proxy == proxy && session.realm == realm;
      });
  return found == sessions_.end() ? nullptr : &*found;
}

bool Authenticator::Refuses(const Challenge& challenge, const Session& session) {
  if (session.answered) {
    return !challenge.stale || session.answered_stale;
  }
  return !challenge.stale && challenge.nonce == session.nonce;
}

bool Authenticator::Open(const Challenge& challenge, const Lookup& lookup, Session& session) {
  WipedCredential credential;
  if (!lookup(challenge.realm, credential)) {
    return false;
  }
  if (challenge.algorithm.session && !RandomHex(session.cnonce)) {
    return false;
  }
  if (!ComputeHa1(challenge.algorithm, credential.user, challenge.realm, credential.password,
                  challenge.nonce, session.cnonce, session.ha1)) {
    return false;
  }
  session.user = std::move(credential.user);
  if (challenge.userhash) {
    HashValue hashed;
    if (!HashJoined(challenge.algorithm.hash, {session.user, challenge.realm}, hashed)) {
      return false;
    }
    session.user = hashed.Hex();
  }
  session.proxy = challenge.proxy;
  session.algorithm_given = challenge.algorithm_given;
  session.opaque_given = challenge.opaque_given;
  session.qop_auth = challenge.qop_auth;
  session.userhash = challenge.userhash;
  session.algorithm = challenge.algorithm;
  session.realm = challenge.realm;
  session.nonce = challenge.nonce;
  session.opaque = challenge.opaque;
  return true;
}

void Authenticator::Forget(const std::vector<Challenge>& challenges) {
  std::erase_if(sessions_, [&challenges](const Session& session) {
    return std::any_of(
        challenges.begin(), challenges.end(), [&session](const Challenge& challenge) {
          return challenge.proxy == session.proxy && challenge.realm == session.realm;
        });
  });
}

}  // namespace sivra
