#include "Sipcarrier/credentials.h"

namespace sipcarrier {

bool CredentialStore::Load(const std::vector<Credential>& credentials, std::string& error) {
  for (const Credential& credential : credentials) {
    const std::size_t index = entries_.size();
    if (credential.aor.empty()) {
      by_realm_.emplace(credential.realm, index);
    } else {
      nsip_uri aor;
      if (!nsip_uri_parse(credential.aor, aor)) {
        error = "a credential's address of record is no URI: \"" + credential.aor + "\"";
        return false;
      }
      by_aor_.emplace(nsip_aor_key(aor), index);
    }
    entries_.push_back(credential);
  }
  return true;
}

bool CredentialStore::Find(const nsip_uri& aor, std::string_view realm, Credential& found) const {
  const Credential* best = nullptr;
  const auto [first, last] = by_aor_.equal_range(nsip_aor_key(aor));
  for (auto at = first; at != last; ++at) {
    const Credential& entry = entries_[at->second];
    const bool any_realm = entry.realm.empty();
    if (!any_realm && entry.realm != realm) continue;
    const bool better = best == nullptr || (best->realm.empty() && !any_realm) ||
                        (best->realm.empty() == any_realm && &entry < best);
    if (better) best = &entry;
  }
  if (best == nullptr) {
    auto general = by_realm_.find(std::string(realm));
    if (general == by_realm_.end()) general = by_realm_.find(std::string());
    if (general == by_realm_.end()) return false;
    best = &entries_[general->second];
  }
  found = *best;
  return true;
}

}  // namespace sipcarrier
