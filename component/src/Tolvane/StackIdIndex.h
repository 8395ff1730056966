// Finds the registration that a stack event names.
//
// Why there is an index beside the registry: a stack event carries the id of the SIP library, and
// every response of every registration is matched by it. MEASURED
#pragma once

#include <unordered_map>

#include "base/mutex.h"
#include "Vorelkit/Vorelkit.h"

// Stack ids to registration ids. A leaf; its mutex is held for one look-up or change only.
// Thread-safe.
class CStackIdIndex {
 public:
  CStackIdIndex() = default;
  CStackIdIndex(const CStackIdIndex&) = delete;
  CStackIdIndex& operator=(const CStackIdIndex&) = delete;

  // The registration has another stack id from now on. Below 1: none. Throws std::bad_alloc, with
  // the former one gone.
  void Change(int nRegId, long lOld, long lNew) TOLVANE_EXCLUDES(m_oMutex) {
    if (lOld == lNew) return;
    const VkLocker oLocker(m_oMutex);
    const auto [itBegin, itEnd] = m_mapStackId.equal_range(lOld);
    for (auto it = itBegin; it != itEnd; ++it) {
      if (it->second == nRegId) {
        m_mapStackId.erase(it);
        break;
      }
    }
    if (lNew > 0) m_mapStackId.emplace(lNew, nRegId);
  }

  // What a scan of the registry in ascending order of ids would find first, though the library
  // gives no stack id twice; 0 for none.
  [[nodiscard]] int Find(long lStackRegId) const TOLVANE_EXCLUDES(m_oMutex) {
    const VkLocker oLocker(m_oMutex);
    const auto [itBegin, itEnd] = m_mapStackId.equal_range(lStackRegId);
    int nFound = 0;
    for (auto it = itBegin; it != itEnd; ++it) {
      if (nFound == 0 || it->second < nFound) nFound = it->second;
    }
    return nFound;
  }

 private:
  mutable VkMutex m_oMutex;
  std::unordered_multimap<long, int> m_mapStackId TOLVANE_GUARDED_BY(m_oMutex);
};
