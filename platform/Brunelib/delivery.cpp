#include "delivery.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <new>
#include <system_error>

#include "plugin.h"

namespace brunelib {
namespace {

constexpr std::size_t kMaxIdentity = sizeof(XSComponentInfo::szIdentity) - 1;

bool IsIdentity(const char* text) {
  return text != nullptr && strnlen(text, kMaxIdentity + 1) <= kMaxIdentity;
}

void Notify(XSNotifyCallback* callback, const std::string& source, int id,
            std::optional<CXML>& document, void* extra) {
  try {
    // A copy for each: what one subscriber does to its document is nothing to the next.
    std::optional<CXML> copy(document);
    if (copy) copy->ResetPos();
    callback(source.c_str(), id, copy ? &*copy : nullptr, extra);
  } catch (const std::bad_alloc&) {
    // A subscriber that runs out of memory misses this call, and the bus goes on.
  }
}

}  // namespace

Clock::time_point DeadlineAfter(std::chrono::milliseconds wait) {
  constexpr std::chrono::hours kLongest{24 * 365};
  return Clock::now() + std::min<std::chrono::milliseconds>(wait, kLongest);
}

int Delivery::Subscribe(const char* source, int id, XSNotifyCallback* callback) {
  if (!IsIdentity(source) || callback == nullptr) return XS_E_INVALID;
  // Before the lock: the loader has a lock of its own, which it holds while it initialises a
  // library.
  const void* library = LibraryOf(reinterpret_cast<const void*>(callback));
  try {
    Subscription added{0, source, id, callback, library};
    const std::lock_guard lock(mutex_);
    const bool known = std::any_of(
        subscriptions_.begin(), subscriptions_.end(), [&added](const Subscription& other) {
          return other.id == added.id && other.callback == added.callback &&
                 other.source == added.source;
        });
    if (known) return XS_OK;
    added.number = ++last_number_;
    subscriptions_.push_back(std::move(added));
    return XS_OK;
  } catch (const std::bad_alloc&) {
    return XS_E_NO_MEMORY;
  }
}

int Delivery::Unsubscribe(const char* source, int id, XSNotifyCallback* callback) {
  if (!IsIdentity(source) || callback == nullptr) return XS_E_INVALID;
  std::unique_lock lock(mutex_);
  std::erase_if(subscriptions_, [&](const Subscription& other) {
    return other.id == id && other.callback == callback && other.source == source;
  });
  if (call_.callback == callback && call_.notification->id == id &&
      call_.notification->source == source) {
    AwaitEndOfCall(lock);
  }
  return XS_OK;
}

void Delivery::UnsubscribeLibrary(const void* library) {
  std::unique_lock lock(mutex_);
  std::erase_if(subscriptions_,
                [library](const Subscription& other) { return other.library == library; });
  if (call_.library == library) AwaitEndOfCall(lock);
}

// Only the call from which the caller itself comes may go on.
void Delivery::AwaitEndOfCall(std::unique_lock<std::mutex>& lock) {
  if (thread_.get_id() == std::this_thread::get_id()) return;
  done_.wait(lock, [this, number = call_.number] { return call_.number != number; });
}

bool Delivery::IsWanted(const char* source, int id) const {
  return std::any_of(subscriptions_.begin(), subscriptions_.end(),
                     [&](const Subscription& candidate) {
                       return candidate.id == id && candidate.source == source;
                     });
}

int Delivery::Express(const char* source, int id, CXML* document, void* extra) {
  if (!IsIdentity(source)) return XS_E_INVALID;
  {
    const std::lock_guard lock(mutex_);
    if (!IsWanted(source, id)) return XS_OK;
  }
  try {
    std::list<Notification> added(1);
    Notification& notification = added.front();
    notification.source = source;
    notification.id = id;
    if (document != nullptr) notification.document.emplace(*document);
    notification.extra = extra;

    const std::lock_guard lock(mutex_);
    StartThread();
    notification.number = last_queued_ = ++last_number_;
    queue_.splice(queue_.end(), added);
    work_.notify_one();
    return XS_OK;
  } catch (const std::bad_alloc&) {
    return XS_E_NO_MEMORY;
  } catch (const std::system_error&) {  // no thread
    return XS_E_NO_MEMORY;
  }
}

bool Delivery::OnDeliveryThread() {
  const std::lock_guard lock(mutex_);
  return thread_.get_id() == std::this_thread::get_id();
}

bool Delivery::Drain(Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return DrainLocked(lock, deadline);
}

bool Delivery::DrainLocked(std::unique_lock<std::mutex>& lock, Clock::time_point deadline) {
  // The notification that is being delivered cannot wait for itself.
  if (thread_.get_id() == std::this_thread::get_id()) return false;
  return done_.wait_until(lock, deadline,
                          [&, last = last_queued_] { return last_delivered_ >= last; });
}

void Delivery::Stop(Clock::time_point deadline) {
  std::list<Notification> dropped;  // its documents end after the lock is released
  std::unique_lock lock(mutex_);
  DrainLocked(lock, deadline);
  dropped.swap(queue_);
  last_delivered_ = last_queued_;
  if (!running_) return;
  stop_ = true;
  work_.notify_one();
  if (done_.wait_until(lock, deadline, [this] { return !running_; }) && thread_.joinable()) {
    thread_.join();
  }
}

// With the lock held.
void Delivery::StartThread() {
  stop_ = false;  // also for a thread that was told to end and has not yet
  if (running_) return;
  if (thread_.joinable()) thread_.join();  // it has given up the lock for good
  // Signals of the process are for the threads of the program.
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  try {
    thread_ = std::thread(&Delivery::Run, this);
    running_ = true;
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void Delivery::Run() {
  pthread_setname_np(pthread_self(), "bus");
  std::unique_lock lock(mutex_);
  for (;;) {
    work_.wait(lock, [this] { return stop_ || !queue_.empty(); });
    if (stop_) break;
    std::list<Notification> current;
    current.splice(current.end(), queue_, queue_.begin());
    Deliver(current.front(), lock);
    last_delivered_ = std::max(last_delivered_, current.front().number);
    done_.notify_all();
    lock.unlock();
    current.clear();
    lock.lock();
  }
  running_ = false;
  done_.notify_all();
}

void Delivery::Deliver(Notification& notification, std::unique_lock<std::mutex>& lock) {
  // Looked up anew after every call, since callbacks subscribe and unsubscribe.
  std::uint64_t last = 0;
  for (;;) {
    const auto next = std::find_if(
        subscriptions_.begin(), subscriptions_.end(), [&](const Subscription& candidate) {
          return candidate.number > last && candidate.number < notification.number &&
                 candidate.id == notification.id && candidate.source == notification.source;
        });
    if (next == subscriptions_.end()) return;
    last = next->number;
    call_ = {++last_number_, &notification, next->callback, next->library};
    XSNotifyCallback* const callback = next->callback;
    lock.unlock();
    Notify(callback, notification.source, notification.id, notification.document,
           notification.extra);
    lock.lock();
    call_ = {};
    done_.notify_all();
  }
}

}  // namespace brunelib
