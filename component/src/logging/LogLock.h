// The one lock of all logging in the process.
#pragma once

#include <mutex>

// Made at compile time and never destroyed, so there is no moment before load or after unload in
// which a statement that still logs could find it missing.
extern std::recursive_mutex g_csLogOne;

// Holds g_csLogOne for a scope.
class CLogOneLocker {
 public:
  CLogOneLocker() noexcept { g_csLogOne.lock(); }
  ~CLogOneLocker() { g_csLogOne.unlock(); }
  CLogOneLocker(const CLogOneLocker&) = delete;
  CLogOneLocker& operator=(const CLogOneLocker&) = delete;
};
