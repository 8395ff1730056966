#include "sivra/subscriptions.h"

#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "base/never_destroyed.h"
#include "sivra/address.h"

namespace sivra {

SubscriptionListener::~SubscriptionListener() = default;

// A listener's call under way, from the look at who it is to the release of what holds it.
class Subscriptions::Call {
 public:
  Call(Subscriptions& owner, long id, bool last) : owner_(owner) {
    const base::MutexLock lock(owner_.mutex_);
    const auto found = owner_.slots_.find(id);
    if (found != owner_.slots_.end()) {
      found->second.ended = found->second.ended || last;
      listener = last ? std::move(found->second.listener) : found->second.listener;
    }
    owner_.calls_.Enter(owner_.mutex_, listener.get());
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    listener.reset();
    const base::MutexLock lock(owner_.mutex_);
    owner_.calls_.Leave(owner_.mutex_);
  }

  std::shared_ptr<SubscriptionListener> listener;

 private:
  Subscriptions& owner_;
};

Subscriptions& Subscriptions::Instance() {
  static base::NeverDestroyed<Subscriptions> instance;
  return *instance;
}

long Subscriptions::Add(const SubscriptionInfo& info,
                        std::shared_ptr<SubscriptionListener> listener) {
  Slot slot;
  slot.listener = std::move(listener);
  const base::MutexLock lock(mutex_);
  slot.subscription = std::make_unique<Subscription>(*this, last_id_ + 1, info);
  slots_.emplace(last_id_ + 1, std::move(slot));
  return ++last_id_;
}

bool Subscriptions::Post(long id, Action action) noexcept {
  {
    const base::MutexLock lock(mutex_);
    const auto found = slots_.find(id);
    if (found == slots_.end() || found->second.ended) {
      return false;
    }
  }
  // Two words: the task holds them without memory of its own.
  return sipcarrier::RunOnIoThread([id, action] {
    if (Subscription* const subscription = Instance().Find(id)) {
      action(*subscription);
    }
  });
}

void Subscriptions::Forget(const SubscriptionListener* listener) {
  // While one reference is held here, giving back another destroys nothing.
  std::shared_ptr<SubscriptionListener> held;
  {
    const base::MutexLock lock(mutex_);
    for (auto& [id, slot] : slots_) {
      if (slot.listener && slot.listener.get() == listener) {
        held = std::move(slot.listener);
      }
    }
    calls_.AwaitEnd(mutex_,
                    [listener](const SubscriptionListener* called) { return called == listener; });
  }
  // When there is no memory for it, each finds out with its next NOTIFY or refresh.
  static_cast<void>(sipcarrier::RunOnIoThread([] { Instance().LeaveForgotten(); }));
}

void Subscriptions::LeaveForgotten() {
  std::vector<Subscription*> forgotten;
  {
    const base::MutexLock lock(mutex_);
    for (const auto& [id, slot] : slots_) {
      if (!slot.listener && !slot.ended) {
        forgotten.push_back(slot.subscription.get());
      }
    }
  }
  for (Subscription* const subscription : forgotten) {
    subscription->Leave();
  }
}

std::size_t Subscriptions::Count() {
  const base::MutexLock lock(mutex_);
  return slots_.size();
}

Subscription* Subscriptions::Find(long id) {
  const base::MutexLock lock(mutex_);
  const auto found = slots_.find(id);
  return found == slots_.end() || found->second.ended ? nullptr : found->second.subscription.get();
}

Subscription* Subscriptions::FindCall(const std::string& call_id) const {
  const auto found = by_call_id_.find(call_id);
  return found == by_call_id_.end() ? nullptr : found->second;
}

void Subscriptions::Index(std::string_view call_id, Subscription& subscription) {
  by_call_id_.emplace(call_id, &subscription);
}

void Subscriptions::Unindex(std::string_view call_id) noexcept { by_call_id_.erase(call_id); }

bool Subscriptions::TellNotify(long id, const std::string& body, bool new_dialog) noexcept {
  const Call call(*this, id, false);
  if (call.listener) {
    call.listener->OnNotify(id, body, new_dialog);
  }
  return call.listener != nullptr;
}

void Subscriptions::TellEnd(long id, int status, std::string_view reason) noexcept {
  const Call call(*this, id, true);
  if (!call.listener) {
    return;
  }
  std::string text;
  try {
    text = reason;
  } catch (const std::bad_alloc&) {
    text.clear();  // the end is what counts
  }
  call.listener->OnEnd(id, status, text);
}

void Subscriptions::Erase(long id) noexcept {
  decltype(slots_)::node_type gone;  // is freed without the lock
  const base::MutexLock lock(mutex_);
  gone = slots_.extract(id);
}

void HandleNotify(std::unique_ptr<nsip_message> request, sipcarrier::ServerTransactionId id,
                  const sipcarrier::Endpoint& /*local*/) {
  Subscription* const subscription = Subscriptions::Instance().FindCall(request->call_id);
  try {
    NotifyAnswer answer{481, "Subscription Does Not Exist", {}};
    if (subscription != nullptr) {
      answer = subscription->Check(*request);
    }
    static_cast<void>(sipcarrier::Respond(id, answer.status, answer.reason, answer.headers));
    if (answer.status == 200) {
      subscription->OnNotify(*request);
    } else if (answer.status == 500) {
      // It was late, and nobody will say again what a partial document said. Notifiers of before
      // RFC 6665 have even dropped the subscription for this answer; asking finds that out, too.
      subscription->Refresh();
    }
  } catch (const std::exception&) {
    // The notifier drops the subscription for it (RFC 6665 §4.2.2); the next refresh finds out.
    static_cast<void>(sipcarrier::Respond(id, 500, "Out of Memory"));
  }
}

long Subscribe(const SubscriptionInfo& info, std::shared_ptr<SubscriptionListener> listener) {
  try {
    nsip_from from;
    nsip_from to;
    nsip_message probe;
    if (!listener || info.expires < 1 || !nsip_is_token(info.event) || info.accept.empty() ||
        nsip_message_set_header(&probe, "Accept", info.accept.c_str()) != 0 ||
        !ReadAddress(info.from, from) || !ReadAddress(info.to, to) || !IsSip(*to.url)) {
      return -1;
    }
    Subscriptions& all = Subscriptions::Instance();
    const long id = all.Add(info, std::move(listener));
    if (all.Post(id, [](Subscription& made) noexcept { made.Begin(); })) {
      return id;
    }
    all.Erase(id);
  } catch (const std::exception&) {
    // -1 says it.
  }
  return -1;
}

bool Unsubscribe(long id) {
  return Subscriptions::Instance().Post(id, [](Subscription& found) noexcept { found.Leave(); });
}

bool RefreshSubscription(long id) {
  return Subscriptions::Instance().Post(id, [](Subscription& found) noexcept { found.Refresh(); });
}

void ForgetListener(const SubscriptionListener* listener) {
  Subscriptions::Instance().Forget(listener);
}

std::size_t SubscriptionCount() { return Subscriptions::Instance().Count(); }

}  // namespace sivra
