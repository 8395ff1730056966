// The C calls for events, timers and the extensions: argument checks and error codes around the
// mailboxes.
#include <memory>
#include <new>
#include <utility>

#include "clock.h"
#include "threads.h"

namespace {

using vorelkd::Event;
using vorelkd::Mailbox;

thread_local KDint t_error = 0;

KDint Result(KDint error) noexcept {
  if (error == 0) return 0;
  t_error = error;
  return -1;
}

}  // namespace

extern "C" {

KDint kdGetError() { return t_error; }
void kdSetError(KDint error) { t_error = error; }

KDThread* kdThreadSelf() { return vorelkd::SelfHandle(); }

KDint kdInstallCallback(KDCallbackFunc* func, KDint eventtype, void* eventuserptr) {
  Mailbox* self = vorelkd::Self();
  return self != nullptr ? Result(self->Install(func, eventtype, eventuserptr)) : -1;
}

KDEvent* kdCreateEvent() {
  auto* event = new (std::nothrow) Event();
  if (event == nullptr) t_error = KD_ENOMEM;
  return event;
}

void kdFreeEvent(KDEvent* event) { delete static_cast<Event*>(event); }

KDint kdPostThreadEvent(KDEvent* event, KDThread* thread) {
  std::unique_ptr<Event> owned(static_cast<Event*>(event));
  if (owned == nullptr || thread == nullptr) return Result(KD_EINVAL);
  const auto mailbox = vorelkd::Lookup(thread);
  return Result(mailbox != nullptr ? mailbox->Post(std::move(owned)) : KD_ESRCH);
}

KDint kdPostEvent(KDEvent* event) {
  std::unique_ptr<Event> owned(static_cast<Event*>(event));
  if (owned == nullptr) return Result(KD_EINVAL);
  Mailbox* self = vorelkd::Self();
  return self != nullptr ? Result(self->Post(std::move(owned))) : -1;
}

const KDEvent* kdWaitEvent(KDust timeout) {
  Mailbox* self = vorelkd::Self();
  if (self == nullptr) return nullptr;
  const KDEvent* event = self->Wait(timeout);
  if (event == nullptr) t_error = KD_EAGAIN;
  return event;
}

KDint kdPumpEvents() {
  Mailbox* self = vorelkd::Self();
  if (self == nullptr) return -1;
  self->Pump();
  return 0;
}

KDTimer* kdSetTimer(KDint64 interval, KDint periodic, void* eventuserptr) {
  const bool known = periodic == KD_TIMER_ONESHOT || periodic == KD_TIMER_PERIODIC_AVERAGE ||
                     periodic == KD_TIMER_PERIODIC_MINIMUM;
  if (interval <= 0 || !known) {
    t_error = KD_EINVAL;
    return nullptr;
  }
  Mailbox* self = vorelkd::Self();
  std::uint64_t id = 0;
  if (self == nullptr || Result(self->SetTimer(interval, periodic, eventuserptr, id)) != 0) {
    return nullptr;
  }
  return reinterpret_cast<KDTimer*>(id);  // NOLINT(performance-no-int-to-ptr): an opaque number
}

KDint kdCancelTimer(KDTimer* timer) {
  Mailbox* self = vorelkd::Self();
  if (self == nullptr) return -1;
  return Result(self->CancelTimer(reinterpret_cast<std::uintptr_t>(timer)));
}

KDint kdForgetUserPtr(KDThread* thread, void* userptr) {
  const auto mailbox = vorelkd::Lookup(thread);
  if (mailbox == nullptr) return 0;
  const KDint error = mailbox->Forget(userptr);
  return error == KD_EBUSY && vorelkd::IsSelf(*mailbox) ? 0 : Result(error);
}

KDint kdThreadEnded(KDThread* thread) { return vorelkd::Lookup(thread) == nullptr ? 1 : 0; }

}  // extern "C"
