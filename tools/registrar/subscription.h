// One subscription to the event package "reg": its dialog (RFC 6665 §4.2, RFC 3261 §12), the
// NOTIFY under way and those that wait for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "nsip/nsip.h"
#include "registrar/loopback_socket.h"
#include "registrar/reg_event.h"

namespace registrar {

struct Datagram {
  std::string text;
  Peer target;
};

// A NOTIFY that waits.
struct Outgoing {
  std::string body;
  std::string content_type;        // empty: no Content-Type
  std::string event;               // empty: the subscription's
  std::string subscription_state;  // empty: the state when it is sent
  std::optional<std::uint32_t> cseq;
  int copies = 1;
  bool foreign = false;
  bool last = false;  // the subscription ends with its response
};

// Not thread-safe: its owner locks.
class Subscription {
 public:
  using Clock = std::chrono::steady_clock;

  // The request is a SUBSCRIBE that begins a dialog; FindTarget gave the target.
  Subscription(const nsip_message& request, const Peer& target, std::string aor, std::string event,
               std::string local_tag, const nsip_uri& own_contact);

  // The address of the subscriber (RFC 3261 §12.2.1.1); false, and no change, when it is not on
  // loopback or not of the family.
  static bool FindTarget(const nsip_message& request, int family, Peer& target);
  // A SUBSCRIBE in the dialog, with a Contact or without one.
  void Retarget(const nsip_message& request, const Peer& target);
  [[nodiscard]] bool IsDialogOf(const nsip_message& request) const;

  // Empties a full queue first. Behind the last NOTIFY nothing is queued.
  void Queue(Outgoing outgoing);
  [[nodiscard]] bool QueueIsFull() const;
  // Does what is due now and appends what is to be sent.
  enum class Turn { kGoesOn, kOver };
  [[nodiscard]] Turn Advance(Clock::time_point now, std::chrono::milliseconds t1,
                             RegEventCounters& counters, std::deque<Datagram>& out);
  // The response to the NOTIFY under way, if it is one.
  [[nodiscard]] Turn OnResponse(const nsip_message& response, RegEventCounters& counters);
  // When Advance has something to do.
  [[nodiscard]] Clock::time_point Due() const;
  [[nodiscard]] SubscriptionView View(Clock::time_point now) const;

  const std::string aor;  // canonical
  const std::string local_tag;
  SubscriptionState state = SubscriptionState::kActive;
  Clock::time_point until;
  std::uint32_t remote_cseq = 0;
  std::uint32_t refreshes = 0;
  std::uint64_t documents = 0;                 // made for it
  std::optional<Clock::time_point> scheduled;  // its entry in the owner's schedule

 private:
  struct UnderWay {
    std::string text;
    std::string branch;
    Clock::time_point send_again;
    Clock::time_point give_up;
    std::chrono::milliseconds interval{0};
    bool foreign = false;
    bool last = false;
  };

  void Start(Clock::time_point now, std::chrono::milliseconds t1, RegEventCounters& counters,
             std::deque<Datagram>& out);
  [[nodiscard]] std::string Write(const Outgoing& outgoing, const std::string& branch,
                                  Clock::time_point now);
  [[nodiscard]] int SecondsLeft(Clock::time_point now) const;
  [[nodiscard]] Turn Finish(int status, RegEventCounters& counters);

  const std::string event_;
  std::string remote_tag_;
  std::unique_ptr<nsip_message> pattern_;  // a NOTIFY of the dialog, but for what changes
  Peer target_;
  std::uint32_t local_cseq_ = 0;
  std::uint64_t notifies_ = 0;
  int last_status_ = 0;
  std::deque<Outgoing> queue_;
  std::optional<UnderWay> under_way_;
};

}  // namespace registrar
