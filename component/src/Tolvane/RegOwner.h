// Ownership of a scope for objects of vktNew.
#pragma once

#include <utility>

#include "Vorelkit/Vorelkit.h"

// Frees its object at the end of the scope; the object may be null.
template <typename T>
class [[nodiscard]] COwner {
 public:
  explicit COwner(T* pObject) : m_pObject(pObject) {}
  ~COwner() { vktDelete(m_pObject); }
  COwner(const COwner&) = delete;
  COwner& operator=(const COwner&) = delete;
  T* operator->() const { return m_pObject; }
  T* Get() const { return m_pObject; }
  T* Release() { return std::exchange(m_pObject, nullptr); }

 private:
  T* m_pObject;
};
