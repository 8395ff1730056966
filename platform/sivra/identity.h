// What identifies one binding for its registrar, and the form that its REGISTERs share.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"

namespace sivra {

using Registrar = std::shared_ptr<const nsip_uri>;  // ten thousand entries have the same one

// The URI to which REGISTERs for this registrar go (RFC 3261 §10.2: its domain, no user part); null
// when the text is no sip: or sips: URI.
[[nodiscard]] Registrar ReadRegistrar(const std::string& text);

// Immutable, so callers and the I/O thread share it without a lock. The addresses are read once:
// what a REGISTER takes from here is copied, not parsed again.
class Identity {
 public:
  // Takes over Call-ID, From tag and what the entry began with from the former identity (RFC 3261
  // §10.2, §10.2.4); without one (null) they are drawn. Null: a text is no address, or no random
  // numbers are to be had. May throw std::bad_alloc.
  [[nodiscard]] static std::shared_ptr<const Identity> Read(long id, const std::string& from,
                                                            const std::string& to,
                                                            Registrar registrar,
                                                            const Identity* former);
  Identity(const Identity&) = delete;
  Identity& operator=(const Identity&) = delete;

  [[nodiscard]] long id() const { return id_; }
  [[nodiscard]] const nsip_uri& registrar() const { return *registrar_; }
  // A REGISTER that lacks what is settled when it leaves: Via, CSeq number, credentials.
  [[nodiscard]] std::unique_ptr<nsip_message> BuildRegister(
      int expires, const sipcarrier::Endpoint& local) const;
  // The Contact's URI at this address. "line" tells two bindings of one address of record in this
  // process apart; RFC 3261 §19.1.4 compares it.
  [[nodiscard]] nsip_uri ContactAt(const sipcarrier::Endpoint& local) const;
  // Whether the From has this nsip_aor_key.
  [[nodiscard]] bool IsFrom(const std::string& aor_key) const;
  // The hash of the From's nsip_aor_key.
  [[nodiscard]] std::size_t from_key() const { return from_key_; }
  [[nodiscard]] bool FindCredential(std::string_view realm, sipcarrier::Credential& found) const;

 private:
  Identity(long id, Registrar registrar) : id_(id), registrar_(std::move(registrar)) {}
  [[nodiscard]] const nsip_uri& to() const { return to_ ? *to_->url : *from_.url; }
  // The To that the entry began with: the Contact's user and the credentials are those of the
  // beginning.
  [[nodiscard]] const nsip_uri& origin() const { return origin_ ? *origin_ : to(); }

  const long id_;
  const Registrar registrar_;
  std::array<unsigned char, 16> call_id_{};
  std::array<unsigned char, 8> tag_{};
  std::size_t from_key_ = 0;
  nsip_from from_;
  std::unique_ptr<nsip_to> to_;       // null: as from_
  std::unique_ptr<nsip_uri> origin_;  // null: as to()
};

}  // namespace sivra
