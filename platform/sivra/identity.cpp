#include "sivra/identity.h"

#include <functional>
#include <utility>

#include "base/random.h"
#include "base/text.h"
#include "sivra/address.h"

namespace sivra {
namespace {

constexpr const char* kRegister = "REGISTER";

std::unique_ptr<nsip_from> Copy(const nsip_from& address) {
  auto copy = std::make_unique<nsip_from>();
  copy->displayname = address.displayname;
  copy->url = std::make_unique<nsip_uri>(*address.url);
  return copy;
}

}  // namespace

Registrar ReadRegistrar(const std::string& text) {
  auto uri = std::make_shared<nsip_uri>();
  if (!nsip_uri_parse(text, *uri) || !IsSip(*uri)) {
    return nullptr;
  }
  uri->user.clear();
  uri->password.clear();
  // Neither may stand in a Request-URI (RFC 3261 §19.1.1, table 1).
  uri->headers.clear();
  std::erase_if(uri->params, [](const nsip_generic_param& param) {
    return base::EqualNoCase(param.name, "method");
  });
  return uri;
}

std::shared_ptr<const Identity> Identity::Read(long id, const std::string& from,
                                               const std::string& to, Registrar registrar,
                                               const Identity* former) {
  if (!registrar) {
    return nullptr;
  }
  std::shared_ptr<Identity> made(new Identity(id, std::move(registrar)));
  if (!ReadAddress(from, made->from_)) {
    return nullptr;
  }
  MakeAddressOfRecord(made->from_);
  if (to != from) {
    made->to_ = std::make_unique<nsip_to>();
    if (!ReadAddress(to, *made->to_)) {
      return nullptr;
    }
    MakeAddressOfRecord(*made->to_);
  }
  made->from_key_ = std::hash<std::string>()(nsip_aor_key(*made->from_.url));
  if (former != nullptr) {
    made->origin_ = std::make_unique<nsip_uri>(former->origin());
    made->call_id_ = former->call_id_;
    made->tag_ = former->tag_;
  } else if (!base::FillRandom(made->call_id_) || !base::FillRandom(made->tag_)) {
    return nullptr;
  }
  return made;
}

std::unique_ptr<nsip_message> Identity::BuildRegister(int expires,
                                                      const sipcarrier::Endpoint& local) const {
  auto message = std::make_unique<nsip_message>();
  message->sip_method = kRegister;
  message->req_uri = std::make_unique<nsip_uri>(*registrar_);
  message->from = Copy(from_);
  message->from->params.push_back({"tag", base::HexText(tag_), true});
  message->to = Copy(to_ ? *to_ : from_);
  message->call_id = base::HexText(call_id_);
  message->cseq_number = 1;
  message->cseq_method = kRegister;
  message->max_forwards = 70;

  auto contact = std::make_unique<nsip_contact>();
  contact->url = std::make_unique<nsip_uri>(ContactAt(local));
  contact->params.push_back({"expires", std::to_string(expires), true});
  message->contacts.push_back(std::move(contact));
  // RFC 3261 §10.2.2: a registrar that does not read the parameter finds the zero here.
  if (expires == 0 && nsip_message_set_header(message.get(), "Expires", "0") != 0) {
    return nullptr;
  }
  return message;
}

nsip_uri Identity::ContactAt(const sipcarrier::Endpoint& local) const {
  nsip_uri uri;
  // A SIPS address of record wants a SIPS Contact (RFC 3261 §10.2.1).
  uri.scheme = to().scheme == "sips" ? "sips" : "sip";
  uri.user = origin().user;
  SetAddress(uri, local);
  uri.params.push_back({"line", std::to_string(id_), true});
  return uri;
}

bool Identity::IsFrom(const std::string& aor_key) const {
  return nsip_aor_key(*from_.url) == aor_key;
}

bool Identity::FindCredential(std::string_view realm, sipcarrier::Credential& found) const {
  // Under an associated URI (RFC 7315 §4.1) the account is still the one that the entry began with.
  return sipcarrier::FindCredential(to(), realm, found) ||
         (origin_ && sipcarrier::FindCredential(*origin_, realm, found));
}

}  // namespace sivra
