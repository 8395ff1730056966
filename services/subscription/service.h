// The subscription service: keeps SIP subscriptions on behalf of components of the bus and gives
// them the bodies of the NOTIFYs. Its identity and its numbers are bus::subscription of
// Brunelib/identities.h.
//
// Commands (documents with the root "sub"):
//   2        begins a subscription. From the client: from, to, event ("reg"), expires (seconds),
//            ifrefresh. To the client, before anything is sent: id.
//   3        ends the subscription with this id.
//   0x10004  the log switch, with the component's document. TRUE: the service writes into the log
//            of that path; the component that opens it sets its level and size. FALSE: it writes
//            nothing more.
// Notifications:
//   0x1003   id, final ("SUB_STOP"): the subscription has ended for good. 0x1005   id, event,
//   msgbody: a reginfo document, in the order and with the numbers that RFC 3680
//            asks for, whatever the notifier's own are (reginfo_sequence.h).
//
// One address of record has one dialog. A new subscription ends the former one of the same address,
// and "SUB_STOP" says so: two dialogs would report each change twice, and one of them for ever.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <unordered_map>

#include "base/mutex.h"
#include "Domletlib/Domletlib.h"
#include "sivra/sivra.h"

class ILogOne;

namespace subscription {

// Commands come on any thread, NOTIFYs on the stack's I/O thread. The mutex guards the two tables.
// It is held while a subscription begins at sivra, so that no NOTIFY comes for one that is not in
// the table, and across no other call.
class Service final : public sivra::SubscriptionListener,
                      public std::enable_shared_from_this<Service> {
 public:
  // 0; -1: no such command, a document that cannot be understood, an unknown id, or the stack does
  // not run. Throws std::bad_alloc.
  int OnCommand(int command, CXML* in, CXML* out);
  // Ends every subscription and waits for the last NOTIFYs, at most for this long. Afterwards no
  // notification is expressed. Commands must have ended.
  void Stop(std::chrono::milliseconds patience);

  void OnNotify(long id, const std::string& body, bool new_dialog) override;
  void OnEnd(long id, int status, const std::string& reason) override;

 private:
  struct Follower;

  int OnSubscribe(CXML& in, CXML& out);
  int OnDesubscribe(CXML& in);
  int OnLogSwitch(CXML& in);
  bool Close(long id);
  [[nodiscard]] std::shared_ptr<Follower> Find(long id);
  void Log(int level, const char* function, int line, const char* text) const noexcept;

  using Followers = std::unordered_map<long, std::shared_ptr<Follower>>;

  base::Mutex mutex_;
  base::CondVar none_left_;
  Followers followers_ TOLVANE_GUARDED_BY(mutex_);                           // by subscription id
  std::unordered_map<std::string, long> newest_ TOLVANE_GUARDED_BY(mutex_);  // by nsip_aor_key
  std::atomic<ILogOne*> log_{nullptr};
};

}  // namespace subscription
