#include "sivra/entry.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "sivra/address.h"

namespace sivra {
namespace {

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

nsip_uri* ContactOf(const nsip_message& request) {
  return request.contacts.empty() ? nullptr : request.contacts.front()->url.get();
}

// The response lists the bindings of all devices of the address of record (RFC 3261 §10.3, step 8)
// in any order; the component reads the granted expiry from the first, so ours has to be it.
void MoveOwnContactFirst(const nsip_uri& own, nsip_message& response) {
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

}  // namespace

bool Entry::Submit(std::unique_ptr<nsip_message> message) {
  if (in_flight_) {
    waiting_ = std::move(message);
    return false;
  }
  waiting_ = std::move(message);
  return Next();
}

bool Entry::Next() {
  current_ = std::move(waiting_);
  in_flight_ = current_ != nullptr;
  own_headers_ = in_flight_ ? static_cast<std::uint32_t>(current_->headers.items.size()) : 0;
  departures_ = 0;
  authenticator_.Start();
  return in_flight_;
}

std::unique_ptr<nsip_message> Entry::Depart() {
  if (!current_) {
    return nullptr;
  }
  current_->headers.items.resize(own_headers_);
  current_->cseq_number = ++cseq_;
  ++departures_;
  return authenticator_.Authorize(*current_) ? std::move(current_) : nullptr;
}

void Entry::SettleContact(nsip_message& request, SharedEndpoint local) {
  if (nsip_uri* const contact = ContactOf(request)) {
    if (contact->port != local->port || contact->host != local->host || local_ != local) {
      SetAddress(*contact, *local);
    }
    local_ = std::move(local);
  }
}

bool Entry::TakeChallenge(sipcarrier::Outcome& outcome) {
  const int status = outcome.response ? outcome.response->status_code : 0;
  if ((status != 401 && status != 407) || !outcome.request) {
    return false;
  }
  const auto lookup = [this](std::string_view realm, sipcarrier::Credential& found) {
    return identity_->FindCredential(realm, found);
  };
  if (!authenticator_.Answer(*outcome.response, lookup) || departures_ >= kMaxDepartures) {
    return false;
  }
  current_ = std::move(outcome.request);
  return true;
}

void Entry::Learn(const nsip_message* request, nsip_message& response) {
  if (response.status_code < 200 || response.status_code > 299) {
    return;
  }
  const nsip_uri* const own = request != nullptr ? ContactOf(*request) : nullptr;
  if (own != nullptr && response.contacts.size() > 1) {
    MoveOwnContactFirst(*own, response);
  }
  authenticator_.LearnNextNonce(response);
}

}  // namespace sivra
