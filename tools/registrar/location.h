// The registrar's table of bindings and the rules by which a REGISTER changes it (RFC 3261 §10.3).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "nsip/nsip.h"
#include "registrar/registrar.h"

namespace registrar {

using Clock = std::chrono::steady_clock;

// The key of an address of record: no parameters, no escapes, host in lower case (RFC 3261 §10.3
// step 5).
[[nodiscard]] std::string CanonicalAor(const nsip_uri& uri);
// The same for a text; a text that is no URI stands for itself.
[[nodiscard]] std::string CanonicalAor(std::string_view text);

// Not thread-safe: the owner locks.
class Location {
 public:
  explicit Location(const Options& options);

  struct Result {
    int status = 200;
    std::string reason;  // why, when it is not the status's usual phrase
  };
  // Applies all of a REGISTER or nothing of it.
  [[nodiscard]] Result Update(const nsip_message& request, Clock::time_point now);
  // The bindings of the address of record as Contacts with what is left of their time.
  [[nodiscard]] std::vector<std::unique_ptr<nsip_contact>> Contacts(const nsip_uri& aor,
                                                                    Clock::time_point now) const;
  [[nodiscard]] std::vector<Binding> List(std::string_view aor, Clock::time_point now) const;
  bool Remove(std::string_view aor);
  void Purge(Clock::time_point now);

 private:
  struct Entry {
    nsip_uri uri;
    nsip_param_list params;  // of the Contact, without "expires"
    std::string call_id;
    std::uint32_t cseq = 0;
    int granted = 0;
    Clock::time_point until;
  };
  using Entries = std::vector<Entry>;

  [[nodiscard]] int Wish(const nsip_contact& contact, int expires_header) const;
  [[nodiscard]] Result RemoveAll(const nsip_message& request, const std::string& aor,
                                 int expires_header, Clock::time_point now);

  const int min_expires_;
  const int max_expires_;
  const int default_expires_;
  std::unordered_map<std::string, Entries> entries_;
};

}  // namespace registrar
