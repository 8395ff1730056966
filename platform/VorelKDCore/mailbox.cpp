#include "mailbox.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "clock.h"

namespace vorelkd {
namespace {

using UserEvents = ListOps<Event, &Event::user_prev, &Event::user_next>;
using UserTimers = ListOps<Timer, &Timer::user_prev, &Timer::user_next>;

// While the clock is replaced nobody tells when it moves, so a wait looks at it this often.
constexpr KDust kReplacedClockLook = 5'000'000;

std::atomic<std::uint64_t> g_next_timer_id{1};

// An exception that leaves a callback has no frame to go to that expects it: it ends the process
// here, where the culprit is still on the stack.
void Call(KDCallbackFunc* func, const KDEvent& event) noexcept { func(&event); }

[[nodiscard]] auto PlaceOf(std::vector<Callback>& callbacks, KDint type) noexcept {
  return std::lower_bound(callbacks.begin(), callbacks.end(), type,
                          [](const Callback& callback, KDint t) { return callback.type < t; });
}

[[nodiscard]] KDCallbackFunc* FuncOf(const UserEntry& user, KDint type) noexcept {
  const auto place =
      std::lower_bound(user.callbacks.begin(), user.callbacks.end(), type,
                       [](const Callback& callback, KDint t) { return callback.type < t; });
  return place != user.callbacks.end() && place->type == type ? place->func : nullptr;
}

}  // namespace

// --- entries -------------------------------------------------------------------------------------

UserEntry* Mailbox::Find(void* userptr) noexcept {
  if (userptr == nullptr) return &anyone_;
  const auto found = users_.find(userptr);
  return found != users_.end() ? &found->second : nullptr;
}

UserEntry* Mailbox::FindOrAdd(void* userptr) {
  if (userptr == nullptr) return &anyone_;
  UserEntry& user = users_.try_emplace(userptr).first->second;
  user.userptr = userptr;
  return &user;
}

void Mailbox::DropIfUnused(UserEntry* user) noexcept {
  if (user == &anyone_ || user->running != 0) return;
  if (user->events != nullptr || user->timers != nullptr || !user->callbacks.empty()) return;
  users_.erase(user->userptr);
}

KDCallbackFunc* Mailbox::FindCallback(const UserEntry& user, KDint type) const noexcept {
  if (KDCallbackFunc* func = FuncOf(user, type)) return func;
  if (KDCallbackFunc* func = FuncOf(anyone_, type)) return func;
  return FuncOf(anyone_, 0);
}

void Mailbox::RemoveEvent(Event* event) noexcept {
  (event->prev != nullptr ? event->prev->next : first_) = event->next;
  (event->next != nullptr ? event->next->prev : last_) = event->prev;
  UserEvents::Remove(event->user->events, event);
  delete event;
}

void Mailbox::RemoveTimer(Timer* timer) noexcept {
  heap_.Remove(timer);
  UserTimers::Remove(timer->user->timers, timer);
  timers_.erase(timer->id);
}

// --- calls of the library ------------------------------------------------------------------------

KDint Mailbox::Post(std::unique_ptr<Event> event) noexcept {
  bool wake = false;
  try {
    const std::lock_guard lock(mutex_);
    if (ended_) return KD_ESRCH;
    event->user = FindOrAdd(event->userptr);
    event->timestamp = Now();
    event->number = next_number_++;
    event->prev = last_;
    event->next = nullptr;
    (last_ != nullptr ? last_->next : first_) = event.get();
    last_ = event.get();
    UserEvents::PushFront(event->user->events, event.get());
    static_cast<void>(event.release());
    wake = std::exchange(sleeping_, false);
  } catch (const std::bad_alloc&) {
    return KD_ENOMEM;
  }
  if (wake) wakeup_.Wake();
  return 0;
}

KDint Mailbox::Install(KDCallbackFunc* func, KDint type, void* userptr) noexcept {
  const std::lock_guard lock(mutex_);
  UserEntry* user = Find(userptr);
  try {
    if (func == nullptr) {
      if (user == nullptr) return 0;
      const auto place = PlaceOf(user->callbacks, type);
      if (place != user->callbacks.end() && place->type == type) user->callbacks.erase(place);
      DropIfUnused(user);
      return 0;
    }
    user = FindOrAdd(userptr);
    const auto place = PlaceOf(user->callbacks, type);
    if (place != user->callbacks.end() && place->type == type) {
      place->func = func;
    } else {
      user->callbacks.insert(place, Callback{type, func});
    }
    return 0;
  } catch (const std::bad_alloc&) {
    if (user != nullptr) DropIfUnused(user);
    return KD_ENOMEM;
  }
}

KDint Mailbox::SetTimer(KDust interval, KDint mode, void* userptr, std::uint64_t& id) noexcept {
  const std::lock_guard lock(mutex_);
  UserEntry* user = nullptr;
  try {
    heap_.Reserve();
    user = FindOrAdd(userptr);
    id = g_next_timer_id.fetch_add(1, std::memory_order_relaxed);
    Timer& timer = timers_.try_emplace(id).first->second;
    timer.id = id;
    timer.due = AddSpan(Now(), interval);
    timer.interval = interval;
    timer.mode = mode;
    timer.user = user;
    heap_.Push(&timer);
    UserTimers::PushFront(user->timers, &timer);
    return 0;
  } catch (const std::bad_alloc&) {
    if (user != nullptr) DropIfUnused(user);
    return KD_ENOMEM;
  }
}

KDint Mailbox::CancelTimer(std::uint64_t id) noexcept {
  const std::lock_guard lock(mutex_);
  const auto found = timers_.find(id);
  if (found == timers_.end()) return KD_EINVAL;
  UserEntry* user = found->second.user;
  RemoveTimer(&found->second);
  DropIfUnused(user);
  return 0;
}

KDint Mailbox::Forget(void* userptr) noexcept {
  const std::lock_guard lock(mutex_);
  UserEntry* user = Find(userptr);
  if (user == nullptr) return 0;
  for (Event* event = user->events; event != nullptr;) {
    RemoveEvent(std::exchange(event, event->user_next));
  }
  while (user->timers != nullptr) RemoveTimer(user->timers);
  std::vector<Callback>().swap(user->callbacks);
  const bool busy = user->running != 0;
  DropIfUnused(user);
  return busy ? KD_EBUSY : 0;
}

void Mailbox::Close() noexcept {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  for (Event* event = first_; event != nullptr;) RemoveEvent(std::exchange(event, event->next));
  heap_.Clear();
  timers_.clear();
  users_.clear();
  anyone_ = UserEntry{};
}

// --- delivery ------------------------------------------------------------------------------------

bool Mailbox::IsDue(const Timer* timer, KDust now) noexcept {
  return timer != nullptr && timer->due <= now && timer->due != kNever;
}

void Mailbox::TakeFiring(Timer* timer, KDust now, KDEvent& event) noexcept {
  event = KDEvent{timer->due, KD_EVENT_TIMER_FIRED, timer->user->userptr};
  switch (timer->mode) {
    case KD_TIMER_PERIODIC_AVERAGE: {
      // The next multiple of the interval after now, counted from the start: firings that a late
      // loop has missed are lost, and the phase stays. The difference fits an unsigned number
      // whatever the clock.
      const auto late = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(timer->due);
      const auto past = static_cast<KDust>(late % static_cast<std::uint64_t>(timer->interval));
      timer->due = AddSpan(now, timer->interval - past);
      heap_.Moved(timer);
      break;
    }
    case KD_TIMER_PERIODIC_MINIMUM:
      timer->due = AddSpan(now, timer->interval);
      heap_.Moved(timer);
      break;
    default:
      RemoveTimer(timer);
      break;
  }
}

// The older of the first event and the first timer due; null when neither is within the horizon. At
// the same moment the event goes first. The entry is marked as running.
UserEntry* Mailbox::Take(const Horizon& horizon, KDEvent& event) noexcept {
  Event* first = first_ != nullptr && first_->number < horizon.number ? first_ : nullptr;
  Timer* timer = IsDue(heap_.Top(), horizon.now) ? heap_.Top() : nullptr;
  UserEntry* user = nullptr;
  if (timer != nullptr && (first == nullptr || timer->due < first->timestamp)) {
    user = timer->user;
    // Never before the horizon, lest a clock that steps back keeps the timer due in this pump.
    TakeFiring(timer, std::max(Now(), horizon.now), event);
  } else if (first != nullptr) {
    user = first->user;
    event = *first;
    RemoveEvent(first);
  } else {
    return nullptr;
  }
  ++user->running;
  return user;
}

const KDEvent* Mailbox::Deliver(bool stop_at_unclaimed) noexcept {
  std::unique_lock lock(mutex_);
  const Horizon horizon{next_number_, Now()};
  KDEvent event{};
  while (UserEntry* user = Take(horizon, event)) {
    KDCallbackFunc* func = FindCallback(*user, event.type);
    if (func != nullptr) {
      lock.unlock();
      Call(func, event);
      lock.lock();
    }
    --user->running;
    DropIfUnused(user);
    if (func == nullptr && stop_at_unclaimed) {
      unclaimed_ = event;
      return &unclaimed_;
    }
  }
  return nullptr;
}

void Mailbox::Sleep(KDust deadline) noexcept {
  {
    const std::lock_guard lock(mutex_);
    const KDust now = Now();
    if (first_ != nullptr || IsDue(heap_.Top(), now)) return;
    if (ClockIsReplaced()) {
      deadline = std::min(deadline, AddSpan(SystemNow(), kReplacedClockLook));
    } else if (heap_.Top() != nullptr) {
      deadline = std::min(deadline, heap_.Top()->due);
    }
    wakeup_.Prepare();
    sleeping_ = true;
  }
  wakeup_.Sleep(deadline);
  const std::lock_guard lock(mutex_);
  sleeping_ = false;
}

const KDEvent* Mailbox::Wait(KDust timeout) noexcept {
  const KDust deadline = timeout < 0 ? kNever : AddSpan(SystemNow(), timeout);
  for (;;) {
    // One round is always made, and one that begins after the deadline is the last.
    const bool last = deadline != kNever && SystemNow() >= deadline;
    if (const KDEvent* event = Deliver(true)) return event;
    if (last) return nullptr;
    Sleep(deadline);
  }
}

}  // namespace vorelkd
