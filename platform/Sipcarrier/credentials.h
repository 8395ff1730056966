// The usernames and passwords of the configuration, found by address of record and realm.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "Sipcarrier/Sipcarrier.h"

namespace sipcarrier {

// Immutable once made: any thread. The cost of Find does not grow with the number of addresses of
// record.
class CredentialStore {
 public:
  // false and a text when an address of record cannot be read. May throw std::bad_alloc.
  bool Load(const std::vector<Credential>& credentials, std::string& error);
  // The most exact one: address of record before realm, the first one of equals. May throw
  // std::bad_alloc.
  [[nodiscard]] bool Find(const nsip_uri& aor, std::string_view realm, Credential& found) const;

 private:
  std::vector<Credential> entries_;
  std::unordered_multimap<std::string, std::size_t> by_aor_;  // by nsip_aor_key
  std::unordered_map<std::string, std::size_t> by_realm_;     // those without an address of record
};

}  // namespace sipcarrier
