// One binding: what identifies it for the registrar, its REGISTER in flight and the one that waits.
//
// Thread safety: the library lock guards an entry. Ownership: the registry (sivra.cpp) owns
// entries; an entry owns its messages. Invariants:
//   E1. Call-ID, From tag and the Contact but for its address stay the same for the life of the
//   entry
//       (RFC 3261 §10.2, §10.2.4).
//   E2. The CSeq number rises with each request that leaves, and is settled then.
//   E3. At most one REGISTER is in flight and one waits; none waits when none is in flight.
//   E4. An entry with a REGISTER in flight stays in the registry: the I/O thread holds plain
//   pointers to it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/authenticator.h"

namespace sivra {

using Registrar = std::shared_ptr<const nsip_uri>;  // ten thousand entries have the same one

// The URI to which REGISTERs for this registrar go (RFC 3261 §10.2: its domain, no user part); null
// when the text is no sip: or sips: URI.
[[nodiscard]] Registrar ReadRegistrar(const std::string& text);

class Entry {
 public:
  explicit Entry(long id) : id_(id) {}
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  // Draws Call-ID and tag. false: no random numbers to be had.
  [[nodiscard]] bool Identify();
  // false, and nothing changes: a text is no address.
  [[nodiscard]] bool SetAddresses(const std::string& from, const std::string& to,
                                  Registrar registrar);
  [[nodiscard]] const nsip_uri& registrar() const { return *registrar_; }
  [[nodiscard]] long id() const { return id_; }

  [[nodiscard]] std::unique_ptr<nsip_message> Build(int expires,
                                                    const sipcarrier::Endpoint& local) const;

  // Takes a REGISTER. true: it is the one in flight now, the caller sees to its departure; false:
  // it waits, and what waited before is gone.
  [[nodiscard]] bool Submit(std::unique_ptr<nsip_message> message);
  // The request in flight is over: the waiting one takes its place, or none does (false).
  [[nodiscard]] bool Next();
  [[nodiscard]] bool in_flight() const { return current_ != nullptr; }

  // The request in flight as it goes out now: next CSeq number, credentials. Null when it cannot be
  // authorised.
  [[nodiscard]] std::unique_ptr<nsip_message> Depart();
  // Puts the address that the registrar can reach into the Contact.
  void SettleContact(nsip_message& request, const sipcarrier::Endpoint& local);
  // Whether this answer is a challenge to answer: the request departs once more then.
  [[nodiscard]] bool IsChallengeToAnswer(const nsip_message& response);
  // What a final answer means for this entry and its later requests.
  void Learn(nsip_message& response);

  // Whether the From has this nsip_aor_key.
  [[nodiscard]] bool IsFrom(const std::string& aor_key) const;
  // The hash of the From's nsip_aor_key.
  [[nodiscard]] std::size_t from_key() const { return from_key_; }
  // The Contact's URI as it was settled last; empty when nothing has left yet.
  [[nodiscard]] const std::string& contact() const { return contact_; }
  [[nodiscard]] bool FindCredential(std::string_view realm, sipcarrier::Credential& found) const;

  void set_released() { released_ = true; }
  [[nodiscard]] bool released() const { return released_; }

 private:
  void MoveOwnContactFirst(nsip_message& response) const;
  [[nodiscard]] const std::string& to() const { return to_.empty() ? from_ : to_; }
  [[nodiscard]] const std::string& aor() const { return aor_.empty() ? to() : aor_; }

  const long id_;
  std::array<unsigned char, 16> call_id_{};
  std::array<unsigned char, 8> tag_{};
  std::uint32_t cseq_ = 0;       // of the request that left last
  std::uint8_t departures_ = 0;  // of the REGISTER in flight, challenges included
  bool released_ = false;
  std::size_t from_key_ = 0;
  std::string from_;
  std::string to_;   // empty: as from_
  std::string aor_;  // the To that the entry began with; empty: as to()
  std::string contact_;
  Registrar registrar_;
  Authenticator authenticator_;
  std::unique_ptr<nsip_message> current_;  // in flight; as built, without credentials
  std::unique_ptr<nsip_message> waiting_;
};

}  // namespace sivra
