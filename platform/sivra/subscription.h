// One wish for a subscription and what is done for it (RFC 6665 §4.1): dialogs made, refreshed,
// lost and made anew.
//
// Thread safety: none; from Begin on everything happens on the I/O thread. Ownership: the registry
// (subscriptions.h) owns it.
// Invariants:
//   S1. At most one SUBSCRIBE of the present dialog is in flight; the answers to those of earlier
//   dialogs are dropped by their serial number.
//   S2. While anything is in flight the object stays: the stack holds plain pointers to it.
//   S3. While nothing is in flight the timer is set to the next deadline, so that no wish sleeps
//   for ever. S4. OnEnd is told once, and nothing is told afterwards.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/authenticator.h"
#include "sivra/dialog.h"
#include "sivra/notify.h"
#include "sivra/sivra.h"

namespace sivra {

class Subscription;

// What a wish asks of those who keep it. None of it throws but Index.
class SubscriptionOwner {
 public:
  // NOTIFYs with this Call-ID are for the wish, until Unindex. The text must stay where it is.
  virtual void Index(std::string_view call_id, Subscription& subscription) = 0;
  virtual void Unindex(std::string_view call_id) noexcept = 0;
  // false: nobody listens any more.
  virtual bool TellNotify(long id, const std::string& body, bool new_dialog) noexcept = 0;
  virtual void TellEnd(long id, int status, std::string_view reason) noexcept = 0;
  // The wish is over and may be destroyed.
  virtual void Erase(long id) noexcept = 0;

 protected:
  ~SubscriptionOwner() = default;
};

class Subscription final : sipcarrier::IoTimerSink {
 public:
  // The texts of the info have been looked at; may throw.
  Subscription(SubscriptionOwner& owner, long id, const SubscriptionInfo& info);
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Each of these may be the last call: the object can be gone afterwards.
  void Begin() noexcept;
  void Leave() noexcept;
  void Refresh() noexcept;
  void OnNotify(nsip_message& notify) noexcept;

  // The answer that a NOTIFY with this Call-ID deserves. Changes nothing.
  [[nodiscard]] NotifyAnswer Check(const nsip_message& notify) const;

 private:
  using Duration = std::chrono::milliseconds;
  using Clock = base::Clock;
  using TimePoint = Clock::time_point;
  static constexpr TimePoint kNever = TimePoint::max();

  enum class Phase {
    kPausing,  // no dialog; the next one at act_at_
    kAsking,   // the SUBSCRIBE that makes the dialog is in flight
    kRunning,
    kLeaving,  // SUBSCRIBE with Expires 0 has left, or the subscription runs out
    kEnded
  };

  void OnIoTimer() noexcept override;
  void OnIoStop() noexcept override;
  template <class Step>
  void Run(Step step) noexcept;
  void Continue();
  void SetTimer() noexcept;

  void StartDialog();
  void EnterLeaving() noexcept;
  void Ask(std::uint32_t expires, bool too_brief = false);
  void Depart();
  void OnOutcome(unsigned serial, sipcarrier::Outcome outcome) noexcept;
  void Conclude(sipcarrier::Outcome outcome);
  void OnAccepted(nsip_message& response);
  void OnRefused(const sipcarrier::Outcome& outcome);
  void OnTerminated(const SubscriptionState& state);

  void Lose(std::optional<std::uint32_t> retry_after, bool at_once,
            std::string_view reason) noexcept;
  void DropDialog() noexcept;
  void End(int status, std::string_view reason) noexcept;
  [[nodiscard]] Duration Pause(bool at_once) noexcept;
  [[nodiscard]] std::uint32_t Wanted(TimePoint now) const;
  [[nodiscard]] bool FindCredential(std::string_view realm, sipcarrier::Credential& found) const;

  SubscriptionOwner& owner_;
  const long id_;
  const SubscriptionInfo info_;
  Duration t1_{};
  sipcarrier::IoTimer timer_;
  Authenticator authenticator_;
  std::unique_ptr<Dialog> dialog_;  // in all phases but kPausing and kEnded

  Phase phase_ = Phase::kPausing;
  bool over_ = false;       // nobody wishes it any more
  bool in_flight_ = false;  // a SUBSCRIBE of this dialog
  bool heard_ = false;      // a NOTIFY in this dialog
  bool told_ = false;       // a body of this dialog
  bool too_brief_ = false;  // this SUBSCRIBE got its 423
  unsigned steps_ = 0;      // deep in Run
  unsigned flights_ = 0;    // transactions that know this object, those of earlier dialogs included
  unsigned serial_ = 0;     // of the dialog
  unsigned failures_ = 0;   // in a row
  unsigned departures_ = 0;  // of this SUBSCRIBE, challenges included
  std::uint32_t asked_ = 0;  // seconds, by this SUBSCRIBE
  std::uint32_t least_ = 0;  // seconds that the notifier wants at least

  TimePoint act_at_ = kNever;      // the next SUBSCRIBE
  TimePoint fetch_at_ = kNever;    // one for the full state
  TimePoint notify_by_ = kNever;   // timer N (RFC 6665 §4.1.2.4)
  TimePoint expires_at_ = kNever;  // the end of the grant
  TimePoint began_at_{};           // the dialog
  TimePoint asked_at_{};
  TimePoint fetched_at_{};
  Duration fetch_pause_{};
};

}  // namespace sivra
