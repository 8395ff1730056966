#include "registrar/location.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>
#include <limits>
#include <utility>

namespace registrar {
namespace {

constexpr int kNoExpires = -1;
// RFC 3261 §20.10: what a malformed expiry counts as.
constexpr int kMalformedExpires = 3600;
// With more, the answer that lists them would not fit a datagram.
constexpr std::size_t kMaxBindings = 256;
constexpr std::size_t kMaxAddresses = 262144;

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

int ParseExpires(std::string_view text) {
  int seconds = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (code == std::errc::result_out_of_range && end == text.data() + text.size() &&
      text.front() != '-') {
    return std::numeric_limits<int>::max();
  }
  if (code != std::errc{} || end != text.data() + text.size() || seconds < 0) {
    return kMalformedExpires;
  }
  return seconds;
}

int ExpiresHeader(const nsip_message& request) {
  nsip_header* header = nullptr;
  if (nsip_message_header_get_byname(&request, "Expires", 0, &header) < 0 || header == nullptr) {
    return kNoExpires;
  }
  return ParseExpires(header->hvalue);
}

bool IsExpires(const nsip_generic_param& param) { return Lower(param.name) == "expires"; }

}  // namespace

std::string CanonicalAor(const nsip_uri& uri) {
  if (uri.scheme != "sip" && uri.scheme != "sips") return uri.scheme + ":" + uri.opaque;
  std::string aor = uri.scheme + ":";
  if (!uri.user.empty()) aor += nsip_uri_normal(uri.user) + "@";
  aor += Lower(uri.host);
  if (uri.port != 0) aor += ":" + std::to_string(uri.port);
  return aor;
}

std::string CanonicalAor(std::string_view text) {
  nsip_uri uri;
  return nsip_uri_parse(text, uri) ? CanonicalAor(uri) : std::string(text);
}

Location::Location(const Options& options)
    : min_expires_(options.min_expires),
      max_expires_(options.max_expires),
      default_expires_(options.default_expires) {}

int Location::Wish(const nsip_contact& contact, int expires_header) const {
  const nsip_generic_param* param = nullptr;
  if (nsip_generic_param_get_byname(contact.params, "expires", &param) == 0) {
    return ParseExpires(param->value);
  }
  return expires_header == kNoExpires ? default_expires_ : expires_header;
}

Location::Result Location::RemoveAll(const nsip_message& request, const std::string& aor,
                                     int expires_header, Clock::time_point now) {
  if (!request.contacts.empty() || expires_header != 0) {
    return {400, "Contact: * stands alone and with Expires: 0"};
  }
  const auto found = entries_.find(aor);
  if (found == entries_.end()) return {};
  for (const Entry& entry : found->second) {
    if (entry.until > now && entry.call_id == request.call_id &&
        request.cseq_number <= entry.cseq) {
      return {500, "CSeq out of order"};
    }
  }
  entries_.erase(found);
  return {};
}

Location::Result Location::Update(const nsip_message& request, Clock::time_point now) {
  const std::string aor = CanonicalAor(*request.to->url);
  const int expires_header = ExpiresHeader(request);
  if (request.contact_star) return RemoveAll(request, aor, expires_header, now);
  if (request.contacts.empty()) return {};  // a query

  Entries before;
  if (const auto found = entries_.find(aor); found != entries_.end()) {
    std::copy_if(found->second.begin(), found->second.end(), std::back_inserter(before),
                 [now](const Entry& entry) { return entry.until > now; });
  } else if (entries_.size() >= kMaxAddresses) {
    return {503, "Too many addresses of record"};
  }
  Entries after = before;
  for (const auto& contact : request.contacts) {
    if (!contact || !contact->url) return {400, "Contact without an address"};
    const auto same = [&contact](const Entry& entry) {
      return nsip_uri_equal(entry.uri, *contact->url);
    };
    const int wish = Wish(*contact, expires_header);
    if (wish > 0 && wish < min_expires_) return {423, {}};
    const auto old = std::find_if(before.begin(), before.end(), same);
    if (old != before.end() && old->call_id == request.call_id &&
        request.cseq_number <= old->cseq) {
      return {500, "CSeq out of order"};
    }
    auto entry = std::find_if(after.begin(), after.end(), same);
    if (wish == 0) {
      if (entry != after.end()) after.erase(entry);
      continue;
    }
    if (entry == after.end()) {
      if (after.size() >= kMaxBindings) return {403, "Too many bindings"};
      entry = after.emplace(after.end());
    }
    entry->uri = *contact->url;
    entry->params = contact->params;
    std::erase_if(entry->params, IsExpires);
    entry->call_id = request.call_id;
    entry->cseq = request.cseq_number;
    entry->granted = std::min(wish, max_expires_);
    entry->until = now + std::chrono::seconds(entry->granted);
  }
  if (after.empty()) {
    entries_.erase(aor);
  } else {
    entries_[aor] = std::move(after);
  }
  return {};
}

std::vector<std::unique_ptr<nsip_contact>> Location::Contacts(const nsip_uri& aor,
                                                              Clock::time_point now) const {
  std::vector<std::unique_ptr<nsip_contact>> contacts;
  const auto found = entries_.find(CanonicalAor(aor));
  if (found == entries_.end()) return contacts;
  for (const Entry& entry : found->second) {
    if (entry.until <= now) continue;
    auto contact = std::make_unique<nsip_contact>();
    contact->url = std::make_unique<nsip_uri>(entry.uri);
    contact->params = entry.params;
    const auto left = std::chrono::ceil<std::chrono::seconds>(entry.until - now);
    contact->params.push_back({"expires", std::to_string(left.count()), true});
    contacts.push_back(std::move(contact));
  }
  return contacts;
}

std::vector<Binding> Location::List(std::string_view aor, Clock::time_point now) const {
  std::vector<Binding> list;
  const std::string wanted = aor.empty() ? std::string() : CanonicalAor(aor);
  for (const auto& [name, entries] : entries_) {
    if (!wanted.empty() && name != wanted) continue;
    for (const Entry& entry : entries) {
      if (entry.until <= now) continue;
      list.push_back({name, nsip_uri_text(entry.uri), entry.call_id, entry.cseq, entry.granted});
    }
  }
  return list;
}

bool Location::Remove(std::string_view aor) { return entries_.erase(CanonicalAor(aor)) != 0; }

void Location::Purge(Clock::time_point now) {
  for (auto item = entries_.begin(); item != entries_.end();) {
    std::erase_if(item->second, [now](const Entry& entry) { return entry.until <= now; });
    item = item->second.empty() ? entries_.erase(item) : std::next(item);
  }
}

}  // namespace registrar
