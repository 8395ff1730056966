// VorelKDCore: threads' event queues, timers and text calls, with the meaning that the OpenKODE
// Core 1.0 standard gives them, plus the few extensions at the end of this file.
//
// Threads. Every thread has an event queue and a callback table of its own, made at its first call.
// All calls may be made from any thread; what a call touches is the calling thread's unless a
// KDThread is named. A KDThread handle is never reused: a handle of a thread that has ended stays a
// valid argument for ever and names nobody. A thread ends here with its thread-local objects; what
// is then queued is freed undelivered, and its timers end.
//
// Order. Events and firings are delivered in the order of the moments at which they were posted and
// became due; at the same moment the event goes first.
//
// Errors. Calls that fail give -1 or null and set the calling thread's error code (kdGetError).
#pragma once

#include <cstddef>
#include <cstdint>

#include "visibility.h"

using KDint = int;
using KDint32 = std::int32_t;
using KDint64 = std::int64_t;
using KDuint32 = std::uint32_t;
using KDsize = std::size_t;
using KDchar = char;
using KDust = std::int64_t;  // nanoseconds, signed

struct KDThread;  // opaque
struct KDTimer;   // opaque

// An event. type and userptr are set by whoever posts it; timestamp by the library when it is
// queued.
struct KDEvent {
  KDust timestamp;
  KDint32 type;
  void* userptr;
};

using KDCallbackFunc = void(const KDEvent* event);

inline constexpr KDint KD_EVENT_TIMER_FIRED = 42;
inline constexpr KDint KD_EVENT_USER = 0x40000000;  // first of the codes free for applications
inline constexpr KDint KD_TIMER_ONESHOT = 61;
inline constexpr KDint KD_TIMER_PERIODIC_AVERAGE = 62;
inline constexpr KDint KD_TIMER_PERIODIC_MINIMUM = 63;

inline constexpr KDint KD_EACCES = 1;
inline constexpr KDint KD_EAGAIN = 5;
inline constexpr KDint KD_EBUSY = 8;
inline constexpr KDint KD_EINVAL = 17;
inline constexpr KDint KD_ENOMEM = 25;
inline constexpr KDint KD_ERANGE = 33;
inline constexpr KDint KD_ESRCH = 36;  // no such thread: it has ended

extern "C" {

TOLVANE_PUBLIC KDint kdGetError();
TOLVANE_PUBLIC void kdSetError(KDint error);

// Handle of the calling thread; null only when memory is exhausted.
TOLVANE_PUBLIC KDThread* kdThreadSelf();

// --- events ------------------------------------------------------------------------------------
// Installs func for events of this type and user pointer on the calling thread; a null func removes
// it. An event is matched by (type, userptr), then (type, null), then (0, null). 0, or -1.
TOLVANE_PUBLIC KDint kdInstallCallback(KDCallbackFunc* func, KDint eventtype, void* eventuserptr);

// A new event owned by the caller, all zero; null when memory is exhausted.
TOLVANE_PUBLIC KDEvent* kdCreateEvent();
// Frees an event that was not posted.
TOLVANE_PUBLIC void kdFreeEvent(KDEvent* event);
// Queues the event at the thread's end of queue. On 0 the library owns it. On -1 (KD_ESRCH: the
// thread has ended; KD_EINVAL) the event has been freed as well, so the caller never has it again.
// Events of one poster keep their order.
TOLVANE_PUBLIC KDint kdPostThreadEvent(KDEvent* event, KDThread* thread);
TOLVANE_PUBLIC KDint kdPostEvent(KDEvent* event);  // to the calling thread

// Waits at most timeout ns (0: not at all; negative: without limit) and delivers what comes to its
// callbacks meanwhile. Returns the first event that has no callback (valid until the thread's next
// kdWaitEvent or kdPumpEvents), or null when the time is over (KD_EAGAIN); what is queued and due
// then has been delivered. A post from another thread and a timer that becomes due end the waiting
// at once. timeout is real time, also while the clock is replaced; a replaced clock is looked at
// every 5 ms.
TOLVANE_PUBLIC const KDEvent* kdWaitEvent(KDust timeout);
// Delivers what is queued and due now, without waiting; events without a callback are dropped. What
// callbacks post or set meanwhile stays for the next call, so this one always ends. 0.
// An exception must not leave a callback.
TOLVANE_PUBLIC KDint kdPumpEvents();

// --- timers ------------------------------------------------------------------------------------
// Starts a timer of the calling thread. interval in ns, above 0 (else null, KD_EINVAL). periodic is
// one of the KD_TIMER_ modes. Each firing is an event KD_EVENT_TIMER_FIRED with eventuserptr in
// that thread's queue. A timer never has more than one firing queued. PERIODIC_AVERAGE keeps the
// phase of its start: a late loop loses firings but the average period does not drift.
// PERIODIC_MINIMUM lets at least the interval pass between two deliveries. ONESHOT ends by itself
// with its delivery; the handle is then no timer any more. A firing that is due beyond the end of
// the clock never comes. An interval of 20 s and more begins up to a quarter of a second later, so
// that the timers of many objects are due together and wake their thread once.
TOLVANE_PUBLIC KDTimer* kdSetTimer(KDint64 interval, KDint periodic, void* eventuserptr);
// Ends a timer of the calling thread. After 0 no firing of it is delivered, also none that was
// queued. -1 with KD_EINVAL: no such timer, or a timer of another thread.
TOLVANE_PUBLIC KDint kdCancelTimer(KDTimer* timer);

// --- text --------------------------------------------------------------------------------------
// Saturates at 32 bits (KD_ERANGE).
TOLVANE_PUBLIC KDint kdStrtol(const KDchar* nptr, KDchar** endptr, KDint base);
TOLVANE_PUBLIC KDint kdStrcmp(const KDchar* s1, const KDchar* s2);
// Copies with the terminator into a buffer of buflen bytes; -1 (KD_ERANGE) and an empty text if it
// does not fit.
TOLVANE_PUBLIC KDint kdStrcpy_s(KDchar* buf, KDsize buflen, const KDchar* src);
TOLVANE_PUBLIC KDsize kdStrlen(const KDchar* s);
TOLVANE_PUBLIC KDint kdSprintfKHR(KDchar* buf, const KDchar* format, ...)
    __attribute__((format(printf, 2, 3)));
TOLVANE_PUBLIC void* kdMemset(void* buf, KDint byte, KDsize len);
TOLVANE_PUBLIC void* kdMemcpy(void* buf, const void* src, KDsize len);

// --- extensions --------------------------------------------------------------------------------
// Takes back everything on `thread` that names userptr: its queued events, its callbacks and its
// timers. From any thread; never waits; the cost does not grow with what else is queued there.
// 0: nothing there names userptr any more (also when the thread has ended).
// -1, KD_EBUSY: a callback with this userptr is running on that thread at this moment, and that is
// not the calling thread; everything else has been taken back, the caller tries again later. (A
// callback that asks for itself knows that it runs; the library does not touch userptr behind it.)
// "With this userptr" means: with an event that carries it, whatever the callback was installed
// for. An event that kdWaitEvent has handed out is no longer queued.
TOLVANE_PUBLIC KDint kdForgetUserPtr(KDThread* thread, void* userptr);
// 1 when the thread has ended (or the handle names nobody), else 0.
TOLVANE_PUBLIC KDint kdThreadEnded(KDThread* thread);

}  // extern "C"

namespace vorelkd {

// The clock of all timers: monotonic, counts the time that the machine was suspended. Nanoseconds.
class TOLVANE_PUBLIC Clock {
 public:
  virtual ~Clock() = default;
  [[nodiscard]] virtual KDust Now() const noexcept = 0;
};

// For tests: replaces the clock (null: back to the system's). The caller keeps ownership; timers
// must not be running across the change. A test advances its clock and calls kdPumpEvents.
TOLVANE_PUBLIC void SetClock(const Clock* clock);
[[nodiscard]] TOLVANE_PUBLIC KDust Now() noexcept;

}  // namespace vorelkd
