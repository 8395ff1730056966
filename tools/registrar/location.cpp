#include "registrar/location.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <utility>

#include "base/text.h"

namespace registrar {
namespace {

constexpr int kNoExpires = -1;
// RFC 3261 §20.10: the value of a malformed expiry.
constexpr int kMalformedExpires = 3600;
// With more, the response that lists them would not fit a datagram.
constexpr std::size_t kMaxBindings = 256;
constexpr std::size_t kMaxAddresses = 262144;

int ExpiresHeader(const nsip_message& request) {
  nsip_header* header = nullptr;
  if (nsip_message_header_get_byname(&request, "Expires", 0, &header) < 0 || header == nullptr) {
    return kNoExpires;
  }
  return ParseExpires(header->hvalue);
}

bool IsExpires(const nsip_generic_param& param) { return base::EqualNoCase(param.name, "expires"); }

}  // namespace

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

std::string CanonicalAor(std::string_view text) {
  nsip_uri uri;
  return nsip_uri_parse(text, uri) ? nsip_aor_key(uri) : std::string(text);
}

Location::Location(const Options& options)
    : min_expires_(options.min_expires),
      max_expires_(options.max_expires),
      default_expires_(options.default_expires) {}

int Location::RequestedExpiry(const nsip_contact& contact, int expires_header) const {
  const nsip_generic_param* param = nullptr;
  if (nsip_generic_param_get_byname(contact.params, "expires", &param) == 0) {
    return ParseExpires(param->value);
  }
  return expires_header == kNoExpires ? default_expires_ : expires_header;
}

ContactRecord Location::Record(const Entry& entry, Clock::time_point now) {
  using std::chrono::seconds;
  ContactRecord record;
  record.id = entry.id;
  record.event = entry.event;
  record.uri = nsip_uri_text(entry.uri);
  record.display_name = entry.display_name;
  record.call_id = entry.call_id;
  record.cseq = entry.cseq;
  for (const nsip_generic_param& param : entry.params) {
    if (base::EqualNoCase(param.name, "q")) {
      record.q = param.value;
    } else {
      record.params.emplace_back(param.name, param.value);
    }
  }
  record.left = static_cast<int>(
      std::max<seconds::rep>(0, std::chrono::ceil<seconds>(entry.until - now).count()));
  record.registered_for = std::chrono::floor<seconds>(now - entry.since).count();
  return record;
}

ContactRecord Location::LastRecord(const Entry& entry, ContactEvent event, Clock::time_point now) {
  ContactRecord record = Record(entry, now);
  record.event = event;
  return record;
}

std::vector<ContactRecord> Location::Expire(Entries& entries, Clock::time_point now) {
  std::vector<ContactRecord> gone;
  for (const Entry& entry : entries) {
    if (entry.until <= now) gone.push_back(LastRecord(entry, ContactEvent::kExpired, now));
  }
  std::erase_if(entries, [now](const Entry& entry) { return entry.until <= now; });
  return gone;
}

Location::Result Location::RemoveAll(const nsip_message& request, const std::string& aor,
                                     int expires_header, Clock::time_point now,
                                     std::vector<ContactRecord>& changes) {
  if (!request.contacts.empty() || expires_header != 0) {
    return {400, "Contact: * stands alone and with Expires: 0"};
  }
  const auto found = entries_.find(aor);
  if (found == entries_.end()) return {};
  for (const Entry& entry : found->second) {
    if (entry.call_id == request.call_id && request.cseq_number <= entry.cseq) {
      return {500, "CSeq out of order"};
    }
  }
  for (const Entry& entry : found->second) {
    changes.push_back(LastRecord(entry, ContactEvent::kUnregistered, now));
  }
  entries_.erase(found);
  return {};
}

Location::Result Location::Update(const nsip_message& request, Clock::time_point now,
                                  std::vector<ContactRecord>& changes) {
  const std::string aor = nsip_aor_key(*request.to->url);
  const int expires_header = ExpiresHeader(request);
  Entries before;
  if (const auto found = entries_.find(aor); found != entries_.end()) {
    changes = Expire(found->second, now);
    before = found->second;
  }
  if (request.contact_star) return RemoveAll(request, aor, expires_header, now, changes);
  if (request.contacts.empty()) return {};  // a query
  if (entries_.size() >= kMaxAddresses && !entries_.contains(aor)) {
    return {503, "Too many addresses of record"};
  }

  Entries after = before;
  std::vector<ContactRecord> updates;
  for (const auto& contact : request.contacts) {
    if (!contact || !contact->url) return {400, "Contact without an address"};
    const auto same = [&contact](const Entry& entry) {
      return nsip_uri_equal(entry.uri, *contact->url);
    };
    const int expiry = RequestedExpiry(*contact, expires_header);
    if (expiry > 0 && expiry < min_expires_) return {423, {}};
    const auto old = std::find_if(before.begin(), before.end(), same);
    if (old != before.end() && old->call_id == request.call_id &&
        request.cseq_number <= old->cseq) {
      return {500, "CSeq out of order"};
    }
    auto entry = std::find_if(after.begin(), after.end(), same);
    if (expiry == 0) {
      if (entry == after.end()) continue;
      updates.push_back(LastRecord(*entry, ContactEvent::kUnregistered, now));
      after.erase(entry);
      continue;
    }
    if (entry == after.end()) {
      if (after.size() >= kMaxBindings) return {403, "Too many bindings"};
      entry = after.emplace(after.end());
      entry->id = ++last_id_;
      entry->since = now;
    } else {
      entry->event = ContactEvent::kRefreshed;
    }
    entry->uri = *contact->url;
    entry->display_name = contact->displayname;
    entry->params = contact->params;
    std::erase_if(entry->params, IsExpires);
    entry->call_id = request.call_id;
    entry->cseq = request.cseq_number;
    entry->granted = std::min(expiry, max_expires_);
    entry->until = now + std::chrono::seconds(entry->granted);
    updates.push_back(Record(*entry, now));
  }
  std::move(updates.begin(), updates.end(), std::back_inserter(changes));
  if (after.empty()) {
    entries_.erase(aor);
  } else {
    entries_[aor] = std::move(after);
  }
  return {};
}

std::vector<ContactRecord> Location::Apply(const Order& order, Clock::time_point now,
                                           std::string& error) {
  const std::string aor = CanonicalAor(order.aor);
  const bool creates =
      order.event == ContactEvent::kCreated || order.event == ContactEvent::kRegistered;
  nsip_uri contact;
  if (!order.contact.empty() && !nsip_uri_parse(order.contact, contact)) {
    error = "\"" + order.contact + "\" is no URI";
    return {};
  }
  if (order.seconds.value_or(1) < 1 ||
      (order.event == ContactEvent::kShortened && !order.seconds)) {
    error = "how many seconds? At least 1";
    return {};
  }
  auto found = entries_.find(aor);
  const auto meant = [&](const Entry& entry) {
    return order.contact.empty() || nsip_uri_equal(entry.uri, contact);
  };
  const bool known =
      found != entries_.end() && std::any_of(found->second.begin(), found->second.end(), meant);
  if (!known) {
    if (!creates || order.contact.empty()) {
      error = "no such binding of " + aor;
      return {};
    }
    if (found == entries_.end() ? entries_.size() >= kMaxAddresses
                                : found->second.size() >= kMaxBindings) {
      error = "too many bindings";
      return {};
    }
    Entry entry;
    entry.id = ++last_id_;
    entry.uri = contact;
    entry.since = now;
    found = entries_.try_emplace(aor).first;
    found->second.push_back(std::move(entry));
  }
  std::vector<ContactRecord> changes;
  for (Entry& entry : found->second) {
    if (!meant(entry)) continue;
    if (Terminates(order.event)) {
      changes.push_back(LastRecord(entry, order.event, now));
      if (order.event == ContactEvent::kProbation) {
        changes.back().retry_after = order.seconds.value_or(-1);
      }
      continue;
    }
    entry.event = order.event;
    entry.granted = order.seconds.value_or(max_expires_);
    entry.until = now + std::chrono::seconds(entry.granted);
    changes.push_back(Record(entry, now));
  }
  if (Terminates(order.event)) std::erase_if(found->second, meant);
  if (found->second.empty()) entries_.erase(found);
  return changes;
}

std::vector<std::unique_ptr<nsip_contact>> Location::Contacts(const nsip_uri& aor,
                                                              Clock::time_point now) const {
  std::vector<std::unique_ptr<nsip_contact>> contacts;
  const auto found = entries_.find(nsip_aor_key(aor));
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
      list.push_back({name, nsip_uri_text(entry.uri), entry.call_id, entry.cseq, entry.granted,
                      Record(entry, now).left, entry.event});
    }
  }
  return list;
}

bool Location::Remove(std::string_view aor) { return entries_.erase(CanonicalAor(aor)) != 0; }

std::vector<ContactRecord> Location::Records(const std::string& aor, Clock::time_point now) const {
  std::vector<ContactRecord> records;
  const auto found = entries_.find(aor);
  if (found == entries_.end()) return records;
  for (const Entry& entry : found->second) {
    if (entry.until > now) records.push_back(Record(entry, now));
  }
  return records;
}

std::vector<std::pair<std::string, std::vector<ContactRecord>>> Location::Purge(
    Clock::time_point now) {
  std::vector<std::pair<std::string, std::vector<ContactRecord>>> gone;
  for (auto item = entries_.begin(); item != entries_.end();) {
    std::vector<ContactRecord> records = Expire(item->second, now);
    if (!records.empty()) gone.emplace_back(item->first, std::move(records));
    item = item->second.empty() ? entries_.erase(item) : std::next(item);
  }
  return gone;
}

}  // namespace registrar
