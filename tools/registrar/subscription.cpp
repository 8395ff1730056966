#include "registrar/subscription.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "registrar/digest.h"
#include "registrar/response.h"

namespace registrar {
namespace {

constexpr std::size_t kMaxQueue = 64;
constexpr int kMaxCopies = 16;
constexpr std::uint16_t kSipPort = 5060;
constexpr int kT2 = 8;       // of T1, as 4 s are of 500 ms
constexpr int kTimerF = 64;  // of T1 (RFC 3261 §17.1.2.2)
constexpr int kTimeout = 408;

std::string Tag(const nsip_from& address) {
  const nsip_generic_param* tag = nullptr;
  return nsip_generic_param_get_byname(address.params, "tag", &tag) == 0 ? tag->value
                                                                         : std::string();
}

void SetTag(nsip_from& address, std::string value) {
  for (nsip_generic_param& param : address.params) {
    if (param.name == "tag") {
      param.value = std::move(value);
      return;
    }
  }
  address.params.push_back({"tag", std::move(value), true});
}

}  // namespace

const char* Word(SubscriptionState state) {
  switch (state) {
    case SubscriptionState::kActive:
      return "active";
    case SubscriptionState::kPending:
      return "pending";
    case SubscriptionState::kTerminated:
      return "terminated";
  }
  return "";
}

Subscription::Subscription(const nsip_message& request, const Peer& target, std::string given_aor,
                           std::string event, std::string tag, const nsip_uri& own_contact)
    : aor(std::move(given_aor)),
      local_tag(std::move(tag)),
      remote_cseq(request.cseq_number),
      event_(std::move(event)),
      remote_tag_(Tag(*request.from)),
      pattern_(nsip_message_clone(request)),
      target_(target) {
  nsip_message& notify = *pattern_;
  notify.sip_method = notify.cseq_method = "NOTIFY";
  notify.max_forwards = 70;
  std::swap(notify.from, notify.to);
  SetTag(*notify.from, local_tag);
  notify.vias.resize(1);
  nsip_via& via = *notify.vias.front();
  via = {"SIP/2.0", "UDP", own_contact.host, own_contact.port, {{"branch", "", true}}};
  notify.routes = std::move(notify.record_routes);
  notify.record_routes.clear();
  notify.req_uri = std::move(notify.contacts.front()->url);
  notify.contacts.resize(1);
  *notify.contacts.front() = {{}, std::make_unique<nsip_uri>(own_contact), {}};
  notify.headers.items.clear();
  notify.body.clear();
}

bool Subscription::FindTarget(const nsip_message& request, int family, Peer& target) {
  if (request.contacts.size() != 1 || !request.contacts.front()->url) return false;
  const nsip_uri* next = request.contacts.front()->url.get();
  if (!request.record_routes.empty()) next = request.record_routes.front()->url.get();
  if (next == nullptr || next->scheme != "sip" || next->port > 65535) return false;
  std::string host = next->host;
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  const std::uint16_t port = next->port == 0 ? kSipPort : static_cast<std::uint16_t>(next->port);
  Peer found;
  if (!ParseLoopback(host, port, found) || found.address.ss_family != family) return false;
  target = found;
  return true;
}

void Subscription::Retarget(const nsip_message& request, const Peer& target) {
  pattern_->req_uri = std::make_unique<nsip_uri>(*request.contacts.front()->url);
  if (pattern_->routes.empty()) target_ = target;
}

bool Subscription::IsDialogOf(const nsip_message& request) const {
  return request.call_id == pattern_->call_id && Tag(*request.from) == remote_tag_ &&
         Tag(*request.to) == local_tag;
}

bool Subscription::QueueIsFull() const { return queue_.size() >= kMaxQueue; }

void Subscription::Queue(Outgoing outgoing) {
  if (!queue_.empty() && queue_.back().last) return;
  if (under_way_ && under_way_->last) return;
  if (QueueIsFull()) queue_.clear();
  queue_.push_back(std::move(outgoing));
}

int Subscription::SecondsLeft(Clock::time_point now) const {
  using std::chrono::seconds;
  return static_cast<int>(
      std::max<seconds::rep>(0, std::chrono::ceil<seconds>(until - now).count()));
}

std::string Subscription::Write(const Outgoing& outgoing, const std::string& branch,
                                Clock::time_point now) {
  const std::unique_ptr<nsip_message> notify = nsip_message_clone(*pattern_);
  notify->vias.front()->params.front().value = branch;
  if (outgoing.cseq) {
    notify->cseq_number = *outgoing.cseq;
  } else {
    notify->cseq_number = outgoing.foreign ? 1 : ++local_cseq_;
  }
  if (outgoing.foreign) {
    notify->call_id = RandomHex(8);
    SetTag(*notify->from, RandomHex(6));
    SetTag(*notify->to, RandomHex(6));
  }
  std::string standing = outgoing.subscription_state;
  if (standing.empty()) {
    // Only the last NOTIFY says that it is the last, also when this one still waits at the end.
    const SubscriptionState told =
        state == SubscriptionState::kTerminated ? SubscriptionState::kActive : state;
    standing = std::string(Word(told)) + ";expires=" + std::to_string(SecondsLeft(now));
  }
  const std::string& event = outgoing.event.empty() ? event_ : outgoing.event;
  nsip_message_set_header(notify.get(), "Event", event.c_str());
  nsip_message_set_header(notify.get(), "Subscription-State", standing.c_str());
  if (!outgoing.content_type.empty()) {
    nsip_message_set_header(notify.get(), "Content-Type", outgoing.content_type.c_str());
  }
  notify->body = outgoing.body;
  std::string text;
  return nsip_message_to_str(*notify, text) == 0 ? text : std::string();
}

void Subscription::Start(Clock::time_point now, std::chrono::milliseconds t1,
                         RegEventCounters& counters, std::deque<Datagram>& out) {
  const Outgoing outgoing = std::move(queue_.front());
  queue_.pop_front();
  UnderWay under_way;
  under_way.branch = std::string(kMagicCookie) + local_tag + "." + RandomHex(6);
  under_way.text = Write(outgoing, under_way.branch, now);
  under_way.interval = t1;
  under_way.send_again = now + t1;
  under_way.give_up = now + kTimerF * t1;
  under_way.foreign = outgoing.foreign;
  under_way.last = outgoing.last;
  for (int i = 0; i < std::clamp(outgoing.copies, 1, kMaxCopies); ++i) {
    out.push_back({under_way.text, target_});
  }
  ++notifies_;
  ++counters.notifies;
  under_way_ = std::move(under_way);
}

Subscription::Turn Subscription::Advance(Clock::time_point now, std::chrono::milliseconds t1,
                                         RegEventCounters& counters, std::deque<Datagram>& out) {
  if (under_way_ && now >= under_way_->give_up) {
    if (Finish(kTimeout, counters) == Turn::kOver) return Turn::kOver;
  }
  if (under_way_ && now >= under_way_->send_again) {
    out.push_back({under_way_->text, target_});
    ++counters.retransmissions;
    under_way_->interval = std::min(2 * under_way_->interval, kT2 * t1);
    under_way_->send_again = now + under_way_->interval;
  }
  if (!under_way_ && !queue_.empty()) Start(now, t1, counters, out);
  return Turn::kGoesOn;
}

Subscription::Turn Subscription::OnResponse(const nsip_message& response,
                                            RegEventCounters& counters) {
  const nsip_generic_param* branch = nullptr;
  if (!under_way_ || response.cseq_method != "NOTIFY" || response.status_code < 200 ||
      nsip_generic_param_get_byname(response.vias.front()->params, "branch", &branch) != 0 ||
      branch->value != under_way_->branch) {
    return Turn::kGoesOn;
  }
  return Finish(response.status_code, counters);
}

// RFC 6665 §4.2.2: without a response, and with 481, the subscription is gone.
Subscription::Turn Subscription::Finish(int status, RegEventCounters& counters) {
  ++counters.responses[status];
  last_status_ = status;
  const bool over =
      under_way_->last || (!under_way_->foreign && (status == 481 || status == kTimeout));
  under_way_.reset();
  return over ? Turn::kOver : Turn::kGoesOn;
}

Subscription::Clock::time_point Subscription::Due() const {
  Clock::time_point due =
      state == SubscriptionState::kTerminated ? Clock::time_point::max() : until;
  if (under_way_) return std::min({due, under_way_->send_again, under_way_->give_up});
  return queue_.empty() ? due : Clock::time_point::min();
}

SubscriptionView Subscription::View(Clock::time_point now) const {
  return {aor,
          pattern_->call_id,
          nsip_uri_text(*pattern_->req_uri),
          state,
          SecondsLeft(now),
          refreshes,
          notifies_,
          queue_.size() + (under_way_ ? 1U : 0U),
          last_status_};
}

}  // namespace registrar
