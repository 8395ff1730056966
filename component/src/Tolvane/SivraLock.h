// Holds the SIP library's lock for a scope.
#pragma once

#include "base/mutex.h"
#include "sivra/sivra.h"

class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY CSivraLocker {
 public:
  CSivraLocker() TOLVANE_ACQUIRE(sivra::library_lock) { sivra_lock(); }
  ~CSivraLocker() TOLVANE_RELEASE() { sivra_unlock(); }
  CSivraLocker(const CSivraLocker&) = delete;
  CSivraLocker& operator=(const CSivraLocker&) = delete;
};
