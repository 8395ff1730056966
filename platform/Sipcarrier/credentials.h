// The usernames and passwords of the configuration, found by address of record and realm.
#pragma once

#include <memory>
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
  struct Entry {
    Credential credential;
    std::unique_ptr<nsip_uri> aor;  // null: any
  };
  // The key is equal for addresses of record that are equal; the reverse is for nsip_uri_equal to
  // tell.
  using Index = std::unordered_multimap<std::string, std::size_t>;

  std::vector<Entry> entries_;
  Index by_aor_;
  std::unordered_map<std::string, std::size_t> by_realm_;  // those without an address of record
};

}  // namespace sipcarrier
