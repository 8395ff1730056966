#include "Sipcarrier/credentials.h"

#include "base/text.h"
#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

std::string KeyOf(const nsip_uri& uri) {
  if (!uri.opaque.empty())
    return uri.scheme + ":" + base::LowerCase(uri.opaque.substr(0, uri.opaque.find(';')));
  return uri.scheme + ":" + nsip_uri_normal(uri.user) + "@" + base::LowerCase(uri.host);
}

}  // namespace

bool CredentialStore::Load(const std::vector<Credential>& credentials, std::string& error) {
  for (const Credential& credential : credentials) {
    Entry entry;
    entry.credential = credential;
    const std::size_t index = entries_.size();
    if (credential.aor.empty()) {
      by_realm_.emplace(credential.realm, index);
    } else {
      entry.aor = std::make_unique<nsip_uri>();
      if (!nsip_uri_parse(credential.aor, *entry.aor)) {
        error = "a credential's address of record is no URI: \"" + credential.aor + "\"";
        return false;
      }
      by_aor_.emplace(KeyOf(*entry.aor), index);
    }
    entries_.push_back(std::move(entry));
  }
  return true;
}

bool CredentialStore::Find(const nsip_uri& aor, std::string_view realm, Credential& found) const {
  const Entry* best = nullptr;
  const auto [first, last] = by_aor_.equal_range(KeyOf(aor));
  for (auto at = first; at != last; ++at) {
    const Entry& entry = entries_[at->second];
    const bool any_realm = entry.credential.realm.empty();
    if ((!any_realm && entry.credential.realm != realm) || !nsip_uri_equal(*entry.aor, aor))
      continue;
    const bool better = best == nullptr || (best->credential.realm.empty() && !any_realm) ||
                        (best->credential.realm.empty() == any_realm && &entry < best);
    if (better) best = &entry;
  }
  if (best == nullptr) {
    auto general = by_realm_.find(std::string(realm));
    if (general == by_realm_.end()) general = by_realm_.find(std::string());
    if (general == by_realm_.end()) return false;
    best = &entries_[general->second];
  }
  found = best->credential;
  return true;
}

}  // namespace sipcarrier
