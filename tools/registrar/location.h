// The registrar's table of bindings and the rules by which a REGISTER (RFC 3261 §10.3) or the
// operator changes it. Each change gives a record of the binding with its event.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "nsip/nsip.h"
#include "registrar/reginfo_writer.h"
#include "registrar/registrar.h"

namespace registrar {

using Clock = std::chrono::steady_clock;

// The key of an address of record; a text that is no URI stands for itself.
[[nodiscard]] std::string CanonicalAor(std::string_view text);

// The seconds of an Expires header or parameter (RFC 3261 §20.19).
[[nodiscard]] int ParseExpires(std::string_view text);

// Not thread-safe: the owner locks.
class Location {
 public:
  explicit Location(const Options& options);

  struct Result {
    int status = 200;
    std::string reason;  // why, when it is not the status's usual phrase
  };
  // Applies all of a REGISTER or nothing of it. Bindings of the address of record that had expired
  // are among the changes in both cases.
  [[nodiscard]] Result Update(const nsip_message& request, Clock::time_point now,
                              std::vector<ContactRecord>& changes);
  // The changes; none and a text when there is nothing to change.
  [[nodiscard]] std::vector<ContactRecord> Apply(const Order& order, Clock::time_point now,
                                                 std::string& error);
  // The bindings of the address of record as Contacts, each with the seconds that are left.
  [[nodiscard]] std::vector<std::unique_ptr<nsip_contact>> Contacts(const nsip_uri& aor,
                                                                    Clock::time_point now) const;
  [[nodiscard]] std::vector<Binding> List(std::string_view aor, Clock::time_point now) const;
  // The bindings of a canonical address of record.
  [[nodiscard]] std::vector<ContactRecord> Records(const std::string& aor,
                                                   Clock::time_point now) const;
  bool Remove(std::string_view aor);
  // Removes what has expired, and gives it by address of record.
  [[nodiscard]] std::vector<std::pair<std::string, std::vector<ContactRecord>>> Purge(
      Clock::time_point now);

 private:
  struct Entry {
    std::uint64_t id = 0;
    ContactEvent event = ContactEvent::kRegistered;
    nsip_uri uri;
    std::string display_name;
    nsip_param_list params;  // of the Contact, without "expires"
    std::string call_id;
    std::uint32_t cseq = 0;
    int granted = 0;
    Clock::time_point since;
    Clock::time_point until;
  };
  using Entries = std::vector<Entry>;

  static ContactRecord Record(const Entry& entry, Clock::time_point now);
  // A record of an entry that ends with this event.
  static ContactRecord LastRecord(const Entry& entry, ContactEvent event, Clock::time_point now);
  // Removes what has expired; nothing may be left.
  static std::vector<ContactRecord> Expire(Entries& entries, Clock::time_point now);

  [[nodiscard]] int RequestedExpiry(const nsip_contact& contact, int expires_header) const;
  [[nodiscard]] Result RemoveAll(const nsip_message& request, const std::string& aor,
                                 int expires_header, Clock::time_point now,
                                 std::vector<ContactRecord>& changes);

  const int min_expires_;
  const int max_expires_;
  const int default_expires_;
  std::unordered_map<std::string, Entries> entries_;
  std::uint64_t last_id_ = 0;
};

}  // namespace registrar
