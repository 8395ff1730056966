// The one lock of all logging in the process.
#pragma once

#include "base/mutex.h"

// Made at compile time and never destroyed, so there is no moment before load or after unload in
// which a statement that still logs could find it missing. Recursive, because opening and closing a
// log call its Resume and Pause with the lock held.
extern base::RecursiveMutex g_csLogOne;

// Holds g_csLogOne for a scope.
class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY CLogOneLocker {
 public:
  CLogOneLocker() noexcept TOLVANE_ACQUIRE(g_csLogOne) { g_csLogOne.Lock(); }
  ~CLogOneLocker() TOLVANE_RELEASE() { g_csLogOne.Unlock(); }
  CLogOneLocker(const CLogOneLocker&) = delete;
  CLogOneLocker& operator=(const CLogOneLocker&) = delete;
};
