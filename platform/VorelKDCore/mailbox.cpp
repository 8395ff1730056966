#include "mailbox.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "clock.h"

namespace vorelkd {
namespace {

// While the clock is replaced nobody tells when it moves, so a wait looks at it this often.
constexpr KDust kReplacedClockLook = 5'000'000;

std::atomic<std::uint64_t> g_next_timer_id{1};

// An exception that leaves a callback has no frame to go to that expects it: it ends the process
// here, where the culprit is still on the stack.
void Call(KDCallbackFunc* func, const KDEvent& event) noexcept { func(&event); }

// Timers of a long interval are put off to the next quarter of a second, so that those of many
// objects are due together and cost one wake. Not on a replaced clock, whose moments are exact.
constexpr KDust kLongInterval = 20'000'000'000;
constexpr KDust kTogether = 250'000'000;

[[nodiscard]] KDust FirstDue(KDust now, KDust interval) noexcept {
  const KDust due = AddSpan(now, interval);
  if (interval < kLongInterval || due == kNever || ClockIsReplaced()) return due;
  return AddSpan(due, (kTogether - due % kTogether) % kTogether);
}

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
  if (!user->events.empty() || !user->timers.empty() || !user->callbacks.empty()) return;
  users_.erase(user->userptr);
}

KDCallbackFunc* Mailbox::FindCallback(const UserEntry& user, KDint type) const noexcept {
  if (KDCallbackFunc* func = FuncOf(user, type)) return func;
  if (KDCallbackFunc* func = FuncOf(anyone_, type)) return func;
  return FuncOf(anyone_, 0);
}

void Mailbox::RemoveTimer(Timer* timer) noexcept {
  heap_.Cancel(*timer);
  timers_.erase(timer->id);  // which takes it out of its entry's list
}

// --- calls of the library ------------------------------------------------------------------------

KDint Mailbox::Post(std::unique_ptr<Event> event) noexcept {
  bool wake = false;
  try {
    const base::MutexLock lock(mutex_);
    if (ended_) return KD_ESRCH;
    event->user = FindOrAdd(event->userptr);
    event->timestamp = Now();
    event->number = next_number_++;
    event->user->events.PushBack(*event);
    queue_.PushBack(*event.release());
    wake = std::exchange(sleeping_, false);
  } catch (const std::bad_alloc&) {
    return KD_ENOMEM;
  }
  if (wake) wakeup_.Wake();
  return 0;
}

KDint Mailbox::Install(KDCallbackFunc* func, KDint type, void* userptr) noexcept {
  const base::MutexLock lock(mutex_);
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
  const base::MutexLock lock(mutex_);
  UserEntry* user = nullptr;
  try {
    user = FindOrAdd(userptr);
    id = g_next_timer_id.fetch_add(1, std::memory_order_relaxed);
    Timer& timer = timers_.try_emplace(id).first->second;
    timer.id = id;
    timer.interval = interval;
    timer.mode = mode;
    timer.user = user;
    heap_.Set(timer, FirstDue(Now(), interval));
    user->timers.PushBack(timer);
    return 0;
  } catch (const std::bad_alloc&) {
    if (user != nullptr) DropIfUnused(user);
    return KD_ENOMEM;
  }
}

KDint Mailbox::CancelTimer(std::uint64_t id) noexcept {
  const base::MutexLock lock(mutex_);
  const auto found = timers_.find(id);
  if (found == timers_.end()) return KD_EINVAL;
  UserEntry* user = found->second.user;
  RemoveTimer(&found->second);
  DropIfUnused(user);
  return 0;
}

KDint Mailbox::Forget(void* userptr) noexcept {
  const base::MutexLock lock(mutex_);
  UserEntry* user = Find(userptr);
  if (user == nullptr) return 0;
  while (Event* event = user->events.PopFront()) delete event;
  while (Timer* timer = user->timers.Front()) RemoveTimer(timer);
  std::vector<Callback>().swap(user->callbacks);
  const bool busy = user->running != 0;
  DropIfUnused(user);
  return busy ? KD_EBUSY : 0;
}

void Mailbox::Close() noexcept {
  const base::MutexLock lock(mutex_);
  ended_ = true;
  while (Event* event = queue_.PopFront()) delete event;
  heap_.Abandon();
  timers_.clear();
  users_.clear();
  std::vector<Callback>().swap(anyone_.callbacks);
}

// --- delivery ------------------------------------------------------------------------------------

bool Mailbox::IsDue(const Timer* timer, KDust now) noexcept {
  return timer != nullptr && timer->due() <= now && timer->due() != kNever;
}

void Mailbox::TakeFiring(Timer* timer, KDust now, KDEvent& event) noexcept {
  event = KDEvent{timer->due(), KD_EVENT_TIMER_FIRED, timer->user->userptr};
  switch (timer->mode) {
    case KD_TIMER_PERIODIC_AVERAGE: {
      // The next multiple of the interval after now, counted from the start: firings that a late
      // loop has missed are lost, and the phase stays. The difference fits an unsigned number
      // whatever the clock.
      const auto late = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(timer->due());
      const auto past = static_cast<KDust>(late % static_cast<std::uint64_t>(timer->interval));
      heap_.Set(*timer, AddSpan(now, timer->interval - past));
      break;
    }
    case KD_TIMER_PERIODIC_MINIMUM:
      heap_.Set(*timer, AddSpan(now, timer->interval));
      break;
    default:
      RemoveTimer(timer);
      break;
  }
}

// The older of the first event and the first timer due; null when neither is within the horizon. At
// the same moment the event goes first. The entry is marked as running.
UserEntry* Mailbox::Take(const Horizon& horizon, KDEvent& event) noexcept {
  Event* first = queue_.Front();
  if (first != nullptr && first->number >= horizon.number) first = nullptr;
  Timer* timer = IsDue(heap_.Top(), horizon.now) ? heap_.Top() : nullptr;
  UserEntry* user = nullptr;
  if (timer != nullptr && (first == nullptr || timer->due() < first->timestamp)) {
    user = timer->user;
    // Never before the horizon, lest a clock that steps back keeps the timer due in this pump.
    TakeFiring(timer, std::max(Now(), horizon.now), event);
  } else if (first != nullptr) {
    user = first->user;
    event = *first;
    delete first;
  } else {
    return nullptr;
  }
  ++user->running;
  return user;
}

const KDEvent* Mailbox::Deliver(bool stop_at_unclaimed) noexcept {
  base::MutexLock lock(mutex_);
  const Horizon horizon{next_number_, Now()};
  KDEvent event{};
  while (UserEntry* user = Take(horizon, event)) {
    KDCallbackFunc* func = FindCallback(*user, event.type);
    if (func != nullptr) {
      lock.Unlock();
      Call(func, event);
      lock.Lock();
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
  if (pace_.ShouldRest()) {
    base::WakePace::Rest();
    const base::MutexLock lock(mutex_);
    pace_.Rested(!queue_.empty());
    return;
  }
  {
    const base::MutexLock lock(mutex_);
    const KDust now = Now();
    if (!queue_.empty() || IsDue(heap_.Top(), now)) return;
    if (ClockIsReplaced()) {
      deadline = std::min(deadline, AddSpan(SystemNow(), kReplacedClockLook));
    } else if (heap_.Top() != nullptr) {
      deadline = std::min(deadline, heap_.Top()->due());
    }
    wakeup_.Prepare();
    sleeping_ = true;
  }
  wakeup_.Sleep(deadline);
  pace_.Woken();
  const base::MutexLock lock(mutex_);
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
