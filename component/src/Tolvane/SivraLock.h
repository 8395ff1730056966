// Holds the SIP library's lock for a scope.
#pragma once

#include "sivra/sivra.h"

class [[nodiscard]] CSivraLocker {
 public:
  CSivraLocker() { sivra_lock(); }
  ~CSivraLocker() { sivra_unlock(); }
  CSivraLocker(const CSivraLocker&) = delete;
  CSivraLocker& operator=(const CSivraLocker&) = delete;
};
