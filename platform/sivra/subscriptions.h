// The registry of subscriptions: their ids and listeners for any thread, their Call-IDs for the I/O
// thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/call_gate.h"
#include "base/mutex.h"
#include "sivra/subscription.h"

namespace sivra {

// Lock order: mutex_ is a leaf; it is held neither for a listener's call nor for its destruction.
class Subscriptions final : public SubscriptionOwner {
 public:
  // Never destroyed: a process may end while the stack still runs.
  static Subscriptions& Instance();

  // Any thread. May throw std::bad_alloc; then nothing has changed.
  [[nodiscard]] long Add(const SubscriptionInfo& info,
                         std::shared_ptr<SubscriptionListener> listener);
  // Does it for this subscription on the I/O thread.
  using Action = void (*)(Subscription&) noexcept;
  [[nodiscard]] bool Post(long id, Action action) noexcept;
  void Forget(const SubscriptionListener* listener);
  [[nodiscard]] std::size_t Count();

  // The I/O thread.
  [[nodiscard]] Subscription* FindCall(const std::string& call_id) const;
  void Index(std::string_view call_id, Subscription& subscription) override;
  void Unindex(std::string_view call_id) noexcept override;
  bool TellNotify(long id, const std::string& body, bool new_dialog) noexcept override;
  void TellEnd(long id, int status, std::string_view reason) noexcept override;
  void Erase(long id) noexcept override;

 private:
  struct Slot {
    std::unique_ptr<Subscription> subscription;
    std::shared_ptr<SubscriptionListener> listener;  // null: forgotten, or ended
    bool ended = false;
  };
  class Call;

  [[nodiscard]] Subscription* Find(long id);
  void LeaveForgotten();

  base::Mutex mutex_;
  base::CallGate<const SubscriptionListener*> calls_;
  std::unordered_map<long, Slot> slots_ TOLVANE_GUARDED_BY(mutex_);
  long last_id_ TOLVANE_GUARDED_BY(mutex_) = 0;

  std::unordered_map<std::string_view, Subscription*> by_call_id_;  // the I/O thread's
};

// The stack's handler of NOTIFYs.
void HandleNotify(std::unique_ptr<nsip_message> request, sipcarrier::ServerTransactionId id,
                  const sipcarrier::Endpoint& local);

}  // namespace sivra
