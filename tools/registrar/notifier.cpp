#include "registrar/notifier.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>
#include <tuple>

#include "base/text.h"
#include "registrar/digest.h"

namespace registrar {
namespace {

constexpr std::size_t kMaxSubscriptions = 16384;
constexpr std::size_t kMaxOfOneAor = 32;
constexpr std::size_t kMaxAorVersions = 65536;
constexpr std::string_view kPackage = "reg";

// RFC 3261 §20.1: without an Accept header the package's own type is what is meant.
bool TakesRegInfo(const nsip_message& request) {
  nsip_header* header = nullptr;
  int pos = nsip_message_header_get_byname(&request, "Accept", 0, &header);
  if (pos < 0) return true;
  for (; pos >= 0; pos = nsip_message_header_get_byname(&request, "Accept", pos + 1, &header)) {
    std::string_view rest = header->hvalue;
    while (!rest.empty()) {
      const std::string_view item = rest.substr(0, rest.find(','));
      rest.remove_prefix(std::min(rest.size(), item.size() + 1));
      const std::string_view type = base::Trim(item.substr(0, item.find(';')));
      if (type == kRegInfoType || type == "application/*" || type == "*/*") return true;
    }
  }
  return false;
}

Response Refusal(int status, std::string reason = {}) {
  Response response;
  response.status = status;
  response.reason = std::move(reason);
  return response;
}

}  // namespace

Notifier::Notifier(const RegEventOptions& options, const Location& location)
    : options_(options), location_(location) {}

void Notifier::SetOwnUri(const std::string& uri, int family) {
  if (nsip_uri_parse(uri, own_uri_)) family_ = family;
}

Response Notifier::Subscribe(const nsip_message& request, Clock::time_point now) {
  nsip_header* header = nullptr;
  const bool has_event = nsip_message_header_get_byname(&request, "Event", 0, &header) >= 0;
  const std::string_view event = has_event ? base::Trim(header->hvalue) : std::string_view();
  if (base::Trim(event.substr(0, event.find(';'))) != kPackage) {
    Response response = Refusal(489);
    response.headers.emplace_back("Allow-Events", kPackage);
    return response;
  }
  if (!TakesRegInfo(request)) {
    Response response = Refusal(406);
    response.headers.emplace_back("Accept", kRegInfoType);
    return response;
  }
  int seconds = options_.default_expires;
  if (nsip_message_header_get_byname(&request, "Expires", 0, &header) >= 0) {
    seconds = ParseExpires(header->hvalue);
  }
  if (seconds > 0 && seconds < options_.min_expires) {
    Response response = Refusal(423);
    response.headers.emplace_back("Min-Expires", std::to_string(options_.min_expires));
    return response;
  }
  seconds = std::min(seconds, options_.max_expires);
  const nsip_generic_param* tag = nullptr;
  if (nsip_generic_param_get_byname(request.to->params, "tag", &tag) == 0) {
    return Refresh(request, seconds, now);
  }
  return Begin(request, event, seconds, now);
}

Response Notifier::Begin(const nsip_message& request, std::string_view event, int seconds,
                         Clock::time_point now) {
  Peer target;
  if (!Subscription::FindTarget(request, family_, target)) {
    return Refusal(400, "One Contact, on loopback, by its address");
  }
  const std::string aor = nsip_aor_key(*request.req_uri);
  const auto others = by_aor_.find(aor);
  if (subscriptions_.size() >= kMaxSubscriptions ||
      (others != by_aor_.end() && others->second.size() >= kMaxOfOneAor)) {
    return Refusal(503, "Too many subscriptions");
  }
  std::string tag = RandomHex(8);
  Subscription& subscription =
      subscriptions_.try_emplace(tag, request, target, aor, std::string(event), tag, own_uri_)
          .first->second;
  try {
    by_aor_[aor].push_back(&subscription);
    if (options_.pending) subscription.state = SubscriptionState::kPending;
    return Accepted(subscription, seconds, now);
  } catch (const std::bad_alloc&) {
    Erase(subscription);  // no dialog was made
    throw;
  }
}

Response Notifier::Refresh(const nsip_message& request, int seconds, Clock::time_point now) {
  const nsip_generic_param* tag = nullptr;
  std::ignore = nsip_generic_param_get_byname(request.to->params, "tag", &tag);
  const auto found = subscriptions_.find(tag->value);
  if (found == subscriptions_.end() || !found->second.IsDialogOf(request) ||
      found->second.state == SubscriptionState::kTerminated) {
    return Refusal(481);
  }
  Subscription& subscription = found->second;
  if (request.cseq_number <= subscription.remote_cseq) return Refusal(500, "CSeq out of order");
  if (!request.contacts.empty()) {
    Peer target;
    if (!Subscription::FindTarget(request, family_, target)) {
      return Refusal(400, "One Contact, on loopback, by its address");
    }
    subscription.Retarget(request, target);
  }
  subscription.remote_cseq = request.cseq_number;
  ++subscription.refreshes;
  return Accepted(subscription, seconds, now);
}

// RFC 6665 §4.2.1.2: each SUBSCRIBE is followed by a NOTIFY with the full state.
Response Notifier::Accepted(Subscription& subscription, int seconds, Clock::time_point now) {
  subscription.until = now + std::chrono::seconds(seconds);
  if (seconds == 0) {
    Finish(subscription, ";reason=timeout", now);
  } else if (subscription.state == SubscriptionState::kPending) {
    Queue(subscription, {});  // the state waits for the approval
  } else {
    Queue(subscription, Document(subscription, {}, true, now));
  }
  Response response;
  response.to_tag = subscription.local_tag;
  response.headers.emplace_back("Expires", std::to_string(seconds));
  response.contacts.push_back(std::make_unique<nsip_contact>());
  response.contacts.front()->url = std::make_unique<nsip_uri>(own_uri_);
  return response;
}

std::vector<Subscription*> Notifier::Live(const std::string& aor) {
  std::vector<Subscription*> live;
  const auto found = by_aor_.find(aor);
  if (found == by_aor_.end()) return live;
  std::copy_if(found->second.begin(), found->second.end(), std::back_inserter(live),
               [](const Subscription* subscription) {
                 return subscription->state != SubscriptionState::kTerminated;
               });
  return live;
}

void Notifier::Publish(const std::string& aor, const std::vector<ContactRecord>& changes,
                       Clock::time_point now) {
  if (changes.empty()) return;
  for (Subscription* subscription : Live(aor)) {
    if (subscription->state == SubscriptionState::kPending) continue;
    // A full queue is emptied, so the next document has to say what those in it said.
    const bool full = options_.documents == Documents::kFull || subscription->QueueIsFull();
    Queue(*subscription, Document(*subscription, changes, full, now));
  }
}

std::string Notifier::NextVersion(Subscription& subscription) {
  const std::uint64_t before = subscription.documents++;
  switch (options_.versions) {
    case Versions::kProper:
      return std::to_string(before);
    case Versions::kOne:
      return std::to_string(before + 1);
    case Versions::kAor:
      if (aor_versions_.size() >= kMaxAorVersions) aor_versions_.clear();
      return std::to_string(aor_versions_[subscription.aor]++);
    case Versions::kZero:
      return "0";
    case Versions::kGaps:
      return std::to_string(2 + 3 * before);
    case Versions::kTwice:
      return std::to_string(before / 2);
  }
  return "0";
}

Outgoing Notifier::Document(Subscription& subscription, const std::vector<ContactRecord>& changes,
                            bool full, Clock::time_point now) {
  const auto changed = [&changes](std::uint64_t id) {
    return std::any_of(changes.begin(), changes.end(),
                       [id](const ContactRecord& record) { return record.id == id; });
  };
  std::vector<ContactRecord> records = location_.Records(subscription.aor, now);
  const bool bound = !records.empty();
  bool any_gone = false;
  for (const ContactRecord& record : changes) {
    if (!Terminates(record.event)) continue;
    any_gone = true;
    // A partial document has no other way to say that a contact is gone.
    if (options_.gone == Gone::kListed || !full) records.push_back(record);
  }
  RegInfo info;
  const std::uint64_t turn = subscription.documents;
  info.version = NextVersion(subscription);
  info.full = full;
  info.aor = subscription.aor;
  info.state = "init";
  if (bound) {
    info.state = "active";
  } else if (any_gone) {
    info.state = "terminated";
  }
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (!full && !changed(records[i].id)) continue;
    std::uint64_t id = records[i].id;
    if (options_.contact_ids == ContactIds::kSwapped) id = records[(i + turn) % records.size()].id;
    const std::string shown = options_.contact_ids == ContactIds::kFresh
                                  ? "f" + std::to_string(++last_fresh_id_)
                                  : "c" + std::to_string(id);
    info.contacts.emplace_back(shown, records[i]);
  }
  Outgoing outgoing;
  outgoing.body = WriteRegInfo(info);
  outgoing.content_type = kRegInfoType;
  return outgoing;
}

void Notifier::Finish(Subscription& subscription, const std::string& parameters,
                      Clock::time_point now) {
  Outgoing last;
  if (subscription.state != SubscriptionState::kPending) {
    last = Document(subscription, {}, true, now);
  }
  last.subscription_state = Word(SubscriptionState::kTerminated) + parameters;
  last.last = true;
  subscription.state = SubscriptionState::kTerminated;
  Queue(subscription, std::move(last));
}

void Notifier::Queue(Subscription& subscription, Outgoing outgoing) {
  subscription.Queue(std::move(outgoing));
  Schedule(subscription);
}

void Notifier::Schedule(Subscription& subscription) {
  const Clock::time_point due = subscription.Due();
  if (subscription.scheduled == due) return;
  schedule_.emplace(due, &subscription);
  if (subscription.scheduled) schedule_.erase({*subscription.scheduled, &subscription});
  subscription.scheduled = due;
}

void Notifier::Erase(Subscription& subscription) {
  if (subscription.scheduled) schedule_.erase({*subscription.scheduled, &subscription});
  if (const auto same_aor = by_aor_.find(subscription.aor); same_aor != by_aor_.end()) {
    std::erase(same_aor->second, &subscription);
    if (same_aor->second.empty()) by_aor_.erase(same_aor);
  }
  subscriptions_.erase(subscriptions_.find(subscription.local_tag));
}

void Notifier::OnResponse(const nsip_message& response) {
  if (response.vias.size() != 1 || !response.vias.front() || !response.from) return;
  // The branch begins with the tag, which a foreign NOTIFY does not show.
  const nsip_generic_param* branch = nullptr;
  if (nsip_generic_param_get_byname(response.vias.front()->params, "branch", &branch) != 0) return;
  const std::string& text = branch->value;
  const std::size_t dot = text.find('.');
  if (!text.starts_with(kMagicCookie) || dot == std::string::npos) return;
  const auto found =
      subscriptions_.find(text.substr(kMagicCookie.size(), dot - kMagicCookie.size()));
  if (found == subscriptions_.end()) return;
  if (found->second.OnResponse(response, counters_) == Subscription::Turn::kOver) {
    Erase(found->second);
  } else {
    Schedule(found->second);
  }
}

std::deque<Datagram> Notifier::Due(Clock::time_point now) {
  std::deque<Datagram> out;
  while (!schedule_.empty() && schedule_.begin()->first <= now) {
    Subscription& subscription = *schedule_.begin()->second;
    if (subscription.state != SubscriptionState::kTerminated && subscription.until <= now) {
      Finish(subscription, ";reason=timeout", now);
    }
    if (subscription.Advance(now, options_.t1, counters_, out) == Subscription::Turn::kOver) {
      Erase(subscription);
    } else {
      Schedule(subscription);
    }
  }
  return out;
}

Clock::time_point Notifier::NextDue() const {
  return schedule_.empty() ? Clock::time_point::max() : schedule_.begin()->first;
}

std::size_t Notifier::Notify(const NotifyOrder& order, Clock::time_point now) {
  const std::vector<Subscription*> live = Live(order.aor);
  for (Subscription* subscription : live) {
    Outgoing outgoing;
    if (order.body) {
      outgoing.body = *order.body;
      if (!order.body->empty()) outgoing.content_type = order.content_type;
    } else {
      outgoing = Document(*subscription, {}, true, now);
    }
    outgoing.event = order.event;
    outgoing.subscription_state = order.subscription_state;
    outgoing.cseq = order.cseq;
    outgoing.copies = order.copies;
    outgoing.foreign = order.foreign;
    Queue(*subscription, std::move(outgoing));
  }
  return live.size();
}

std::size_t Notifier::End(const std::string& aor, const std::string& reason, int retry_after,
                          Clock::time_point now) {
  std::string parameters;
  if (!reason.empty()) parameters += ";reason=" + reason;
  if (retry_after >= 0) parameters += ";retry-after=" + std::to_string(retry_after);
  const std::vector<Subscription*> live = Live(aor);
  for (Subscription* subscription : live) Finish(*subscription, parameters, now);
  return live.size();
}

std::size_t Notifier::Forget(const std::string& aor) {
  std::vector<Subscription*> forgotten;
  for (auto& [tag, subscription] : subscriptions_) {
    if (aor.empty() || subscription.aor == aor) forgotten.push_back(&subscription);
  }
  for (Subscription* subscription : forgotten) Erase(*subscription);
  return forgotten.size();
}

std::size_t Notifier::Approve(const std::string& aor, Clock::time_point now) {
  std::size_t approved = 0;
  for (Subscription* subscription : Live(aor)) {
    if (subscription->state != SubscriptionState::kPending) continue;
    subscription->state = SubscriptionState::kActive;
    Queue(*subscription, Document(*subscription, {}, true, now));
    ++approved;
  }
  return approved;
}

std::vector<SubscriptionView> Notifier::List(const std::string& aor, Clock::time_point now) const {
  std::vector<SubscriptionView> list;
  for (const auto& [tag, subscription] : subscriptions_) {
    if (aor.empty() || subscription.aor == aor) list.push_back(subscription.View(now));
  }
  return list;
}

}  // namespace registrar
