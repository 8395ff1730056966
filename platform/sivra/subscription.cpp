#include "sivra/subscription.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <utility>

#include "base/random.h"
#include "base/text.h"
#include "sivra/address.h"
#include "sivra/digest.h"
#include "sivra/registry.h"
#include "sivra/subscriptions.h"

namespace sivra {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr unsigned kMaxDepartures = 4;  // as for a REGISTER
// What can be waited for at the other side's word.
constexpr std::uint32_t kMaxRetryAfter = 3600;
constexpr milliseconds kMaxSleep = std::chrono::hours(24);

// All below are counted in T1, 500 ms by default.
constexpr int kTimerN = 64;         // RFC 6665 §4.1.2.4
constexpr int kPause = 2;           // after the first loss, doubled with each further one
constexpr int kSpacing = 1;         // between two SUBSCRIBEs, whatever was granted
constexpr int kFetchPause = 4;      // between the first two requests for the full state, doubled
constexpr unsigned kDoublings = 8;  // of both pauses: 4 and 8 minutes
constexpr int kHealthy = 120;       // a dialog that lived that long makes the next loss the first

constexpr const char* kUnsubscribed = "unsubscribed";
constexpr const char* kNoMemory = "out of memory";
constexpr const char* kNoTimer = "the SIP stack has stopped, or has no memory for a timer";

// Refusals of the SUBSCRIBE that was to make the dialog which time may heal; the others are for
// good. 481 has no place there, so whoever sends it has lost his way.
bool CanHeal(int status) {
  static constexpr std::array<int, 11> kPassing{408, 480, 481, 486, 487, 491,
                                                500, 502, 503, 504, 600};
  return std::binary_search(kPassing.begin(), kPassing.end(), status);
}

// Refusals of a refresh after which the subscription is no more (RFC 6665 §4.1.2.2, RFC 5057 §5.1
// for 408). With any other one it lives as long as was granted.
bool EndsSubscription(int status) {
  static constexpr std::array<int, 13> kEnding{404, 405, 408, 410, 416, 480, 481,
                                               482, 483, 484, 485, 489, 604};
  return status == 501 || std::binary_search(kEnding.begin(), kEnding.end(), status);
}

std::unique_ptr<nsip_from> AddressOfRecord(const std::string& text) {
  auto address = std::make_unique<nsip_from>();
  if (ReadAddress(text, *address)) {
    MakeAddressOfRecord(*address);
  }
  return address;
}

// The number at the start of a header; a comment or parameters may follow it (RFC 3261 §20.33).
std::optional<std::uint32_t> NumberIn(const nsip_message& message, const char* name) {
  const std::string* const value = HeaderOf(message, name);
  std::uint32_t number = 0;
  if (value == nullptr) {
    return std::nullopt;
  }
  const std::string_view text = base::Trim(*value);
  return ReadNumber(text.substr(0, text.find_first_not_of("0123456789")), number)
             ? std::optional(number)
             : std::nullopt;
}

// From 0 to 1. Without random numbers the middle: what is spread by it is not secret.
double Chance() {
  std::array<unsigned char, 2> bytes{};
  return base::FillRandom(bytes) ? (bytes[0] * 256 + bytes[1]) / 65535.0 : 0.5;
}

}  // namespace

Subscription::Subscription(SubscriptionOwner& owner, long id, const SubscriptionInfo& info)
    : owner_(owner), id_(id), info_(info), timer_(*this) {}

// --- what comes in ---

// Every way in: one place for what fails, for the timer and for the end of the object.
template <class Step>
void Subscription::Run(Step step) noexcept {
  ++steps_;
  try {
    step();
    Continue();
  } catch (const std::exception&) {
    // Half a step may have been taken: what there was of a dialog counts as lost.
    Lose({}, false, kNoMemory);
  }
  if (--steps_ > 0) {
    return;
  }
  if (phase_ != Phase::kEnded) {
    SetTimer();
  }
  if (phase_ == Phase::kEnded && flights_ == 0) {
    owner_.Erase(id_);
  }
}

void Subscription::Begin() noexcept {
  t1_ = std::max(sipcarrier::TimerT1(), milliseconds(1));
  fetch_pause_ = kFetchPause * t1_;
  act_at_ = TimePoint();
  Run([] {});
}

void Subscription::Leave() noexcept {
  over_ = true;
  act_at_ = fetch_at_ = expires_at_ = kNever;
  Run([] {});
}

void Subscription::Refresh() noexcept {
  // A dialog to come begins with the full state anyway; one that has run out is asked no more.
  if (over_ || !heard_ || phase_ == Phase::kLeaving || fetch_at_ != kNever) {
    return;
  }
  const TimePoint now = Clock::now();
  if (now - fetched_at_ > 8 * fetch_pause_) {
    fetch_pause_ = kFetchPause * t1_;
    fetch_at_ = now;
  } else {
    fetch_at_ = std::max(now, fetched_at_ + fetch_pause_);
    fetch_pause_ = std::min(2 * fetch_pause_, (kFetchPause << kDoublings) * t1_);
  }
  Run([] {});
}

void Subscription::OnIoTimer() noexcept {
  Run([] {});
}

void Subscription::OnIoStop() noexcept {
  Run([this] {
    // A goodbye is seen through, and one that waits for its dialog.
    if (!over_ || !in_flight_) {
      End(0, kNoTimer);
    }
  });
}

// --- time ---

void Subscription::SetTimer() noexcept {
  if (in_flight_) {
    timer_.Cancel();
    return;
  }
  const TimePoint due = std::min({act_at_, fetch_at_, notify_by_, expires_at_});
  const TimePoint now = Clock::now();
  Duration delay = kMaxSleep;
  if (due < now + kMaxSleep) {
    delay = std::max(std::chrono::ceil<milliseconds>(due - now), milliseconds(0));
  }
  if (!timer_.Set(delay)) {
    End(0, kNoTimer);
  }
}

// Does what is due.
void Subscription::Continue() {
  if (in_flight_) {
    return;
  }
  const TimePoint now = Clock::now();
  switch (phase_) {
    case Phase::kPausing:
      if (over_) {
        End(0, kUnsubscribed);
      } else if (now >= act_at_) {
        StartDialog();
      }
      break;
    case Phase::kRunning:
      if (over_ && dialog_->established()) {
        EnterLeaving();
        Ask(0);
      } else if (now >= notify_by_) {
        Lose({}, false, "no NOTIFY came");
      } else if (now >= expires_at_) {
        if (info_.refresh) {
          const TimePoint put_off = act_at_;  // what a refused refresh has to wait for still counts
          Lose({}, true, {});
          act_at_ = std::max(act_at_, put_off);
        } else {  // the notifier has a last word
          EnterLeaving();
          notify_by_ = now + kTimerN * t1_;
        }
      } else if (now >= fetch_at_) {
        fetch_at_ = kNever;
        fetched_at_ = now;
        Ask(Wanted(now));
      } else if (now >= act_at_) {
        Ask(Wanted(now));
      }
      break;
    case Phase::kLeaving:
      if (now >= notify_by_) {
        End(0, over_ ? kUnsubscribed : "timeout");
      }
      break;
    case Phase::kAsking:
    case Phase::kEnded:
      break;
  }
}

void Subscription::EnterLeaving() noexcept {
  phase_ = Phase::kLeaving;
  act_at_ = fetch_at_ = expires_at_ = kNever;
}

// --- SUBSCRIBE ---

void Subscription::StartDialog() {
  // Each time, since one that found no memory must not stay without. What it says does not matter:
  // when NOTIFYs do not arrive, the dialog is lost.
  static_cast<void>(sipcarrier::SetRequestHandler("NOTIFY", HandleNotify));
  began_at_ = Clock::now();
  act_at_ = kNever;
  dialog_ = std::make_unique<Dialog>(AddressOfRecord(info_.from), AddressOfRecord(info_.to));
  // Where the account is registered its state is known; its domain's name need not lead there.
  if (auto registrar = FindEntryRegistrar(*AddressOfRecord(info_.from)->url)) {
    dialog_->SetFirstRouter(std::move(registrar));
  }
  if (!dialog_->Identify()) {
    return Lose({}, false, "no random numbers");
  }
  owner_.Index(dialog_->call_id(), *this);
  phase_ = Phase::kAsking;
  Ask(Wanted(began_at_));
}

std::uint32_t Subscription::Wanted(TimePoint now) const {
  if (!info_.refresh && expires_at_ != kNever) {  // asking for the state prolongs nothing
    return static_cast<std::uint32_t>(
        std::max<std::int64_t>(1, std::chrono::ceil<seconds>(expires_at_ - now).count()));
  }
  return std::max(static_cast<std::uint32_t>(info_.expires), least_);
}

void Subscription::Ask(std::uint32_t expires, bool too_brief) {
  asked_ = expires;
  departures_ = 0;
  too_brief_ = too_brief;
  authenticator_.Start();
  Depart();
}

// Always the last thing that is done: with no memory at all the outcome comes before it returns.
void Subscription::Depart() {
  in_flight_ = false;
  std::unique_ptr<nsip_message> request = dialog_->MakeRequest("SUBSCRIBE");
  auto contact = std::make_unique<nsip_contact>();
  contact->url = std::make_unique<nsip_uri>();
  contact->url->scheme = request->to->url->scheme;
  contact->url->user = request->from->url->user;
  request->contacts.push_back(std::move(contact));
  static_cast<void>(nsip_message_set_header(request.get(), "Event", info_.event.c_str()));
  static_cast<void>(nsip_message_set_header(request.get(), "Accept", info_.accept.c_str()));
  static_cast<void>(
      nsip_message_set_header(request.get(), "Expires", std::to_string(asked_).c_str()));
  if (!authenticator_.Authorize(*request)) {
    return OnRefused({});
  }
  ++departures_;
  asked_at_ = Clock::now();
  notify_by_ = asked_at_ + kTimerN * t1_;
  const unsigned serial = serial_;
  in_flight_ = true;
  ++flights_;
  // Two words each, which the function objects hold without memory of their own.
  sipcarrier::SendRequest(
      std::move(request),
      [this, serial](nsip_message& message, const sipcarrier::Endpoint& local) {
        SetAddress(*message.contacts.front()->url, local);
        return serial == serial_;
      },
      [this, serial](sipcarrier::Outcome outcome) { OnOutcome(serial, std::move(outcome)); });
}

void Subscription::OnOutcome(unsigned serial, sipcarrier::Outcome outcome) noexcept {
  --flights_;
  Run([&] {
    if (serial == serial_ && phase_ != Phase::kEnded) {
      Conclude(std::move(outcome));
    }
  });
}

void Subscription::Conclude(sipcarrier::Outcome outcome) {
  in_flight_ = false;
  const int status = outcome.response ? outcome.response->status_code : 0;
  if (status == 401 || status == 407) {
    const auto lookup = [this](std::string_view realm, sipcarrier::Credential& found) {
      return FindCredential(realm, found);
    };
    if (authenticator_.Answer(*outcome.response, lookup) && departures_ < kMaxDepartures) {
      return Depart();
    }
  }
  if (status >= 200 && status <= 299) {
    return OnAccepted(*outcome.response);
  }
  if (status == 423 && asked_ != 0 && !too_brief_) {
    const std::uint32_t least = NumberIn(*outcome.response, "Min-Expires").value_or(0);
    if (least > asked_) {
      least_ = least;
      return Ask(least, true);
    }
  }
  OnRefused(outcome);
}

bool Subscription::FindCredential(std::string_view realm, sipcarrier::Credential& found) const {
  const auto from = AddressOfRecord(info_.from);
  return sipcarrier::FindCredential(*from->url, realm, found) ||
         FindEntryCredential(*from->url, realm, found);
}

void Subscription::OnAccepted(nsip_message& response) {
  authenticator_.LearnNextNonce(response);
  if (dialog_->Owns(response)) {  // the answer of another fork (RFC 6665 §4.4.1) changes nothing
    dialog_->Learn(response);
  }
  if (phase_ == Phase::kLeaving) {
    return;
  }
  if (phase_ == Phase::kRunning) {
    failures_ = 0;
  }
  phase_ = Phase::kRunning;
  if (over_) {
    return;
  }
  // A notifier may grant less, but not more (RFC 6665 §4.2.1.1).
  const seconds grant(std::min(NumberIn(response, "Expires").value_or(asked_), asked_));
  expires_at_ = asked_at_ + grant;
  act_at_ = kNever;
  if (info_.refresh) {
    // Spread, so that those who began together do not come back together.
    const auto early = std::chrono::duration_cast<milliseconds>(grant * (0.8 + 0.1 * Chance()));
    act_at_ = asked_at_ + std::max<milliseconds>(early, kSpacing * t1_);
  }
}

void Subscription::OnRefused(const sipcarrier::Outcome& outcome) {
  const nsip_message* const response = outcome.response.get();
  const int status = response != nullptr ? response->status_code : 0;
  const std::optional<std::uint32_t> retry_after =
      response != nullptr ? NumberIn(*response, "Retry-After") : std::nullopt;
  const bool silent = outcome.kind == sipcarrier::Outcome::Kind::kTimeout;
  const bool alive = phase_ == Phase::kRunning && !silent && !EndsSubscription(status);
  if (over_) {
    if (!alive) {
      End(0, kUnsubscribed);
    }  // else only a refresh was refused: the goodbye follows
  } else if (phase_ == Phase::kAsking) {
    if (response != nullptr && !retry_after && !CanHeal(status)) {
      End(status, response->reason_phrase);
    } else {
      Lose(retry_after, false, outcome.reason);
    }
  } else if (!alive) {
    Lose(retry_after, status == 481, outcome.reason);
  } else {
    if (heard_) {
      notify_by_ = kNever;
    }
    const Duration wished = seconds(std::min(retry_after.value_or(0), kMaxRetryAfter));
    act_at_ = Clock::now() + std::max(wished, Pause(false));
  }
}

// --- NOTIFY ---

NotifyAnswer Subscription::Check(const nsip_message& notify) const {
  if (!dialog_ || !dialog_->Owns(notify)) {
    return {481, "Subscription Does Not Exist", {}};
  }
  NotifyAnswer answer = CheckNotify(notify, info_.event, info_.accept);
  if (answer.status == 200 && dialog_->IsStale(notify)) {
    answer.status = 500;
    answer.reason = "CSeq Out of Order";
  }
  return answer;
}

void Subscription::OnNotify(nsip_message& notify) noexcept {
  Run([&] {
    SubscriptionState state;
    if (!ReadSubscriptionState(notify, state)) {
      return;
    }
    dialog_->Learn(notify);
    heard_ = true;
    if (phase_ != Phase::kLeaving) {
      notify_by_ = kNever;
    }
    if (!notify.body.empty()) {
      const bool first = !std::exchange(told_, true);
      if (!owner_.TellNotify(id_, notify.body, first)) {
        over_ = true;
      }
    }
    if (state.terminated) {
      OnTerminated(state);
    } else if (phase_ == Phase::kRunning && state.expires && !over_) {
      const seconds left(*state.expires);
      const TimePoint now = Clock::now();
      expires_at_ = std::min(expires_at_, now + left);
      if (info_.refresh) {
        const auto early = std::chrono::duration_cast<milliseconds>(left * 0.8);
        act_at_ = std::min(act_at_, std::max(now + early, asked_at_ + kSpacing * t1_));
      }
    }
  });
}

void Subscription::OnTerminated(const SubscriptionState& state) {
  using Reason = SubscriptionState::Reason;
  if (over_ || !info_.refresh || state.reason == Reason::kFinal) {
    return End(0, state.reason_text);
  }
  // RFC 6665 §4.1.3: retry-after means nothing where a new subscription is welcome at once.
  const bool welcome = state.reason == Reason::kAgain;
  Lose(welcome ? std::nullopt : state.retry_after, state.reason != Reason::kLater,
       state.reason_text);
}

// --- ends ---

// The dialog is no more; the next one is due at once or after a pause.
void Subscription::Lose(std::optional<std::uint32_t> retry_after, bool at_once,
                        std::string_view reason) noexcept {
  if (over_ || phase_ == Phase::kLeaving || (!info_.refresh && heard_)) {
    return End(0, over_ ? kUnsubscribed : reason);
  }
  if (phase_ == Phase::kEnded) {
    return;
  }
  if (heard_ && Clock::now() - began_at_ > kHealthy * t1_) {
    failures_ = 0;
  }
  DropDialog();
  phase_ = Phase::kPausing;
  const Duration wished = seconds(std::min(retry_after.value_or(0), kMaxRetryAfter));
  act_at_ = Clock::now() + std::max(wished, Pause(at_once || retry_after.has_value()));
}

// What else is due goes with the dialog. Its NOTIFYs are answered 481 from here on, which makes the
// notifier forget it, too.
void Subscription::DropDialog() noexcept {
  if (dialog_) {
    owner_.Unindex(dialog_->call_id());
    dialog_.reset();
  }
  ++serial_;
  in_flight_ = heard_ = told_ = false;
  act_at_ = fetch_at_ = notify_by_ = expires_at_ = kNever;
}

void Subscription::End(int status, std::string_view reason) noexcept {
  if (phase_ == Phase::kEnded) {
    return;
  }
  DropDialog();
  phase_ = Phase::kEnded;
  timer_.Cancel();
  owner_.TellEnd(id_, status, reason);
}

// Grows from loss to loss, so that a notifier which takes every subscription and drops it at once
// is not stormed.
Subscription::Duration Subscription::Pause(bool at_once) noexcept {
  const unsigned losses = failures_++;
  if (losses == 0 && at_once) {
    return Duration(0);
  }
  const Duration base = (kPause << std::min(losses, kDoublings)) * t1_;
  return std::chrono::duration_cast<Duration>(base * (0.75 + 0.5 * Chance()));
}

}  // namespace sivra
