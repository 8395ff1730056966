// The notifier of the event package "reg" (RFC 6665 §4.2, RFC 3680): takes SUBSCRIBE requests and
// notifies the subscribers of changed bindings. It sends nothing itself: Due gives the datagrams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "nsip/nsip.h"
#include "registrar/location.h"
#include "registrar/reg_event.h"
#include "registrar/reginfo_writer.h"
#include "registrar/response.h"
#include "registrar/subscription.h"

namespace registrar {

// Not thread-safe: the owner locks. Options and location must outlive it. Addresses of record are
// canonical.
class Notifier {
 public:
  Notifier(const RegEventOptions& options, const Location& location);

  // Before the first SUBSCRIBE: where the registrar is reached.
  void SetOwnUri(const std::string& uri, int family);

  void CountSubscribe() { ++counters_.subscribes; }
  // The response to a SUBSCRIBE whose digest has been checked. A NOTIFY is queued where one is due.
  [[nodiscard]] Response Subscribe(const nsip_message& request, Clock::time_point now);
  // The changes have taken place in the location table.
  void Publish(const std::string& aor, const std::vector<ContactRecord>& changes,
               Clock::time_point now);
  // Ignores a response to no NOTIFY of ours: retransmissions get more than one.
  void OnResponse(const nsip_message& response);

  [[nodiscard]] std::deque<Datagram> Due(Clock::time_point now);
  [[nodiscard]] Clock::time_point NextDue() const;  // far away: never

  std::size_t Notify(const NotifyOrder& order, Clock::time_point now);
  std::size_t End(const std::string& aor, const std::string& reason, int retry_after,
                  Clock::time_point now);
  std::size_t Forget(const std::string& aor);  // empty: all
  std::size_t Approve(const std::string& aor, Clock::time_point now);
  [[nodiscard]] std::vector<SubscriptionView> List(const std::string& aor,
                                                   Clock::time_point now) const;
  [[nodiscard]] const RegEventCounters& counters() const { return counters_; }

 private:
  [[nodiscard]] Response Begin(const nsip_message& request, std::string_view event, int seconds,
                               Clock::time_point now);
  [[nodiscard]] Response Refresh(const nsip_message& request, int seconds, Clock::time_point now);
  [[nodiscard]] Response Accepted(Subscription& subscription, int seconds, Clock::time_point now);
  // The live subscriptions of the address of record.
  [[nodiscard]] std::vector<Subscription*> Live(const std::string& aor);
  [[nodiscard]] Outgoing Document(Subscription& subscription,
                                  const std::vector<ContactRecord>& changes, bool full,
                                  Clock::time_point now);
  [[nodiscard]] std::string NextVersion(Subscription& subscription);
  // The subscription ends with this NOTIFY.
  void Finish(Subscription& subscription, const std::string& parameters, Clock::time_point now);
  void Queue(Subscription& subscription, Outgoing outgoing);
  void Schedule(Subscription& subscription);
  void Erase(Subscription& subscription);

  const RegEventOptions& options_;
  const Location& location_;
  nsip_uri own_uri_;
  int family_ = 0;
  RegEventCounters counters_;
  std::unordered_map<std::string, Subscription> subscriptions_;  // by local tag
  std::unordered_map<std::string, std::vector<Subscription*>> by_aor_;
  std::set<std::pair<Clock::time_point, Subscription*>> schedule_;  // each once
  std::unordered_map<std::string, std::uint64_t> aor_versions_;
  std::uint64_t last_fresh_id_ = 0;
};

}  // namespace registrar
