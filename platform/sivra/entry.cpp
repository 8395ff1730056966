#include "sivra/entry.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

#include "base/random.h"
#include "base/text.h"
#include "sivra/address.h"
#include "sivra/digest.h"

namespace sivra {
namespace {

constexpr std::string_view kRegister = "REGISTER";
// First try, a proxy's challenge, the registrar's, and a nonce that ran out in between: no honest
// path needs more.
constexpr std::uint8_t kMaxDepartures = 4;

int PortOf(const nsip_uri& uri) {
  return uri.port != 0 ? uri.port : (uri.scheme == "sips" ? 5061 : 5060);
}

bool SameBinding(const nsip_uri& a, const nsip_uri& b) {
  return a.user == b.user && base::EqualNoCase(a.host, b.host) && PortOf(a) == PortOf(b) &&
         ParamOf(a.params, "line") == ParamOf(b.params, "line");
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

bool Entry::Identify() { return base::FillRandom(call_id_) && base::FillRandom(tag_); }

bool Entry::SetAddresses(const std::string& from, const std::string& to, Registrar registrar) {
  nsip_from address;
  nsip_from other;
  if (!registrar || !ReadAddress(from, address) || (from != to && !ReadAddress(to, other))) {
    return false;
  }
  const std::size_t new_key = std::hash<std::string>()(nsip_aor_key(*address.url));
  std::string new_from = from;
  std::string new_to = from == to ? std::string() : to;
  // Kept from the first change on: the Contact's user and the credentials are those of the
  // beginning.
  std::string new_aor = !aor_.empty() || from_.empty() || this->to() == to ? aor_ : this->to();
  from_key_ = new_key;
  from_ = std::move(new_from);
  to_ = std::move(new_to);
  aor_ = std::move(new_aor);
  registrar_ = std::move(registrar);
  return true;
}

std::unique_ptr<nsip_message> Entry::Build(int expires, const sipcarrier::Endpoint& local) const {
  auto message = std::make_unique<nsip_message>();
  message->from = std::make_unique<nsip_from>();
  message->to = std::make_unique<nsip_to>();
  nsip_from origin;
  if (!ReadAddress(from_, *message->from) || !ReadAddress(to(), *message->to) ||
      !ReadAddress(aor(), origin)) {
    return nullptr;
  }
  MakeAddressOfRecord(*message->from);
  MakeAddressOfRecord(*message->to);
  message->from->params.push_back({"tag", base::HexText(tag_), true});
  message->sip_method = kRegister;
  message->req_uri = std::make_unique<nsip_uri>(*registrar_);
  message->call_id = base::HexText(call_id_);
  message->cseq_number = cseq_ + 1;
  message->cseq_method = kRegister;
  message->max_forwards = 70;

  // "line" tells two bindings of one address of record in this process apart; RFC 3261 §19.1.4
  // compares it.
  auto contact = std::make_unique<nsip_contact>();
  contact->url = std::make_unique<nsip_uri>();
  // A SIPS address of record wants a SIPS Contact (RFC 3261 §10.2.1).
  contact->url->scheme = message->to->url->scheme == "sips" ? "sips" : "sip";
  contact->url->user = origin.url->user;
  SetAddress(*contact->url, local);
  contact->url->params.push_back({"line", std::to_string(id_), true});
  contact->params.push_back({"expires", std::to_string(expires), true});
  message->contacts.push_back(std::move(contact));
  // RFC 3261 §10.2.2: a registrar that does not read the parameter finds the zero here.
  if (expires == 0 && nsip_message_set_header(message.get(), "Expires", "0") != 0) {
    return nullptr;
  }
  return message;
}

bool Entry::Submit(std::unique_ptr<nsip_message> message) {
  if (current_) {
    waiting_ = std::move(message);
    return false;
  }
  current_ = std::move(message);
  departures_ = 0;
  authenticator_.Start();
  return true;
}

bool Entry::Next() {
  current_ = std::move(waiting_);
  departures_ = 0;
  authenticator_.Start();
  return current_ != nullptr;
}

std::unique_ptr<nsip_message> Entry::Depart() {
  std::unique_ptr<nsip_message> request = nsip_message_clone(*current_);
  request->cseq_number = ++cseq_;
  ++departures_;
  if (!authenticator_.Authorize(*request)) {
    request.reset();
  }
  return request;
}

void Entry::SettleContact(nsip_message& request, const sipcarrier::Endpoint& local) {
  for (nsip_message* const message : {&request, current_.get()}) {
    if (!message->contacts.empty() && message->contacts.front()->url) {
      SetAddress(*message->contacts.front()->url, local);
      contact_ = nsip_uri_text(*message->contacts.front()->url);
    }
  }
}

bool Entry::IsFrom(const std::string& aor_key) const {
  nsip_from from;
  return ReadAddress(from_, from) && nsip_aor_key(*from.url) == aor_key;
}

bool Entry::IsChallengeToAnswer(const nsip_message& response) {
  if (response.status_code != 401 && response.status_code != 407) {
    return false;
  }
  return authenticator_.Answer(response, [this](std::string_view realm,
                                                sipcarrier::Credential& found) {
    return FindCredential(realm, found);
  }) && departures_ < kMaxDepartures;
}

void Entry::Learn(nsip_message& response) {
  if (response.status_code < 200 || response.status_code > 299) {
    return;
  }
  MoveOwnContactFirst(response);
  authenticator_.LearnNextNonce(response);
}

// The answer lists the bindings of all devices of the address of record (RFC 3261 §10.3, step 8) in
// any order; the component reads the granted expiry from the first, so ours has to be it.
void Entry::MoveOwnContactFirst(nsip_message& response) const {
  if (response.contacts.size() < 2 || current_->contacts.empty() ||
      !current_->contacts.front()->url) {
    return;
  }
  const nsip_uri& own = *current_->contacts.front()->url;
  auto& contacts = response.contacts;
  // RFC 3261 §19.1.4 passes over parameters that only one side has, so a Contact without "line"
  // could be taken for ours: the narrow comparison goes first.
  auto found = std::find_if(contacts.begin(), contacts.end(), [&own](const auto& contact) {
    return contact->url && SameBinding(own, *contact->url);
  });
  if (found == contacts.end()) {
    found = std::find_if(contacts.begin(), contacts.end(), [&own](const auto& contact) {
      return contact->url && nsip_uri_equal(own, *contact->url);
    });
  }
  if (found != contacts.end()) {
    std::rotate(contacts.begin(), found, found + 1);
  }
}

bool Entry::FindCredential(std::string_view realm, sipcarrier::Credential& found) const {
  nsip_from address;
  if (ReadAddress(to(), address) && sipcarrier::FindCredential(*address.url, realm, found)) {
    return true;
  }
  // Under an associated URI (RFC 7315 §4.1) the account is still the one that the entry began with.
  return !aor_.empty() && ReadAddress(aor_, address) &&
         sipcarrier::FindCredential(*address.url, realm, found);
}

}  // namespace sivra
