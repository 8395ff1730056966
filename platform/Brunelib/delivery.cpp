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
    Subscription added{0, std::make_shared<const std::string>(source), id, callback, library};
    const base::MutexLock lock(mutex_);
    const bool known = std::any_of(
        subscriptions_.begin(), subscriptions_.end(), [&added](const Subscription& other) {
          return other.id == added.id && other.callback == added.callback &&
                 *other.source == *added.source;
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
  const base::MutexLock lock(mutex_);
  std::erase_if(subscriptions_, [&](const Subscription& other) {
    return other.id == id && other.callback == callback && *other.source == source;
  });
  calls_.AwaitEnd(mutex_, [&](const Call& call) {
    return call.callback == callback && call.notification->id == id &&
           *call.notification->source == source;
  });
  return XS_OK;
}

void Delivery::UnsubscribeLibrary(const void* library) {
  const base::MutexLock lock(mutex_);
  std::erase_if(subscriptions_,
                [library](const Subscription& other) { return other.library == library; });
  calls_.AwaitEnd(mutex_, [library](const Call& call) { return call.library == library; });
}

const Delivery::Subscription* Delivery::FindWanted(const char* source, int id) const {
  const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                  [&](const Subscription& candidate) {
                                    return candidate.id == id && *candidate.source == source;
                                  });
  return found == subscriptions_.end() ? nullptr : &*found;
}

void Delivery::Free(Queue& queue) noexcept {
  while (Notification* const notification = queue.PopFront()) delete notification;
}

int Delivery::Express(const char* source, int id, CXML* document, void* extra) {
  if (!IsIdentity(source)) return XS_E_INVALID;
  try {
    // It shares the document, so the copy is made before the lock.
    std::optional<CXML> copy;
    if (document != nullptr) copy.emplace(*document);
    std::unique_ptr<Notification> added;
    base::MutexLock lock(mutex_);
    if (FindWanted(source, id) == nullptr) return XS_OK;
    StartThread();
    added.reset(spare_.PopFront());
    if (added != nullptr) {
      --spares_;
    } else {
      lock.Unlock();
      added = std::make_unique<Notification>();
      lock.Lock();
    }
    const Subscription* const wanted = FindWanted(source, id);
    if (wanted == nullptr) return XS_OK;
    added->source = wanted->source;
    added->id = id;
    added->document = std::move(copy);
    added->extra = extra;
    added->number = last_queued_ = ++last_number_;
    queue_.PushBack(*added.release());
    if (waiting_) work_.NotifyOne();
    waiting_ = false;
    return XS_OK;
  } catch (const std::bad_alloc&) {
    return XS_E_NO_MEMORY;
  } catch (const std::system_error&) {  // no thread
    return XS_E_NO_MEMORY;
  }
}

bool Delivery::OnDeliveryThread() {
  const base::MutexLock lock(mutex_);
  return thread_.get_id() == std::this_thread::get_id();
}

bool Delivery::Drain(Clock::time_point deadline) {
  const base::MutexLock lock(mutex_);
  return DrainLocked(deadline);
}

bool Delivery::DrainLocked(Clock::time_point deadline) {
  // The notification that is being delivered cannot wait for itself.
  if (thread_.get_id() == std::this_thread::get_id()) return false;
  const std::uint64_t last = last_queued_;
  while (last_delivered_ < last && done_.WaitUntil(mutex_, deadline)) {
  }
  return last_delivered_ >= last;
}

void Delivery::Stop(Clock::time_point deadline) {
  Queue dropped;
  {
    const base::MutexLock lock(mutex_);
    DrainLocked(deadline);
    dropped.Splice(queue_);
    dropped.Splice(spare_);
    spares_ = 0;
    last_delivered_ = last_queued_;
    stop_ = running_;
    work_.NotifyOne();
    while (running_ && done_.WaitUntil(mutex_, deadline)) {
    }
    if (!running_ && thread_.joinable()) thread_.join();
  }
  Free(dropped);
}

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

// Until something is queued, or the thread is to end.
void Delivery::Await() {
  while (!stop_ && queue_.empty()) {
    if (pace_.ShouldRest()) {
      mutex_.Unlock();
      base::WakePace::Rest();
      mutex_.Lock();
      pace_.Rested(!queue_.empty());
      continue;
    }
    waiting_ = true;
    while (!stop_ && queue_.empty()) work_.Wait(mutex_);
    pace_.Woken();
  }
  waiting_ = false;
}

void Delivery::Run() {
  pthread_setname_np(pthread_self(), "bus");
  base::MutexLock lock(mutex_);
  for (;;) {
    Await();
    if (stop_) break;
    std::unique_ptr<Notification> current(queue_.PopFront());
    Deliver(*current);
    last_delivered_ = std::max(last_delivered_, current->number);
    if (queue_.empty()) done_.NotifyAll();
    if (current->document) {
      lock.Unlock();
      current->document.reset();
      lock.Lock();
    }
    if (spares_ < kKept) {
      ++spares_;
      spare_.PushBack(*current.release());
    }
  }
  running_ = false;
  done_.NotifyAll();
}

void Delivery::Deliver(Notification& notification) {
  // Looked up anew after every call, since callbacks subscribe and unsubscribe.
  std::uint64_t last = 0;
  for (;;) {
    const auto next = std::find_if(
        subscriptions_.begin(), subscriptions_.end(), [&](const Subscription& candidate) {
          return candidate.number > last && candidate.number < notification.number &&
                 candidate.id == notification.id && *candidate.source == *notification.source;
        });
    if (next == subscriptions_.end()) return;
    last = next->number;
    calls_.Enter(mutex_, {&notification, next->callback, next->library});
    XSNotifyCallback* const callback = next->callback;
    mutex_.Unlock();
    Notify(callback, *notification.source, notification.id, notification.document,
           notification.extra);
    mutex_.Lock();
    calls_.Leave(mutex_);
  }
}

}  // namespace brunelib
